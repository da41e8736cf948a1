#include "memory.h"

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// Plain per-thread counter: cheaper than an atomic on every allocation, and
// the benchmarks only read their own thread's count.
thread_local std::uint64_t allocations = 0;

void* allocate(std::size_t size) {
  ++allocations;
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}

void* allocateAligned(std::size_t size, std::align_val_t alignment) {
  ++allocations;
  void* p = nullptr;
  const std::size_t a = std::max(sizeof(void*), static_cast<std::size_t>(alignment));
  if (posix_memalign(&p, a, size ? size : 1) != 0) throw std::bad_alloc();
  return p;
}

std::int64_t statusField(const char* name) {
  std::FILE* f = std::fopen("/proc/self/status", "r");
  if (!f) return -1;
  char line[256];
  std::int64_t kb = -1;
  const std::size_t n = std::strlen(name);
  while (std::fgets(line, sizeof line, f)) {
    if (std::strncmp(line, name, n) == 0 && line[n] == ':') {
      kb = std::strtoll(line + n + 1, nullptr, 10);
      break;
    }
  }
  std::fclose(f);
  return kb * 1024;
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++allocations;
  return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  ++allocations;
  return std::malloc(size ? size : 1);
}
void* operator new(std::size_t size, std::align_val_t a) { return allocateAligned(size, a); }
void* operator new[](std::size_t size, std::align_val_t a) { return allocateAligned(size, a); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }
void operator delete(void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept { std::free(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { std::free(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { std::free(p); }

namespace tpa::bench {

std::uint64_t allocationCount() { return allocations; }

std::int64_t heapAllocated() {
  const struct mallinfo2 m = mallinfo2();
  return static_cast<std::int64_t>(m.uordblks + m.hblkhd);
}

Resident readResident() { return Resident{statusField("VmRSS"), statusField("VmHWM")}; }

void restartPeak() {
  malloc_trim(0);
  // Writing 5 to clear_refs resets the peak resident size (Linux 4.0+).
  if (std::FILE* f = std::fopen("/proc/self/clear_refs", "w")) {
    std::fputs("5", f);
    std::fclose(f);
  }
}

}  // namespace tpa::bench
