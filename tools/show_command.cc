// `tpa show`: the rules as the analyzer reads them, one JSON object a line.
#include <unistd.h>

#include <string>

#include "api/analyzer.h"
#include "api/constants.h"
#include "parser/json_parser.h"
#include "tools/build_guard.h"
#include "tools/commands.h"
#include "tools/json_escape.h"
#include "tools/line_io.h"
#include "tools/rule_numbers.h"

namespace tpa::tools {
namespace {

void appendRule(std::string& line, const parser::Rule& rule, int position) {
  line.assign("{\"position\":");
  line += std::to_string(position);
  line += ",\"rule_number\":";
  line += std::to_string(ruleNumber(rule, position));
  line += ",\"apps\":";
  appendJsonStringArray(line, rule.apps);
  line += ",\"include\":";
  appendJsonStringArray(line, rule.includeList);
  line += ",\"exclude\":";
  appendJsonStringArray(line, rule.excludeList);
  line += ",\"id\":";
  line += std::to_string(rule.id);
  line += '}';
}

}  // namespace

int runShow(const Invocation& invocation) {
  std::string text;
  if (!loadRules(invocation.rules, text)) return kExitNoInput;
  api::TarnPatternAnalyzer analyzer;
  const BuildOutcome built = buildGuarded(analyzer, text);
  if (int code = reportBuildFailure(built, text, displayName(invocation.rules))) return code;

  // The build succeeded, so reading the same text again cannot fail or throw.
  parser::JsonParser parser;
  if (parser.parse(readAsBuilt(analyzer, text), false) != error::TPA_ERROR_NONE) {
    return kExitBuildFailed;
  }
  OutputSink out(STDOUT_FILENO, false);
  std::string line;
  const std::vector<parser::Rule>& rules = parser.getRules();
  for (std::size_t i = 0; i < rules.size(); ++i) {
    appendRule(line, rules[i], static_cast<int>(i + 1));
    out.line(line);
  }
  return out.flush() ? kExitOk : kExitIo;
}

}  // namespace tpa::tools
