#include "Framework/Foundation/PZTickCount.h"

#include <cstdint>
#include <ctime>

#include <Framework/private/pz_time.h>

template class PZSingleton<PZTickCount>;

namespace {

constexpr unsigned long kNoTime = 0xFFFFFFFFUL;
constexpr unsigned long long kNoCount = ~0ULL;

constexpr unsigned long long kFrequency = 1000;

}  // namespace

PZTickCount::PZTickCount() : freq_(kFrequency) {}

PZTickCount::~PZTickCount() = default;

void PZTickCount::DelInstance() {}

unsigned long PZTickCount::GetTime() const {
    timespec now = {};
    if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0) return kNoTime;
    const unsigned long long ms = static_cast<unsigned long long>(now.tv_sec) * kMsPerSecond +
                                  static_cast<unsigned long long>(now.tv_nsec) / kNsPerMs;
    return static_cast<std::uint32_t>(ms);
}

unsigned long long PZTickCount::GetPerformanceCount() const {
    timespec now = {};
    if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0) return kNoCount;
    return static_cast<unsigned long long>(now.tv_sec) * kNsPerSecond +
           static_cast<unsigned long long>(now.tv_nsec);
}

unsigned long long PZTickCount::GetPerformanceFreq() const {
    return freq_;
}

unsigned long long PZTickCount::GetPerformanceTime() const {
    if (freq_ == 0) return 0;
    return GetPerformanceCount() / freq_ / 1000;
}
