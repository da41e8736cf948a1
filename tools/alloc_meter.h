// Memory accounting for `tpa check`. The tool replaces the global operator
// new/delete with a counting pair over malloc, so that it can tell how many
// bytes a build holds and how high it peaked; the library itself is not
// changed. The counters are plain integers: the tool is single-threaded.
#ifndef TPA_TOOLS_ALLOC_METER_H_
#define TPA_TOOLS_ALLOC_METER_H_

#include <cstddef>

namespace tpa::tools {

struct MemorySample {
  std::size_t liveBytes = 0;  // held through operator new now
  std::size_t peakBytes = 0;  // highest liveBytes since the last resetPeak
  long peakRssKiB = 0;        // the process's peak resident set size
};

[[nodiscard]] MemorySample sampleMemory();
// Starts a new peak measurement at the current live size.
void resetPeak();

}  // namespace tpa::tools

#endif  // TPA_TOOLS_ALLOC_METER_H_
