#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_LOOP_SIGNAL_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_LOOP_SIGNAL_H

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>

#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_time.h>
#include <Framework/private/pz_uncancelled.h>

/// A counter in the kernel for a loop of the library, above 2 and close-on-exec; not open, with
/// errno set, when that fails. `flags` of eventfd are added.
inline PZDescriptor pz_make_loop_signal(int flags) noexcept {
    PZDescriptor signal(::eventfd(0, flags | EFD_CLOEXEC));
    signal.MoveAboveStandard();
    return signal;
}

/// Adds to the counter: 1, or 0 when that failed. Done whole or not at all: what the caller has
/// done before it is not left unknown to the loop.
inline int pz_add_to_loop_signal(const PZDescriptor& signal, std::uint64_t value) noexcept {
    const PZUncancelled uncancelled;
    return ::write(signal.Get(), &value, sizeof value) == sizeof value ? 1 : 0;
}

/// 100 milliseconds, before a loop tries again: the cause of a failure may last.
inline void pz_pause_after_failure() {
    const timespec pause = {0, 100 * kNsPerMs};
    nanosleep(&pause, nullptr);
}

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_LOOP_SIGNAL_H
