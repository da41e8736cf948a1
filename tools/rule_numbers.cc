#include "tools/rule_numbers.h"

#include "api/constants.h"

namespace tpa::tools {

int ruleNumber(const parser::Rule& rule, int position) {
  const bool everyApp =
      rule.apps.empty() ||
      (rule.apps.size() == 1 && rule.apps[0] == sigma::sentinel::LAMBDA_STRING);
  return everyApp ? mapper::TPA_RULE_NUMBER_ZERO : position;
}

std::string readAsBuilt(api::TarnPatternAnalyzer& analyzer, const std::string& text) {
  std::string copy = text;
  (void)analyzer.validate(copy);
  return copy;
}

std::vector<int> positionsOfId(const std::vector<parser::Rule>& rules, int id) {
  std::vector<int> positions;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (rules[i].id == id) positions.push_back(static_cast<int>(i + 1));
  }
  return positions;
}

}  // namespace tpa::tools
