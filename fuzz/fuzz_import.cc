// tpa import's reading of the three list formats on arbitrary bytes. The
// first byte picks the format and the options, the rest is the list. No
// input may crash or trip a sanitizer; a document that builds must be read
// back by the library's own reader exactly as the import meant to write it
// (the same applications, id and lists, every name as written), and every
// name in it must be one the list reader would take again unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_support.h"
#include "parser/json_parser.h"
#include "tools/importer.h"

namespace {

using tpa::fuzz::check;

// The list as the reader gives it back when the import left it empty.
std::vector<std::string> orDefault(const std::vector<std::string>& list, const char* fallback) {
  return list.empty() ? std::vector<std::string>{fallback} : list;
}

// A name, "*." and a name, or "*" and the tail of a name (which keeps a
// wildcard from being hidden): each as the list reader takes it unchanged.
void checkName(std::string name, const std::string& input) {
  if (name.compare(0, 2, "*.") == 0) {
    name.erase(0, 2);
  } else if (name.compare(0, 1, "*") == 0) {
    check(name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-_.", 1) ==
                  std::string::npos &&
              name.find('.') != std::string::npos,
          "a tail entry holds the characters of a name", input);
    return;
  }
  const std::string written = name;
  tpa::tools::LineNote why;
  check(tpa::tools::normalizeName(name, why) && name == written,
        "every name written is one the list reader takes unchanged", input);
}

void checkReadBack(const tpa::tools::ImportOptions& options,
                   const tpa::tools::ImportOutcome& outcome, const std::string& input) {
  tpa::parser::JsonParser parser;
  check(parser.parse(outcome.document, false) == 0, "the document parses", input);
  const std::vector<tpa::parser::Rule>& rules = parser.getRules();
  check(rules.size() == (outcome.everyOtherName ? 2u : 1u), "one rule, or two", input);
  const tpa::parser::Rule& rule = rules[0];
  check(rule.apps == orDefault(options.apps, "#LAMBDA-APP"), "the applications as given", input);
  check(rule.id == std::atoi(options.id.c_str()), "the id as given", input);
  check(rule.includeList == orDefault(outcome.include, "*"), "the include list as meant", input);
  check(rule.excludeList == orDefault(outcome.exclude, ""), "the exclude list as meant", input);
  for (const std::string& name : outcome.include) checkName(name, input);
  for (const std::string& name : outcome.exclude) checkName(name, input);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tpa::fuzz::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(data), size);
  tpa::tools::ImportOptions options;
  options.format = static_cast<tpa::tools::ListFormat>(data[0] % 3);
  options.excludeNames = (data[0] & 4) != 0;
  if ((data[0] & 8) != 0) options.apps = {"com.example.app"};
  options.id = (data[0] & 16) != 0 ? "7" : "1";
  tpa::tools::Importer importer(options);
  std::vector<tpa::tools::LineNote> notes;
  const std::string_view text = std::string_view(input).substr(1);
  std::uint32_t line = 0;
  for (std::size_t start = 0; start <= text.size();) {
    std::size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    importer.readLine(text.substr(start, end - start), {0, ++line}, notes);
    start = end + 1;
  }
  if (importer.meaning().size() == 0) return 0;
  const tpa::tools::ImportOutcome outcome = importer.finish();
  if (outcome.built) checkReadBack(options, outcome, input);
  return 0;
}
