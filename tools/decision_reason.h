// One-line summaries of how a traced query was decided, shared by diff and
// by explain's JSON output: which rule number, which list, which search. They
// read the QueryTrace that the query itself filled in and never search again.
// Plain functions over values; any thread.
#ifndef TPA_TOOLS_DECISION_REASON_H_
#define TPA_TOOLS_DECISION_REASON_H_

#include <string>
#include <vector>

#include "mapper/trace.h"
#include "parser/rule.h"

namespace tpa::tools {

// The list and step that decided a traced query; `decided` false when no
// list matched (the default decision) or the application search failed.
struct DecidingStep {
  bool decided = false;
  bool fallback = false;                    // the application's own rule number matched nothing
  int rule = 0;                             // rule number of the deciding step
  bool include = false;                     // the include list decided
  const mapper::ListTrace* list = nullptr;  // the deciding list, when decided
};
[[nodiscard]] DecidingStep decidingStep(const mapper::QueryTrace& trace);

// The framed stored key that decided through `list`: the whole key, the
// prefix key, or the wildcard a partial match reached; empty when the trace
// does not tell it.
[[nodiscard]] std::string decidingKey(const mapper::ListTrace& list);

// E.g. `rule number 3: include list, whole key "#cdn.shop.test$31" (only
// include matched)`, or `rule number 3, then rule number 0: no list matched,
// the default`.
[[nodiscard]] std::string decisionReason(const mapper::QueryTrace& trace);

// The 1-based positions of the rules that can have decided: those whose id
// is the decision's value and whose rule number is the deciding step's.
[[nodiscard]] std::vector<int> decidingPositions(const std::vector<parser::Rule>& rules,
                                                 const mapper::QueryTrace& trace);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_DECISION_REASON_H_
