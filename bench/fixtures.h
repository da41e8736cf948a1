// The shared state of one benchmark run: for each rules size, its workload
// (rules, document, query streams) and every matcher built over it, made on
// first use and kept for the whole run, so that the check and all benchmarks
// of a size see the very same objects.
// Single-threaded: the benchmarks run one at a time on the main thread.
#ifndef TPA_BENCH_FIXTURES_H_
#define TPA_BENCH_FIXTURES_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "hash_matcher.h"
#include "marisa_matcher.h"
#include "naive_reference.h"
#include "tpa/api/analyzer.h"
#include "workload.h"

namespace tpa::bench {

inline constexpr std::uint64_t kSeed = 20240611;

struct Workload {
  int size = 0;  // destinations asked for
  RuleSet rules;
  std::string json;
  QueryStream repeated;
  QueryStream distinct;
  // Characters of every framed key the library stores: the sum of the
  // reader's three totals (applications, include, exclude).
  std::int64_t keyCharacters = 0;
};

// A workload's rules and document alone, without query streams (the same
// rules as Fixtures::workload(size) has).
[[nodiscard]] Workload makeRulesWorkload(int size);

// The sum of the reader's three symbol totals for `json`, 0 if it does not read.
[[nodiscard]] std::int64_t keyCharacters(const std::string& json);

// How the library is asked: Builder::query directly, or through the
// analyzer's lock as the JNI bridge does.
struct Library {
  api::Builder builder;
  api::TarnPatternAnalyzer analyzer;
};

class Fixtures {
 public:
  static Fixtures& get();

  // Query streams hold this many queries.
  void setStreamLength(std::size_t n) { streamLength_ = n; }

  const Workload& workload(int size);
  Library& library(int size);  // aborts the run when the rules do not build
  HashMatcher& hash(int size);
  MarisaMatcher& marisa(int size);
  NaiveReference& naive(int size);

  // Drops the matchers of a size (the workload stays).
  void release(int size);

 private:
  struct Entry {
    std::unique_ptr<Workload> workload;
    std::unique_ptr<Library> library;
    std::unique_ptr<HashMatcher> hash;
    std::unique_ptr<MarisaMatcher> marisa;
    std::unique_ptr<NaiveReference> naive;
  };
  Entry& entry(int size);
  template <typename T, typename Make>
  T& lazy(int size, std::unique_ptr<T> Entry::*slot, Make make, const char* what);

  std::size_t streamLength_ = 1000000;
  std::map<int, Entry> entries_;
};

}  // namespace tpa::bench

#endif  // TPA_BENCH_FIXTURES_H_
