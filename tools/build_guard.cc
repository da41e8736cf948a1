#include "tools/build_guard.h"

#include <cstdio>
#include <exception>
#include <new>

#include "api/constants.h"
#include "tools/cli.h"
#include "tools/lint.h"

namespace tpa::tools {

BuildOutcome buildGuarded(api::TarnPatternAnalyzer& analyzer, const std::string& text) {
  BuildOutcome outcome;
  try {
    outcome.code = analyzer.build(text, false);
  } catch (const std::bad_alloc&) {
    throw;  // the tool's own (exit 70): the library fails its build with TPA_ERROR_OOM
  } catch (const std::exception& e) {
    outcome.threw = true;
    outcome.what = e.what();
  } catch (...) {
    outcome.threw = true;
    outcome.what = "unknown exception";
  }
  return outcome;
}

int reportBuildFailure(const BuildOutcome& outcome, const std::string& text,
                       const std::string& documentName) {
  if (outcome.threw) {
    std::string line = "tpa: build threw: " + outcome.what;
    KeyedValue culprit;
    std::string what;
    if (findThrowingValue(text, culprit, what)) {
      const auto [row, column] = LineIndex(text).at(culprit.value.offset);
      line += " (" + culprit.key + " value " + quoted(culprit.value.text) + " at " + documentName +
              ":" + std::to_string(row) + ":" + std::to_string(column) + ")";
    }
    std::fprintf(stderr, "%s\n", line.c_str());
    return kExitBuildThrew;
  }
  if (outcome.code != error::TPA_ERROR_NONE) {
    std::fprintf(stderr, "tpa: build failed: %d %s\n", outcome.code, error::name(outcome.code));
    return kExitBuildFailed;
  }
  return kExitOk;
}

int buildDocument(const std::string& rules, std::string& text, api::TarnPatternAnalyzer& analyzer) {
  if (!loadRules(rules, text)) return kExitNoInput;
  return reportBuildFailure(buildGuarded(analyzer, text), text, displayName(rules));
}

}  // namespace tpa::tools
