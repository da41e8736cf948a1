#include "checks.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <string>

#include "memory.h"

namespace tpa::bench {

namespace {

constexpr std::array<const char*, 7> kTargetNames = {"domain", "wildcard", "ipv4",   "ipv4-net",
                                                     "ipv6",   "ipv6-net", "nothing"};
constexpr std::array<const char*, 3> kPeerNames = {"hash", "marisa", "std::map"};

struct Tally {
  std::size_t queries = 0, include = 0, exclude = 0, none = 0;
  std::array<std::size_t, 3> mismatches{};
};

void printTallies(const std::array<Tally, 7>& tallies, std::FILE* out) {
  std::fprintf(out, "  %-9s %8s %8s %8s %8s   mismatches: hash marisa std::map\n", "target",
               "queries", "include", "exclude", "default");
  for (std::size_t t = 0; t < tallies.size(); ++t) {
    const Tally& y = tallies[t];
    if (y.queries == 0) continue;
    std::fprintf(out, "  %-9s %8zu %8zu %8zu %8zu   %15zu %6zu %8zu\n", kTargetNames[t], y.queries,
                 y.include, y.exclude, y.none, y.mismatches[0], y.mismatches[1], y.mismatches[2]);
  }
}

}  // namespace

Answer askLibrary(const api::Builder& builder, const std::string& app,
                  const std::string& destination) {
  int value = -1;
  const int decision = builder.query(app, destination, value);
  return Answer{decision, value};
}

bool checkAgreement(int size, std::size_t sample, std::FILE* out) {
  Fixtures& f = Fixtures::get();
  const Workload& w = f.workload(size);
  Library& lib = f.library(size);
  HashMatcher& hash = f.hash(size);
  MarisaMatcher& marisa = f.marisa(size);
  NaiveReference& naive = f.naive(size);

  std::array<Tally, 7> tallies{};
  int examples = 0;
  std::size_t total = 0;
  for (const QueryStream* s : {&w.distinct, &w.repeated}) {
    const std::size_t n = std::min(sample, s->queries.size());
    for (std::size_t i = 0; i < n; ++i) {
      const Query& q = s->queries[i];
      const std::string& app = s->apps[q.app];
      const std::string& destination = s->destinations[q.destination];
      const Answer expected = askLibrary(lib.builder, app, destination);
      const std::array<Answer, 3> got = {hash.query(app, destination),
                                         marisa.query(app, destination),
                                         naive.query(app, destination)};
      Tally& y = tallies[static_cast<int>(q.target)];
      ++y.queries;
      ++(expected.value == -1 ? y.none : expected.decision == 1 ? y.include : y.exclude);
      for (std::size_t p = 0; p < got.size(); ++p) {
        if (got[p] == expected) continue;
        ++y.mismatches[p];
        ++total;
        if (examples++ < 10) {
          std::fprintf(out, "  MISMATCH %s: (%s, %s) library (%d, %d), %s (%d, %d)\n",
                       kTargetNames[static_cast<int>(q.target)], app.c_str(), destination.c_str(),
                       expected.decision, expected.value, kPeerNames[p], got[p].decision,
                       got[p].value);
        }
      }
    }
  }
  std::fprintf(out, "agreement on %d destinations (%zu queries of each stream):\n", size, sample);
  printTallies(tallies, out);
  std::fprintf(
      out, "  %s\n",
      total == 0 ? "every peer agrees with the library" : "PEERS DISAGREE WITH THE LIBRARY");
  return total == 0;
}

double allocationsPerQuery(const api::Builder& builder, const QueryStream& stream,
                           std::size_t count, bool warm) {
  auto run = [&](std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
      const Query& q = stream.queries[i % stream.queries.size()];
      Answer a = askLibrary(builder, stream.apps[q.app], stream.destinations[q.destination]);
      benchmark::DoNotOptimize(a);
    }
  };
  if (warm) run(stream.queries.size());
  const std::uint64_t before = allocationCount();
  run(count);
  return static_cast<double>(allocationCount() - before) / static_cast<double>(count);
}

}  // namespace tpa::bench
