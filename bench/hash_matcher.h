// The hash-table peer: the matcher a C++ developer would write with hash
// tables. Names sit in one open-addressing table keyed by (rule number, name),
// each entry holding the name's own verdict and its "*." form's; a queried
// name is looked up whole and then by each parent suffix, longest first, all
// of their hashes from one backward pass over the name. See PeerMatcher for
// the rest (applications, addresses, the fallback to rule 0).
// Cost: 36 bytes per slot (a 32-byte entry and its tag) at up to 80% load,
// sized ahead from the document's count of names; a query reads its
// name twice (hashing, and comparing on a hit) and probes once per label,
// per rule number tried. Build once; const queries may run concurrently.
#ifndef TPA_BENCH_HASH_MATCHER_H_
#define TPA_BENCH_HASH_MATCHER_H_

#include <array>
#include <cstdint>
#include <string_view>

#include "peer_matcher.h"
#include "peer_tables.h"

namespace tpa::bench {

class HashNames {
 public:
  // A queried name with the hash of itself and of each parent suffix.
  struct Query {
    std::string_view name;
    std::uint64_t whole = 0;
    int suffixes = 0;  // parent suffixes hashed, at most kMaxSuffixes
    // Parent suffixes, shortest first: where each starts and its hash.
    std::array<std::uint32_t, 127> start;
    std::array<std::uint64_t, 127> hash;
  };
  static constexpr int kMaxSuffixes = 127;  // labels of the longest DNS name

  static constexpr bool kViewsDocument = true;  // names are views into it

  void reserve(std::size_t names, std::size_t) { table_.reserve(names); }
  // `name` views the matcher's document; `wildcard` says it is "*.name".
  void add(int rule, std::string_view name, bool wildcard, Verdict v);
  void finish() {}
  void prepare(std::string_view name, Query& q) const;
  [[nodiscard]] Verdict find(int rule, const Query& q) const;
  [[nodiscard]] std::size_t bytes() const { return table_.bytes(); }

 private:
  struct Slot {
    const char* name = nullptr;
    std::uint32_t length = 0;
    std::int32_t rule = 0;
    Verdict exact, wildcard;  // the name's own, and "*.name"'s
  };
  [[nodiscard]] const Slot* slot(int rule, std::string_view name, std::uint64_t hash) const;

  TaggedTable<Slot> table_;
};

using HashMatcher = PeerMatcher<HashNames>;

}  // namespace tpa::bench

#endif  // TPA_BENCH_HASH_MATCHER_H_
