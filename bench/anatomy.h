// Benchmarks that take a cache-missing library query apart: how many searches
// of each kind (whole key, bit run, network prefix, wildcard) one query makes,
// and what a whole-key and a wildcard search of the suffix automaton cost on
// their own. Single-threaded, on the shared fixtures.
#ifndef TPA_BENCH_ANATOMY_H_
#define TPA_BENCH_ANATOMY_H_

namespace tpa::bench {

void registerAnatomy(int size);

}  // namespace tpa::bench

#endif  // TPA_BENCH_ANATOMY_H_
