#include "peer_tables.h"

#include <algorithm>
#include <functional>

namespace tpa::bench {

namespace {

bool isV6(const Destination& d) {
  return d.kind == Destination::kIPv6 || d.kind == Destination::kIPv6Net;
}

}  // namespace

void AppTable::reserve(std::size_t apps, std::size_t bytes) {
  table_.reserve(apps);
  names_.reserve(bytes);
}

void AppTable::add(std::string_view app, int rule) {
  const std::size_t before = table_.size();
  Slot& s = table_.findOrAdd(tagOf(reverseFnv(app), 0),
                             [&](const Slot& slot) { return holds(slot, app); });
  if (table_.size() == before) return;
  s = Slot{static_cast<std::uint32_t>(names_.size()), static_cast<std::uint32_t>(app.size()), rule};
  names_.append(app);
}

int AppTable::find(std::string_view app) const {
  const Slot* s =
      table_.find(tagOf(reverseFnv(app), 0), [&](const Slot& slot) { return holds(slot, app); });
  return s == nullptr ? 0 : s->rule;
}

AddressTable::Key AddressTable::keyOf(int rule, const Destination& d, bool v6, int prefix) {
  Key k;
  k.rule = rule;
  k.family = v6 ? 6 : 4;
  k.prefix = static_cast<std::uint8_t>(prefix);
  if (!v6) {
    k.hi = prefix == 0 ? 0 : v4Of(d) & (~0u << (32 - prefix));
    return k;
  }
  auto keep = [](std::uint64_t half, int bits) {
    if (bits <= 0) return std::uint64_t{0};
    return bits >= 64 ? half : half & (~std::uint64_t{0} << (64 - bits));
  };
  k.hi = keep(v6Half(d, 0), prefix);
  k.lo = keep(v6Half(d, 1), prefix - 64);
  return k;
}

std::uint32_t AddressTable::tagOfKey(const Key& k) {
  const std::uint64_t h = (k.hi * 0x9e3779b97f4a7c15ull) ^ k.lo ^
                          (std::uint64_t{k.prefix} << 56) ^ (std::uint64_t{k.family} << 48);
  return tagOf(h, static_cast<std::uint64_t>(k.rule));
}

void AddressTable::add(int rule, const Destination& d, Verdict v) {
  const bool v6 = isV6(d);
  const bool network = d.kind == Destination::kIPv4Net || d.kind == Destination::kIPv6Net;
  const int prefix = network ? d.prefix : (v6 ? 128 : 32);
  if (lengths_.size() <= static_cast<std::size_t>(rule)) lengths_.resize(rule + 1);
  std::vector<std::uint8_t>& present = v6 ? lengths_[rule].v6 : lengths_[rule].v4;
  const auto at = std::lower_bound(present.begin(), present.end(), prefix, std::greater<int>());
  if (at == present.end() || *at != prefix) present.insert(at, static_cast<std::uint8_t>(prefix));

  const Key k = keyOf(rule, d, v6, prefix);
  Slot& s = table_.findOrAdd(tagOfKey(k), [&](const Slot& slot) { return slot.key == k; });
  s.key = k;
  s.verdict.merge(v);
}

Verdict AddressTable::find(int rule, const Destination& d) const {
  if (static_cast<std::size_t>(rule) >= lengths_.size()) return {};
  const bool v6 = d.kind == Destination::kIPv6;
  for (const std::uint8_t prefix : v6 ? lengths_[rule].v6 : lengths_[rule].v4) {
    const Key k = keyOf(rule, d, v6, prefix);
    const Slot* s = table_.find(tagOfKey(k), [&](const Slot& slot) { return slot.key == k; });
    if (s != nullptr) return s->verdict;
  }
  return {};
}

std::size_t AddressTable::bytes() const {
  std::size_t n = table_.bytes() + lengths_.capacity() * sizeof(Lengths);
  for (const Lengths& l : lengths_) n += l.v4.capacity() + l.v6.capacity();
  return n;
}

}  // namespace tpa::bench
