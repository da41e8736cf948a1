#include "fsa/heap.h"

#include <cstdlib>  // defines __GLIBC__ on glibc
#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace tpa::fsa {

namespace {

// Under a sanitizer the sanitizer's allocator owns the heap: glibc's trim
// would walk arenas that malloc never set up, and two threads doing so at
// once (the diff builds its two documents side by side) can crash.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitizerOwnsHeap = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitizerOwnsHeap = true;
#else
constexpr bool kSanitizerOwnsHeap = false;
#endif
#else
constexpr bool kSanitizerOwnsHeap = false;
#endif

}  // namespace

void releaseFreedMemory() {
#if defined(__GLIBC__)
  if (!kSanitizerOwnsHeap) malloc_trim(0);
#endif
}

}  // namespace tpa::fsa
