#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/Framework.h>
#include <Framework/Easy/Timer.h>
#include <Framework/Easy/Worker.h>

#include "support/ChildProcess.h"
#include "support/Gate.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(sem_post, 1);

using namespace std::chrono_literals;
using Steady = std::chrono::steady_clock;
using pztest::Gate;
using pztest::StdoutCapture;
using pztest::wait_until;

namespace {

thread_local bool is_held_up = false;

/// Gives others the time to go on with what the calling thread has just let go.
int post_and_pause(sem_t* sem) {
    const int result = sem_post_call.Real(sem);
    if (is_held_up) std::this_thread::sleep_for(50ms);
    return result;
}

}  // namespace

class EasyTimerTest : public testing::Test {
protected:
    pz::Framework fw{"easy", 1};
    pz::Worker worker{"tuner"};
};

TEST_F(EasyTimerTest, RunsAgainAndAgainOnTheWorkersThreadNeverTooEarly) {
    std::atomic<int> runs{0};
    const auto start = Steady::now();
    std::atomic<bool> isEarly{false};
    const pz::Timer timer = worker.every(10ms, [&] {
        const int run = ++runs;
        if (!worker.is_own_thread()) isEarly = true;
        if (Steady::now() - start < run * 10ms) isEarly = true;
    });
    EXPECT_TRUE(timer);
    EXPECT_TRUE(wait_until([&] { return runs >= 10; }));
    EXPECT_FALSE(isEarly);
}

TEST_F(EasyTimerTest, EveryRunBelongsToItsPeriodHoweverLateTheOneBeforeWas) {
    constexpr int kPeriods = 40;
    constexpr auto kPeriod = 5ms;
    auto start = worker.now();
    std::atomic<bool> isSteady{false};
    std::atomic<bool> isEarly{false};
    std::optional<pz::Timer> timer;
    int runs = 0;
    EXPECT_TRUE(worker.call([&] {
        start = worker.now();  // not before: a slow start of the call would count as lateness
        timer = worker.every(kPeriod, [&] {
            ++runs;
            std::this_thread::sleep_for(1ms);
            const auto took = worker.now() - start;
            const auto planned = (runs + static_cast<int>(timer->missed())) * kPeriod;
            if (took < planned) isEarly = true;
            // Late runs that were added up would never again be as little behind as one of them.
            if (runs >= kPeriods && took < planned + kPeriod + 1ms) isSteady = true;
        });
    }));
    EXPECT_TRUE(wait_until([&] { return isSteady.load(); }));
    EXPECT_TRUE(timer->stop());
    EXPECT_FALSE(isEarly);
}

TEST_F(EasyTimerTest, CountsPeriodsThatItMissesInsteadOfQueueingThem) {
    Gate gate;
    std::atomic<int> runs{0};
    const pz::Timer timer = worker.every(1ms, [&] {
        ++runs;
        gate.Pass();
    });
    ASSERT_TRUE(gate.WaitForArrival());
    ASSERT_TRUE(wait_until([&] { return timer.missed() >= 20; }));
    EXPECT_EQ(1, runs);
    EXPECT_EQ(0U, worker.pending());
    gate.Open();
}

TEST_F(EasyTimerTest, AfterRunsOnceAndIsOver) {
    std::atomic<int> runs{0};
    const auto start = Steady::now();
    std::atomic<long long> tookNs{0};
    pz::Timer timer = worker.after(20ms, [&] {
        tookNs = (Steady::now() - start).count();
        ++runs;
    });
    EXPECT_TRUE(timer);
    ASSERT_TRUE(wait_until([&] { return runs == 1; }));
    EXPECT_GE(tookNs, 20 * 1000000);
    EXPECT_TRUE(wait_until([&] { return !timer; }));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(1, runs);
    EXPECT_TRUE(timer.stop());
}

TEST_F(EasyTimerTest, AfterIsOverInItsOnlyRunAlready) {
    int active = 0;
    for (int i = 0; i < 300; ++i) {
        std::atomic<bool> isDone{false};
        pz::Timer timer;
        const auto started = worker.call([&] {
            timer = worker.after(0ms, [&] {
                active += timer ? 1 : 0;
                isDone = true;
            });
        });
        ASSERT_TRUE(started);
        ASSERT_TRUE(wait_until([&] { return isDone.load(); }));
    }
    EXPECT_EQ(0, active);
}

TEST_F(EasyTimerTest, AfterNoTimeRunsAtOnce) {
    std::atomic<int> runs{0};
    const pz::Timer first = worker.after(0ms, [&] { ++runs; });
    const pz::Timer second = worker.after(-5s, [&] { ++runs; });
    const pz::Timer never = worker.after(std::chrono::milliseconds::max(), [&] { runs = 100; });
    EXPECT_TRUE(wait_until([&] { return runs == 2; }));
    EXPECT_TRUE(never);
}

TEST_F(EasyTimerTest, AfterIsNotLostWhenTheWorkerHasNoRoom) {
    Gate gate;
    std::atomic<bool> run{false};
    ASSERT_EQ(pz::Posted::ok, worker.post([&] { gate.Pass(); }));
    ASSERT_TRUE(gate.WaitForArrival());
    while (worker.post_wait([] {}, 0ms) == pz::Posted::ok) {
    }
    const pz::Timer timer = worker.after(1ms, [&] { run = true; });
    std::this_thread::sleep_for(30ms);
    EXPECT_TRUE(timer);
    gate.Open();
    EXPECT_TRUE(wait_until([&] { return run.load(); }));
}

TEST_F(EasyTimerTest, DoesNotRunAfterItWasStopped) {
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> runs{0};
        pz::Timer timer = worker.every(1ms, [&] { ++runs; });
        ASSERT_TRUE(wait_until([&] { return runs > 0; }));
        EXPECT_TRUE(timer.stop());
        const int atStop = runs;
        EXPECT_FALSE(timer);
        EXPECT_TRUE(worker.call([] {})) << "a run that was posted before would come first";
        EXPECT_EQ(atStop, runs);
        EXPECT_TRUE(timer.stop());
    }
}

TEST_F(EasyTimerTest, StopWaitsForTheFunctionThatRuns) {
    Gate gate;
    std::atomic<bool> returned{false};
    std::optional<pz::Timer> timer = worker.every(1ms, [&] {
        gate.Pass();
        std::this_thread::sleep_for(20ms);
        returned = true;
    });
    ASSERT_TRUE(gate.WaitForArrival());
    gate.Open();
    timer.reset();
    EXPECT_TRUE(returned);
}

TEST_F(EasyTimerTest, StopGivesUpOnAFunctionThatHangsAndReportsIt) {
    pz::WorkerOptions options;
    options.stop_within = 10ms;
    Gate gate;
    std::atomic<int> seen{0};
    StdoutCapture capture;
    {
        pz::Worker hanging("hanging", options);
        {
            const pz::Timer timer =
                hanging.every(1ms, [&gate, &seen, value = std::make_unique<int>(3)] {
                    gate.Pass();
                    seen = *value;
                });
            ASSERT_TRUE(gate.WaitForArrival());
        }
        EXPECT_NE(std::string::npos,
                  capture.Take().find("worker [hanging]: the timer of TestBody()@EasyTimerTest"));
        gate.Open();
        EXPECT_TRUE(wait_until([&] { return seen == 3; }));
        EXPECT_TRUE(hanging.stop(60s));
    }
}

TEST_F(EasyTimerTest, StopAnswersFalseAsLongAsTheFunctionRunsAndTrueOnceItHasEnded) {
    pz::WorkerOptions options;
    options.stop_within = 10ms;
    pz::Worker hanging("hanging", options);
    Gate gate;
    pz::Timer timer = hanging.every(1ms, [&gate] { gate.Pass(); });
    ASSERT_TRUE(gate.WaitForArrival());
    {
        const StdoutCapture capture;
        EXPECT_FALSE(timer.stop());
    }
    gate.Open();
    EXPECT_TRUE(wait_until([&timer] {
        const StdoutCapture capture;
        return timer.stop();
    }));
}

TEST_F(EasyTimerTest, StopAnswersTrueInAForkedChildWhereNothingRuns) {
    Gate gate;
    pz::Timer timer = worker.every(1ms, [&gate] { gate.Pass(); });
    ASSERT_TRUE(gate.WaitForArrival());
    const auto result = pztest::run_in_child([&timer] { return timer.stop() ? 0 : 1; });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
    gate.Open();
}

TEST_F(EasyTimerTest, MayBeStoppedOrDestroyedByItsOwnFunction) {
    std::atomic<int> runs{0};
    std::optional<pz::Timer> timer;
    EXPECT_TRUE(worker.call([&] {
        timer = worker.every(1ms, [&, kept = std::make_unique<int>(1)] {
            EXPECT_TRUE(timer->stop());
            timer.reset();
            runs += *kept;
        });
    }));
    ASSERT_TRUE(wait_until([&] { return runs > 0; }));
    EXPECT_TRUE(worker.call([] {}));
    EXPECT_EQ(1, runs);
}

TEST_F(EasyTimerTest, RunsNoMoreOnceItsWorkerIsStopped) {
    std::atomic<int> runs{0};
    pz::Timer timer = worker.every(1ms, [&] { ++runs; });
    ASSERT_TRUE(wait_until([&] { return runs > 0; }));
    EXPECT_TRUE(worker.stop(60s));
    const int atStop = runs;
    EXPECT_FALSE(timer);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(atStop, runs);
    EXPECT_TRUE(timer.stop());
}

TEST_F(EasyTimerTest, MayOutliveWorkerAndFramework) {
    std::optional<pz::Timer> timer;
    {
        pz::Worker other("other");
        timer = other.every(1ms, [] {});
        EXPECT_TRUE(*timer);
    }
    EXPECT_FALSE(*timer);
    EXPECT_TRUE(timer->stop());
}

TEST_F(EasyTimerTest, AMovedTimerKeepsItsFunction) {
    std::atomic<int> runs{0};
    std::atomic<int> others{0};
    pz::Timer first = worker.every(1ms, [&] { ++runs; });
    pz::Timer second(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_TRUE(first.stop());
    EXPECT_EQ(0U, first.missed());
    EXPECT_TRUE(second);
    pz::Timer third = worker.every(1ms, [&] { ++others; });
    third = std::move(second);
    const int atMove = others;
    EXPECT_TRUE(third);
    EXPECT_TRUE(wait_until([&] { return runs > 3; }));
    EXPECT_EQ(atMove, others);
    third = pz::Timer();
    EXPECT_FALSE(third);
}

TEST_F(EasyTimerTest, RefusesAPeriodBelowOneMillisecondAnEmptyFunctionAndAStoppedWorker) {
    StdoutCapture capture;
    EXPECT_FALSE(worker.every(0ms, [] {}));
    EXPECT_FALSE(worker.every(-1ms, [] {}));
    EXPECT_FALSE(worker.every(1s, std::function<void()>()));
    pz::Worker stopped("stopped");
    EXPECT_TRUE(stopped.stop());
    EXPECT_FALSE(stopped.every(1s, [] {}));
    const pz::Worker moved(std::move(stopped));
    EXPECT_FALSE(stopped.after(1s, [] {}));
    const std::string report = capture.Take();
    EXPECT_EQ(2U, pztest::count_of(report, "worker [tuner] refuses a timer of TestBody()@"));
    EXPECT_EQ(2U, pztest::count_of(report, "no period"));
    EXPECT_EQ(1U, pztest::count_of(report, "an empty function"));
    EXPECT_EQ(2U, pztest::count_of(report, "the worker does not run"));
}

TEST_F(EasyTimerTest, AFunctionThatThrowsIsReportedAndRunsAgain) {
    std::atomic<int> runs{0};
    StdoutCapture capture;
    pz::Timer timer = worker.every(1ms, [&] {
        ++runs;
        throw 1;
    });
    EXPECT_TRUE(wait_until([&] { return runs >= 3; }));
    EXPECT_TRUE(timer.stop());
    EXPECT_LE(2U, pztest::count_of(capture.Take(), "what was posted by TestBody()@"));
}

TEST_F(EasyTimerTest, ManyTimersStartAndStopFromManyThreads) {
    std::atomic<int> runs{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) {
                pz::Timer first = worker.every(1ms, [&] { ++runs; });
                const pz::Timer second = worker.after(0ms, [&] { ++runs; });
                EXPECT_TRUE(first.stop());
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(worker.stop(60s));
}

TEST_F(EasyTimerTest, AShortTimerMayBeOverBeforeTheCallThatStartsItReturns) {
    std::atomic<int> runs{0};
    StdoutCapture capture;
    sem_post_call.Replace(post_and_pause);
    is_held_up = true;
    pz::Timer timer = worker.after(0ms, [&] { ++runs; });
    is_held_up = false;
    sem_post_call.Reset();
    EXPECT_TRUE(worker.call([] {}));
    EXPECT_EQ(1, runs);
    EXPECT_TRUE(timer.stop());
    EXPECT_EQ("", capture.Take());
}

TEST_F(EasyTimerTest, ALackOfMemoryIsAnsweredWithNoTimer) {
    const StdoutCapture capture;
    bool isStarted = false;
    for (int skip = 0; !isStarted && skip < 1000; ++skip) {
        std::atomic<int> runs{0};
        pz::Timer timer;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            timer = worker.every(1ms, [&runs] { ++runs; });
            refused = shortage.Refused();
        }
        ASSERT_TRUE(!timer || wait_until([&runs] { return runs > 0; }))
            << "no timer, or one that runs; refused after " << skip;
        isStarted = timer && refused == 0;
    }
    EXPECT_TRUE(isStarted);
}

TEST_F(EasyTimerTest, ATimerOfAnEndlessTimeNeverRuns) {
    std::atomic<int> runs{0};
    pz::Timer period = worker.every(std::chrono::milliseconds::max(), [&] { ++runs; });
    pz::Timer once = worker.after(std::chrono::milliseconds::max(), [&] { ++runs; });
    EXPECT_TRUE(period);
    EXPECT_TRUE(once);
    pz::Timer past = worker.after(std::chrono::milliseconds::min(), [&] { ++runs; });
    EXPECT_TRUE(wait_until([&] { return runs == 1; })) << "only what is in the past is due";
    EXPECT_TRUE(worker.call([] {}));
    EXPECT_TRUE(period.stop());
    EXPECT_TRUE(period.stop()) << "twice";
    EXPECT_TRUE(once.stop());
    EXPECT_EQ(1, runs);
    pz::Timer none;
    EXPECT_FALSE(none);
    EXPECT_TRUE(none.stop());
    EXPECT_EQ(0U, none.missed());
}
