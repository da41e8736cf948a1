#include "mapper/transform.h"

#include <charconv>
#include <cstring>
#include <limits>

#include "tpa/api/constants.h"

namespace tpa::mapper {

namespace sentinel = tpa::sigma::sentinel;

void tansformAppInto(std::string& out, std::string_view app) {
  out.clear();
  out.reserve(app.size() + 2);
  out.push_back(sentinel::PRECEDING_SYMBOL);
  out.append(app.data(), app.size());
  out.push_back(sentinel::SUCCEEDING_SYMBOL);
}

std::string tansformApp(const std::string& app) {
  std::string out;
  tansformAppInto(out, app);
  return out;
}

void transformDomainInto(std::string& out, std::string_view domain, int ruleNumber,
                         std::uint8_t flag) {
  // Sign plus every decimal digit of an int: what a stream would write.
  char number[std::numeric_limits<int>::digits10 + 2];
  const char* end = std::to_chars(number, number + sizeof number, ruleNumber).ptr;
  const auto digits = static_cast<std::size_t>(end - number);
  // Written in place: one resize (which keeps the capacity) instead of an
  // append per part, as every query frames a key per list it searches.
  out.resize(domain.size() + 3 + digits);
  char* at = out.data();
  *at++ = sentinel::PRECEDING_SYMBOL;
  if (!domain.empty()) std::memcpy(at, domain.data(), domain.size());
  at += domain.size();
  *at++ = sentinel::SUCCEEDING_SYMBOL;
  std::memcpy(at, number, digits);
  at[digits] = flag == 1 ? '1' : '0';
}

std::string transformDomain(const std::string& domain, int ruleNumber, std::uint8_t flag) {
  std::string out;
  transformDomainInto(out, domain, ruleNumber, flag);
  return out;
}

std::string wildcardKey(std::string_view keyTail) {
  std::string key{sentinel::PRECEDING_SYMBOL, '*'};
  return key.append(keyTail);
}

bool readRuleNumber(std::string_view text, int& number) {
  const char* end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number);
  if (read.ec != std::errc() || read.ptr != end || number < 0) return false;
  char written[std::numeric_limits<int>::digits10 + 2];
  return std::string_view(written, std::to_chars(written, written + sizeof written, number).ptr -
                                       written) == text;
}

std::string framedName(std::string_view key) {
  const std::size_t end = key.rfind(sentinel::SUCCEEDING_SYMBOL);
  if (key.size() <= 1 || end == std::string_view::npos) return "";
  return std::string(key.substr(1, end - 1));
}

}  // namespace tpa::mapper
