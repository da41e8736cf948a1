// `tpa explain`: a query's decision and how it was reached, read from the
// trace that the very same query filled in.
#include <unistd.h>

#include <string>
#include <vector>

#include "api/diagnostics.h"
#include "cidr/address_bits.h"
#include "cidr/cidr.h"
#include "mapper/trace_text.h"
#include "mapper/transform.h"
#include "parser/json_parser.h"
#include "tools/build_guard.h"
#include "tools/commands.h"
#include "tools/decision_reason.h"
#include "tools/doc_scan.h"
#include "tools/line_io.h"
#include "tools/output_format.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

using mapper::ListTrace;
using mapper::MatchKind;
using mapper::SearchTrace;
using mapper::StepTrace;
using mapper::Verdict;

std::string num(int n) { return std::to_string(n); }

// "read 5 of 17, stored key length 0, value -1"
std::string readout(const SearchTrace& s, std::size_t length) {
  return "read " + num(s.matched) + " of " + std::to_string(length) + ", stored key length " +
         num(s.storedLength) + ", value " + num(s.value);
}

std::string appLine(const mapper::QueryTrace& t) {
  std::string line = "application: key " + quoted(t.appKey) + " ";
  if (!t.app.attempted || t.app.code != 0) {
    return line + "could not be searched (code " + num(t.app.code) + "): default decision";
  }
  if (!t.appFellToZero) {
    return line + "found whole (" + readout(t.app, t.appKey.size()) + "): rule number " +
           num(t.rule);
  }
  return line + "is no stored application key (" + readout(t.app, t.appKey.size()) +
         "): it falls to the rules of every application, rule number 0";
}

// What each search of a list found, after its name (mapper::matchText); a
// whole key that matched decides the list.
std::string wholeLine(const ListTrace& l) {
  const SearchTrace& s = l.whole;
  if (!s.attempted) return "not searched";
  if (s.code != 0) return "search failed (code " + num(s.code) + ")";
  return l.match == MatchKind::kWholeKey ? "matched " + quoted(l.key) + ", value " + num(s.value)
                                         : "no (" + readout(s, l.key.size()) + ")";
}

std::string prefixLine(const ListTrace& l) {
  if (!l.address) return "not an address";
  if (!l.bitsSearch.attempted) return "not searched";
  const std::string run = "longest run of address bits in the list: " + num(l.bitsSearch.matched) +
                          " of " + std::to_string(l.bits.size());
  if (l.prefixKey.empty() || !l.prefix.attempted) {
    if (l.bitsSearch.storedLength != 0) return run + ", ends on a key end: unusable";
    return run + ", unusable (needs at least 2 and fewer than all)";
  }
  const bool hit = l.match == MatchKind::kNetworkPrefix;
  return run + "; prefix key " + quoted(l.prefixKey) +
         (hit ? " matched, value " + num(l.prefix.value)
              : " is not stored (" + readout(l.prefix, l.prefixKey.size()) + ")");
}

// The stored wildcard key a partial match reached, as far as it is known.
std::string wildcardKey(const ListTrace& l) {
  if (l.partial.matched < 0 || l.partial.matched > static_cast<int>(l.key.size())) {
    return "a key of length " + num(l.partial.storedLength);
  }
  const std::string suffix =
      l.key.substr(l.key.size() - static_cast<std::size_t>(l.partial.matched));
  if (l.partial.storedLength == l.partial.matched + 2) return quoted(mapper::wildcardKey(suffix));
  return "a key of length " + num(l.partial.storedLength) + " ending in " + quoted("*" + suffix);
}

std::string partialLine(const ListTrace& l) {
  if (!l.partial.attempted) return "not searched (an earlier search matched)";
  if (l.partial.code != 0) return "search failed (code " + num(l.partial.code) + ")";
  if (l.match == MatchKind::kPartialKey) {
    return "the last " + num(l.partial.matched) + " characters match " + wildcardKey(l) +
           ", value " + num(l.partial.value);
  }
  return "no (longest suffix found " + num(l.partial.matched) + " characters, stored key length " +
         num(l.partial.storedLength) + " at the '*' walk)";
}

std::string listResult(const ListTrace& l) {
  if (!l.found) return "no match";
  return std::string("match by ") + mapper::matchText(l.match) + " (matched " +
         num(l.matchedLength) + ", stored " + num(l.storedLength) + "), value " + num(l.value);
}

void writeList(OutputSink& out, const char* name, const ListTrace& l) {
  out.line(std::string("    ") + name + ": key " + quoted(l.key));
  const auto search = [&out](MatchKind kind, const std::string& result) {
    out.line(std::string("      ") + mapper::matchText(kind) + ": " + result);
  };
  search(MatchKind::kWholeKey, wholeLine(l));
  search(MatchKind::kNetworkPrefix, prefixLine(l));
  search(MatchKind::kPartialKey, partialLine(l));
  out.line("      => " + listResult(l));
}

void writeStep(OutputSink& out, const StepTrace& step, bool isFallback) {
  out.line(std::string("  rule number ") + num(step.rule) +
           (step.rule == 0 ? " (the rules of every application)" : "") +
           (isFallback ? ", the fallback:" : ":"));
  writeList(out, mapper::decisionName(mapper::TPA_DECISION_INCLUDE), step.include);
  writeList(out, mapper::decisionName(mapper::TPA_DECISION_EXCLUDE), step.exclude);
  std::string precedence =
      std::string("    precedence: ") + mapper::verdictExplanation(step.verdict);
  if (step.verdict == Verdict::kNeither) {
    precedence += step.rule != 0 ? "; falling back to rule number 0" : "; no fallback is left";
  }
  out.line(precedence);
}

// Which rules can have decided (decidingPositions).
std::string decidingRule(const std::vector<parser::Rule>& rules, const mapper::QueryTrace& t) {
  if (t.steps.empty() || t.value == mapper::MAP_DEFAULT_DOMAIN_VALUE) {
    return "no rule decided: the default";
  }
  std::string positions;
  for (int position : decidingPositions(rules, t)) {
    positions += (positions.empty() ? "" : ", ") + num(position);
  }
  if (positions.empty()) {
    return "id " + num(t.value) + ", at no position of rule number " + num(t.steps.back().rule);
  }
  return "the rule at position " + positions + ", id " + num(t.value);
}

void writeMappedNote(OutputSink& out, const std::string& destination) {
  if (!cidr::isIPv6Address(destination)) return;
  const std::string expanded = cidr::expandIPv6(destination);
  if (!cidr::isIPv4MappedText(expanded)) return;
  const std::string ipv4 = cidr::mappedIPv4(expanded);
  out.line("  note: " + destination + " is an IPv4-mapped IPv6 address: IPv4 entries for " + ipv4 +
           " (the address, or a network holding it) cannot match it as written, only IPv6 "
           "entries such as ::ffff:" +
           ipv4 + ". This is a known bypass in filters of this kind.");
}

// One query, asked once with its trace; both writers read it.
struct TracedQuery {
  const std::string& app;
  const std::string& destination;
  mapper::QueryTrace trace;
  int value = -1;
  int decision = 0;
};

void writeText(OutputSink& out, const std::vector<parser::Rule>& rules, const TracedQuery& q) {
  out.line("query: " + quoted(q.app) + " " + quoted(q.destination));
  out.line("  " + appLine(q.trace));
  if (!q.trace.steps.empty()) out.line("  destination searched as " + quoted(q.trace.destination));
  writeMappedNote(out, q.destination);
  for (std::size_t i = 0; i < q.trace.steps.size(); ++i) writeStep(out, q.trace.steps[i], i > 0);
  out.line("  deciding rule: " + decidingRule(rules, q.trace));
  out.line(std::string("  decision: ") + mapper::decisionName(q.decision) + "\t" + num(q.value));
}

// One JSON object per query; the fields are listed in `tpa explain --help`.
void writeJson(OutputSink& out, const std::vector<parser::Rule>& rules, const TracedQuery& q) {
  const DecidingStep step = decidingStep(q.trace);
  JsonLine line;
  line.field("app", q.app)
      .field("destination", q.destination)
      .field("searched_as", q.trace.destination)
      .field("app_rule_number", q.trace.rule)
      .field("decision", mapper::decisionName(q.decision))
      .field("id", q.value);
  if (step.decided) {
    line.field("rule_number", step.rule)
        .field("list", mapper::decisionName(mapper::decidingList(q.trace.steps.back().verdict)))
        .field("match", mapper::matchName(step.list->match));
  } else {
    line.null("rule_number").null("list").null("match");
  }
  out.line(line.field("fallback", step.fallback)
               .field("positions", decidingPositions(rules, q.trace))
               .field("reason", decisionReason(q.trace))
               .str());
}

}  // namespace

int runExplain(const Invocation& invocation) {
  BuiltDocument document;
  if (int code = buildAndRead(invocation.rules, document)) return code;
  OutputSink out(STDOUT_FILENO, false);
  const bool json = invocation.format == OutputFormat::kJson;
  const std::vector<parser::Rule>& rules = document.parser.getRules();
  for (const auto& [app, destination] : invocation.pairs) {
    TracedQuery q{app, destination, {}};
    q.decision = api::Inspect::query(document.analyzer, app, destination, q.value, &q.trace);
    (json ? writeJson : writeText)(out, rules, q);
  }
  return finishOutput(out, kExitOk);
}

}  // namespace tpa::tools
