// tpa_bench: the library against its peers (a hash-table matcher, a MARISA
// trie matcher and the library's own automaton on std::map transitions) on
// generated rules of 1k, 10k and 100k destinations. Before the benchmarks it
// checks that every peer answers a sample of queries as the library does.
//
// Own flags (the rest are Google Benchmark's):
//   --tpa_sizes=1000,10000,100000  rules sizes (destinations)
//   --tpa_queries=1000000          queries per stream
//   --tpa_sample=20000             queries of each stream in the agreement check
//   --tpa_check=only|skip          run only the checks, or skip them
//   --tpa_check_out=FILE           write the checks' summary there (default stderr)
//   --tpa_write_workload=DIR       write each size's rules document, a copy of
//                                  it with 1% of its entries changed (for
//                                  tpa diff), and query
//                                  streams (app TAB destination) and exit
//   --tpa_write_cli=DIR            the same for scripts/cli_bench.py: every
//                                  query of the distinct and hot streams
//   --tpa_probe=KIND,SIZE          (internal) one memory probe, see probes.h
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "anatomy.h"
#include "checks.h"
#include "fixtures.h"
#include "memory.h"
#include "parser/json_parser.h"
#include "probes.h"

namespace tpa::bench {
namespace {

struct Options {
  std::vector<int> sizes = {1000, 10000, 100000};
  std::size_t queries = 1000000;
  std::size_t sample = 20000;
  std::string check;  // "", "only" or "skip"
  std::string checkOut;
  std::string workloadDir;
  std::string cliDir;
  std::string probe;
};

// Consumes the --tpa_ flags from argv.
Options parseOptions(int& argc, char** argv) {
  Options o;
  int kept = 1;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](const char* flag) -> const char* {
      const std::size_t n = std::strlen(flag);
      return a.compare(0, n, flag) == 0 ? argv[i] + n : nullptr;
    };
    if (const char* v = value("--tpa_sizes=")) {
      o.sizes.clear();
      for (const char* p = v; *p;) {
        char* end = nullptr;
        o.sizes.push_back(static_cast<int>(std::strtol(p, &end, 10)));
        p = *end == ',' ? end + 1 : end;
      }
    } else if (const char* v = value("--tpa_queries=")) {
      o.queries = std::strtoull(v, nullptr, 10);
    } else if (const char* v = value("--tpa_sample=")) {
      o.sample = std::strtoull(v, nullptr, 10);
    } else if (const char* v = value("--tpa_check=")) {
      o.check = v;
    } else if (const char* v = value("--tpa_check_out=")) {
      o.checkOut = v;
    } else if (const char* v = value("--tpa_probe=")) {
      o.probe = v;
    } else if (const char* v = value("--tpa_write_workload=")) {
      o.workloadDir = v;
    } else if (const char* v = value("--tpa_write_cli=")) {
      o.cliDir = v;
    } else {
      argv[kept++] = argv[i];
    }
  }
  argc = kept;
  return o;
}

// ---- Queries -------------------------------------------------------------

template <typename Ask>
void runQueries(benchmark::State& state, const QueryStream& s, bool warm, Ask&& ask) {
  const std::size_t n = s.queries.size();
  if (warm) {
    for (std::size_t i = 0; i < std::min<std::size_t>(n, 4096); ++i) {
      const Query& q = s.queries[i];
      Answer a = ask(s.apps[q.app], s.destinations[q.destination]);
      benchmark::DoNotOptimize(a);
    }
  }
  std::size_t i = 0;
  for (auto _ : state) {
    const Query& q = s.queries[i];
    Answer a = ask(s.apps[q.app], s.destinations[q.destination]);
    benchmark::DoNotOptimize(a);
    if (++i == n) i = 0;
  }
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()));
}

void registerQueries(int size, const char* streamName) {
  const bool repeated = std::strcmp(streamName, "repeated") == 0;
  auto stream = [size, repeated]() -> const QueryStream& {
    const Workload& w = Fixtures::get().workload(size);
    return repeated ? w.repeated : w.distinct;
  };
  const std::string tail = std::string("/") + streamName + "/" + std::to_string(size);
  benchmark::RegisterBenchmark(("Query/tpa" + tail).c_str(), [=](benchmark::State& st) {
    const api::Builder& b = Fixtures::get().library(size).builder;
    runQueries(st, stream(), repeated,
               [&](const std::string& app, const std::string& d) { return askLibrary(b, app, d); });
  });
  benchmark::RegisterBenchmark(("Query/tpa_locked" + tail).c_str(), [=](benchmark::State& st) {
    api::TarnPatternAnalyzer& a = Fixtures::get().library(size).analyzer;
    runQueries(st, stream(), repeated, [&](const std::string& app, const std::string& d) {
      int value = -1;
      const int decision = a.query(app, d, value);
      return Answer{decision, value};
    });
  });
  benchmark::RegisterBenchmark(("Query/hash" + tail).c_str(), [=](benchmark::State& st) {
    const HashMatcher& m = Fixtures::get().hash(size);
    runQueries(st, stream(), repeated,
               [&](const std::string& app, const std::string& d) { return m.query(app, d); });
  });
  benchmark::RegisterBenchmark(("Query/marisa" + tail).c_str(), [=](benchmark::State& st) {
    MarisaMatcher& m = Fixtures::get().marisa(size);
    runQueries(st, stream(), repeated,
               [&](const std::string& app, const std::string& d) { return m.query(app, d); });
  });
  benchmark::RegisterBenchmark(("Query/std_map" + tail).c_str(), [=](benchmark::State& st) {
    const NaiveReference& m = Fixtures::get().naive(size);
    runQueries(st, stream(), repeated,
               [&](const std::string& app, const std::string& d) { return m.query(app, d); });
  });
}

// ---- Builds and their memory ----------------------------------------------

template <typename Make>
void runBuilds(benchmark::State& st, int size, Make make) {
  const Workload& w = Fixtures::get().workload(size);
  for (auto _ : st) {
    auto built = make(w);
    if (!built) st.SkipWithError("build failed");
    st.PauseTiming();
    built.reset();
    st.ResumeTiming();
  }
  st.counters["key_chars"] = static_cast<double>(w.keyCharacters);
}

// Sets the probe's measurements as counters of `st`.
void runProbeInto(benchmark::State& st, const std::string& kind, int size) {
  std::map<std::string, double> values;
  for (auto _ : st) values = runProbe(kind, size);
  if (values.empty()) st.SkipWithError("the probe failed");
  for (const auto& [name, value] : values) st.counters[name] = value;
}

template <typename Make>
void registerBuild(int size, const char* peer, Make make) {
  const std::string tail = std::string(peer) + "/" + std::to_string(size);
  benchmark::RegisterBenchmark(("Build/" + tail).c_str(),
                               [=](benchmark::State& st) { runBuilds(st, size, make); })
      ->Unit(benchmark::kMillisecond)
      ->MinTime(0.5);
  benchmark::RegisterBenchmark(("Memory/" + tail).c_str(),
                               [=](benchmark::State& st) { runProbeInto(st, peer, size); })
      ->Unit(benchmark::kMillisecond)
      ->Iterations(1);
}

// ---- The reader -------------------------------------------------------------

void registerReader(int size) {
  const std::string tail = "/" + std::to_string(size);
  benchmark::RegisterBenchmark(("Reader" + tail).c_str(), [=](benchmark::State& st) {
    const std::string& json = Fixtures::get().workload(size).json;
    for (auto _ : st) {
      auto parser = std::make_unique<parser::JsonParser>();
      if (parser->parse(json, false) != 0) st.SkipWithError("parse failed");
      st.PauseTiming();
      parser.reset();
      st.ResumeTiming();
    }
    st.SetBytesProcessed(static_cast<std::int64_t>(st.iterations() * json.size()));
  })->Unit(benchmark::kMillisecond);

  benchmark::RegisterBenchmark(("ReaderMemory" + tail).c_str(),
                               [=](benchmark::State& st) { runProbeInto(st, "reader", size); })
      ->Unit(benchmark::kMillisecond)
      ->Iterations(1);
}

// ---- Allocations on the query path ---------------------------------------------

void registerAllocations(int size) {
  for (const bool repeated : {true, false}) {
    const std::string name = std::string("Allocations/tpa/") +
                             (repeated ? "repeated/" : "distinct/") + std::to_string(size);
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& st) {
                                   Fixtures& f = Fixtures::get();
                                   const Workload& w = f.workload(size);
                                   double perQuery = 0;
                                   for (auto _ : st) {
                                     perQuery = allocationsPerQuery(
                                         f.library(size).builder,
                                         repeated ? w.repeated : w.distinct, 100000, repeated);
                                   }
                                   st.counters["allocs_per_query"] = perQuery;
                                 })
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1);
  }
}

void registerAll(const Options& o) {
  for (const int size : o.sizes) {
    registerReader(size);
    registerBuild(size, "tpa", makeLibrary);
    registerBuild(size, "std_map", makeNaive);
    registerBuild(size, "hash", makeHash);
    registerBuild(size, "marisa", makeMarisa);
    registerQueries(size, "repeated");
    registerQueries(size, "distinct");
    registerAllocations(size);
    registerAnatomy(size);
  }
}

// ---- Workload files for the JVM benchmark ------------------------------------

// The JVM benchmark reads this many queries of each stream.
constexpr std::size_t kJvmQueries = 200000;

void writeStream(const std::string& path, const QueryStream& s) {
  std::ofstream out(path);
  const std::size_t n = std::min(kJvmQueries, s.queries.size());
  for (std::size_t i = 0; i < n; ++i) {
    const Query& q = s.queries[i];
    out << s.apps[q.app] << '\t' << s.destinations[q.destination] << '\n';
  }
}

// The document with about one entry in a hundred changed, in turn moved to
// the other list of its rule, renamed, or dropped (renamed when it is the
// last of its list, which must not fall back to a default).
std::string changedJson(RuleSet rules) {
  Rng rng(0xd1ffull);
  std::size_t changes = 0;
  for (const Entry& e : rules.entries) {
    if (!rng.chance(0.01)) continue;
    DocumentRule& rule = rules.rules[e.rule];
    std::vector<std::string>& from = e.include ? rule.include : rule.exclude;
    std::vector<std::string>& to = e.include ? rule.exclude : rule.include;
    const auto it = std::find(from.begin(), from.end(), e.text);
    if (it == from.end()) continue;
    const std::size_t kind = changes++ % 3;
    if (kind == 1 || from.size() == 1) {
      *it = "changed" + std::to_string(changes) + ".test";
    } else {
      if (kind == 0) to.push_back(*it);
      from.erase(it);
    }
  }
  return toJson(rules);
}

// The streams of the command-line comparison (scripts/cli_bench.py), all
// --tpa_queries of them: the distinct stream, and a hot one that asks 8 of its
// destinations for random applications among 500 of its own.
int writeCliWorkloads(const Options& o) {
  for (const int size : o.sizes) {
    const RuleSet rules = generateRules(kSeed + size, size);  // as the benchmarks' own
    const std::string base = o.cliDir + "/" + std::to_string(size);
    std::ofstream(base + "-rules.json") << toJson(rules);
    const QueryStream distinct = distinctQueries(rules, kSeed + 3 * size, o.queries);
    std::ofstream out(base + "-distinct.tsv");
    for (const Query& q : distinct.queries) {
      out << distinct.apps[q.app] << '\t' << distinct.destinations[q.destination] << '\n';
    }
    Rng rng(kSeed ^ 0x407ull);
    std::ofstream hot(base + "-hot.tsv");
    const auto pick = [&] { return distinct.queries[rng.below(static_cast<std::uint32_t>(
                                std::min<std::size_t>(distinct.queries.size(), 500)))]; };
    std::vector<std::uint32_t> apps, destinations;
    for (int i = 0; i < 500; ++i) apps.push_back(pick().app);
    for (int i = 0; i < 8; ++i) destinations.push_back(pick().destination);
    for (std::size_t i = 0; i < o.queries; ++i) {
      hot << distinct.apps[apps[rng.below(500)]] << '\t'
          << distinct.destinations[destinations[rng.below(8)]] << '\n';
    }
  }
  return 0;
}

int writeWorkloads(const Options& o) {
  for (const int size : o.sizes) {
    const Workload& w = Fixtures::get().workload(size);
    const std::string base = o.workloadDir + "/" + std::to_string(size);
    std::ofstream(base + "-rules.json") << w.json;
    std::ofstream(base + "-rules-changed.json") << changedJson(w.rules);
    writeStream(base + "-repeated.tsv", w.repeated);
    writeStream(base + "-distinct.tsv", w.distinct);
  }
  return 0;
}

int runChecks(const Options& o) {
  std::FILE* out = o.checkOut.empty() ? stderr : std::fopen(o.checkOut.c_str(), "w");
  if (out == nullptr) {
    std::perror(o.checkOut.c_str());
    return 1;
  }
  bool agree = true;
  for (const int size : o.sizes) {
    agree = checkAgreement(size, o.sample, out) && agree;
    Fixtures& f = Fixtures::get();
    const Workload& w = f.workload(size);
    std::fprintf(out, "  heap allocations per query: %.3f on cache hits, %.3f on misses\n",
                 allocationsPerQuery(f.library(size).builder, w.repeated, 100000, true),
                 allocationsPerQuery(f.library(size).builder, w.distinct, 100000, false));
  }
  if (out != stderr) std::fclose(out);
  if (!agree) std::fprintf(stderr, "tpa_bench: the peers disagree with the library\n");
  return agree ? 0 : 1;
}

}  // namespace
}  // namespace tpa::bench

int main(int argc, char** argv) {
  using namespace tpa::bench;
  // glibc raises its mmap threshold each time a large block is freed, after
  // which big zero-filled blocks come from the heap, written through, and
  // count as resident whether touched or not. A fixed threshold keeps every
  // measurement as in a fresh process.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  const Options options = parseOptions(argc, argv);
  if (!options.probe.empty()) return probeMain(options.probe);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Fixtures::get().setStreamLength(options.queries);
  if (!options.workloadDir.empty()) return writeWorkloads(options);
  if (!options.cliDir.empty()) return writeCliWorkloads(options);
  if (options.check != "skip") {
    if (const int failed = runChecks(options); failed != 0 || options.check == "only") {
      return failed;
    }
  }
  registerAll(options);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
