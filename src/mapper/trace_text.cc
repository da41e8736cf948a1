#include "mapper/trace_text.h"

#include "tpa/api/constants.h"

namespace tpa::mapper {
namespace {

struct VerdictText {
  Verdict verdict;
  const char* summary;
  const char* explanation;
};

constexpr VerdictText kVerdicts[] = {
    {Verdict::kNeither, "no list matched", "neither list matched"},
    {Verdict::kOnlyInclude, "only include matched", "only include matched: include"},
    {Verdict::kOnlyExclude, "only exclude matched", "only exclude matched: exclude"},
    {Verdict::kIncludeEqual, "both matched equally, ties go to include",
     "both matched equally: ties go to include"},
    {Verdict::kIncludeLonger, "both matched, include longer",
     "both matched; include is longer in stored key or match: include"},
    {Verdict::kExcludeLonger, "both matched, exclude longer",
     "both matched; exclude is no shorter in either and longer in one: exclude"},
};

struct MatchText {
  MatchKind kind;
  const char* name;
  const char* text;
};

constexpr MatchText kMatches[] = {
    {MatchKind::kNone, "none", "none"},
    {MatchKind::kWholeKey, "whole_key", "whole key"},
    {MatchKind::kNetworkPrefix, "network_prefix", "network prefix"},
    {MatchKind::kPartialKey, "wildcard", "wildcard"},
};

const VerdictText& textOf(Verdict v) {
  for (const VerdictText& t : kVerdicts) {
    if (t.verdict == v) return t;
  }
  return kVerdicts[0];
}

const MatchText& textOf(MatchKind kind) {
  for (const MatchText& t : kMatches) {
    if (t.kind == kind) return t;
  }
  return kMatches[0];
}

}  // namespace

const char* decisionName(int decision) {
  return decision == TPA_DECISION_INCLUDE ? "include" : "exclude";
}

int decidingList(Verdict v) {
  const bool include = v == Verdict::kOnlyInclude || v == Verdict::kIncludeEqual ||
                       v == Verdict::kIncludeLonger;
  return include ? TPA_DECISION_INCLUDE : TPA_DECISION_EXCLUDE;
}

const char* matchName(MatchKind kind) { return textOf(kind).name; }
const char* matchText(MatchKind kind) { return textOf(kind).text; }
const char* verdictSummary(Verdict v) { return textOf(v).summary; }
const char* verdictExplanation(Verdict v) { return textOf(v).explanation; }

}  // namespace tpa::mapper
