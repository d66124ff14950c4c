#ifndef PZ_FRAMEWORK_PRIVATE_PZ_STREAM_H
#define PZ_FRAMEWORK_PRIVATE_PZ_STREAM_H

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "pz_descriptor.h"
#include "pz_uncancelled.h"

/// Closes a stream even on a thread that is being cancelled. Answers as fclose does, with errno set
/// by it.
inline int pz_close_stream(FILE* stream) noexcept {
    const PZUncancelled whole;
    return std::fclose(stream);
}

/// Closes a stream at the end of the scope. Until Settle was called that is because its thread is
/// cancelled: what could not be written is dropped then, or the thread would wait for it again.
class PZStreamClosing {
public:
    explicit PZStreamClosing(FILE*& stream) noexcept : stream_(stream) {}
    ~PZStreamClosing() {
        if (!isSettled_) __fpurge(stream_);
        pz_close_stream(stream_);
        stream_ = nullptr;
    }

    PZStreamClosing(const PZStreamClosing&) = delete;
    PZStreamClosing& operator=(const PZStreamClosing&) = delete;

    void Settle() noexcept { isSettled_ = true; }

private:
    FILE*& stream_;
    bool isSettled_ = false;
};

/// Opens a stream as fopen does, but close-on-exec from birth, and with a descriptor above those of
/// standard input, output and error: a process that was started without those would read and print
/// through it. Null with errno set when it cannot be opened or no such number is free.
inline FILE* pz_open_stream(const char* path, const char* mode) {
    // The C library looks at the first seven characters and for a ",ccs=" after them.
    char closing[64];
    std::snprintf(closing, sizeof closing, "%.1se%s", mode, *mode != '\0' ? mode + 1 : "");
    FILE* const stream = std::fopen(path, *mode != '\0' ? closing : mode);
    if (stream == nullptr) return nullptr;
    const int fd = ::fileno(stream);
    if (fd == kNoDescriptor || fd > STDERR_FILENO) return stream;

    // Nothing is buffered yet, and truncating and appending are the open file's own.
    const int above = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    FILE* const moved = above != kNoDescriptor ? ::fdopen(above, mode) : nullptr;
    const int error = errno;
    if (moved == nullptr && above != kNoDescriptor) pz_close_descriptor(above);
    pz_close_stream(stream);
    errno = error;
    return moved;
}

/// Owns one stream and closes it exactly once. Silent: its user reports.
class PZStream {
public:
    explicit PZStream(FILE* stream) noexcept : stream_(stream) {}
    PZStream(const PZStream&) = delete;
    PZStream& operator=(const PZStream&) = delete;

    /// No cancellation point, and leaves errno to the failure that it may be cleaning up after.
    ~PZStream() {
        const int error = errno;
        if (IsOpen()) pz_close_stream(stream_);
        errno = error;
    }

    FILE* Get() const noexcept { return stream_; }
    bool IsOpen() const noexcept { return stream_ != nullptr; }

    /// Gives the stream away.
    FILE* Release() noexcept { return std::exchange(stream_, nullptr); }

    /// Writes what is buffered, then closes. False, with the first failure in errno, when either
    /// fails. A thread may be cancelled while it writes.
    bool Close() {
        const bool written = std::fflush(stream_) == 0;
        const int error = errno;
        const bool closed = pz_close_stream(Release()) == 0;
        if (!written) errno = error;
        return written && closed;
    }

private:
    FILE* stream_;
};

/// Opens a file under a name of our own, to which others may have put a symbolic link: that is not
/// followed (null, ELOOP). `mode` is "r", "w+" or "a+", with or without a 'b'; else as
/// pz_open_stream.
inline FILE* pz_open_own_stream(const char* path, const char* mode) {
    const int access = *mode == 'r' ? O_RDONLY : O_RDWR | O_CREAT;
    const int appending = *mode == 'a' ? O_APPEND : 0;
    PZDescriptor file(::open(path, access | appending | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!file.MoveAboveStandard()) return nullptr;
    PZStream stream(::fdopen(file.Get(), mode));
    if (!stream.IsOpen()) return nullptr;
    const int fd = file.Release();
    // Emptied once nothing can fail for want of memory. Only a file has something to empty.
    if (*mode == 'w' && ::ftruncate(fd, 0) != 0 && errno != EINVAL) return nullptr;
    return stream.Release();
}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_STREAM_H
