// Timers: the cost of adding and removing, and how late they fire.

#include <sys/epoll.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Utility/PZLTimerMng.h>

#include "support/FrameworkRun.h"
#include "support/OneMoreTimer.h"
#include "support/RawEvent.h"

namespace {

constexpr unsigned int kNoLimit = 0xFFFFFFFFU;
constexpr long long kNsPerMs = 1000000;

long long now_ns() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

/// A map under a lock, and the signal that wakes a waiting thread: what adding and removing needs.
void add_remove_raw(benchmark::State& state) {
    std::map<const void*, unsigned long long> timers;
    std::vector<int> active(static_cast<size_t>(state.range(0)));
    for (const int& each : active) timers[&each] = pzbench::kNeverMs;

    PZSync sync;
    const pzbench::RawEvent added;
    std::atomic<bool> ending{false};
    std::thread waiter([&added, &ending] {
        while (!ending) added.Wait();
    });

    const int timer = 0;
    for (auto _ : state) {
        {
            const PZSyncLock lock(sync);
            timers.emplace(&timer, pzbench::kNeverMs);
        }
        added.TrySet();
        {
            const PZSyncLock lock(sync);
            timers.erase(&timer);
        }
    }
    ending = true;
    added.TrySet();
    waiter.join();
}

/// Percentiles of lateness, in microseconds.
void report_lateness(benchmark::State& state, std::vector<long long>& lateness) {
    constexpr double kNsPerUs = 1000;
    std::sort(lateness.begin(), lateness.end());
    const auto at = [&lateness](size_t percent) {
        const size_t index = std::min(lateness.size() * percent / 100, lateness.size() - 1);
        return static_cast<double>(lateness[index]) / kNsPerUs;
    };
    state.counters["late_p50_us"] = at(50);
    state.counters["late_p99_us"] = at(99);
}

/// Notes how much later than its interval each firing comes.
class LateTimer : public PZLTimerBase {
public:
    LateTimer(unsigned int intervalMs, size_t firings)
        : intervalMs_(intervalMs), firings_(firings) {}

    void Run(std::vector<long long>& lateness) {
        PZLTimerMng* const manager = PZLTimerMng::GetTimerMng();
        last_ = now_ns();
        PZLTimerMng::TimerSubInfo* const handle = manager->AddTimer(this, intervalMs_);
        if (handle == nullptr) std::abort();
        done_.WaitEvent(kNoLimit);
        manager->RemoveTimer(handle, this);
        lateness = lateness_;
    }

    int OnTimer(PZLTimerSubMng::_TimerInfo*) override {
        const long long now = now_ns();
        lateness_.push_back(now - last_ - intervalMs_ * kNsPerMs);
        last_ = now;
        if (lateness_.size() < firings_) return 1;
        done_.SetEvent();
        return 0;
    }

private:
    const unsigned int intervalMs_;
    const size_t firings_;
    long long last_ = 0;
    std::vector<long long> lateness_;
    PZEvent done_;
};

/// range(0): interval in milliseconds; range(1): firings.
void lateness(benchmark::State& state) {
    std::vector<long long> late;
    for (auto _ : state) {
        LateTimer timer(static_cast<unsigned int>(state.range(0)),
                        static_cast<size_t>(state.range(1)));
        timer.Run(late);
    }
    report_lateness(state, late);
}

/// The wait that a timer thread stands on, with the same intervals.
void lateness_raw(benchmark::State& state) {
    const auto interval = static_cast<int>(state.range(0));
    std::vector<long long> late;
    const int epfd = epoll_create(1);
    for (auto _ : state) {
        late.clear();
        for (long long i = 0; i < state.range(1); ++i) {
            const long long before = now_ns();
            epoll_event ready = {};
            epoll_wait(epfd, &ready, 1, interval);
            late.push_back(now_ns() - before - interval * kNsPerMs);
        }
    }
    close(epfd);
    report_lateness(state, late);
}

BENCHMARK(pzbench::add_and_remove_timer)
    ->Name("timer/add+remove")
    ->RangeMultiplier(10)
    ->Range(10, 10000);
BENCHMARK(add_remove_raw)->Name("timer/add+remove:raw")->RangeMultiplier(10)->Range(10, 10000);
BENCHMARK(lateness)->Name("timer/lateness")->Args({1, 2000})->Args({10, 300})->Iterations(1);
BENCHMARK(lateness_raw)
    ->Name("timer/lateness:raw")
    ->Args({1, 2000})
    ->Args({10, 300})
    ->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
    return pzbench::run_in_framework(argc, argv);
}
