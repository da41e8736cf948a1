// tpa_peer: a peer matcher behind the command-line protocol of `tpa query`
// (APP<TAB>DEST lines in, include<TAB>VALUE or exclude<TAB>VALUE lines out),
// so that bench/cli_bench.py can time them all as a user would: process start,
// reading the document, building, parsing each line and writing each answer.
// `null` reads no document and answers every line "exclude<TAB>-1": the cost
// of the line reading and writing alone.
//   tpa_peer hash|marisa|null RULES.json < queries
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>

#include "hash_matcher.h"
#include "marisa_matcher.h"
#include "peer_io.h"

namespace {

bool readFile(const char* path, std::string& text) {
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return false;
  text.resize(static_cast<std::size_t>(in.tellg()));
  in.seekg(0);
  return static_cast<bool>(in.read(text.data(), static_cast<std::streamsize>(text.size())));
}

template <typename Matcher>
int serve(const char* rules) {
  std::string document;
  if (!readFile(rules, document)) {
    std::perror(rules);
    return 66;
  }
  Matcher m;
  m.build(std::move(document));
  tpa::bench::answerLines(STDIN_FILENO, STDOUT_FILENO,
                          [&m](std::string_view app, std::string_view d) { return m.query(app, d); });
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string kind = argc == 3 ? argv[1] : "";
  if (kind == "hash") return serve<tpa::bench::HashMatcher>(argv[2]);
  if (kind == "marisa") return serve<tpa::bench::MarisaMatcher>(argv[2]);
  if (kind == "null") {
    tpa::bench::answerLines(STDIN_FILENO, STDOUT_FILENO,
                            [](std::string_view, std::string_view) { return tpa::bench::Answer{}; });
    return 0;
  }
  std::fprintf(stderr, "usage: tpa_peer hash|marisa|null RULES.json < queries\n");
  return 64;
}
