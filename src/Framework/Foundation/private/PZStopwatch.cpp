#include "Framework/Foundation/PZStopwatch.h"

#include <cstdint>

#include <Framework/private/pz_time.h>

namespace {

/// Nanoseconds from `then` to `now`. The whole seconds count as a signed 32-bit value.
unsigned long long elapsed_ns(const timespec& now, const timespec& then) {
    const auto seconds = static_cast<std::int32_t>(now.tv_sec - then.tv_sec);
    return static_cast<unsigned long long>(seconds * kNsPerSecond + (now.tv_nsec - then.tv_nsec));
}

}  // namespace

PZStopwatch::PZStopwatch() = default;

void PZStopwatch::init() {
    *this = PZStopwatch();
}

void PZStopwatch::Start() {
    if (running_) return;
    start_ = pz_monotonic_now();
    lap_ = start_;
    running_ = true;
}

unsigned long long PZStopwatch::Lap() {
    if (!running_) return 0;
    const timespec now = pz_monotonic_now();
    const unsigned long long elapsed = elapsed_ns(now, lap_);
    lap_ = now;
    return elapsed;
}

unsigned long long PZStopwatch::Split() const {
    return running_ ? elapsed_ns(pz_monotonic_now(), start_) : 0;
}

unsigned long long PZStopwatch::Stop() {
    const unsigned long long elapsed = Split();
    init();
    return elapsed;
}
