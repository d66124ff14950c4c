#ifndef PZ_TESTS_SUPPORT_OWNSTREAMS_H
#define PZ_TESTS_SUPPORT_OWNSTREAMS_H

#include <sys/types.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "support/Interposed.h"

// Files that the library opens under names of its own: by open, which can leave links alone, and
// fdopen. Defines both calls: to be included by one source of a test program.

namespace pztest {

inline Interposed<int(const char*, int, mode_t)> open_call("open64");
inline Interposed<FILE*(int, const char*)> fdopen_call("fdopen", nullptr);

/// A stream in the place of `fd`, which it closes, whose data go to `write`.
inline FILE* stream_instead(int fd, const char* mode, cookie_write_function_t* write) {
    cookie_io_functions_t calls = {};
    calls.write = write;
    calls.close = [](void* cookie) {
        return ::close(static_cast<int>(reinterpret_cast<long>(cookie)));
    };
    return fopencookie(reinterpret_cast<void*>(static_cast<long>(fd)), mode, calls);
}

}  // namespace pztest

extern "C" {
// The name of open where file offsets have 64 bits.
int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = va_arg(args, mode_t);
    va_end(args);
    return pztest::open_call(path, flags, mode);
}
FILE* fdopen(int fd, const char* mode) noexcept {
    return pztest::fdopen_call(fd, mode);
}
}

#endif  // PZ_TESTS_SUPPORT_OWNSTREAMS_H
