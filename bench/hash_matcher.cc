#include "hash_matcher.h"

#include <algorithm>

namespace tpa::bench {

namespace {

std::uint32_t v4Mask(int prefix) { return prefix == 0 ? 0 : ~0u << (32 - prefix); }

std::uint64_t v6HalfMask(int bits) {
  if (bits <= 0) return 0;
  return bits >= 64 ? ~0ull : ~0ull << (64 - bits);
}

// The map of one prefix length in a longest-first list, created on demand.
template <class Map>
Map& mapFor(std::vector<std::pair<int, Map>>& nets, int prefix) {
  auto it =
      std::find_if(nets.begin(), nets.end(), [&](const auto& p) { return p.first <= prefix; });
  if (it == nets.end() || it->first != prefix) it = nets.insert(it, {prefix, Map()});
  return it->second;
}

}  // namespace

void HashMatcher::add(ListTables& list, std::string_view text, int value) {
  const Destination d = parseDestination(text);
  auto keep = [this](std::string_view s) {
    const std::size_t at = arena_.size();
    arena_.append(s);
    return std::string_view(arena_).substr(at, s.size());
  };
  switch (d.kind) {
    case Destination::kDomain:
      list.names.emplace(keep(d.text), value);
      break;
    case Destination::kWildcard:
      list.wildcards.emplace(keep(d.text), value);
      break;
    case Destination::kIPv4:
      list.v4.emplace(v4Of(d), value);
      break;
    case Destination::kIPv6:
      list.v6.emplace(V6Key{v6Half(d, 0), v6Half(d, 1)}, value);
      break;
    case Destination::kIPv4Net:
      mapFor(list.v4Nets, d.prefix).emplace(v4Of(d), value);
      break;
    case Destination::kIPv6Net:
      mapFor(list.v6Nets, d.prefix).emplace(V6Key{v6Half(d, 0), v6Half(d, 1)}, value);
      break;
  }
}

void HashMatcher::build(const RuleSet& rules) {
  std::size_t bytes = 0;
  for (const DocumentRule& r : rules.rules) {
    for (const std::string& a : r.apps) bytes += a.size();
  }
  for (const Entry& e : rules.entries) bytes += e.text.size();
  arena_.clear();
  arena_.reserve(bytes);
  apps_.clear();
  rules_.assign(rules.rules.size() + 1, RuleTables());

  for (std::size_t i = 0; i < rules.rules.size(); ++i) {
    const DocumentRule& r = rules.rules[i];
    const int number = ruleNumberOf(r.apps.empty(), i);
    for (const std::string& a : r.apps) {
      const std::size_t at = arena_.size();
      arena_.append(a);
      apps_.emplace(std::string_view(arena_).substr(at, a.size()), number);
    }
    for (const std::string& d : r.include) add(rules_[number].include, d, r.id);
    for (const std::string& d : r.exclude) add(rules_[number].exclude, d, r.id);
  }
}

ListHit HashMatcher::find(const ListTables& list, const Destination& d, int digits) const {
  if (d.kind == Destination::kIPv4) {
    const std::uint32_t a = v4Of(d);
    if (auto it = list.v4.find(a); it != list.v4.end()) {
      return exactHit(kIPv4TextLength, digits, it->second);
    }
    for (const auto& [prefix, nets] : list.v4Nets) {
      if (auto it = nets.find(a & v4Mask(prefix)); it != nets.end()) {
        return exactHit(prefix, digits, it->second);
      }
    }
    return {};
  }
  if (d.kind == Destination::kIPv6) {
    const V6Key a{v6Half(d, 0), v6Half(d, 1)};
    if (auto it = list.v6.find(a); it != list.v6.end()) {
      return exactHit(kIPv6TextLength, digits, it->second);
    }
    for (const auto& [prefix, nets] : list.v6Nets) {
      const V6Key net{a.hi & v6HalfMask(prefix), a.lo & v6HalfMask(prefix - 64)};
      if (auto it = nets.find(net); it != nets.end()) return exactHit(prefix, digits, it->second);
    }
    return {};
  }
  if (auto it = list.names.find(d.text); it != list.names.end()) {
    return exactHit(static_cast<int>(d.text.size()), digits, it->second);
  }
  if (list.wildcards.empty()) return {};
  // Most specific tail first: ".a.b.c", then ".b.c", then ".c".
  for (std::size_t dot = d.text.find('.', 1); dot != std::string_view::npos;
       dot = d.text.find('.', dot + 1)) {
    const std::string_view tail = d.text.substr(dot);
    if (auto it = list.wildcards.find(tail); it != list.wildcards.end()) {
      return wildcardHit(static_cast<int>(tail.size()), digits, it->second);
    }
  }
  return {};
}

bool HashMatcher::lookup(const Destination& d, int rule, Answer& out) const {
  if (rule < 0 || static_cast<std::size_t>(rule) >= rules_.size()) return false;
  const RuleTables& t = rules_[rule];
  const int digits = decimalDigits(rule);
  return weigh(find(t.include, d, digits), find(t.exclude, d, digits), out);
}

Answer HashMatcher::query(std::string_view app, std::string_view destination) const {
  const auto it = apps_.find(app);
  const int rule = it == apps_.end() ? 0 : it->second;
  const Destination d = parseQuery(destination);
  return answerWithFallback(rule, [&](int r, Answer& out) { return lookup(d, r, out); });
}

}  // namespace tpa::bench
