#include "tools/build_guard.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <tuple>

#include "tools/cli.h"
#include "tools/lint.h"
#include "tpa/api/constants.h"

namespace tpa::tools {

bool loadRules(const std::string& path, std::string& text) {
  const bool fromStdin = path == "-";
  const int fd = fromStdin ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  text.clear();
  char block[64 * 1024];
  ssize_t n = fd < 0 ? -1 : 0;
  while (fd >= 0 && (n = ::read(fd, block, sizeof block)) != 0) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    text.append(block, static_cast<std::size_t>(n));
  }
  const int readError = n < 0 ? errno : 0;
  if (fd >= 0 && !fromStdin) ::close(fd);
  if (readError == 0) return true;
  std::fprintf(stderr, "tpa: cannot read %s: %s\n", fromStdin ? "standard input" : path.c_str(),
               std::strerror(readError));
  return false;
}

std::string displayName(const std::string& path) { return path == "-" ? "<stdin>" : path; }

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

int reportBuildFailure(const BuildOutcome& outcome, const BuildFailure& failure,
                       const std::string& documentName) {
  if (failure.exitCode == kExitBuildThrew) {
    std::string line = "tpa: build threw: " + outcome.what;
    if (failure.located) {
      line += " (" + failure.key + " value " + quoted(failure.value) + " at " + documentName + ":" +
              std::to_string(failure.line) + ":" + std::to_string(failure.column) + ")";
    }
    std::fprintf(stderr, "%s\n", line.c_str());
  } else if (failure.exitCode == kExitBuildFailed) {
    std::fprintf(stderr, "tpa: build failed: %d %s\n", outcome.code, error::name(outcome.code));
  }
  return failure.exitCode;
}

int buildDocument(const std::string& rules, std::string& text, api::TarnPatternAnalyzer& analyzer,
                  BuildFailure* failure) {
  if (!loadRules(rules, text)) return kExitNoInput;
  const BuildOutcome outcome = buildGuarded(analyzer, text);
  const BuildFailure described = describeBuildFailure(outcome, text);
  if (failure != nullptr) *failure = described;
  return reportBuildFailure(outcome, described, displayName(rules));
}

bool parseAsBuilt(parser::JsonParser& parser, api::TarnPatternAnalyzer& analyzer,
                  const std::string& text) {
  std::string built = text;
  (void)analyzer.validate(built);
  return parser.parse(built, false) == error::TPA_ERROR_NONE;
}

int buildAndRead(const std::string& rules, BuiltDocument& document, bool readBack,
                 BuildFailure* failure) {
  if (int code = buildDocument(rules, document.text, document.analyzer, failure)) return code;
  if (!readBack) return kExitOk;
  return parseAsBuilt(document.parser, document.analyzer, document.text) ? kExitOk
                                                                         : kExitBuildFailed;
}

}  // namespace tpa::tools
