#include "anatomy.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <vector>

#include "api/diagnostics.h"
#include "fixtures.h"
#include "mapper/map.h"
#include "mapper/trace.h"

namespace tpa::bench {

namespace {

constexpr std::size_t kTracedQueries = 20000;

struct Anatomy {
  // Searches per query, by kind, over the traced queries.
  double whole = 0, bits = 0, prefix = 0, partial = 0, steps = 0;
  // The framed include keys the queries searched, for timing the automaton.
  std::vector<std::string> keys;
};

void count(const mapper::ListTrace& list, Anatomy& a) {
  a.whole += list.whole.attempted;
  a.bits += list.bitsSearch.attempted;
  a.prefix += list.prefix.attempted;
  a.partial += list.partial.attempted;
}

// Traces the first queries of the distinct stream. Tracing runs the query as
// usual (and fills the caches as usual).
Anatomy trace(int size) {
  Fixtures& f = Fixtures::get();
  const QueryStream& s = f.workload(size).distinct;
  const mapper::Map* map = api::Inspect::map(f.library(size).builder);
  Anatomy a;
  const std::size_t n = std::min(kTracedQueries, s.queries.size());
  for (std::size_t i = 0; i < n; ++i) {
    const Query& q = s.queries[i];
    mapper::QueryTrace t;
    map->get(s.apps[q.app], s.destinations[q.destination], &t);
    a.whole += t.app.attempted;
    a.steps += static_cast<double>(t.steps.size());
    for (const mapper::StepTrace& step : t.steps) {
      count(step.include, a);
      count(step.exclude, a);
    }
    if (!t.steps.empty()) a.keys.push_back(t.steps.front().include.key);
  }
  for (double* x : {&a.whole, &a.bits, &a.prefix, &a.partial, &a.steps})
    *x /= static_cast<double>(n);
  return a;
}

const Anatomy& anatomy(int size) {
  static std::vector<std::pair<int, Anatomy>> cache;
  for (const auto& [s, a] : cache) {
    if (s == size) return a;
  }
  cache.emplace_back(size, trace(size));
  return cache.back().second;
}

template <typename Search>
void timeSearches(benchmark::State& st, int size, Search search) {
  const std::vector<std::string>& keys = anatomy(size).keys;
  // A built map's include machine: its frozen automaton, as queries read it.
  const auto* automaton =
      api::Inspect::map(Fixtures::get().library(size).builder)->includeMachine()->frozen();
  std::size_t i = 0;
  for (auto _ : st) {
    fsa::SAStateValue<int> v;
    const int matched = search(*automaton, keys[i], v);
    benchmark::DoNotOptimize(matched);
    benchmark::DoNotOptimize(v);
    if (++i == keys.size()) i = 0;
  }
  std::size_t chars = 0;
  for (const std::string& k : keys) chars += k.size();
  st.counters["key_chars"] = static_cast<double>(chars) / static_cast<double>(keys.size());
}

}  // namespace

void registerAnatomy(int size) {
  const std::string tail = "/" + std::to_string(size);
  benchmark::RegisterBenchmark(("Anatomy/searches" + tail).c_str(),
                               [=](benchmark::State& st) {
                                 Anatomy a;
                                 for (auto _ : st) a = anatomy(size);
                                 st.counters["rule_steps"] = a.steps;
                                 st.counters["whole"] = a.whole;
                                 st.counters["bits"] = a.bits;
                                 st.counters["prefix"] = a.prefix;
                                 st.counters["partial"] = a.partial;
                               })
      ->Iterations(1)
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark(("Anatomy/whole" + tail).c_str(), [=](benchmark::State& st) {
    timeSearches(st, size, [](const auto& sa, const std::string& k, fsa::SAStateValue<int>& v) {
      return sa.tryFindFull(k, v);
    });
  });
  benchmark::RegisterBenchmark(("Anatomy/partial" + tail).c_str(), [=](benchmark::State& st) {
    timeSearches(st, size, [](const auto& sa, const std::string& k, fsa::SAStateValue<int>& v) {
      return sa.tryFindPartial(k, v);
    });
  });
}

}  // namespace tpa::bench
