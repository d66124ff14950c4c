// How costs grow: with messages on their way, posters, bytes, timers, observers, and length of
// text. A row is named "growth/curve/size"; its time is that of one message, timer, notification or
// text.

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Pattern/PZSubject.h>
#include <Framework/Utility/PZLTimerMng.h>
#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/Acknowledge.h"
#include "support/FrameworkRun.h"
#include "support/OneMoreTimer.h"
#include "support/Processors.h"

namespace {

// ---- messages: from the post to the end of the handler ----

constexpr unsigned int kWatchMs = 4000;
constexpr int kBatch = 200;         // a box holds 256
constexpr int kBatchOfPoster = 25;  // so that eight of them never fill it
constexpr int kBytes = 64;
constexpr int kMostBytes = 256;

/// A dispatcher of one poster, registered in the box of a worker that serves all of them.
class Unit : public PZUnitFrame, public PZIDispatcher {
public:
    explicit Unit(PZWorker& worker) { RegistMsgBox(worker.GetMsgBox(), this); }
    ~Unit() override { UnregistMsgBox(); }
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    /// Posts a batch and waits until it has been handled.
    void Run(int batch, int bytes) {
        const char payload[kMostBytes] = {};
        handled_.Expect(static_cast<unsigned int>(batch));
        for (int i = 0; i < batch; ++i) {
            SendMsgSelf(1, en_MSG_NORMAL, bytes == 0 ? nullptr : payload,
                        static_cast<unsigned int>(bytes));
        }
        handled_.Wait();
    }

    void OnReceiveMsg(unsigned int, const void*, unsigned int) override { handled_.Handled(); }
    void OnReceiveEvent(unsigned int) override {}

private:
    pzbench::Acknowledge handled_;
};

class StartedWorker {
public:
    StartedWorker() {
        if (worker_.Start("bench") != 0) std::abort();
    }
    ~StartedWorker() { worker_.End(0); }
    StartedWorker(const StartedWorker&) = delete;
    StartedWorker& operator=(const StartedWorker&) = delete;

    PZWorker& Get() { return worker_; }

private:
    PZWorker worker_{1, kWatchMs, 1};
};

void post(benchmark::State& state, int batch, int bytes) {
    StartedWorker worker;
    Unit unit(worker.Get());
    while (state.KeepRunningBatch(batch)) unit.Run(batch, bytes);
}

void post_at_once(benchmark::State& state) {
    post(state, static_cast<int>(state.range(0)), kBytes);
}

/// Poster and worker take turns.
void post_at_once_1cpu(benchmark::State& state) {
    pzbench::stay_on_processor(0);  // and the threads that are started from here
    post_at_once(state);
    pzbench::roam();
}

void post_bytes(benchmark::State& state) {
    post(state, kBatch, static_cast<int>(state.range(0)));
}

/// Each poster is a thread with a unit of its own; all post to one box.
void post_from_posters(benchmark::State& state) {
    const auto posters = static_cast<size_t>(state.range(0));
    constexpr int rounds = 80;  // a thread costs as much as many messages
    StartedWorker worker;
    while (state.KeepRunningBatch(state.range(0) * rounds * kBatchOfPoster)) {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < posters; ++i) {
            threads.emplace_back([&worker] {
                Unit unit(worker.Get());
                for (int round = 0; round < rounds; ++round) unit.Run(kBatchOfPoster, kBytes);
            });
        }
        for (std::thread& thread : threads) thread.join();
    }
}

BENCHMARK(post_at_once)
    ->Name("growth/post_at_once")
    ->RangeMultiplier(4)
    ->Range(1, 256)
    ->UseRealTime();
BENCHMARK(post_at_once_1cpu)
    ->Name("growth/post_at_once_1cpu")
    ->RangeMultiplier(4)
    ->Range(1, 256)
    ->UseRealTime();
BENCHMARK(post_bytes)->Name("growth/post_bytes")->Arg(0)->Arg(16)->Arg(64)->Arg(256)->UseRealTime();
BENCHMARK(post_from_posters)
    ->Name("growth/post_from_posters")
    ->RangeMultiplier(2)
    ->Range(1, 8)
    ->UseRealTime();

// ---- timers ----

constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

using Clock = std::chrono::steady_clock;

/// Timers that are all due when their thread looks: a first one keeps it until then.
class DueTimers {
public:
    explicit DueTimers(size_t count)
        : firstMs_(200 + static_cast<unsigned int>(count / 100)),
          timers_(count, Timer(*this)),
          left_(count) {}

    /// Seconds from the first to the last callback.
    double Run() {
        PZLTimerMng* const manager = PZLTimerMng::GetTimerMng();
        manager->AddTimer(&first_, firstMs_);
        for (Timer& timer : timers_) manager->AddTimer(&timer, firstMs_ + 100);
        fired_.WaitEvent(kNoLimit);
        return std::chrono::duration<double>(end_ - begin_).count();
    }

private:
    struct Timer : PZLTimerBase {
        explicit Timer(DueTimers& toCount) : owner(toCount) {}
        int OnTimer(PZLTimerSubMng::_TimerInfo*) override {
            owner.Count();
            return 0;  // once
        }
        DueTimers& owner;
    };

    struct First : PZLTimerBase {
        explicit First(unsigned int toKeepMs) : keepMs(toKeepMs) {}
        int OnTimer(PZLTimerSubMng::_TimerInfo*) override {
            std::this_thread::sleep_for(std::chrono::milliseconds(keepMs));
            return 0;
        }
        const unsigned int keepMs;
    };

    void Count() {
        if (left_ == timers_.size()) begin_ = Clock::now();
        if (--left_ != 0) return;
        end_ = Clock::now();
        fired_.SetEvent();
    }

    const unsigned int firstMs_;  // until then all have been added
    std::vector<Timer> timers_;
    First first_{firstMs_};
    PZEvent fired_;
    // of the timers' thread, until fired_ is set
    size_t left_;
    Clock::time_point begin_;
    Clock::time_point end_;
};

void timer_fire(benchmark::State& state) {
    const auto count = static_cast<size_t>(state.range(0));
    for (auto _ : state)
        state.SetIterationTime(DueTimers(count).Run() / static_cast<double>(count));
}

BENCHMARK(pzbench::add_and_remove_timer)
    ->Name("growth/timer_add+remove")
    ->RangeMultiplier(10)
    ->Range(1, 100000);
BENCHMARK(timer_fire)
    ->Name("growth/timer_fire")
    ->RangeMultiplier(10)
    ->Range(10, 100000)
    ->UseManualTime()
    ->Iterations(1);

// ---- observers ----

class Observer : public PZObserver_ {
public:
    unsigned int OnNotify(unsigned int change, void*, unsigned int) override {
        return sum_ += change;
    }

private:
    unsigned int sum_ = 0;
};

void notify(benchmark::State& state) {
    PZSubject subject;
    std::vector<Observer> observers(static_cast<size_t>(state.range(0)));
    for (Observer& observer : observers) subject.AddObserver(&observer);
    for (auto _ : state) {
        benchmark::DoNotOptimize(subject.NotifyObserver(1, nullptr, 0, en_NTF_ALL));
    }
    for (Observer& observer : observers) subject.RemoveObserver(&observer);
}

BENCHMARK(notify)->Name("growth/notify_observers")->RangeMultiplier(10)->Range(1, 1000);

// ---- text ----

/// Cyrillic letters, two bytes each, and blanks.
std::string utf8_text(size_t size) {
    constexpr char kWord[] = "\xD0\xA0\xD0\xB0\xD0\xB4\xD0\xB8\xD0\xBE ";
    std::string text;
    while (text.size() + sizeof(kWord) - 1 <= size) text += kWord;
    return text.append(size - text.size(), '.');
}

void convert(benchmark::State& state) {
    const std::string text = utf8_text(static_cast<size_t>(state.range(0)));
    std::vector<char> result(text.size() + 4);
    for (auto _ : state) {
        benchmark::DoNotOptimize(pz_cp_conv(result.data(), static_cast<unsigned int>(result.size()),
                                            XCP_KOI8_R, text.data(),
                                            static_cast<unsigned int>(text.size()), XCP_UTF8));
    }
}

BENCHMARK(convert)->Name("growth/convert_bytes")->RangeMultiplier(16)->Range(1, 1 << 20);

}  // namespace

int main(int argc, char** argv) {
    return pzbench::run_in_framework(argc, argv);
}
