// Checks run before the benchmarks: that every peer answers a sample of the
// queries exactly as the library does (so that the timings compare the same
// work), and how many heap allocations a cache-hit query of the library makes.
// Single-threaded, on the shared fixtures.
#ifndef TPA_BENCH_CHECKS_H_
#define TPA_BENCH_CHECKS_H_

#include <cstddef>
#include <cstdio>

#include "fixtures.h"

namespace tpa::bench {

// The library's answer, through Builder::query.
[[nodiscard]] Answer askLibrary(const api::Builder& builder, const std::string& app,
                                const std::string& destination);

// Compares the hash, MARISA and std::map matchers with the library on the
// first `sample` queries of both streams of `size`; writes a summary (answers
// by target, mismatches with examples) to `out`. True when all agree.
[[nodiscard]] bool checkAgreement(int size, std::size_t sample, std::FILE* out);

// Heap allocations per library query over `count` queries of `stream`
// (cyclically). With `warm`, the whole stream is asked once first, so that a
// repeated stream then meets nothing but cache hits.
[[nodiscard]] double allocationsPerQuery(const api::Builder& builder, const QueryStream& stream,
                                         std::size_t count, bool warm);

}  // namespace tpa::bench

#endif  // TPA_BENCH_CHECKS_H_
