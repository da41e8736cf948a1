#include "tools/decision_reason.h"

#include "tools/built_document.h"
#include "tools/doc_scan.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

using mapper::ListTrace;
using mapper::MatchKind;
using mapper::Verdict;

const char* verdictText(Verdict v) {
  switch (v) {
    case Verdict::kNeither:
      return "no list matched";
    case Verdict::kOnlyInclude:
      return "only include matched";
    case Verdict::kOnlyExclude:
      return "only exclude matched";
    case Verdict::kIncludeEqual:
      return "both matched equally, ties go to include";
    case Verdict::kIncludeLonger:
      return "both matched, include longer";
    case Verdict::kExcludeLonger:
      return "both matched, exclude longer";
  }
  return "";
}

// What the deciding search matched, as far as the trace tells.
std::string matchedEntry(const ListTrace& l) {
  switch (l.match) {
    case MatchKind::kWholeKey:
      return "whole key " + quoted(l.key);
    case MatchKind::kNetworkPrefix:
      return "network prefix of " + std::to_string(l.bitsSearch.matched) + " bits " +
             quoted(l.prefixKey);
    case MatchKind::kPartialKey: {
      const int p = l.partial.matched;
      if (p <= 0 || p > static_cast<int>(l.key.size())) return "wildcard";
      // The matched end of the key is the wildcard's text after its '*'.
      const std::string tail = l.key.substr(l.key.size() - static_cast<std::size_t>(p));
      if (l.partial.storedLength != p + 2) return "wildcard ending in " + quoted(tail);
      return "wildcard " + quoted("#*" + tail);
    }
    case MatchKind::kNone:
      break;
  }
  return "no match";
}

}  // namespace

DecidingStep decidingStep(const mapper::QueryTrace& trace) {
  DecidingStep d;
  if (trace.steps.empty()) return d;
  const mapper::StepTrace& last = trace.steps.back();
  d.rule = last.rule;
  d.fallback = trace.steps.size() > 1;
  if (last.verdict == Verdict::kNeither) return d;
  d.decided = true;
  d.include = last.verdict == Verdict::kOnlyInclude || last.verdict == Verdict::kIncludeEqual ||
              last.verdict == Verdict::kIncludeLonger;
  d.list = d.include ? &last.include : &last.exclude;
  return d;
}

const char* matchName(MatchKind kind) {
  switch (kind) {
    case MatchKind::kWholeKey:
      return "whole_key";
    case MatchKind::kNetworkPrefix:
      return "network_prefix";
    case MatchKind::kPartialKey:
      return "wildcard";
    case MatchKind::kNone:
      break;
  }
  return "none";
}

std::string decisionReason(const mapper::QueryTrace& trace) {
  if (!trace.app.attempted || trace.app.code != 0 || trace.steps.empty()) {
    return "the application could not be searched: the default";
  }
  std::string where = "rule number " + std::to_string(trace.steps.front().rule);
  if (trace.appFellToZero) where = "unknown application, " + where;
  if (trace.steps.size() > 1) where += ", then rule number 0";
  const DecidingStep d = decidingStep(trace);
  if (!d.decided) return where + ": no list matched, the default";
  return where + ": " + (d.include ? "include" : "exclude") + " list, " + matchedEntry(*d.list) +
         " (" + verdictText(trace.steps.back().verdict) + ")";
}

std::vector<int> decidingPositions(const std::vector<parser::Rule>& rules,
                                   const mapper::QueryTrace& trace) {
  std::vector<int> positions;
  const DecidingStep d = decidingStep(trace);
  if (!d.decided) return positions;
  for (int position : positionsOfId(rules, trace.value)) {
    if (parser::ruleNumber(rules[position - 1].apps, position) == d.rule) positions.push_back(position);
  }
  return positions;
}

}  // namespace tpa::tools
