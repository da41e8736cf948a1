#include "parser/rule.h"

#include <climits>

#include "cidr/address_bits.h"
#include "cidr/cidr.h"
#include "cidr/decimal.h"
#include "tpa/api/constants.h"

namespace tpa::parser {
namespace {

constexpr int kSentinelSymbols = 2;

// A network is stored as its bit string, so it counts at the full address
// width whatever its prefix.
int keyLength(const std::string& destination) {
  switch (cidr::isCidrIpAddress(destination)) {
    case 4:
      return cidr::kIPv4Bits;
    case 6:
      return cidr::kIPv6Bits;
    default:
      return static_cast<int>(destination.size());
  }
}

// An explicitly empty list is replaced by the default, a non-empty one is
// sanitised.
void readDestinations(const std::vector<std::string>& values, const char* fallback,
                      std::vector<std::string>& list) {
  if (values.empty()) {
    list.emplace_back(fallback);
    return;
  }
  list = values;
  sanitize(list);
}

void readProperty(const std::string& key, const std::vector<std::string>& values, Rule& rule) {
  if (key == kAppsKey) {
    rule.apps = values;
  } else if (key == kIncludeKey) {
    readDestinations(values, kAnyDestination, rule.includeList);
  } else if (key == kExcludeKey) {
    readDestinations(values, kNoDestination, rule.excludeList);
  } else if (key == kIdKey && !values.empty()) {  // an empty "id" counts as absent
    rule.id = cidr::decimalAtoi(values.front().c_str());
  }
}

// Totals are added in 64 bits and held at INT_MAX, which no automaton takes:
// a list too long to count is refused by the parser rather than wrapped.
int saturated(long long total) { return total > INT_MAX ? INT_MAX : static_cast<int>(total); }

}  // namespace

Rule::Rule(const json_config::json_object& object, int numberDigits)
    : id(kDefaultId),
      appSymbolTotal(0),
      includeSymbolTotal(0),
      excludeSymbolTotal(0),
      numberDigits(numberDigits) {
  for (const auto& [key, values] : object.properties) readProperty(key, values, *this);
  if (apps.empty()) apps.emplace_back(sigma::sentinel::LAMBDA_STRING);
  if (includeList.empty()) includeList.emplace_back(kAnyDestination);
  if (excludeList.empty()) excludeList.emplace_back(kNoDestination);
  appSymbolTotal = appSymbolCount(true);
  includeSymbolTotal = includeListSymbolCount(true);
  excludeSymbolTotal = excludeListSymbolCount(true);
}

void Rule::clear() {
  apps.clear();
  includeList.clear();
  excludeList.clear();
}

int Rule::appSymbolCount(bool withSentinels) const {
  long long total = 0;
  for (const auto& app : apps) {
    total += static_cast<long long>(app.size()) + (withSentinels ? kSentinelSymbols : 0);
  }
  return saturated(total);
}

int Rule::includeListSymbolCount(bool withSentinels) const {
  return domainSymbolCount(withSentinels, numberDigits, includeList);
}

int Rule::excludeListSymbolCount(bool withSentinels) const {
  return domainSymbolCount(withSentinels, numberDigits, excludeList);
}

int Rule::domainSymbolCount(bool withSentinels, int extra,
                            const std::vector<std::string>& list) const {
  long long total = 0;
  for (const auto& destination : list) {
    total += extra + static_cast<long long>(keyLength(destination)) +
             (withSentinels ? kSentinelSymbols : 0);
  }
  return saturated(total);
}

void sanitize(std::vector<std::string>& list) {
  std::string unspecified;
  for (auto& s : list) {
    if (cidr::isIPv4Address(s)) {
      cidr::expandIpv4AddrInto(s, s);
    } else if (cidr::isIPv6Address(s)) {
      cidr::expandIPv6Into(s, s);
    } else if (cidr::isUnspecifiedIPAddress(s, unspecified)) {
      s = unspecified;
    } else if (cidr::isCidrIpAddress(s) != 0) {
      s = cidr::extractNetworkID(s);
    }
  }
}

}  // namespace tpa::parser

namespace tpa::parser {

int ruleNumber(const std::vector<std::string>& apps, int position) {
  if (apps.empty()) return mapper::TPA_RULE_NUMBER_ZERO;
  if (apps.size() == 1 && apps.front() == sigma::sentinel::LAMBDA_STRING) {
    return mapper::TPA_RULE_NUMBER_ZERO;
  }
  return position;
}

}  // namespace tpa::parser
