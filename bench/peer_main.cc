// tpa_peer: the hash-map or MARISA matcher behind the command-line protocol
// of `tpa query` (APP<TAB>DEST lines in, include<TAB>VALUE or
// exclude<TAB>VALUE lines out), so that scripts/cli_bench.py can time all
// three as a user would: process start, reading the document, building,
// parsing each line and writing each answer.
//   tpa_peer hash|marisa RULES.json < queries
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "hash_matcher.h"
#include "marisa_matcher.h"
#include "workload.h"

namespace {

// Reads stdin in blocks and answers each whole line; output is buffered
// until the end, as `tpa query` buffers it into a pipe.
template <typename Matcher>
int answerStream(Matcher& matcher) {
  static char out[1 << 16];
  std::setvbuf(stdout, out, _IOFBF, sizeof out);
  std::string pending;
  char block[1 << 16];
  char reply[32];
  for (std::size_t got; (got = std::fread(block, 1, sizeof block, stdin)) > 0;) {
    pending.append(block, got);
    std::size_t start = 0;
    for (std::size_t end; (end = pending.find('\n', start)) != std::string::npos; start = end + 1) {
      const std::string_view line(pending.data() + start, end - start);
      const std::size_t tab = line.find('\t');
      if (tab == std::string_view::npos) continue;
      const tpa::bench::Answer a = matcher.query(line.substr(0, tab), line.substr(tab + 1));
      const int n = std::snprintf(reply, sizeof reply, "%s\t%d\n",
                                  a.decision == 1 ? "include" : "exclude", a.value);
      std::fwrite(reply, 1, static_cast<std::size_t>(n), stdout);
    }
    pending.erase(0, start);
  }
  std::fflush(stdout);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string kind = argc == 3 ? argv[1] : "";
  if (kind != "hash" && kind != "marisa") {
    std::fprintf(stderr, "usage: tpa_peer hash|marisa RULES.json < queries\n");
    return 64;
  }
  std::ifstream in(argv[2], std::ios::binary);
  const std::string json((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const tpa::bench::RuleSet rules = tpa::bench::fromJson(json);
  if (kind == "hash") {
    tpa::bench::HashMatcher m;
    m.build(rules);
    return answerStream(m);
  }
  tpa::bench::MarisaMatcher m;
  m.build(rules);
  return answerStream(m);
}
