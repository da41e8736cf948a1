#include "tools/built_document.h"

#include "tools/build_guard.h"
#include "tools/cli.h"
#include "tpa/api/constants.h"

namespace tpa::tools {

std::string readAsBuilt(api::TarnPatternAnalyzer& analyzer, const std::string& text) {
  std::string copy = text;
  (void)analyzer.validate(copy);
  return copy;
}

bool parseAsBuilt(parser::JsonParser& parser, api::TarnPatternAnalyzer& analyzer,
                  const std::string& text) {
  return parser.parse(readAsBuilt(analyzer, text), false) == error::TPA_ERROR_NONE;
}

int buildAndRead(const std::string& rules, BuiltDocument& document) {
  if (int code = buildDocument(rules, document.text, document.analyzer)) return code;
  return parseAsBuilt(document.parser, document.analyzer, document.text) ? kExitOk
                                                                         : kExitBuildFailed;
}

std::vector<int> positionsOfId(const std::vector<parser::Rule>& rules, int id) {
  std::vector<int> positions;
  for (std::size_t i = 0; i < rules.size(); ++i) {
    if (rules[i].id == id) positions.push_back(static_cast<int>(i + 1));
  }
  return positions;
}

}  // namespace tpa::tools
