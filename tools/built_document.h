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
#include "tpa/api/analyzer.h"

namespace tpa::tools {

// `text` after the analyzer's own rewriting of degenerate documents.
[[nodiscard]] std::string readAsBuilt(api::TarnPatternAnalyzer& analyzer, const std::string& text);

// Parses the text the analyzer built into `parser`'s rules. After a
// successful build this cannot fail; false if it does all the same.
[[nodiscard]] bool parseAsBuilt(parser::JsonParser& parser, api::TarnPatternAnalyzer& analyzer,
                                const std::string& text);

struct BuiltDocument {
  std::string text;                   // the document as read
  api::TarnPatternAnalyzer analyzer;  // built from text
  parser::JsonParser parser;          // text read back into rules
};

// Reads RULES, builds it and reads it back, reporting any failure on stderr.
// Returns kExitOk or the exit code.
[[nodiscard]] int buildAndRead(const std::string& rules, BuiltDocument& document);

// The 1-based positions of the rules whose id is `id`.
[[nodiscard]] std::vector<int> positionsOfId(const std::vector<parser::Rule>& rules, int id);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_BUILT_DOCUMENT_H_
