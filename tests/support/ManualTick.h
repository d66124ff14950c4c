#ifndef PZ_TESTS_SUPPORT_MANUALTICK_H
#define PZ_TESTS_SUPPORT_MANUALTICK_H

#include <atomic>
#include <ctime>

#include "support/Interposed.h"

// The monotonic clock of the whole process, in the hand of the test. Include it in one file of a
// test executable: it defines clock_gettime.

namespace pztest {

inline Interposed<int(clockid_t, timespec*)> clock_gettime_call("clock_gettime");
inline std::atomic<bool> tick_is_manual{false};
inline std::atomic<long long> manual_tick_ns{0};

/// While one lives, CLOCK_MONOTONIC stands still until the test moves it; other clocks run.
class ManualTick {
public:
    explicit ManualTick(long long milliseconds = 1000000) {
        Set(milliseconds);
        tick_is_manual = true;
    }
    ~ManualTick() { tick_is_manual = false; }

    ManualTick(const ManualTick&) = delete;
    ManualTick& operator=(const ManualTick&) = delete;

    void Set(long long milliseconds) { manual_tick_ns = milliseconds * 1000000; }
    void SetNanoseconds(long long nanoseconds) { manual_tick_ns = nanoseconds; }
    void Advance(long long milliseconds) { manual_tick_ns += milliseconds * 1000000; }
};

inline int manual_clock_gettime(clockid_t clock, timespec* now) {
    constexpr long long kNsPerSecond = 1000000000;
    const int result = clock_gettime_call(clock, now);
    if (result != 0 || clock != CLOCK_MONOTONIC || !tick_is_manual) return result;
    const long long ns = manual_tick_ns;
    now->tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    now->tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return 0;
}

}  // namespace pztest

// NOLINTNEXTLINE(misc-definitions-in-headers): one file of a test executable includes this
extern "C" int clock_gettime(clockid_t clock_id, timespec* tp) noexcept {
    return pztest::manual_clock_gettime(clock_id, tp);
}

#endif  // PZ_TESTS_SUPPORT_MANUALTICK_H
