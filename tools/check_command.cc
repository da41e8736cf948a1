// `tpa check`: builds a document, measures the build and lints the text.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "api/diagnostics.h"
#include "mapper/map.h"
#include "parser/json_parser.h"
#include "tools/alloc_meter.h"
#include "tools/build_guard.h"
#include "tools/built_document.h"
#include "tools/commands.h"
#include "tools/line_io.h"
#include "tools/lint.h"
#include "tools/output_format.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

struct Measured {
  BuildOutcome outcome;
  double milliseconds = 0;
  MemorySample before;
  MemorySample after;
};

Measured measureBuild(api::TarnPatternAnalyzer& analyzer, const std::string& text) {
  Measured m;
  m.before = sampleMemory();
  const auto start = std::chrono::steady_clock::now();
  m.outcome = buildGuarded(analyzer, text);
  const auto stop = std::chrono::steady_clock::now();
  m.after = sampleMemory();
  m.milliseconds = std::chrono::duration<double, std::milli>(stop - start).count();
  return m;
}

std::string machineSize(const char* name, const mapper::Map::Machine* machine) {
  int states = 0;
  if (machine == nullptr || machine->size(states) != error::TPA_ERROR_NONE) {
    return std::string(name) + " -";
  }
  return std::string(name) + " " + std::to_string(states);
}

void writeBuildReport(OutputSink& out, api::TarnPatternAnalyzer& analyzer, const std::string& text,
                      const Measured& m) {
  if (m.outcome.threw) {
    out.line("result: threw " + m.outcome.what);
  } else {
    out.line("result: " + std::to_string(m.outcome.code) + " " + error::name(m.outcome.code));
  }
  if (m.outcome.threw || m.outcome.code != error::TPA_ERROR_NONE) return;
  parser::JsonParser parser;
  (void)parseAsBuilt(parser, analyzer, text);
  out.line("rules: " + std::to_string(parser.getRules().size()));
  const mapper::Map* map = api::Inspect::map(analyzer);
  out.line("automaton states: " + machineSize("apps", map ? map->appsMachine() : nullptr) + ", " +
           machineSize("include", map ? map->includeMachine() : nullptr) + ", " +
           machineSize("exclude", map ? map->excludeMachine() : nullptr));
  char timing[64];
  std::snprintf(timing, sizeof timing, "build time: %.3f ms", m.milliseconds);
  out.line(timing);
  const long long held = static_cast<long long>(m.after.allocatedBytes) -
                         static_cast<long long>(m.before.allocatedBytes);
  out.line("build memory: " + std::to_string(held) + " bytes held, peak RSS +" +
           std::to_string(m.after.peakRssKiB - m.before.peakRssKiB) + " KiB");
}

void writeWarnings(OutputSink& out, const std::string& text, const std::string& name,
                   const std::vector<Finding>& findings) {
  const LineIndex lines(text);
  out.line("warnings: " + std::to_string(findings.size()));
  for (const Finding& f : findings) {
    const auto [line, column] = lines.at(f.offset);
    out.line(name + ":" + std::to_string(line) + ":" + std::to_string(column) + ": warning: [" +
             f.code + "] " + f.message);
  }
}

// The build's result and rule count, for the machine-readable formats.
CheckResult checkResult(api::TarnPatternAnalyzer& analyzer, const std::string& text,
                        const BuildOutcome& outcome) {
  CheckResult result{outcome.threw, outcome.what, outcome.code, 0,
                     describeBuildFailure(outcome, text)};
  parser::JsonParser parser;
  if (!outcome.threw && outcome.code == error::TPA_ERROR_NONE &&
      parseAsBuilt(parser, analyzer, text)) {
    result.rules = parser.getRules().size();
  }
  return result;
}

// With --strict, a document that builds but has warnings fails the check.
int checkStatus(const Invocation& invocation, const Measured& measured, const std::string& text,
                const std::string& name, std::size_t warnings) {
  const int built = reportBuildFailure(measured.outcome, text, name);
  if (built != kExitOk || !invocation.strict || warnings == 0) return built;
  std::fprintf(stderr, "tpa: check --strict: %zu warning%s\n", warnings, warnings == 1 ? "" : "s");
  return kExitWarnings;
}

}  // namespace

int runCheck(const Invocation& invocation) {
  std::string text;
  if (!loadRules(invocation.rules, text)) return kExitNoInput;
  const std::string name = displayName(invocation.rules);
  api::TarnPatternAnalyzer analyzer;
  const Measured measured = measureBuild(analyzer, text);
  const std::vector<Finding> findings = lintDocument(text);
  OutputSink out(STDOUT_FILENO, false);
  if (invocation.format != OutputFormat::kText) {
    writeCheckReport(out, invocation.format, text, name, findings,
                     checkResult(analyzer, text, measured.outcome));
  } else {
    out.line("document: " + name + " (" + std::to_string(text.size()) + " bytes)");
    writeBuildReport(out, analyzer, text, measured);
    writeWarnings(out, text, name, findings);
  }
  if (finishOutput(out, kExitOk) != kExitOk) return kExitIo;
  return checkStatus(invocation, measured, text, name, findings.size());
}

}  // namespace tpa::tools
