#include "fsa/heap.h"

#include <cstdlib>  // defines __GLIBC__ on glibc
#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace tpa::fsa {

void releaseFreedMemory() {
#if defined(__GLIBC__)
  malloc_trim(0);
#endif
}

}  // namespace tpa::fsa
