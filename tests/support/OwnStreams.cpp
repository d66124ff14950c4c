#include "support/OwnStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>

namespace pztest {

Interposed<int(const char*, int, mode_t)> open_call("open64");
PZ_INTERPOSE(fdopen, 2);

FILE* stream_instead(int fd, const char* mode, cookie_write_function_t* write) {
    cookie_io_functions_t calls = {};
    calls.write = write;
    calls.close = [](void* cookie) {
        return ::close(static_cast<int>(reinterpret_cast<long>(cookie)));
    };
    return fopencookie(reinterpret_cast<void*>(static_cast<long>(fd)), mode, calls);
}

}  // namespace pztest

// The name of open where file offsets have 64 bits.
extern "C" int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = va_arg(args, mode_t);
    va_end(args);
    return pztest::open_call(path, flags, mode);
}
