#ifndef PZ_BENCHMARKS_SUPPORT_ONEMORETIMER_H
#define PZ_BENCHMARKS_SUPPORT_ONEMORETIMER_H

#include <cstddef>
#include <vector>

#include <benchmark/benchmark.h>

#include <Framework/Utility/PZLTimerMng.h>

namespace pzbench {

constexpr unsigned int kNeverMs = 3600000;  // an hour

class SilentTimer : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo*) override { return 1; }
};

/// Adds and removes one more timer beside those that are active, as many as the state's argument.
inline void add_and_remove_timer(benchmark::State& state) {
    PZLTimerMng* const manager = PZLTimerMng::GetTimerMng();
    std::vector<SilentTimer> active(static_cast<size_t>(state.range(0)));
    PZLTimerMng::TimerSubInfo* band = nullptr;
    for (SilentTimer& timer : active) band = manager->AddTimer(&timer, kNeverMs);

    SilentTimer timer;
    for (auto _ : state) {
        manager->AddTimer(&timer, kNeverMs);
        manager->RemoveTimer(band, &timer);
    }
    for (SilentTimer& each : active) manager->RemoveTimer(band, &each);
}

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_ONEMORETIMER_H
