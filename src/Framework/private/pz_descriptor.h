#ifndef PZ_FRAMEWORK_PRIVATE_PZ_DESCRIPTOR_H
#define PZ_FRAMEWORK_PRIVATE_PZ_DESCRIPTOR_H

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include <Framework/private/pz_uncancelled.h>

constexpr int kNoDescriptor = -1;

/// Closes a descriptor even on a thread that is being cancelled: close itself is a cancellation
/// point, and would leave the descriptor open. Answers as close does. Not repeated on EINTR: the
/// number is free by then.
inline int pz_close_descriptor(int fd) noexcept {
    const PZUncancelled uncancelled;
    return ::close(fd);
}

/// A descriptor that is to live long, moved above the numbers of standard input, output and error:
/// a process that was started without those would read and print through it.
///
/// The answer, close-on-exec like the original, is `fd` itself when it is above 2 already. -1 with
/// errno set when no number is free (`fd` is closed then), or when `fd` is -1.
inline int pz_above_standard(int fd) noexcept {
    if (fd == kNoDescriptor || fd > STDERR_FILENO) return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    const int error = errno;
    pz_close_descriptor(fd);
    errno = error;
    return moved;
}

/// Owns one descriptor and closes it exactly once. Silent: its user reports.
class PZDescriptor {
public:
    PZDescriptor() noexcept = default;
    explicit PZDescriptor(int fd) noexcept : fd_(fd) {}

    PZDescriptor(PZDescriptor&& other) noexcept : fd_(other.Release()) {}
    PZDescriptor& operator=(PZDescriptor&& other) noexcept {
        const int fd = other.Release();
        Close();
        fd_ = fd;
        return *this;
    }

    /// No cancellation point, and leaves errno to the failure that it may be cleaning up after.
    ~PZDescriptor() {
        const int error = errno;
        Close();
        errno = error;
    }

    int Get() const noexcept { return fd_; }
    bool IsOpen() const noexcept { return fd_ != kNoDescriptor; }

    /// Gives the descriptor away.
    int Release() noexcept {
        const int fd = fd_;
        fd_ = kNoDescriptor;
        return fd;
    }

    /// What close answers; 0 when there is nothing to close.
    int Close() noexcept { return IsOpen() ? pz_close_descriptor(Release()) : 0; }

    /// Moves it above 2 (see pz_above_standard): false, and not open, when that fails.
    bool MoveAboveStandard() noexcept {
        fd_ = pz_above_standard(fd_);
        return IsOpen();
    }

private:
    int fd_ = kNoDescriptor;
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_DESCRIPTOR_H
