#ifndef PZ_TESTS_SUPPORT_FULLDISK_H
#define PZ_TESTS_SUPPORT_FULLDISK_H

#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace pztest {

/// A disk on which so many bytes are left, for a stream that fopencookie made.
struct FullDisk {
    size_t space;
    std::string taken = {};

    /// As the stream's function that writes: takes what there is space for; then 0, its failure,
    /// with ENOSPC in errno.
    ssize_t Take(const char* data, size_t size) {
        const size_t count = std::min(size, space);
        taken.append(data, count);
        space -= count;
        if (count == 0) errno = ENOSPC;
        return static_cast<ssize_t>(count);
    }
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_FULLDISK_H
