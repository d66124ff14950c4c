#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_HEAP_MAPS_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_HEAP_MAPS_H

#include <cstddef>

/// A thread that has allocated, and what the kernel called it then.
struct ST_HEAP_THREAD {
    unsigned int id;  // 0: none
    char name[16];    // terminated
};

/// Writes the map of the process to a file, and a line "thread 0x%08x name" for each of `threads`,
/// by the name of today while it lives. `flags` of open(2) say what becomes of a file, or a link,
/// that is there. False, with errno set, when that fails. Takes no memory.
bool pz_write_heap_maps(const char* path, int flags, const ST_HEAP_THREAD* threads,
                        std::size_t count);

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_HEAP_MAPS_H
