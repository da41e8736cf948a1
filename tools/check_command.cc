// `tpa check`: builds a document, measures the build and lints the text.
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>

#include "api/diagnostics.h"
#include "mapper/map.h"
#include "mapper/trace_text.h"
#include "parser/json_parser.h"
#include "tools/build_guard.h"
#include "tools/commands.h"
#include "tools/line_io.h"
#include "tools/lint.h"
#include "tools/output_format.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

// What the C library's allocator has handed out (all arenas and mmapped
// blocks, so the automata's arrays count as well as every container), and
// the process's peak resident set: process-wide, meaningful in this
// single-threaded tool.
struct MemorySample {
  std::size_t allocatedBytes = 0;
  long peakRssKiB = 0;
};

MemorySample sampleMemory() {
  const struct mallinfo2 info = mallinfo2();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return {info.uordblks + info.hblkhd, usage.ru_maxrss};
}

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

// The number of rules a successful build made (0 for a failed one).
std::size_t rulesBuilt(api::TarnPatternAnalyzer& analyzer, const std::string& text,
                       const BuildOutcome& outcome) {
  parser::JsonParser parser;
  if (outcome.threw || outcome.code != error::TPA_ERROR_NONE) return 0;
  return parseAsBuilt(parser, analyzer, text) ? parser.getRules().size() : 0;
}

void writeBuildReport(OutputSink& out, api::TarnPatternAnalyzer& analyzer, const std::string& text,
                      const Measured& m) {
  if (m.outcome.threw) {
    out.line("result: threw " + m.outcome.what);
  } else {
    out.line("result: " + std::to_string(m.outcome.code) + " " + error::name(m.outcome.code));
  }
  if (m.outcome.threw || m.outcome.code != error::TPA_ERROR_NONE) return;
  out.line("rules: " + std::to_string(rulesBuilt(analyzer, text, m.outcome)));
  const mapper::Map* map = api::Inspect::map(analyzer);
  out.line("automaton states: " + machineSize("apps", map ? map->appsMachine() : nullptr) + ", " +
           machineSize(mapper::decisionName(mapper::TPA_DECISION_INCLUDE),
                       map ? map->includeMachine() : nullptr) +
           ", " +
           machineSize(mapper::decisionName(mapper::TPA_DECISION_EXCLUDE),
                       map ? map->excludeMachine() : nullptr));
  char timing[64];
  std::snprintf(timing, sizeof timing, "build time: %.3f ms", m.milliseconds);
  out.line(timing);
  const long long held = static_cast<long long>(m.after.allocatedBytes) -
                         static_cast<long long>(m.before.allocatedBytes);
  out.line("build memory: " + std::to_string(held) + " bytes held, peak RSS +" +
           std::to_string(m.after.peakRssKiB - m.before.peakRssKiB) + " KiB");
}

// The build's result and rule count as the last JSON line, or a failed
// build as an annotation.
void writeResult(OutputSink& out, api::TarnPatternAnalyzer& analyzer, const std::string& text,
                 const std::string& name, const Measured& m, const BuildFailure& failure,
                 OutputFormat format, std::size_t warnings) {
  const BuildOutcome& outcome = m.outcome;
  if (format == OutputFormat::kGithub) {
    if (failure.exitCode != kExitOk) writeBuildFailure(out, format, name, failure);
    return;
  }
  out.line(JsonLine()
               .field("file", name)
               .field("result", outcome.threw ? -1 : outcome.code)
               .field("result_name", outcome.threw ? "threw" : error::name(outcome.code))
               .field("rules", rulesBuilt(analyzer, text, outcome))
               .field("warnings", warnings)
               .str());
}

}  // namespace

int runCheck(const Invocation& invocation) {
  std::string text;
  if (!loadRules(invocation.rules, text)) return kExitNoInput;
  const std::string name = displayName(invocation.rules);
  api::TarnPatternAnalyzer analyzer;
  const Measured measured = measureBuild(analyzer, text);
  const std::vector<Finding> findings = lintDocument(text, api::Inspect::map(analyzer));
  OutputSink out(STDOUT_FILENO, false);
  const OutputFormat format = invocation.format;
  if (format == OutputFormat::kText) {
    out.line("document: " + name + " (" + std::to_string(text.size()) + " bytes)");
    writeBuildReport(out, analyzer, text, measured);
    out.line("warnings: " + std::to_string(findings.size()));
  }
  const LineIndex lines(text);
  for (const Finding& f : findings) {
    const auto [line, column] = lines.at(f.offset);
    out.line(findingLine(format, name, line, column, f.code, f.message));
  }
  const BuildFailure failure = describeBuildFailure(measured.outcome, text);
  if (format != OutputFormat::kText) {
    writeResult(out, analyzer, text, name, measured, failure, format, findings.size());
  }
  if (finishOutput(out, kExitOk) != kExitOk) return kExitIo;
  // With --strict, a document that builds but has warnings fails the check.
  const int built = reportBuildFailure(measured.outcome, failure, name);
  const std::size_t warnings = findings.size();
  if (built != kExitOk || !invocation.strict || warnings == 0) return built;
  std::fprintf(stderr, "tpa: check --strict: %zu warning%s\n", warnings, warnings == 1 ? "" : "s");
  return kExitWarnings;
}

}  // namespace tpa::tools
