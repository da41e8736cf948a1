// The matcher a C++ developer would write with hash tables: per rule number
// and list, an exact-name hash map, a map of wildcard tails walked label by
// label from the most specific, exact-address maps and one hash map per
// network prefix length, longest first. The peer against which the library's
// query speed is judged. Owns copies of every string it indexes.
// Cost: a query hashes the application once and, per list and rule number
// tried, the name (or address) once plus one hash per label or prefix length.
// Not thread-safe for building; queries are const and may run concurrently.
#ifndef TPA_BENCH_HASH_MATCHER_H_
#define TPA_BENCH_HASH_MATCHER_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "peer_common.h"
#include "workload.h"

namespace tpa::bench {

class HashMatcher {
 public:
  void build(const RuleSet& rules);
  [[nodiscard]] Answer query(std::string_view app, std::string_view destination) const;

 private:
  struct V6Key {
    std::uint64_t hi, lo;
    bool operator==(const V6Key& o) const { return hi == o.hi && lo == o.lo; }
  };
  struct V6Hash {
    std::size_t operator()(const V6Key& k) const {
      return std::hash<std::uint64_t>()(k.hi * 0x9e3779b97f4a7c15ull ^ k.lo);
    }
  };
  // One list (include or exclude) of one rule number. Network maps are kept
  // longest prefix first.
  struct ListTables {
    std::unordered_map<std::string_view, int> names;
    std::unordered_map<std::string_view, int> wildcards;  // keyed by ".b.c"
    std::unordered_map<std::uint32_t, int> v4;
    std::unordered_map<V6Key, int, V6Hash> v6;
    std::vector<std::pair<int, std::unordered_map<std::uint32_t, int>>> v4Nets;
    std::vector<std::pair<int, std::unordered_map<V6Key, int, V6Hash>>> v6Nets;
  };
  struct RuleTables {
    ListTables include, exclude;
  };

  void add(ListTables& list, std::string_view text, int value);
  [[nodiscard]] ListHit find(const ListTables& list, const Destination& d, int digits) const;
  [[nodiscard]] bool lookup(const Destination& d, int rule, Answer& out) const;

  // Every indexed string lives here; the maps hold views into it. Reserved
  // in one piece before the first append, so the views never move.
  std::string arena_;
  std::unordered_map<std::string_view, int> apps_;  // application -> rule number
  std::vector<RuleTables> rules_;                   // indexed by rule number
};

}  // namespace tpa::bench

#endif  // TPA_BENCH_HASH_MATCHER_H_
