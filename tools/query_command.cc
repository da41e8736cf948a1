// `tpa query`: the stable, machine-readable answers of the analyzer.
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "tools/build_guard.h"
#include "tools/commands.h"
#include "tools/line_io.h"
#include "tools/output_format.h"
#include "tpa/api/analyzer.h"
#include "tpa/api/constants.h"

namespace tpa::tools {
namespace {

// Writes one query's answer as include<TAB>VALUE or exclude<TAB>VALUE.
// VALUE starts at -1 so that it shows exactly what the query left in it.
void answer(api::TarnPatternAnalyzer& analyzer, const std::string& app,
            const std::string& destination, OutputSink& out) {
  int value = -1;
  const int decision = analyzer.query(app, destination, value);
  constexpr std::string_view kInclude = "include\t", kExclude = "exclude\t";
  char text[32];  // a word, a TAB and an int
  std::memcpy(text, decision == mapper::TPA_DECISION_INCLUDE ? kInclude.data() : kExclude.data(),
              kInclude.size());
  const char* end = std::to_chars(text + kInclude.size(), text + sizeof text, value).ptr;
  out.line(std::string_view(text, static_cast<std::size_t>(end - text)));
}

// Splits "APP<TAB>DEST" at the first TAB, dropping a trailing CR.
bool splitQuery(std::string_view line, std::string& app, std::string& destination) {
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const std::size_t tab = line.find('\t');
  if (tab == std::string_view::npos) return false;
  app.assign(line.data(), tab);
  destination.assign(line.substr(tab + 1));
  return true;
}

int answerStream(api::TarnPatternAnalyzer& analyzer, OutputSink& out) {
  LineReader in(STDIN_FILENO, &out);
  std::string_view line;
  std::string app, destination;
  while (in.next(line)) {
    if (line.empty() || line == "\r") continue;
    if (!splitQuery(line, app, destination)) {
      (void)out.flush();
      std::fprintf(stderr, "tpa: stdin line %zu: no TAB between APP and DEST\n", in.lineNumber());
      return kExitBadQuery;
    }
    answer(analyzer, app, destination, out);
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
    for (const auto& [app, destination] : invocation.pairs) answer(analyzer, app, destination, out);
  }
  return finishOutput(out, code);
}

}  // namespace tpa::tools
