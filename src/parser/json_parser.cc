#include "parser/json_parser.h"

#include <algorithm>
#include <cmath>
#include <fstream>

#include "tpa/api/constants.h"

namespace tpa::parser {
namespace {

// Decimal digits of a 1-based position, as the rule numbers are written.
int digitsOf(std::size_t position) {
  return static_cast<int>(std::log10(static_cast<double>(position)) + 1.0);
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
  lastArray_ = nullptr;
  firstOfLast_ = 0;
  lastAnnounced_ = Cost();
  made_ = Cost();
  repeatedBytes_ = 0;
  overBudget_ = false;
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
  if (result == error::TPA_ERROR_NONE && overBudget_) result = error::TPA_ERROR_OOM;
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

void JsonParser::Cost::add(const Rule& rule) {
  const std::size_t strings = rule.apps.size() + rule.includeList.size() + rule.excludeList.size();
  apps += rule.appSymbolTotal;
  include += rule.includeSymbolTotal;
  exclude += rule.excludeSymbolTotal;
  bytes += kRuleBytes + kStringBytes * static_cast<std::int64_t>(strings) + rule.appSymbolTotal +
           rule.includeSymbolTotal + rule.excludeSymbolTotal;
}

JsonParser::Cost& JsonParser::Cost::operator+=(const Cost& other) {
  bytes += other.bytes;
  apps += other.apps;
  include += other.include;
  exclude += other.exclude;
  return *this;
}

bool JsonParser::Cost::fitsAutomata() const {
  return apps <= kMaxAutomatonSymbols && include <= kMaxAutomatonSymbols &&
         exclude <= kMaxAutomatonSymbols;
}

// A document with a second top-level array announces the same, grown array
// again; its objects are appended once more, numbered by their position in it.
// The objects announced before make exactly the rules the last announcement
// made, so those are copied, and their cost is known before any is made: a
// flood of arrays is refused at once, having used no more than the budget.
void JsonParser::didParseJson(json_config::json_array* array) {
  if (array == nullptr) {
    status = error::TPA_ERROR_SA_INVALID_CAPACITTY;
    return;
  }
  if (overBudget_) return;
  const std::vector<json_config::json_object>& objects = array->objects;
  // Only the reader's own array is announced again, grown by new objects.
  if (array != lastArray_ || objects.size() < rules.size() - firstOfLast_) {
    lastArray_ = array;
    firstOfLast_ = rules.size();
    lastAnnounced_ = Cost();
  }
  const std::size_t again = rules.size() - firstOfLast_;
  Cost total = made_;
  total += lastAnnounced_;
  if (repeatedBytes_ + lastAnnounced_.bytes > kRepeatBudgetBytes || !total.fitsAutomata()) {
    overBudget_ = true;
    return;
  }
  const std::size_t wanted = rules.size() + objects.size();
  if (wanted > rules.capacity()) rules.reserve(std::max(wanted, 2 * rules.capacity()));
  // No reallocation below: the copied rules stay where they are.
  const std::size_t first = firstOfLast_;
  firstOfLast_ = rules.size();
  for (std::size_t i = 0; i < again; ++i) rules.push_back(rules[first + i]);
  repeatedBytes_ += lastAnnounced_.bytes;
  made_ = total;
  for (std::size_t position = again + 1; position <= objects.size(); ++position) {
    rules.emplace_back(objects[position - 1], digitsOf(position));
    Cost one;
    one.add(rules.back());
    lastAnnounced_ += one;
    made_ += one;
    if (!made_.fitsAutomata()) {
      overBudget_ = true;
      return;
    }
  }
  status = error::TPA_ERROR_NONE;
}

}  // namespace tpa::parser
