// `tpa show`: the rules as the analyzer reads them, one JSON object a line.
#include <unistd.h>

#include <string>

#include "parser/json_parser.h"
#include "tools/build_guard.h"
#include "tools/commands.h"
#include "tools/line_io.h"
#include "tools/output_format.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::tools {

int runShow(const Invocation& invocation) {
  BuiltDocument document;
  if (int code = buildAndRead(invocation.rules, document)) return code;
  OutputSink out(STDOUT_FILENO, false);
  const std::vector<parser::Rule>& rules = document.parser.getRules();
  for (std::size_t i = 0; i < rules.size(); ++i) {
    const int position = static_cast<int>(i + 1);
    out.line(JsonLine()
                 .field("position", position)
                 .field("rule_number", parser::ruleNumber(rules[i].apps, position))
                 .field("apps", rules[i].apps)
                 .field(parser::kIncludeKey, rules[i].includeList)
                 .field(parser::kExcludeKey, rules[i].excludeList)
                 .field("id", rules[i].id)
                 .str());
  }
  return finishOutput(out, kExitOk);
}

}  // namespace tpa::tools
