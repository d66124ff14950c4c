#ifndef PZ_FRAMEWORK_PRIVATE_PZ_STANDARD_DESCRIPTORS_H
#define PZ_FRAMEWORK_PRIVATE_PZ_STANDARD_DESCRIPTORS_H

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <utility>

#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_uncancelled.h>

/// While one lives, the numbers of standard input, output and error are taken, also in a process
/// that was started without them: for calls of the C library that may open a descriptor and keep
/// it. What such a process prints would go there otherwise. Costs one system call where they are
/// taken anyway.
class PZStandardDescriptorsTaken {
public:
    PZStandardDescriptorsTaken() noexcept {
        const PZUncancelled whole;
        std::array<pollfd, kStandard> asked = {
            {{STDIN_FILENO, 0, 0}, {STDOUT_FILENO, 0, 0}, {STDERR_FILENO, 0, 0}}};
        if (::poll(asked.data(), asked.size(), 0) <= 0) return;
        for (const pollfd& standard : asked) {
            if ((standard.revents & POLLNVAL) != 0) Take();
        }
    }

private:
    static constexpr int kStandard = STDERR_FILENO + 1;

    /// The lowest number that is free. Silent: without one, the call has none either.
    void Take() noexcept {
        PZDescriptor free(::open("/dev/null", O_RDWR | O_CLOEXEC));
        const int fd = free.Get();
        if (fd >= STDIN_FILENO && fd < kStandard) {
            taken_[static_cast<unsigned int>(fd)] = std::move(free);
        }
    }

    std::array<PZDescriptor, kStandard> taken_;  // those that were free
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_STANDARD_DESCRIPTORS_H
