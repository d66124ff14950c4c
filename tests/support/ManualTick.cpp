#include "support/ManualTick.h"

#include <atomic>

namespace pztest {
namespace {

std::atomic<bool> is_manual{false};
std::atomic<long long> now_ns{0};

}  // namespace

PZ_INTERPOSED(clock_gettime) clock_gettime_call("clock_gettime");

ManualTick::ManualTick(long long milliseconds) {
    Set(milliseconds);
    is_manual = true;
}

ManualTick::~ManualTick() {
    is_manual = false;
}

void ManualTick::SetNanoseconds(long long nanoseconds) {
    now_ns = nanoseconds;
}

void ManualTick::Advance(long long milliseconds) {
    now_ns += milliseconds * 1000000;
}

long long ManualTick::Nanoseconds() {
    return now_ns;
}

}  // namespace pztest

extern "C" int clock_gettime(clockid_t clock_id, timespec* tp) noexcept {
    constexpr long long kNsPerSecond = 1000000000;
    const int result = pztest::clock_gettime_call(clock_id, tp);
    if (result != 0 || clock_id != CLOCK_MONOTONIC || !pztest::is_manual) return result;
    const long long ns = pztest::now_ns;
    tp->tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    tp->tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return 0;
}
