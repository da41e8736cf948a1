#include "mapper/transform.h"

#include <charconv>
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
  out.clear();
  out.reserve(domain.size() + 3 + static_cast<std::size_t>(end - number));
  out.push_back(sentinel::PRECEDING_SYMBOL);
  out.append(domain.data(), domain.size());
  out.push_back(sentinel::SUCCEEDING_SYMBOL);
  out.append(number, static_cast<std::size_t>(end - number));
  out.push_back(flag == 1 ? '1' : '0');
}

std::string transformDomain(const std::string& domain, int ruleNumber, std::uint8_t flag) {
  std::string out;
  transformDomainInto(out, domain, ruleNumber, flag);
  return out;
}

}  // namespace tpa::mapper
