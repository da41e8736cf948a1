#include "tools/alloc_meter.h"

#include <malloc.h>
#include <sys/resource.h>

namespace tpa::tools {

MemorySample sampleMemory() {
  const struct mallinfo2 info = mallinfo2();
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return {info.uordblks + info.hblkhd, usage.ru_maxrss};
}

}  // namespace tpa::tools
