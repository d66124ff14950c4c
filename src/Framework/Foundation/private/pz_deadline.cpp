#include "pz_deadline.h"

timespec pz_deadline_after(unsigned int timeoutMs) {
    constexpr unsigned int kMsPerSecond = 1000;
    constexpr long long kNsPerMs = 1000000;
    constexpr long long kNsPerSecond = 1000000000;

    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    const long long ns = now.tv_nsec + (timeoutMs % kMsPerSecond) * kNsPerMs;
    now.tv_sec += static_cast<time_t>(timeoutMs / kMsPerSecond + ns / kNsPerSecond);
    now.tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return now;
}
