#include "pz_deadline.h"

#include <limits>

#include <Framework/private/pz_time.h>

namespace {

/// False when the clock cannot tell its time, or the sum does not fit.
bool add_to_now(clockid_t clock, unsigned int timeoutMs, timespec& deadline) {
    timespec now = {};
    if (clock_gettime(clock, &now) != 0) return false;
    const long long ns = now.tv_nsec + (timeoutMs % kMsPerSecond) * kNsPerMs;
    const long long seconds = timeoutMs / kMsPerSecond + ns / kNsPerSecond;
    if (now.tv_sec > std::numeric_limits<time_t>::max() - seconds) return false;
    deadline.tv_sec = static_cast<time_t>(now.tv_sec + seconds);
    deadline.tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return true;
}

}  // namespace

PZDeadline pz_deadline_after(unsigned int timeoutMs) {
    PZDeadline deadline = {CLOCK_REALTIME, {}};
    if (add_to_now(CLOCK_REALTIME, timeoutMs, deadline.time)) return deadline;
    deadline.clock = CLOCK_MONOTONIC;
    add_to_now(CLOCK_MONOTONIC, timeoutMs, deadline.time);
    return deadline;
}
