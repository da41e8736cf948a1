// Benchmark workloads, generated from a seed so that every run (and every
// peer in one run) sees the same rules and queries: rules documents of a
// given number of destinations and query streams against them.
// Plain values; generating is single-threaded, reading the results is safe
// from any thread.
#ifndef TPA_BENCH_WORKLOAD_H_
#define TPA_BENCH_WORKLOAD_H_

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tpa::bench {

// A small deterministic generator (splitmix64): the same seed gives the same
// workload with every compiler and standard library.
class Rng {
 public:
  explicit Rng(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next();
  // Uniform in [0, n); n > 0.
  std::uint32_t below(std::uint32_t n);
  bool chance(double p);
  // One of `choices`, each (weight, value) drawn with its weight out of the
  // sum of all weights.
  template <typename T>
  T pick(std::initializer_list<std::pair<std::uint32_t, T>> choices) {
    std::uint32_t total = 0;
    for (const auto& c : choices) total += c.first;
    std::uint32_t r = below(total);
    for (const auto& c : choices) {
      if (r < c.first) return c.second;
      r -= c.first;
    }
    return choices.begin()->second;
  }

 private:
  std::uint64_t state_;
};

// One rule as it is written in the document. An empty `apps` is an
// any-application rule; `lambdaApp` writes it as ["#LAMBDA-APP"] instead of
// leaving "match_apps" out. `include` and `exclude` are never empty, so no
// rule picks up the catch-all default include list.
struct DocumentRule {
  int id = 0;
  bool lambdaApp = false;
  std::vector<std::string> apps;
  std::vector<std::string> include;
  std::vector<std::string> exclude;
};

// The kinds of destination a rules list holds and a query asks for.
enum class DestKind : std::uint8_t { kDomain, kWildcard, kIPv4, kIPv4Net, kIPv6, kIPv6Net };
inline constexpr int kDestKinds = 6;

// One list entry, for targeting queries at it.
struct Entry {
  std::uint32_t rule;  // index into RuleSet::rules
  bool include;
  DestKind kind;
  std::string text;
};

struct RuleSet {
  std::vector<DocumentRule> rules;       // in document order
  std::vector<Entry> entries;            // every list entry of every rule
  std::vector<std::string> unknownApps;  // application names no rule names
  std::size_t destinations = 0;          // entries.size()
};

// Rules with about `destinations` list entries: 60% domains, 20% wildcards
// (*.x.y), 20% IPv4/IPv6 addresses and networks. Up to 500 per-application
// rules plus a tenth as many any-application rules, placed among them. Every
// label is drawn once, so no entry is a suffix of another; networks are long
// enough (IPv4 /26-/30, IPv6 /44-/64) that an address inside one shares no
// longer run of bits with any other stored network. A few excluded domains
// sit under an included wildcard of their own rule (precedence cases).
[[nodiscard]] RuleSet generateRules(std::uint64_t seed, int destinations);

// The rules document: a JSON array of flat objects with quoted values.
[[nodiscard]] std::string toJson(const RuleSet& rules);

// One rule of a document as toJson wrote it, its strings viewing the text.
// An ["#LAMBDA-APP"] list reads as no applications with `lambdaApp` set.
struct RuleText {
  int id = 0;
  bool lambdaApp = false;
  std::vector<std::string_view> apps, include, exclude;
};

// Calls `visit(rule, index)` for each rule of a document that toJson wrote
// (and only of such a document: quoted strings without escapes, one flat
// object per rule), in document order. The peers build from it, with their
// keys viewing the document.
void scanDocument(std::string_view json,
                  const std::function<void(const RuleText&, std::size_t)>& visit);

// The rules of such a document; entries carry their rule, list and text only.
[[nodiscard]] RuleSet fromJson(const std::string& json);

// What a query is aimed at.
enum class Target : std::uint8_t { kDomain, kWildcard, kIPv4, kIPv4Net, kIPv6, kIPv6Net, kNothing };

struct Query {
  std::uint32_t app;          // index into QueryStream::apps
  std::uint32_t destination;  // index into QueryStream::destinations
  Target target;
};

struct QueryStream {
  std::vector<std::string> apps;
  std::vector<std::string> destinations;
  std::vector<Query> queries;
};

// `count` queries, every destination drawn afresh (wildcard hits get a new
// first label, network hits a new host, misses new names and addresses):
// 40% miss, the rest hit whole domains, wildcards, addresses and networks;
// about a third of the applications are unknown. Nearly all cache misses.
[[nodiscard]] QueryStream distinctQueries(const RuleSet& rules, std::uint64_t seed,
                                          std::size_t count);

// `count` queries over `hot` (application, destination) pairs drawn like the
// distinct ones: after the first round every query is a cache hit, as long as
// `hot` pairs fit the caches (each pair takes at most six entries of a
// machine's cache of 100).
[[nodiscard]] QueryStream repeatedQueries(const RuleSet& rules, std::uint64_t seed,
                                          std::size_t count, int hot = 12);

}  // namespace tpa::bench

#endif  // TPA_BENCH_WORKLOAD_H_
