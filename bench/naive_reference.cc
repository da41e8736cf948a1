#include "naive_reference.h"

#include "cidr/cidr.h"
#include "mapper/transform.h"
#include "parser/json_parser.h"
#include "parser/rule.h"
#include "tpa/api/constants.h"

namespace tpa::bench {

namespace {

std::string normalised(const std::string& d) {
  if (cidr::isCidrIpAddress(d)) return cidr::extractNetworkID(d);
  if (cidr::isIPv6Address(d)) return cidr::expandIPv6(d);
  if (cidr::isIPv4Address(d)) return cidr::expandIpv4Addr(d);
  return d;
}

}  // namespace

int NaiveReference::put(const parser::Rule& rule, int number) {
  const std::string lambda = sigma::sentinel::LAMBDA_STRING;
  Automaton& apps = *machines_[0];
  int result = error::TPA_ERROR_NONE;
  for (const std::string& a : rule.apps) {
    const std::string key = mapper::tansformApp(a);
    fsa::SAStateValue<int> v;
    // The branch counts as present as soon as any character of it reads.
    if (a != lambda || apps.tryFindFull(key, v) == 0) {
      result = apps.add(key, a == lambda ? mapper::TPA_RULE_NUMBER_ZERO : number);
    }
    if (result != error::TPA_ERROR_NONE) return result;
  }
  if (rule.apps.size() == 1 && rule.apps[0] == lambda) number = mapper::TPA_RULE_NUMBER_ZERO;
  for (const std::string& d : rule.includeList) {
    result = machines_[1]->add(mapper::transformDomain(normalised(d), number, 1), rule.id);
    if (result != error::TPA_ERROR_NONE) return result;
  }
  for (const std::string& d : rule.excludeList) {
    result = machines_[2]->add(mapper::transformDomain(normalised(d), number, 0), rule.id);
    if (result != error::TPA_ERROR_NONE) return result;
  }
  return result;
}

int NaiveReference::build(const std::string& json) {
  for (auto& m : machines_) m.reset();
  parser::JsonParser parser;
  int result = parser.parse(json, false);
  if (result != error::TPA_ERROR_NONE) return result;
  const int totals[3] = {parser.grossAppBytesCount(), parser.grossIncludeBytesCount(),
                         parser.grossExcludeBytesCount()};
  for (int i = 0; i < 3; ++i) {
    machines_[i] = std::make_unique<Automaton>();
    machines_[i]->construct(totals[i]);
  }
  const std::string lambda = sigma::sentinel::LAMBDA_STRING;
  int ordinal = 0;
  for (const parser::Rule& r : parser.getRules()) {
    ++ordinal;
    const bool any = r.apps.empty() || (r.apps.size() == 1 && r.apps[0] == lambda);
    result = put(r, any ? mapper::TPA_RULE_NUMBER_ZERO : ordinal);
    if (result != error::TPA_ERROR_NONE) {
      for (auto& m : machines_) m.reset();
      return result;
    }
  }
  return error::TPA_ERROR_NONE;
}

ListHit NaiveReference::find(const std::string& destination, int rule, const Automaton& machine,
                             std::uint8_t flag) const {
  std::string text = destination;
  if (cidr::isIPv6Address(destination)) {
    text = cidr::expandIPv6(destination);
  } else if (cidr::isIPv4Address(destination)) {
    text = cidr::expandIpv4Addr(destination);
  }
  const std::string key = mapper::transformDomain(text, rule, flag);
  const int n = static_cast<int>(key.size());
  fsa::SAStateValue<int> v;
  int m = machine.tryFindFull(key, v);
  if (v.storedKeyLength() != 0 && m == n && m == v.storedKeyLength()) {
    return ListHit{true, n, n, v.userDefinedValue()};
  }

  if (cidr::isIPAddress(text)) {
    const std::string bits = cidr::convertToBinaryIPAddress(text);
    const int b = static_cast<int>(bits.size());
    m = b == 0 ? 0 : machine.tryFindFull(bits, v);
    // Only the longest run of the address bits is tried, and it must stop
    // inside a stored key, short of the whole address.
    if (b != 0 && v.storedKeyLength() == 0 && m >= 2 && m < b) {
      const std::string key2 = mapper::transformDomain(bits.substr(0, m), rule, flag);
      const int k = static_cast<int>(key2.size());
      const int m2 = machine.tryFindFull(key2, v);
      if (v.storedKeyLength() != 0 && m2 == v.storedKeyLength() && m2 == k) {
        return ListHit{true, k, v.storedKeyLength(), v.userDefinedValue()};
      }
    }
  }
  const int p = machine.tryFindPartial(key, v);
  const int s = v.storedKeyLength();
  if (s != 0 && p != 0 && p < s && p < n) return ListHit{true, p, s, v.userDefinedValue()};
  return ListHit{};
}

bool NaiveReference::lookup(const std::string& destination, int rule, Answer& out) const {
  return weigh(find(destination, rule, *machines_[1], 1), find(destination, rule, *machines_[2], 0),
               out);
}

Answer NaiveReference::query(const std::string& app, const std::string& destination) const {
  if (!machines_[0] || !machines_[1] || !machines_[2]) return Answer{};
  const std::string key = mapper::tansformApp(app);
  const int n = static_cast<int>(key.size());
  fsa::SAStateValue<int> v;
  const int m = machines_[0]->tryFindFull(key, v);
  const int rule =
      v.storedKeyLength() == n && m == n ? v.userDefinedValue() : mapper::TPA_RULE_NUMBER_ZERO;
  return answerWithFallback(rule, [&](int r, Answer& out) { return lookup(destination, r, out); });
}

}  // namespace tpa::bench
