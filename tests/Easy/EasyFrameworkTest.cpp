#include <atomic>
#include <cerrno>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/Framework.h>
#include <Framework/Easy/Worker.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Foundation/pz_identity.h>
#include <Framework/Utility/PZLTimerMng.h>

#include "support/CallbackTimer.h"
#include "support/ChildProcess.h"
#include "support/FakePriorities.h"
#include "support/Gate.h"
#include "support/Interposed.h"
#include "support/OwnProcess.h"
#include "support/StdoutCapture.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(clock_gettime, 2);

using namespace std::chrono_literals;
using pztest::Gate;
using pztest::run_in_child;
using pztest::setpriority_call;
using pztest::StdoutCapture;
using pztest::wait_until;

namespace {

std::atomic<long long> tick_ahead_ns{0};

constexpr long long kNsPerSecond = 1000000000;

/// The monotonic clock, some time ahead.
int clock_ahead(clockid_t clock, timespec* now) {
    const int result = clock_gettime_call.Real(clock, now);
    if (result != 0 || clock != CLOCK_MONOTONIC) return result;
    const long long ns =
        static_cast<long long>(now->tv_sec) * kNsPerSecond + now->tv_nsec + tick_ahead_ns;
    now->tv_sec = static_cast<time_t>(ns / kNsPerSecond);
    now->tv_nsec = static_cast<long>(ns % kNsPerSecond);
    return result;
}

/// While one lives, the tick wraps `leftMs` after its construction.
class TickBeforeItsWrap : private pztest::Uncopyable {
public:
    explicit TickBeforeItsWrap(long long leftMs) {
        constexpr long long kWrapMs = 1LL << 32;
        timespec now = {};
        clock_gettime_call.Real(CLOCK_MONOTONIC, &now);
        tick_ahead_ns = (kWrapMs - leftMs) * 1000000 -
                        static_cast<long long>(now.tv_sec) * kNsPerSecond - now.tv_nsec;
        clock_gettime_call.Replace(&clock_ahead);
    }
    ~TickBeforeItsWrap() { clock_gettime_call.Replace(nullptr); }
};

}  // namespace

TEST(EasyFrameworkTest, StartsAndEndsTheFramework) {
    const auto result = run_in_child([] {
        {
            pz::Framework fw("radio", 7);
            if (!fw || std::string(fw.name()) != "radio" || pz_GetId() != 7) return 1;
        }
        // Started once more, it takes another name: it was ended.
        pz::Framework fw("display", 8);
        return fw && std::string(pz_GetName()) == "display" ? 0 : 2;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyFrameworkTest, SeveralObjectsShareOneStart) {
    const auto result = run_in_child([] {
        auto first = std::make_unique<pz::Framework>("radio", 7);
        pz::Framework second("display", 8);
        if (!second || std::string(pz_GetName()) != "radio") return 1;
        first.reset();
        pz::Framework third(std::move(second));
        if (second || !third) return 2;
        pz::Worker worker("tuner");
        return worker.call([] { return 0; }).value_or(3);
    });
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyFrameworkTest, IsLeftAloneByAForkedChildThatDestroysIt) {
    const auto result = run_in_child([] {
        auto fw = std::make_unique<pz::Framework>("radio", 7);
        std::atomic<int> runs{0};
        pz::Worker worker("tuner");
        const auto timer = worker.every(std::chrono::milliseconds(1), [&runs] { ++runs; });
        const auto child = run_in_child(
            [&fw] {
                fw.reset();
                return 42;
            },
            /*limitSeconds=*/20);
        if (child.status != 42) return 1;
        const int before = runs;
        return wait_until([&] { return runs > before; }) ? 0 : 2;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyFrameworkTest, ANullNameIsEmpty) {
    const auto result = run_in_child([] {
        const pz::Framework fw(nullptr);
        return fw && std::string(pz_GetName()).empty() ? 0 : 1;
    });
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyFrameworkTest, StopsAWorkerThatOutlivesItAndSaysSo) {
    const auto result = run_in_child([] {
        std::atomic<int> runs{0};
        auto fw = std::make_unique<pz::Framework>("radio");
        pz::Worker worker("tuner");
        worker.post([&] { ++runs; });
        fw.reset();
        if (runs != 1 || worker) return 1;
        return worker.post([] {}) == pz::Posted::stopped ? 0 : 2;
    });
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("worker [tuner] still runs: it is stopped"));
}

TEST(EasyFrameworkTest, StopsEveryWorkerThatOutlivesItAlsoWhenOneBetweenThemHasGone) {
    const auto result = run_in_child([] {
        auto fw = std::make_unique<pz::Framework>("radio");
        const pz::Worker first("tuner");
        auto second = std::make_unique<pz::Worker>("deck");
        const pz::Worker third("screen");
        second.reset();
        fw.reset();
        return first || third ? 1 : 0;
    });
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_EQ(1U, pztest::count_of(result.output, "worker [tuner] still runs: it is stopped"));
    EXPECT_EQ(1U, pztest::count_of(result.output, "worker [screen] still runs: it is stopped"));
}

TEST(EasyFrameworkTest, AStopByHandStopsWorkersAndTimersToo) {
    const auto result = run_in_child([] {
        auto fw = std::make_unique<pz::Framework>("radio");
        std::atomic<int> runs{0};
        pz::Worker worker("tuner");
        pz::Timer timer = worker.every(1ms, [&runs] { ++runs; });
        if (!wait_until([&] { return runs > 0; })) return 1;
        pz_FwFinalize();
        if (worker || timer) return 2;
        if (!timer.stop() || !worker.stop()) return 3;
        fw.reset();
        for (const char* const name : {"tuner", "pz_tick", "ZLTimerSubMng"}) {
            if (!wait_until([&] { return pztest::threads_named(name).empty(); })) return 4;
        }
        return 0;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("worker [tuner] still runs: it is stopped"));
}

TEST(EasyFrameworkTest, StartsItAgainAfterAStopByHand) {
    const auto result = run_in_child([] {
        const pz::Framework fw("radio");
        pz_FwFinalize();
        const pz::Framework other("display");
        if (!other || std::string(pz_GetName()) != "display") return 1;
        std::atomic<int> runs{0};
        pz::Worker worker("tuner");
        const pz::Timer timer = worker.every(1ms, [&runs] { ++runs; });
        return wait_until([&] { return runs > 2; }) ? 0 : 2;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(EasyFrameworkTest, StaysWhenAWorkerHangsAndTheProcessEnds) {
    const auto result = run_in_child([] {
        static Gate gate;
        {
            const pz::Framework fw("radio");
            pz::WorkerOptions options;
            options.stop_within = 10ms;
            pz::Worker worker("tuner", options);
            worker.post([] { gate.Pass(); });
            if (!gate.WaitForArrival()) return 1;
        }
        return 0;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_EQ(1U, pztest::count_of(result.output, "has not ended within 10 ms")) << result.output;
    EXPECT_EQ(1U, pztest::count_of(result.output, "a worker hangs: the framework is not ended"));
}

TEST(EasyFrameworkTest, JoinsAWorkerThatHungForAWhile) {
    const auto result = run_in_child([] {
        std::atomic<bool> done{false};
        {
            const pz::Framework fw("radio");
            Gate gate;
            {
                pz::WorkerOptions options;
                options.stop_within = 10ms;
                pz::Worker worker("tuner", options);
                worker.post([&] {
                    gate.Pass();
                    done = true;
                });
                if (!gate.WaitForArrival()) return 1;
            }
            gate.Open();
            if (!wait_until([&] { return done.load(); })) return 2;
        }
        return 0;
    });
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_EQ(0U, pztest::count_of(result.output, "the framework is not ended")) << result.output;
}

TEST(EasyFrameworkTest, TimersOfEveryBandFireRightAfterTheWrapOfTheTick) {
    const auto result = run_in_child([] {
        // A band that looks at such a timer before the wrap waits without limit.
        const TickBeforeItsWrap tick(1000);
        const pz::Framework fw("radio");
        PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
        std::vector<std::unique_ptr<pztest::CallbackTimer>> fired;
        std::vector<PZLTimerMng::TimerSubInfo*> bands;
        for (auto* band = timers->Find(177); band != nullptr; band = timers->Find(band->hi + 1)) {
            bands.push_back(band);
            fired.push_back(std::make_unique<pztest::CallbackTimer>());
            if (band->sub->addTimer(fired.back().get(), 1500) != 1) return 1;
        }
        if (bands.size() != 5) return 2;
        const bool all = wait_until(
            [&] {
                for (const auto& timer : fired) {
                    if (timer->Fired() != 1) return false;
                }
                return true;
            },
            20s);
        for (size_t i = 0; i < bands.size(); ++i) timers->RemoveTimer(bands[i], fired[i].get());
        return all ? 0 : 3;
    });
    EXPECT_EQ(0, result.status) << result.output;
}

// ---- a user without the right to raise priorities ----

namespace {

std::string printed_with_refused_priorities(int error, const std::function<void()>& body) {
    return run_in_child([&] {
               static int refusal;
               refusal = error;
               setpriority_call.Replace([](__priority_which_t, id_t, int) {
                   errno = refusal;
                   return -1;
               });
               body();
               return 0;
           })
        .output;
}

void start_easily() {
    const pz::Framework fw("radio", 1);
    EXPECT_TRUE(fw);
}

}  // namespace

TEST(EasyFrameworkTest, SaysInOneLineThatPrioritiesMayNotBeRaised) {
    for (const int error : {EACCES, EPERM}) {
        const std::string printed = printed_with_refused_priorities(error, start_easily);
        EXPECT_EQ(1U, pztest::count_of(printed, "\n")) << printed;
        EXPECT_NE(std::string::npos, printed.find("{radio} : timers keep the usual priority: no "
                                                  "right to raise it; pz-doctor nice-limit says "
                                                  "how to get it\n"))
            << printed;
    }
}

TEST(EasyFrameworkTest, ReportsOtherFailuresOfPrioritiesEach) {
    const std::string printed = printed_with_refused_priorities(ESRCH, start_easily);
    EXPECT_EQ(5U, pztest::count_of(printed, "error : errno[3 : No such process]\n")) << printed;
    EXPECT_EQ(0U, pztest::count_of(printed, "timers keep")) << printed;
}

TEST(EasyFrameworkTest, AStartWithoutItReportsRefusedPrioritiesFiveTimes) {
    const std::string printed = printed_with_refused_priorities(EACCES, [] {
        if (pz_FwInitialize("radio", 1) != 0) pz_FwFinalize();
    });
    EXPECT_EQ(5U, pztest::count_of(printed, "error : errno[13 : Permission denied]\n")) << printed;
}

TEST(EasyFrameworkTest, ReportsPrioritiesThatAreRefusedAfterTheStart) {
    const std::string printed = printed_with_refused_priorities(EACCES, [] {
        const pz::Framework fw("radio", 1);
        PZThreadMng::GetInstance()->SetPriority(pthread_self(), 251, 0);
    });
    EXPECT_EQ(1U, pztest::count_of(printed, "error : errno[13 : Permission denied]\n")) << printed;
}

TEST(EasyFrameworkTest, CutsALongNameAndIsFalseOnceItWasMovedFrom) {
    const auto result = run_in_child([] {
        pz::Framework fw(std::string(100, 'x').c_str());
        if (!fw || std::string(pz::Framework::name()) != std::string(63, 'x')) return 1;
        pz::Framework moved(std::move(fw));
        if (fw || !moved) return 2;
        moved = pz::Framework("other");
        return moved && std::string(pz::Framework::name()).size() == 63 ? 0 : 3;
    });
    EXPECT_EQ(0, result.status) << result.output;
}
