// The parts the two command-line peers share, written as a careful engineer
// would for this job: a verdict per stored key, an open-addressing table with
// a separate array of 32-bit hash tags, the application table (application ->
// rule number) and the address table (per rule number, masked addresses keyed
// by prefix length, probed once per prefix length present, longest first).
// Each table owns its arrays (the application table its names too).
// Building is single-threaded; finds are const and may run concurrently.
// Cost: a find hashes its key once and reads one 4-byte tag per probe; the
// payload (and the key's bytes) is read only on a tag match. The tables are
// sized ahead and grow by doubling past 80% load, so a miss reads a few tags,
// about 9 at worst, in one or two cache lines.
#ifndef TPA_BENCH_PEER_TABLES_H_
#define TPA_BENCH_PEER_TABLES_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "peer_common.h"

namespace tpa::bench {

// What one list entry says about a key: the deciding rule's id and list.
struct Verdict {
  std::int32_t value = -1;
  std::uint8_t state = kNone;
  static constexpr std::uint8_t kNone = 0, kExclude = 1, kInclude = 2;

  [[nodiscard]] bool found() const { return state != kNone; }
  [[nodiscard]] Answer answer() const { return Answer{state == kInclude ? 1 : 0, value}; }
  // A second entry for the same key and form: include wins a tie, as the
  // library weighs two equal hits; otherwise the first entry stays.
  void merge(Verdict v) {
    if (state == kNone || (state == kExclude && v.state == kInclude)) *this = v;
  }
};

// FNV-1a over `s` from its last byte to its first. Read that way, the value
// after each byte is the hash of the suffix starting there, so one pass over
// a queried name yields the hash of every parent suffix.
inline constexpr std::uint64_t kFnvBasis = 0xcbf29ce484222325ull;
[[nodiscard]] inline std::uint64_t fnvStep(std::uint64_t h, unsigned char c) {
  return (h ^ c) * 0x100000001b3ull;
}
[[nodiscard]] inline std::uint64_t reverseFnv(std::string_view s) {
  std::uint64_t h = kFnvBasis;
  for (std::size_t i = s.size(); i-- > 0;) h = fnvStep(h, static_cast<unsigned char>(s[i]));
  return h;
}

// The 32-bit tag of `h` salted with a rule number: the table's slot and its
// filter. Never 0, which marks a free slot.
[[nodiscard]] inline std::uint32_t tagOf(std::uint64_t h, std::uint64_t salt) {
  h += salt * 0x9e3779b97f4a7c15ull;
  h ^= h >> 32;
  h *= 0xd6e8feb86659fd93ull;
  h ^= h >> 32;
  const auto tag = static_cast<std::uint32_t>(h);
  return tag == 0 ? 1 : tag;
}

// Linear probing over a power-of-two array of tags, with the payloads in a
// parallel array.
template <typename Payload>
class TaggedTable {
 public:
  // The payload whose tag is `tag` and for which `same(payload)` holds, or null.
  template <typename Same>
  [[nodiscard]] const Payload* find(std::uint32_t tag, Same same) const {
    if (tags_.empty()) return nullptr;
    for (std::size_t i = tag & mask_;; i = (i + 1) & mask_) {
      const std::uint32_t t = tags_[i];
      if (t == 0) return nullptr;
      if (t == tag && same(payloads_[i])) return &payloads_[i];
    }
  }
  // The payload found as `find` finds it, else a new one (default-made).
  template <typename Same>
  Payload& findOrAdd(std::uint32_t tag, Same same) {
    if (5 * (used_ + 1) > 4 * tags_.size()) rehash(tags_.empty() ? 64 : 2 * tags_.size());
    std::size_t i = tag & mask_;
    for (; tags_[i] != 0; i = (i + 1) & mask_) {
      if (tags_[i] == tag && same(payloads_[i])) return payloads_[i];
    }
    ++used_;
    tags_[i] = tag;
    return payloads_[i];
  }
  // Room for `n` payloads without growing (a build that knows its count
  // never holds two arrays at once).
  void reserve(std::size_t n) {
    std::size_t capacity = 64;
    while (5 * n > 4 * capacity) capacity *= 2;
    if (capacity > tags_.size()) rehash(capacity);
  }
  [[nodiscard]] std::size_t size() const { return used_; }
  [[nodiscard]] std::size_t bytes() const {
    return tags_.size() * (sizeof(std::uint32_t) + sizeof(Payload));
  }

 private:
  void rehash(std::size_t capacity) {
    std::vector<std::uint32_t> tags(capacity, 0);
    std::vector<Payload> payloads(tags.size());
    const std::size_t mask = tags.size() - 1;
    for (std::size_t i = 0; i < tags_.size(); ++i) {
      if (tags_[i] == 0) continue;
      std::size_t j = tags_[i] & mask;
      while (tags[j] != 0) j = (j + 1) & mask;
      tags[j] = tags_[i];
      payloads[j] = payloads_[i];
    }
    tags_.swap(tags);
    payloads_.swap(payloads);
    mask_ = mask;
  }

  // tags_[i] == 0: slot i is free and payloads_[i] unused. Otherwise
  // tags_[i] is its payload's tag, and the slot lies on the probe run that
  // starts at tag & mask_ with no free slot in between.
  std::vector<std::uint32_t> tags_;
  std::vector<Payload> payloads_;
  std::size_t mask_ = 0;
  std::size_t used_ = 0;  // < 80% of tags_.size()
};

// Application -> rule number; an application no rule names is in rule 0.
// Keeps its own copy of the names, so that a matcher may drop its document.
class AppTable {
 public:
  // Room for `apps` names of `bytes` characters in all.
  void reserve(std::size_t apps, std::size_t bytes);
  void add(std::string_view app, int rule);  // the first rule naming `app` keeps it
  [[nodiscard]] int find(std::string_view app) const;
  [[nodiscard]] std::size_t bytes() const { return table_.bytes() + names_.capacity(); }

 private:
  struct Slot {
    std::uint32_t offset = 0, length = 0;  // the name in names_
    std::int32_t rule = 0;
  };
  [[nodiscard]] bool holds(const Slot& s, std::string_view app) const {
    return s.length == app.size() && names_.compare(s.offset, s.length, app) == 0;
  }

  std::string names_;  // every name added, end to end
  TaggedTable<Slot> table_;
};

// Addresses and networks of every rule number: one table keyed by (rule
// number, family, prefix length, masked address); per rule number and family
// the prefix lengths present, longest first, so that a find probes once per
// length present and the first hit is the longest match. An address is a
// network of its full length.
class AddressTable {
 public:
  void reserve(std::size_t entries) { table_.reserve(entries); }
  // `d` is an address or a network (parseDestination).
  void add(int rule, const Destination& d, Verdict v);
  // The verdict of the longest stored network holding the address `d`.
  [[nodiscard]] Verdict find(int rule, const Destination& d) const;
  [[nodiscard]] std::size_t bytes() const;

 private:
  struct Key {
    std::uint64_t hi = 0, lo = 0;  // the masked address, IPv4 in the low 32 bits of hi
    std::int32_t rule = 0;
    std::uint8_t family = 0;  // 4 or 6
    std::uint8_t prefix = 0;
    bool operator==(const Key& o) const {
      return hi == o.hi && lo == o.lo && rule == o.rule && family == o.family &&
             prefix == o.prefix;
    }
  };
  struct Slot {
    Key key;
    Verdict verdict;
  };
  [[nodiscard]] static Key keyOf(int rule, const Destination& d, bool v6, int prefix);
  [[nodiscard]] static std::uint32_t tagOfKey(const Key& k);
  struct Lengths {
    std::vector<std::uint8_t> v4, v6;  // prefix lengths present, descending, no repeats
  };

  std::vector<Lengths> lengths_;  // by rule number
  TaggedTable<Slot> table_;
};

}  // namespace tpa::bench

#endif  // TPA_BENCH_PEER_TABLES_H_
