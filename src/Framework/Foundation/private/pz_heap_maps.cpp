#include "pz_heap_maps.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_write_whole.h>

namespace {

/// Up to `size` bytes of a file of the kernel's; -1 with errno set when it cannot be read.
ssize_t read_some(int fd, char* data, size_t size) {
    ssize_t got = -1;
    do {
        got = ::read(fd, data, size);
    } while (got == -1 && errno == EINTR);
    return got;
}

bool copy_map(int out) {
    const PZDescriptor map(::open("/proc/self/maps", O_RDONLY | O_CLOEXEC));
    if (!map.IsOpen()) return false;
    char piece[4096];
    for (;;) {
        const ssize_t got = read_some(map.Get(), piece, sizeof piece);
        if (got <= 0) return got == 0;
        if (!pz_write_whole(out, {piece, static_cast<size_t>(got)})) return false;
    }
}

/// The name of today, when the thread lives and there is a descriptor to read it with.
void refresh_name(ST_HEAP_THREAD& thread) {
    char path[48];
    std::snprintf(path, sizeof path, "/proc/self/task/%u/comm", thread.id);
    const PZDescriptor comm(::open(path, O_RDONLY | O_CLOEXEC));
    if (!comm.IsOpen()) return;
    char name[sizeof thread.name] = {};
    const ssize_t got = read_some(comm.Get(), name, sizeof name);
    if (got <= 0) return;
    name[got - 1] = '\0';  // the newline's place
    std::memcpy(thread.name, name, sizeof name);
}

bool write_name(int out, ST_HEAP_THREAD thread) {
    refresh_name(thread);
    for (char& c : thread.name) {
        if (c > '\0' && c < ' ') c = '?';  // a line is a line
    }
    char line[64];
    const int length =
        std::snprintf(line, sizeof line, "thread 0x%08x %s\n", thread.id, thread.name);
    return pz_write_whole(out, {line, static_cast<size_t>(length)});
}

}  // namespace

bool pz_write_heap_maps(const char* path, int flags, const ST_HEAP_THREAD* threads, size_t count) {
    PZDescriptor out(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | flags, 0666));
    if (!out.IsOpen() || !copy_map(out.Get())) return false;
    for (size_t i = 0; i < count; ++i) {
        if (!write_name(out.Get(), threads[i])) return false;
    }
    return out.Close() == 0;
}
