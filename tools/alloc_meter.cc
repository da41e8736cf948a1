#include "tools/alloc_meter.h"

#include <malloc.h>
#include <sys/resource.h>

#include <cstdlib>
#include <new>

namespace tpa::tools {
namespace {

// Usable sizes as malloc reports them, so that delete can subtract exactly
// what new added without a header of its own.
std::size_t gLive = 0;
std::size_t gPeak = 0;

void* countedAlloc(std::size_t size) {
  void* p = std::malloc(size == 0 ? 1 : size);
  if (p == nullptr) return nullptr;
  gLive += malloc_usable_size(p);
  if (gLive > gPeak) gPeak = gLive;
  return p;
}

void countedFree(void* p) {
  if (p == nullptr) return;
  gLive -= malloc_usable_size(p);
  std::free(p);
}

}  // namespace

MemorySample sampleMemory() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return {gLive, gPeak, usage.ru_maxrss};
}

void resetPeak() { gPeak = gLive; }

}  // namespace tpa::tools

// The replaceable allocation functions; the array, nothrow and sized forms
// of the standard library forward to these.
void* operator new(std::size_t size) {
  void* p = tpa::tools::countedAlloc(size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return tpa::tools::countedAlloc(size);
}

void operator delete(void* p) noexcept { tpa::tools::countedFree(p); }

void operator delete(void* p, std::size_t) noexcept { tpa::tools::countedFree(p); }
