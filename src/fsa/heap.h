// Giving freed heap memory back to the system. A build frees arrays of
// megabytes, which the C library keeps (below its heap's top, in its arenas)
// for later allocations that may never come, while a phone's low-memory
// killer watches resident memory. Stateless; safe on any thread.
#ifndef TPA_FSA_HEAP_H_
#define TPA_FSA_HEAP_H_

namespace tpa::fsa {

// Returns the free pages of the heap to the system where the C library can
// (glibc); elsewhere nothing.
void releaseFreedMemory();

}  // namespace tpa::fsa

#endif  // TPA_FSA_HEAP_H_
