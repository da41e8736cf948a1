// Building a rules document the way the Android bridge does
// (TarnPatternAnalyzer::build(text, false)), with the one difference that
// the tool, not the library, catches what two malformed network forms throw.
// Failures are reported on standard error in the tool's fixed formats.
#ifndef TPA_TOOLS_BUILD_GUARD_H_
#define TPA_TOOLS_BUILD_GUARD_H_

#include <string>

#include "api/analyzer.h"

namespace tpa::tools {

struct BuildOutcome {
  int code = 0;        // the tpa::error code of the build, when it returned
  bool threw = false;  // an exception escaped the build
  std::string what;    // its text
};

[[nodiscard]] BuildOutcome buildGuarded(api::TarnPatternAnalyzer& analyzer,
                                        const std::string& text);

// For a failed outcome prints "tpa: build failed: CODE NAME" or
// "tpa: build threw: WHAT" (naming the offending value of `text`, found by
// storing its destinations again) on stderr and returns the exit code;
// returns kExitOk for a successful build.
[[nodiscard]] int reportBuildFailure(const BuildOutcome& outcome, const std::string& text,
                                     const std::string& documentName);

// Reads RULES (a path or "-") into `text` and builds it into `analyzer`,
// reporting any failure on stderr. Returns kExitOk or the exit code.
[[nodiscard]] int buildDocument(const std::string& rules, std::string& text,
                                api::TarnPatternAnalyzer& analyzer);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_BUILD_GUARD_H_
