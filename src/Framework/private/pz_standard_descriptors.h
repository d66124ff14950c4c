#ifndef PZ_FRAMEWORK_PRIVATE_PZ_STANDARD_DESCRIPTORS_H
#define PZ_FRAMEWORK_PRIVATE_PZ_STANDARD_DESCRIPTORS_H

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <utility>

#include <Framework/private/pz_descriptor.h>

/// While one lives, the numbers of standard input, output and error are taken, also in a process
/// that was started without them: for calls of the C library that open a descriptor and keep it.
/// What such a process prints would go there otherwise.
class PZStandardDescriptorsTaken {
public:
    PZStandardDescriptorsTaken() noexcept {
        for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
            if (::fcntl(fd, F_GETFD) == -1) Take();
        }
    }

private:
    /// The lowest number that is free. Silent: without one, the call has none either.
    void Take() noexcept {
        PZDescriptor free(::open("/dev/null", O_RDWR | O_CLOEXEC));
        const int fd = free.Get();
        if (fd >= STDIN_FILENO && fd <= STDERR_FILENO) {
            taken_[static_cast<unsigned int>(fd)] = std::move(free);
        }
    }

    std::array<PZDescriptor, STDERR_FILENO + 1> taken_;  // those that were free
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_STANDARD_DESCRIPTORS_H
