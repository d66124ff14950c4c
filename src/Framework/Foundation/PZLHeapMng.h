#ifndef PZ_FRAMEWORK_FOUNDATION_PZLHEAPMNG_H
#define PZ_FRAMEWORK_FOUNDATION_PZLHEAPMNG_H

#include <Framework/PZApi.h>

/// @file
/// The accounted heap: the C library's allocator with the allocating thread and call stack of every
/// block, an overrun check when it is released, totals, and a leak report.
///
/// Threads:   any thread may allocate and release, also what another thread allocated; one lock
///            serialises them. InitMemMng and FinMemMng belong to the start and stop of the
///            framework and take no lock. A thread may still allocate during FinMemMng; its new
///            blocks are left out. No thread may release blocks meanwhile. A refusal is reported
///            under the lock: while the standard output is stuck, every thread that allocates or
///            releases waits. A thread may be cancelled there and while it waits for the lock:
///            nothing is lost, and the lock is released. Static objects may release their blocks
///            while the process ends.
/// Forks:     a child may allocate and release, also its parent's blocks, whatever other threads of
///            the parent did at that moment: fork waits for the lock.
/// Ownership: blocks of Malloc and Realloc are released by Free or Realloc of this heap, never by
///            the C library's.
/// Cost:      about 2.6 KiB and one call-stack capture for each block: a diagnostic allocator. On
///            x86-64 a capture takes 0.1 us by unwind rules kept for each return address. It takes
///            2 us by the C library's backtrace() on other machines, below a signal handler, in a
///            forked child, and where a frame has unusual rules. The addresses are the same.
/// Failures:  a block that is refused (see Free) is reported; nothing is thrown.

/// Begins the measured period: FinMemMng reports only when blocks were allocated, or freed, since.
PZ_API void InitMemMng();

/// Ends the measured period. Unless the newest live block is still that of its beginning, writes
/// totals, peaks, an account of each allocating thread and all live blocks, older ones included, to
/// "/Syslog/HeapList_<process name><UTC time>.txt" (the part before the time is cut to 24
/// characters; the folder is made when it is missing), and prints the live blocks, if any, on the
/// standard output. If the file cannot be written, the blocks are only printed. Changes no account.
///
/// With PZ_HEAP_MAPS=1 in the environment, a file beside it that ends in ".maps" is written too:
/// see pz_HeapWriteMaps.
PZ_API void FinMemMng();

/// Blocks that are live now, and the bytes asked for in them, both modulo 2^32. They count from the
/// start of the process, whether the framework is started or not. Any thread; no lock is taken. A
/// block that is refused (see Free) may have been subtracted, as in the report.
/// @{
PZ_API unsigned int pz_HeapLiveBlocks();
PZ_API unsigned int pz_HeapLiveBytes();
/// @}

/// Writes to `path` what pz-heapview needs to name the functions of a position-independent program:
/// the process's map, and a line "thread 0x%08x name" for each thread with an account. A thread
/// that has ended has the name that it had when it allocated. Replaces the file. Any thread, at any
/// time; takes no memory. False, and reported, when the file cannot be written, or for a null
/// `path`.
PZ_API bool pz_HeapWriteMaps(const char* path);

/// `size` bytes, 0 included, aligned as malloc aligns; null without memory, which is reported only
/// when the heap's own lock finds none: a later call makes it.
PZ_API void* Malloc(unsigned int size);

/// Releases a block; null is ignored. A block that was overrun or does not match the accounts (it
/// was probably freed before) is refused: reported, and deliberately never released.
PZ_API void Free(void* p);

/// Resizes a block, which becomes a new one of the calling thread; a null `p` is Malloc(size).
/// Null when the block is refused (it stays as it was), when `size` is 0 (it is released) and when
/// there is no memory: then the old block is no longer tracked and is lost.
PZ_API void* Realloc(void* p, unsigned int size);

#endif  // PZ_FRAMEWORK_FOUNDATION_PZLHEAPMNG_H
