#ifndef PZ_FRAMEWORK_PRIVATE_PZ_TIME_H
#define PZ_FRAMEWORK_PRIVATE_PZ_TIME_H

#include <ctime>

constexpr unsigned int kNoTimeLimit = 0xFFFFFFFFU;  // in milliseconds, where a limit is asked for

constexpr unsigned int kMsPerSecond = 1000;
// Of 64 bits on every machine: what is multiplied by them fits.
constexpr long long kNsPerMs = 1000000;
constexpr long long kNsPerSecond = kMsPerSecond * kNsPerMs;

/// Zero, should the clock be unreadable.
inline timespec pz_monotonic_now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

/// As one number.
/// @{
constexpr long long pz_ns_of(const timespec& time) {
    return time.tv_sec * kNsPerSecond + time.tv_nsec;
}
constexpr long long pz_ms_of(const timespec& time) {
    return static_cast<long long>(time.tv_sec) * kMsPerSecond + time.tv_nsec / kNsPerMs;
}
/// @}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_TIME_H
