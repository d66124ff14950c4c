#ifndef PZ_FRAMEWORK_FOUNDATION_PZLHEAPMNG_H
#define PZ_FRAMEWORK_FOUNDATION_PZLHEAPMNG_H

#include <Framework/PZApi.h>

// The accounted heap: the C library's allocator with the allocating thread and call stack of every
// block, an overrun check when it is released, totals, and a leak report.
//
// Threads: any thread may allocate and release, also what another thread allocated; one lock
//          serialises them. InitMemMng and FinMemMng belong to the start and stop of the framework.
// Cost:    about 2.6 KiB and one call-stack capture for each block: a diagnostic allocator.

/// Begins the measured period: blocks allocated from here on count for the leak report.
PZ_API void InitMemMng();

/// Ends the measured period: when blocks allocated in it were the last, prints a table of all
/// live blocks on the standard output.
PZ_API void FinMemMng();

/// `size` bytes, aligned as malloc aligns; null when there is no memory.
PZ_API void* Malloc(unsigned int size);

/// Releases a block of Malloc or Realloc; null is ignored. A block that was overrun or does not
/// match the accounts is reported and deliberately never given back.
PZ_API void Free(void* p);

/// Resizes a block of Malloc or Realloc; a null `p` is Malloc(size). Null when the block is
/// refused (it stays as it was) or when there is no memory (it is no longer tracked); a `size`
/// of 0 releases the block and answers null.
PZ_API void* Realloc(void* p, unsigned int size);

#endif  // PZ_FRAMEWORK_FOUNDATION_PZLHEAPMNG_H
