#include "tools/built_document.h"

#include "tools/build_guard.h"
#include "tools/cli.h"
#include "tpa/api/constants.h"

namespace tpa::tools {

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
