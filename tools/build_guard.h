// Reading a rules document (a file, or standard input for "-"), building it
// the way the Android bridge does (TarnPatternAnalyzer::build(text, false))
// and reading it back into the parser's rules. The one difference from the
// bridge: the tool, not the library, catches what two malformed network
// forms throw. Failures are reported on standard error in the tool's fixed
// formats.
#ifndef TPA_TOOLS_BUILD_GUARD_H_
#define TPA_TOOLS_BUILD_GUARD_H_

#include <string>

#include "parser/json_parser.h"
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

// Reads a whole file ("-": standard input) into `text`, byte for byte;
// false, after "tpa: cannot read ..." on stderr, when it cannot be read.
[[nodiscard]] bool loadRules(const std::string& path, std::string& text);

// How the diagnostics name the document: the path, or "<stdin>" for "-".
[[nodiscard]] std::string displayName(const std::string& path);

[[nodiscard]] BuildOutcome buildGuarded(api::TarnPatternAnalyzer& analyzer,
                                        const std::string& text);

// The failure of a build that failed (exitCode 0 for a successful one).
[[nodiscard]] BuildFailure describeBuildFailure(const BuildOutcome& outcome,
                                                const std::string& text);

// Says on stderr how the build failed, "tpa: build failed: CODE NAME" or
// "tpa: build threw: WHAT" (naming the offending value when `failure`
// located it), and returns failure.exitCode (kExitOk for a successful build).
[[nodiscard]] int reportBuildFailure(const BuildOutcome& outcome, const BuildFailure& failure,
                                     const std::string& documentName);

// Reads RULES (a path or "-") into `text` and builds it into `analyzer`,
// reporting any failure on stderr, and handing it out in `failure` (when not
// null) for a machine-readable report. Returns kExitOk or the exit code.
[[nodiscard]] int buildDocument(const std::string& rules, std::string& text,
                                api::TarnPatternAnalyzer& analyzer,
                                BuildFailure* failure = nullptr);

// Parses the text the analyzer built (`text` after its own rewriting of
// degenerate documents) into `parser`'s rules. After a successful build
// this cannot fail; false if it does all the same.
[[nodiscard]] bool parseAsBuilt(parser::JsonParser& parser, api::TarnPatternAnalyzer& analyzer,
                                const std::string& text);

// A rules document built as the Android bridge builds it and read back into
// the parser's rules, for the commands that show rules next to decisions
// (parser::ruleNumber says how the builder numbers them). A BuiltDocument
// owns its analyzer and parser; one command uses it from one thread.
struct BuiltDocument {
  std::string text;                   // the document as read
  api::TarnPatternAnalyzer analyzer;  // built from text
  parser::JsonParser parser;          // text read back into rules
};

// Reads RULES, builds it and (with `readBack`) reads it back, reporting any
// failure on stderr and in `failure` (when not null). Returns kExitOk or the
// exit code.
[[nodiscard]] int buildAndRead(const std::string& rules, BuiltDocument& document,
                               bool readBack = true, BuildFailure* failure = nullptr);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_BUILD_GUARD_H_
