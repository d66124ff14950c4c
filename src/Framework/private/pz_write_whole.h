#ifndef PZ_FRAMEWORK_PRIVATE_PZ_WRITE_WHOLE_H
#define PZ_FRAMEWORK_PRIVATE_PZ_WRITE_WHOLE_H

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

/// Writes `bytes` to a file, in as many pieces as the system takes. False, with errno, when it did
/// not take them all: those before are written.
inline bool pz_write_whole(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = ::write(file, bytes.data(), bytes.size());
        if (count > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_WRITE_WHOLE_H
