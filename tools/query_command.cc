// `tpa query`: the stable, machine-readable answers of the analyzer.
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <string>

#include "tools/build_guard.h"
#include "tools/commands.h"
#include "tools/line_io.h"
#include "tools/output_format.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

// Answers one query into `line` as include<TAB>VALUE or exclude<TAB>VALUE.
// VALUE starts at -1 so that it shows exactly what the query left in it.
void answer(api::TarnPatternAnalyzer& analyzer, const std::string& app,
            const std::string& destination, std::string& line) {
  int value = -1;
  const int decision = analyzer.query(app, destination, value);
  line.assign(decision == mapper::TPA_DECISION_INCLUDE ? "include\t" : "exclude\t");
  char digits[16];
  const auto result = std::to_chars(digits, digits + sizeof digits, value);
  line.append(digits, result.ptr);
}

// Splits "APP<TAB>DEST" at the first TAB, dropping a trailing CR.
bool splitQuery(std::string& line, std::string& app, std::string& destination) {
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const std::size_t tab = line.find('\t');
  if (tab == std::string::npos) return false;
  app.assign(line, 0, tab);
  destination.assign(line, tab + 1, std::string::npos);
  return true;
}

int answerStream(api::TarnPatternAnalyzer& analyzer, OutputSink& out) {
  LineReader in(STDIN_FILENO, &out);
  std::string line, app, destination, reply;
  while (in.next(line)) {
    if (line.empty() || line == "\r") continue;
    if (!splitQuery(line, app, destination)) {
      (void)out.flush();
      std::fprintf(stderr, "tpa: stdin line %zu: no TAB between APP and DEST\n", in.lineNumber());
      return kExitBadQuery;
    }
    answer(analyzer, app, destination, reply);
    out.line(reply);
    if (out.failed()) break;
  }
  return kExitOk;
}

}  // namespace

int runQuery(const Invocation& invocation) {
  std::string text;
  api::TarnPatternAnalyzer analyzer;
  if (int code = buildDocument(invocation.rules, text, analyzer)) return code;
  std::string().swap(text);  // the rules are built: a long stream keeps only them

  OutputSink out(STDOUT_FILENO, isatty(STDOUT_FILENO) == 1);
  int code = kExitOk;
  if (invocation.pairs.empty()) {
    code = answerStream(analyzer, out);
  } else {
    std::string reply;
    for (const auto& [app, destination] : invocation.pairs) {
      answer(analyzer, app, destination, reply);
      out.line(reply);
    }
  }
  return finishOutput(out, code);
}

}  // namespace tpa::tools
