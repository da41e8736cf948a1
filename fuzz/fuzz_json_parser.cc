// The JSON reader and the rules parser on arbitrary bytes. Every text either
// parses or is rejected with a code of the reader; a parsed document's
// gross totals are the sums of its rules' totals, and no rule has an empty
// list. Destinations are sanitised on the way, so the two documented address
// exceptions may escape, and only from a text with a '/' in it.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "fuzz_support.h"
#include "parser/json_parser.h"
#include "tpa/api/constants.h"

namespace {

using tpa::fuzz::check;

void checkParsed(const tpa::parser::JsonParser& parser, const std::string& text) {
  long long apps = 0, include = 0, exclude = 0;
  for (const tpa::parser::Rule& rule : parser.getRules()) {
    check(!rule.apps.empty() && !rule.includeList.empty() && !rule.excludeList.empty(),
          "every rule list holds at least its default", text);
    apps += rule.appSymbolTotal;
    include += rule.includeSymbolTotal;
    exclude += rule.excludeSymbolTotal;
  }
  check(apps == parser.grossAppBytesCount() && include == parser.grossIncludeBytesCount() &&
            exclude == parser.grossExcludeBytesCount(),
        "gross totals are the sums of the rules' totals", text);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tpa::fuzz::silenceLog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (tpa::fuzz::tooManyRules(text)) return 0;
  tpa::parser::JsonParser parser;
  try {
    const int code = parser.parse(text, false);
    check(code == tpa::error::TPA_ERROR_NONE || code == tpa::error::TPA_ERROR_JSON_PARSE_MISMATCH ||
              (code == tpa::error::TPA_ERROR_ARRAY_OUT_OF_INDEX && text.empty()) ||
              (code == tpa::error::TPA_ERROR_OOM && parser.overBudget()),
          "parse returns 0, -4 for unbalanced text, -2 for an empty one, or -1 past the budget",
          text);
    if (code == tpa::error::TPA_ERROR_NONE) checkParsed(parser, text);
  } catch (const std::out_of_range&) {
    check(tpa::fuzz::mayThrowAddressException(text), "out_of_range without a network", text);
  } catch (const std::invalid_argument&) {
    check(tpa::fuzz::mayThrowAddressException(text), "invalid_argument without a network", text);
  }
  return 0;
}
