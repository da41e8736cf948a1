// The words a traced decision is told in, next to the trace they name:
// decisions, match kinds and verdicts, each spelled once for every tool that
// shows a QueryTrace. Constant texts; any thread.
#ifndef TPA_MAPPER_TRACE_TEXT_H_
#define TPA_MAPPER_TRACE_TEXT_H_

#include "mapper/trace.h"

namespace tpa::mapper {

// "include" for TPA_DECISION_INCLUDE, else "exclude".
[[nodiscard]] const char* decisionName(int decision);

// The list that decides under `v`: TPA_DECISION_INCLUDE or
// TPA_DECISION_EXCLUDE (kNeither: exclude, though no list decides).
[[nodiscard]] int decidingList(Verdict v);

// "whole_key", "network_prefix", "wildcard" or "none": the stable name.
[[nodiscard]] const char* matchName(MatchKind kind);

// "whole key", "network prefix", "wildcard" or "none": the name in prose.
[[nodiscard]] const char* matchText(MatchKind kind);

// The verdict in a few words ("only include matched"), and in a sentence
// that ends in the decision ("only include matched: include").
[[nodiscard]] const char* verdictSummary(Verdict v);
[[nodiscard]] const char* verdictExplanation(Verdict v);

}  // namespace tpa::mapper

#endif  // TPA_MAPPER_TRACE_TEXT_H_
