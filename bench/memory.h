// Memory and allocation measurements of the benchmark process: resident set
// (current and peak, from /proc/self/status), a restartable peak, and the
// number of heap allocations made through operator new (counted by the
// binary's replacement of the global allocation functions).
// Counts are per thread; the benchmarks run on one thread.
#ifndef TPA_BENCH_MEMORY_H_
#define TPA_BENCH_MEMORY_H_

#include <cstdint>

namespace tpa::bench {

// Operator-new calls made by the calling thread so far.
[[nodiscard]] std::uint64_t allocationCount();

struct Resident {
  std::int64_t current = 0;  // VmRSS, bytes
  std::int64_t peak = 0;     // VmHWM, bytes
};
[[nodiscard]] Resident readResident();

// Heap bytes allocated and not yet freed (mallinfo2: the main arena's bytes
// in use plus mmapped blocks, whether their pages were touched or not).
[[nodiscard]] std::int64_t heapAllocated();

// What `build` added: resident bytes at its peak and when it returned, and
// heap bytes still allocated when it returned. Resident growth undercounts
// small objects placed in heap holes that were already resident; allocated
// bytes overcount large zero-filled blocks whose pages were never touched.
struct MemoryUse {
  std::int64_t peak = 0;
  std::int64_t retained = 0;
  std::int64_t allocated = 0;
};

// Hands freed heap back to the system and restarts the peak at the current
// resident size, so that what follows is measured from here.
void restartPeak();

template <typename Build>
MemoryUse measureResident(Build&& build) {
  restartPeak();
  const std::int64_t heapBefore = heapAllocated();
  const Resident before = readResident();
  build();
  const Resident after = readResident();
  return MemoryUse{after.peak - before.current, after.current - before.current,
                   heapAllocated() - heapBefore};
}

}  // namespace tpa::bench

#endif  // TPA_BENCH_MEMORY_H_
