#include "tools/decision_reason.h"

#include "mapper/trace_text.h"
#include "mapper/transform.h"
#include "tools/doc_scan.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

using mapper::ListTrace;
using mapper::MatchKind;

// The end of the key a partial match read (the stored wildcard's text after
// its '*'), or empty when the trace does not tell it.
std::string partialTail(const ListTrace& l) {
  const int p = l.partial.matched;
  if (p <= 0 || p > static_cast<int>(l.key.size())) return "";
  return l.key.substr(l.key.size() - static_cast<std::size_t>(p));
}

// What the deciding search matched, as far as the trace tells.
std::string matchedEntry(const ListTrace& l) {
  const std::string key = decidingKey(l);
  switch (l.match) {
    case MatchKind::kWholeKey:
      return "whole key " + quoted(key);
    case MatchKind::kNetworkPrefix:
      return "network prefix of " + std::to_string(l.bitsSearch.matched) + " bits " + quoted(key);
    case MatchKind::kPartialKey:
      if (!key.empty()) return "wildcard " + quoted(key);
      if (partialTail(l).empty()) return "wildcard";
      return "wildcard ending in " + quoted(partialTail(l));
    case MatchKind::kNone:
      break;
  }
  return "no match";
}

}  // namespace

std::string decidingKey(const ListTrace& list) {
  switch (list.match) {
    case MatchKind::kWholeKey:
      return list.key;
    case MatchKind::kNetworkPrefix:
      return list.prefixKey;
    case MatchKind::kPartialKey: {
      const std::string tail = partialTail(list);
      if (tail.empty() || list.partial.storedLength != list.partial.matched + 2) return "";
      return mapper::wildcardKey(tail);
    }
    case MatchKind::kNone:
      break;
  }
  return "";
}

DecidingStep decidingStep(const mapper::QueryTrace& trace) {
  DecidingStep d;
  if (trace.steps.empty()) return d;
  const mapper::StepTrace& last = trace.steps.back();
  d.rule = last.rule;
  d.fallback = trace.steps.size() > 1;
  if (last.verdict == mapper::Verdict::kNeither) return d;
  d.decided = true;
  d.include = mapper::decidingList(last.verdict) == mapper::TPA_DECISION_INCLUDE;
  d.list = d.include ? &last.include : &last.exclude;
  return d;
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
  return where + ": " + mapper::decisionName(mapper::decidingList(trace.steps.back().verdict)) +
         " list, " + matchedEntry(*d.list) + " (" +
         mapper::verdictSummary(trace.steps.back().verdict) + ")";
}

std::vector<int> decidingPositions(const std::vector<parser::Rule>& rules,
                                   const mapper::QueryTrace& trace) {
  std::vector<int> positions;
  const DecidingStep d = decidingStep(trace);
  if (!d.decided) return positions;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    const int position = static_cast<int>(i + 1);
    if (rules[i].id == trace.value && parser::ruleNumber(rules[i].apps, position) == d.rule) {
      positions.push_back(position);
    }
  }
  return positions;
}

}  // namespace tpa::tools
