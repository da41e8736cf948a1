// A rules document built as the Android bridge builds it and read back into
// the parser's rules, for the commands that show rules next to decisions
// (parser::ruleNumber says how the builder numbers them). A BuiltDocument owns its
// analyzer and parser; one command uses it from one thread.
#ifndef TPA_TOOLS_BUILT_DOCUMENT_H_
#define TPA_TOOLS_BUILT_DOCUMENT_H_

#include <string>
#include <vector>

#include "parser/json_parser.h"
#include "parser/rule.h"
#include "tools/build_guard.h"
#include "tpa/api/analyzer.h"

namespace tpa::tools {

// Parses the text the analyzer built (`text` after its own rewriting of
// degenerate documents) into `parser`'s rules. After a successful build
// this cannot fail; false if it does all the same.
[[nodiscard]] bool parseAsBuilt(parser::JsonParser& parser, api::TarnPatternAnalyzer& analyzer,
                                const std::string& text);

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

#endif  // TPA_TOOLS_BUILT_DOCUMENT_H_
