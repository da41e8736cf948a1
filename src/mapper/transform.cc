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

}  // namespace tpa::mapper
