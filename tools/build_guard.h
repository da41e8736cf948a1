// Building a rules document the way the Android bridge does
// (TarnPatternAnalyzer::build(text, false)), with the one difference that
// the tool, not the library, catches what two malformed network forms throw.
// Failures are reported on standard error in the tool's fixed formats.
#ifndef TPA_TOOLS_BUILD_GUARD_H_
#define TPA_TOOLS_BUILD_GUARD_H_

#include <string>

#include "tpa/api/analyzer.h"

namespace tpa::tools {

struct BuildOutcome {
  int code = 0;           // the tpa::error code of the build, when it returned
  bool threw = false;     // an exception escaped the build
  std::string what;       // its text
  std::string exception;  // its type: "std::out_of_range", "std::invalid_argument", ...
};

// A failed build as the machine-readable reports give it: the library's code,
// or the value whose storing threw, never only the exception's own text.
struct BuildFailure {
  int exitCode = 0;           // kExitBuildFailed or kExitBuildThrew
  int code = 0;               // the build's tpa::error code, when it returned
  std::string exception;      // when it threw: the exception's type
  bool located = false;       // when it threw: the value was found
  std::string key;            // its key, "include" or "exclude"
  std::string value;          // its text
  std::size_t line = 0;       // where it stands (1-based; 0 when not located)
  std::size_t column = 0;
  std::string message;        // one line, for people
};

[[nodiscard]] BuildOutcome buildGuarded(api::TarnPatternAnalyzer& analyzer,
                                        const std::string& text);

// For a failed outcome prints "tpa: build failed: CODE NAME" or
// "tpa: build threw: WHAT" (naming the offending value of `text`, found by
// storing its destinations again) on stderr and returns the exit code;
// returns kExitOk for a successful build.
[[nodiscard]] int reportBuildFailure(const BuildOutcome& outcome, const std::string& text,
                                     const std::string& documentName);

// The failure of a build that failed (exitCode 0 for a successful one).
[[nodiscard]] BuildFailure describeBuildFailure(const BuildOutcome& outcome,
                                                const std::string& text);

// Reads RULES (a path or "-") into `text` and builds it into `analyzer`,
// reporting any failure on stderr. Returns kExitOk or the exit code.
[[nodiscard]] int buildDocument(const std::string& rules, std::string& text,
                                api::TarnPatternAnalyzer& analyzer);
// The same, also handing out the failure for a machine-readable report.
[[nodiscard]] int buildDocument(const std::string& rules, std::string& text,
                                api::TarnPatternAnalyzer& analyzer, BuildFailure& failure);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_BUILD_GUARD_H_
