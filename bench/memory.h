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

// Resident bytes that `build` added: at its peak and when it returned.
struct MemoryUse {
  std::int64_t peak = 0;
  std::int64_t retained = 0;
};

// Hands freed heap back to the system and restarts the peak at the current
// resident size, so that what follows is measured from here.
void restartPeak();

template <typename Build>
MemoryUse measureResident(Build&& build) {
  restartPeak();
  const Resident before = readResident();
  build();
  const Resident after = readResident();
  return MemoryUse{after.peak - before.current, after.current - before.current};
}

}  // namespace tpa::bench

#endif  // TPA_BENCH_MEMORY_H_
