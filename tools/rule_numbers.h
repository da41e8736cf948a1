// How the builder numbers the parser's rules, and the text it really reads,
// for the commands that show rules next to decisions. Stateless.
#ifndef TPA_TOOLS_RULE_NUMBERS_H_
#define TPA_TOOLS_RULE_NUMBERS_H_

#include <string>
#include <vector>

#include "api/analyzer.h"
#include "parser/rule.h"

namespace tpa::tools {

// 0 for a rule of every application (no apps, or exactly "#LAMBDA-APP"),
// else its 1-based position.
[[nodiscard]] int ruleNumber(const parser::Rule& rule, int position);

// `text` after the analyzer's own rewriting of degenerate documents.
[[nodiscard]] std::string readAsBuilt(api::TarnPatternAnalyzer& analyzer, const std::string& text);

// The 1-based positions of the rules whose id is `id`.
[[nodiscard]] std::vector<int> positionsOfId(const std::vector<parser::Rule>& rules, int id);

}  // namespace tpa::tools

#endif  // TPA_TOOLS_RULE_NUMBERS_H_
