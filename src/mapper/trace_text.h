// The words a traced decision is told in, next to the trace they name:
// decisions, match kinds and verdicts, each spelled once for every tool that
// shows a QueryTrace. Constant texts; any thread.
#ifndef TPA_MAPPER_TRACE_TEXT_H_
#define TPA_MAPPER_TRACE_TEXT_H_

#include <cstddef>
#include <iterator>

#include "mapper/trace.h"
#include "tpa/api/constants.h"

namespace tpa::mapper {

namespace trace_text {

// Each verdict's words, in the order Verdict lists them.
struct VerdictText {
  const char* summary;
  const char* explanation;
};
inline constexpr VerdictText kVerdicts[] = {
    {"no list matched", "neither list matched"},
    {"only include matched", "only include matched: include"},
    {"only exclude matched", "only exclude matched: exclude"},
    {"both matched equally, ties go to include", "both matched equally: ties go to include"},
    {"both matched, include longer",
     "both matched; include is longer in stored key or match: include"},
    {"both matched, exclude longer",
     "both matched; exclude is no shorter in either and longer in one: exclude"},
};
static_assert(std::size(kVerdicts) == static_cast<std::size_t>(Verdict::kExcludeLonger) + 1);

// Each match kind's stable name and prose, in the order MatchKind lists them.
struct MatchText {
  const char* name;
  const char* prose;
};
inline constexpr MatchText kMatches[] = {
    {"none", "none"},
    {"whole_key", "whole key"},
    {"network_prefix", "network prefix"},
    {"wildcard", "wildcard"},
};
static_assert(std::size(kMatches) == static_cast<std::size_t>(MatchKind::kPartialKey) + 1);

}  // namespace trace_text

// "include" for TPA_DECISION_INCLUDE, else "exclude".
[[nodiscard]] inline const char* decisionName(int decision) {
  return decision == TPA_DECISION_INCLUDE ? "include" : "exclude";
}

// The list that decides under `v`: TPA_DECISION_INCLUDE or
// TPA_DECISION_EXCLUDE (kNeither: exclude, though no list decides).
[[nodiscard]] inline int decidingList(Verdict v) {
  const bool include =
      v == Verdict::kOnlyInclude || v == Verdict::kIncludeEqual || v == Verdict::kIncludeLonger;
  return include ? TPA_DECISION_INCLUDE : TPA_DECISION_EXCLUDE;
}

// "whole_key", "network_prefix", "wildcard" or "none": the stable name.
[[nodiscard]] inline const char* matchName(MatchKind kind) {
  return trace_text::kMatches[static_cast<std::size_t>(kind)].name;
}

// "whole key", "network prefix", "wildcard" or "none": the name in prose.
[[nodiscard]] inline const char* matchText(MatchKind kind) {
  return trace_text::kMatches[static_cast<std::size_t>(kind)].prose;
}

// The verdict in a few words ("only include matched"), and in a sentence
// that ends in the decision ("only include matched: include").
[[nodiscard]] inline const char* verdictSummary(Verdict v) {
  return trace_text::kVerdicts[static_cast<std::size_t>(v)].summary;
}
[[nodiscard]] inline const char* verdictExplanation(Verdict v) {
  return trace_text::kVerdicts[static_cast<std::size_t>(v)].explanation;
}

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_TRACE_TEXT_H_
