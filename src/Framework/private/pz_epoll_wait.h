#ifndef PZ_FRAMEWORK_PRIVATE_PZ_EPOLL_WAIT_H
#define PZ_FRAMEWORK_PRIVATE_PZ_EPOLL_WAIT_H

#include <sys/epoll.h>

#include <cerrno>
#include <ctime>

#include <Framework/private/pz_time.h>

/// What is left at `now` of `timeoutMs` milliseconds that began at `start`, rounded up.
constexpr int pz_ms_left(int timeoutMs, const timespec& start, const timespec& now) {
    const long long elapsedNs =
        (now.tv_sec - start.tv_sec) * kNsPerSecond + (now.tv_nsec - start.tv_nsec);
    const long long leftNs = timeoutMs * kNsPerMs - elapsedNs;
    return leftNs > 0 ? static_cast<int>((leftNs + kNsPerMs - 1) / kNsPerMs) : 0;
}

/// epoll_wait that a signal does not end: a limited wait goes on for the time that is left, by the
/// monotonic clock. Negative waits without limit; only a limited wait reads the clock.
///
/// The number of ready entries, 0 after the time-out, -1 with errno on an error.
inline int pz_epoll_wait(int epollFd, epoll_event* ready, int room, int timeoutMs) {
    const timespec start = timeoutMs > 0 ? pz_monotonic_now() : timespec{};
    int leftMs = timeoutMs;
    for (;;) {
        const int count = ::epoll_wait(epollFd, ready, room, leftMs);
        if (count >= 0 || errno != EINTR) return count;
        if (timeoutMs > 0) leftMs = pz_ms_left(timeoutMs, start, pz_monotonic_now());
    }
}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_EPOLL_WAIT_H
