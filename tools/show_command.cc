// `tpa show`: the rules as the analyzer reads them, one JSON object a line.
#include <unistd.h>

#include <string>

#include "parser/json_parser.h"
#include "tools/build_guard.h"
#include "tools/built_document.h"
#include "tools/commands.h"
#include "tools/json_escape.h"
#include "tools/line_io.h"
#include "tools/output_format.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

void appendRule(std::string& line, const parser::Rule& rule, int position) {
  line.assign("{\"position\":");
  line += std::to_string(position);
  line += ",\"rule_number\":";
  line += std::to_string(parser::ruleNumber(rule.apps, position));
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
  BuiltDocument document;
  if (int code = buildAndRead(invocation.rules, document)) return code;
  OutputSink out(STDOUT_FILENO, false);
  std::string line;
  const std::vector<parser::Rule>& rules = document.parser.getRules();
  for (std::size_t i = 0; i < rules.size(); ++i) {
    appendRule(line, rules[i], static_cast<int>(i + 1));
    out.line(line);
  }
  return finishOutput(out, kExitOk);
}

}  // namespace tpa::tools
