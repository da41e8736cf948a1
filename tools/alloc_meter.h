// Memory accounting for `tpa check`: what the C library's allocator has
// handed out (all arenas and mmapped blocks, so the automata's state arrays
// count as well as every container) and the process's peak resident set.
// Reads process-wide counters; meaningful in the single-threaded tool.
#ifndef TPA_TOOLS_ALLOC_METER_H_
#define TPA_TOOLS_ALLOC_METER_H_

#include <cstddef>

namespace tpa::tools {

struct MemorySample {
  std::size_t allocatedBytes = 0;  // in use through malloc and friends now
  long peakRssKiB = 0;             // the process's peak resident set size
};

[[nodiscard]] MemorySample sampleMemory();

}  // namespace tpa::tools

#endif  // TPA_TOOLS_ALLOC_METER_H_
