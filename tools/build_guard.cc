#include "tools/build_guard.h"

#include <cstdio>
#include <exception>
#include <new>
#include <stdexcept>
#include <tuple>

#include "tools/cli.h"
#include "tools/lint.h"
#include "tpa/api/constants.h"

namespace tpa::tools {

BuildOutcome buildGuarded(api::TarnPatternAnalyzer& analyzer, const std::string& text) {
  BuildOutcome outcome;
  try {
    outcome.code = analyzer.build(text, false);
  } catch (const std::bad_alloc&) {
    throw;  // the tool's own (exit 70): the library fails its build with TPA_ERROR_OOM
  } catch (const std::out_of_range& e) {
    outcome = {0, true, e.what(), "std::out_of_range"};
  } catch (const std::invalid_argument& e) {
    outcome = {0, true, e.what(), "std::invalid_argument"};
  } catch (const std::exception& e) {
    outcome = {0, true, e.what(), "std::exception"};
  } catch (...) {
    outcome = {0, true, "unknown exception", "an exception"};
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

namespace {

// What made address parsing throw, in the words of the value's author.
const char* throwCause(const std::string& exception) {
  if (exception == "std::out_of_range") return "a network with nothing after its '/'";
  if (exception == "std::invalid_argument") return "an IPv6 network whose prefix is no number";
  return "a malformed network";
}

}  // namespace

BuildFailure describeBuildFailure(const BuildOutcome& outcome, const std::string& text) {
  BuildFailure failure;
  if (!outcome.threw) {
    if (outcome.code == error::TPA_ERROR_NONE) return failure;
    failure.exitCode = kExitBuildFailed;
    failure.code = outcome.code;
    failure.message = "build failed: " + std::to_string(outcome.code) + " " +
                      error::name(outcome.code);
    return failure;
  }
  failure.exitCode = kExitBuildThrew;
  failure.exception = outcome.exception;
  failure.message = "build threw " + outcome.exception + ": " + throwCause(outcome.exception);
  KeyedValue culprit;
  std::string what;
  if (!findThrowingValue(text, culprit, what)) return failure;
  failure.located = true;
  failure.key = culprit.key;
  failure.value = culprit.value.text;
  std::tie(failure.line, failure.column) = LineIndex(text).at(culprit.value.offset);
  failure.message += ", the " + culprit.key + " value " + quoted(culprit.value.text);
  return failure;
}

int buildDocument(const std::string& rules, std::string& text, api::TarnPatternAnalyzer& analyzer,
                  BuildFailure& failure) {
  if (!loadRules(rules, text)) return kExitNoInput;
  const BuildOutcome outcome = buildGuarded(analyzer, text);
  failure = describeBuildFailure(outcome, text);
  return reportBuildFailure(outcome, text, displayName(rules));
}

int buildDocument(const std::string& rules, std::string& text, api::TarnPatternAnalyzer& analyzer) {
  BuildFailure unused;
  return buildDocument(rules, text, analyzer, unused);
}

}  // namespace tpa::tools
