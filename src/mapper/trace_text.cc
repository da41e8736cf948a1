#include "mapper/trace_text.h"

#include <iterator>

#include "tpa/api/constants.h"

namespace tpa::mapper {
namespace {

// Each verdict's words, in the order Verdict lists them.
struct VerdictText {
  const char* summary;
  const char* explanation;
};
constexpr VerdictText kVerdicts[] = {
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
constexpr const char* kMatchNames[][2] = {
    {"none", "none"},
    {"whole_key", "whole key"},
    {"network_prefix", "network prefix"},
    {"wildcard", "wildcard"},
};
static_assert(std::size(kMatchNames) == static_cast<std::size_t>(MatchKind::kPartialKey) + 1);

const VerdictText& textOf(Verdict v) { return kVerdicts[static_cast<std::size_t>(v)]; }

}  // namespace

const char* decisionName(int decision) {
  return decision == TPA_DECISION_INCLUDE ? "include" : "exclude";
}

int decidingList(Verdict v) {
  const bool include =
      v == Verdict::kOnlyInclude || v == Verdict::kIncludeEqual || v == Verdict::kIncludeLonger;
  return include ? TPA_DECISION_INCLUDE : TPA_DECISION_EXCLUDE;
}

const char* matchName(MatchKind kind) { return kMatchNames[static_cast<std::size_t>(kind)][0]; }
const char* matchText(MatchKind kind) { return kMatchNames[static_cast<std::size_t>(kind)][1]; }
const char* verdictSummary(Verdict v) { return textOf(v).summary; }
const char* verdictExplanation(Verdict v) { return textOf(v).explanation; }

}  // namespace tpa::mapper
