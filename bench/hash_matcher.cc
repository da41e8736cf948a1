#include "hash_matcher.h"

#include <cstring>

namespace tpa::bench {

namespace {

bool same(const char* stored, std::uint32_t length, int storedRule, int rule,
          std::string_view name) {
  return storedRule == rule && length == name.size() &&
         std::memcmp(stored, name.data(), length) == 0;
}

}  // namespace

void HashNames::add(int rule, std::string_view name, bool wildcard, Verdict v) {
  Slot& s = table_.findOrAdd(tagOf(reverseFnv(name), static_cast<std::uint64_t>(rule)),
                             [&](const Slot& x) { return same(x.name, x.length, x.rule, rule, name); });
  s.name = name.data();
  s.length = static_cast<std::uint32_t>(name.size());
  s.rule = rule;
  (wildcard ? s.wildcard : s.exact).merge(v);
}

void HashNames::prepare(std::string_view name, Query& q) const {
  q.name = name;
  q.suffixes = 0;
  std::uint64_t h = kFnvBasis;
  // Backwards: the hash so far is the suffix's starting here. A suffix is a
  // parent when a dot precedes it, the name's first byte included (the
  // library holds ".b.c" in "*.b.c"), and it is not empty.
  for (std::size_t i = name.size(); i-- > 0;) {
    const auto c = static_cast<unsigned char>(name[i]);
    if (c == '.' && i + 1 < name.size() && q.suffixes < kMaxSuffixes) {
      q.start[q.suffixes] = static_cast<std::uint32_t>(i + 1);
      q.hash[q.suffixes++] = h;
    }
    h = fnvStep(h, c);
  }
  q.whole = h;
}

const HashNames::Slot* HashNames::slot(int rule, std::string_view name, std::uint64_t hash) const {
  return table_.find(tagOf(hash, static_cast<std::uint64_t>(rule)), [&](const Slot& x) {
    return same(x.name, x.length, x.rule, rule, name);
  });
}

Verdict HashNames::find(int rule, const Query& q) const {
  if (const Slot* s = slot(rule, q.name, q.whole); s != nullptr && s->exact.found()) {
    return s->exact;
  }
  for (int k = q.suffixes - 1; k >= 0; --k) {
    const Slot* s = slot(rule, q.name.substr(q.start[k]), q.hash[k]);
    if (s != nullptr && s->wildcard.found()) return s->wildcard;
  }
  return {};
}

}  // namespace tpa::bench
