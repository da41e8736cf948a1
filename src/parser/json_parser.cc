#include "parser/json_parser.h"

#include <algorithm>
#include <cmath>
#include <fstream>

#include "api/constants.h"

namespace tpa::parser {
namespace {

// Decimal digits of a 1-based position, as the rule numbers are written.
int digitsOf(std::size_t position) {
  return static_cast<int>(std::log10(static_cast<double>(position)) + 1.0);
}

// How many rules a document may repeat through further top-level arrays: a
// few arrays of any size, or many small ones, but never a quadratic blow-up.
std::size_t repeatBound(std::size_t objects) {
  constexpr std::size_t kSmallDocumentBound = 1 << 16;
  return std::max(kSmallDocumentBound, 4 * objects);
}

}  // namespace

JsonParser::JsonParser()
    : status(error::TPA_ERROR_NONE), grossAppBytes(0), grossIncludeBytes(0), grossExcludeBytes(0) {}

JsonParser::~JsonParser() = default;

void JsonParser::clear() {
  rules.clear();
  status = error::TPA_ERROR_NONE;
  grossAppBytes = 0;
  grossIncludeBytes = 0;
  grossExcludeBytes = 0;
  previouslyAnnounced = 0;
  repeatedRules = 0;
  tooManyRules = false;
}

int JsonParser::parse(const std::string& source, bool fromFile) {
  clear();
  json_config::json reader;
  reader.observer = observer;
  int result = error::TPA_ERROR_NONE;
  if (fromFile) {
    // Opened at its end: the reader takes the size from the position.
    std::ifstream stream(source, std::ios::in | std::ios::binary | std::ios::ate);
    if (stream.fail()) {
      status = error::TPA_ERROR_JSON_FILE_NOT_FOUND;
      return status;
    }
    result = reader.parse(stream, this);
    stream.close();
  } else {
    result = reader.parse_json_str(source, this);
  }
  if (result == error::TPA_ERROR_NONE && tooManyRules) result = error::TPA_ERROR_OOM;
  if (result != error::TPA_ERROR_NONE) {
    status = result;
    return result;
  }
  for (const Rule& rule : rules) {
    grossAppBytes += rule.appSymbolTotal;
    grossIncludeBytes += rule.includeSymbolTotal;
    grossExcludeBytes += rule.excludeSymbolTotal;
  }
  return error::TPA_ERROR_NONE;
}

// A document with a second top-level array announces the same, grown array
// again; its objects are appended once more, numbered by their position in it.
void JsonParser::didParseJson(json_config::json_array* array) {
  if (array == nullptr) {
    status = error::TPA_ERROR_SA_INVALID_CAPACITTY;
    return;
  }
  if (tooManyRules) return;
  repeatedRules += previouslyAnnounced;
  previouslyAnnounced = array->objects.size();
  if (repeatedRules > repeatBound(array->objects.size())) {
    tooManyRules = true;
    return;
  }
  std::size_t position = 0;
  for (const json_config::json_object& object : array->objects) {
    rules.emplace_back(object, digitsOf(++position));
  }
  status = error::TPA_ERROR_NONE;
}

}  // namespace tpa::parser
