// What the peer matchers share with each other and with the library's
// decision: the answer, the hit of one list with the lengths the library
// weighs, and the parsing of a destination. Peers answer with the same rule
// numbers (1-based position, 0 for any-application rules), fall back to rule
// 0 when their own rule has no hit, and weigh include against exclude as the
// library does. Stateless; safe from any thread.
#ifndef TPA_BENCH_PEER_COMMON_H_
#define TPA_BENCH_PEER_COMMON_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace tpa::bench {

struct Answer {
  int decision = 0;  // 1 include, 0 exclude
  int value = -1;    // the deciding rule's id, -1 when nothing matched
  bool operator==(const Answer& o) const { return decision == o.decision && value == o.value; }
  bool operator!=(const Answer& o) const { return !(*this == o); }
};

// A list's hit, with the lengths of the framed keys ("#name$" rule flag) that
// the library compares: the stored key's length and how much of the queried
// key matched (the whole key for names and networks, the tail after '*' for
// wildcards).
struct ListHit {
  bool found = false;
  int matched = 0;
  int stored = 0;
  int value = -1;
};

[[nodiscard]] inline int decimalDigits(int n) {
  int d = 1;
  while (n >= 10) n /= 10, ++d;
  return d;
}

// Hits of each kind under a rule number with `digits` decimal digits.
[[nodiscard]] inline ListHit exactHit(int nameLength, int digits, int value) {
  const int n = nameLength + 3 + digits;
  return ListHit{true, n, n, value};
}
// `tailLength` counts the tail after '*', its leading '.' included.
[[nodiscard]] inline ListHit wildcardHit(int tailLength, int digits, int value) {
  const int stored = tailLength + 4 + digits;
  return ListHit{true, stored - 2, stored, value};
}
inline constexpr int kIPv4TextLength = 15;  // "010.001.002.003"
inline constexpr int kIPv6TextLength = 39;  // eight groups of four

// Equal hits go to the include list, and so does a hit that is longer on
// either count; otherwise the exclude list wins.
[[nodiscard]] inline bool includeWins(const ListHit& in, const ListHit& ex) {
  const bool equal = in.matched == ex.matched && in.stored == ex.stored;
  return equal || in.stored > ex.stored || in.matched > ex.matched;
}

// The answer of one rule number, or false when neither list has a hit.
[[nodiscard]] inline bool weigh(const ListHit& in, const ListHit& ex, Answer& out) {
  if (!in.found && !ex.found) return false;
  const bool include = in.found && (!ex.found || includeWins(in, ex));
  out = include ? Answer{1, in.value} : Answer{0, ex.value};
  return true;
}

// The answer under `rule`, else under rule 0 (the any-application rules),
// else the default. `lookup(rule, out)` answers one rule number and returns
// false when neither of its lists has a hit.
template <typename Lookup>
[[nodiscard]] Answer answerWithFallback(int rule, Lookup&& lookup) {
  Answer out;
  if (lookup(rule, out)) return out;
  if (rule != 0 && lookup(0, out)) return out;
  return Answer{};
}

// A destination as a rule lists it or a query names it.
struct Destination {
  enum Kind : std::uint8_t { kDomain, kWildcard, kIPv4, kIPv6, kIPv4Net, kIPv6Net };
  Kind kind = kDomain;
  std::string_view text;                   // the name; for a wildcard the tail after '*' (".b.c")
  std::array<std::uint8_t, 16> address{};  // network byte order, IPv4 in the first 4
  int prefix = 0;                          // networks only
};

// Classifies `text` (wildcards start with "*.", networks carry "/prefix",
// addresses are what inet_pton accepts) and masks a network's host bits.
[[nodiscard]] Destination parseDestination(std::string_view text);

// A query's destination: as parseDestination, but a name that looks like a
// wildcard or a network is just a name here.
[[nodiscard]] Destination parseQuery(std::string_view text);

// The rule number the library gives the rule at `index` (0-based) of a
// document: 0 for an any-application rule, else its 1-based position.
[[nodiscard]] inline int ruleNumberOf(bool anyApplication, std::size_t index) {
  return anyApplication ? 0 : static_cast<int>(index) + 1;
}

// An address as a 32-bit number (IPv4) or two 64-bit halves (IPv6).
[[nodiscard]] inline std::uint32_t v4Of(const Destination& d) {
  return (std::uint32_t{d.address[0]} << 24) | (std::uint32_t{d.address[1]} << 16) |
         (std::uint32_t{d.address[2]} << 8) | d.address[3];
}
[[nodiscard]] inline std::uint64_t v6Half(const Destination& d, int half) {
  std::uint64_t v = 0;
  for (int i = 0; i < 8; ++i) v = (v << 8) | d.address[8 * half + i];
  return v;
}

}  // namespace tpa::bench

#endif  // TPA_BENCH_PEER_COMMON_H_
