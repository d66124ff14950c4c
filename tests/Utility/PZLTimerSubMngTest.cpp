#include <pthread.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <ctime>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Diagnostics/pz_inspection.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZWatchDog.h>
#include <Framework/Utility/PZLTimerMng.h>

#include "support/Assertions.h"
#include "support/CallbackTimer.h"
#include "support/ChildProcess.h"
#include "support/CountedWaits.h"
#include "support/FakePriorities.h"
#include "support/FewDescriptors.h"
#include "support/Interposed.h"
#include "support/Interruptions.h"
#include "support/ManualTick.h"
#include "support/ManualWait.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(sem_init, 3);
PZ_INTERPOSE(pthread_create, 4, EAGAIN);
PZ_INTERPOSE(pthread_join, 2, EDEADLK);
PZ_INTERPOSE(write, 3);

namespace {

using pztest::CallbackTimer;
using pztest::has_report;
using pztest::StdoutCapture;
using pztest::Ticks;
using pztest::TimerInfo;
using pztest::wait_until;

using TimeOuts = std::vector<int>;

constexpr unsigned int kStart = 1000000;        // tick at which most tests start
constexpr long long kWrap = 4294967296;         // the tick that reads 0 again
constexpr int kNoLimit = -1;                    // as handed to epoll_wait
constexpr unsigned int kPriority = 200;         // wide priority of the thread under test
constexpr int kNice = -6;                       // its nice value
constexpr unsigned int kIgnoredTimeout = 3000;  // PZLTimerSubMng::end does not use it

/// The labels of all registered threads.
std::vector<std::string> thread_names() {
    std::vector<unsigned long> handles;
    PZThreadMng::GetInstance()->getActiveThreadList(handles);
    std::vector<std::string> names;
    for (const unsigned long handle : handles) {
        char label[256] = {};
        if (PZThreadMng::GetInstance()->getLabel(handle, label)) names.emplace_back(label);
    }
    return names;
}

bool kernel_thread_exists(id_t thread) {
    return access(("/proc/self/task/" + std::to_string(thread)).c_str(), F_OK) == 0;
}

/// The callback of a timer that fires once and keeps what it sees.
CallbackTimer::Callback keep_in(TimerInfo& seen) {
    return [&seen](TimerInfo* info) {
        seen = *info;
        return 0;
    };
}

/// A sub-manager without a thread.
class PZLTimerSubMngStartTest : public testing::Test {
protected:
    void SetUp() override { pthread_join_call.Reset(); }

    void ExpectATimerFiresAndEnd() {
        CallbackTimer timer;
        EXPECT_EQ(1, sub.addTimer(&timer, 0));
        EXPECT_TRUE(wait_until([&] { return timer.Fired() == 1; }));
        EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    }

    pztest::ManualTick tick{kStart};
    pztest::ManualWait waits;
    pztest::FakePriorities priorities;
    PZLTimerSubMng sub{30, kPriority};
};

/// A sub-manager with its thread, whose tick and waits are the test's.
class PZLTimerSubMngTest : public PZLTimerSubMngStartTest {
protected:
    void SetUp() override { StartAt(kStart); }

    // The tick stands still now: timers of the test's body that are still active cannot fire.
    void TearDown() override { EXPECT_EQ(1, sub.end(kIgnoredTimeout)); }

    void StartAt(long long tickMs) {
        tick.Set(tickMs);
        pztest::reset_waits();
        ASSERT_EQ(1, sub.start("timers"));
        ASSERT_TRUE(waits.AwaitCount(1));
    }

    /// Adds a timer and returns when the thread waits again after the check.
    void Add(PZLTimerBase& timer, unsigned int ms) {
        const size_t before = waits.Count();
        ASSERT_EQ(1, sub.addTimer(&timer, ms));
        AwaitTheWaitAfter(before);
    }

    /// Moves the tick to the end of the present wait, or beyond, and returns when the thread waits
    /// again after the check.
    void AdvanceToCheck(long long ms) {
        const size_t before = waits.Count();
        tick.Advance(ms);
        AwaitTheWaitAfter(before);
    }

    /// Adds a timer for which the thread, which wakes up earlier, need not be woken.
    void AddQuietly(PZLTimerBase& timer, unsigned int ms) {
        const size_t before = waits.Count();
        ASSERT_EQ(1, sub.addTimer(&timer, ms));
        EXPECT_EQ(before, waits.Count());
    }

    /// Makes the thread check its timers now.
    void Check() {
        CallbackTimer idle;
        Add(idle, 0);
    }

    int LastTimeOut() const { return waits.TimeOuts().back(); }

private:
    /// A test whose thread has once failed to wait again does not wait for it a second time: that
    /// would take minutes.
    void AwaitTheWaitAfter(size_t count) {
        if (HasFatalFailure()) return;
        ASSERT_TRUE(waits.AwaitCount(count + 1));
    }
};

/// The same, with the thread started by the test shortly before the tick wraps.
class PZLTimerSubMngWrapTest : public PZLTimerSubMngTest {
protected:
    void SetUp() override {}
};

// Start

TEST_F(PZLTimerSubMngStartTest, StartRegistersTheThreadUnderItsName) {
    EXPECT_EQ(1, sub.start("some timers"));
    EXPECT_EQ(std::vector<std::string>{"some timers"}, thread_names());
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

TEST_F(PZLTimerSubMngStartTest, StartGivesTheThreadTheBandsPriority) {
    EXPECT_EQ(1, sub.start("timers"));
    ASSERT_EQ(1U, priorities.Changes().size());
    EXPECT_EQ(kNice, priorities.Changes()[0].nice);
    EXPECT_NE(static_cast<id_t>(gettid()), priorities.Changes()[0].thread);
    EXPECT_TRUE(kernel_thread_exists(priorities.Changes()[0].thread));
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

TEST_F(PZLTimerSubMngStartTest, StartRegistersTheThreadWithAWatchTimeOfFourSeconds) {
    EXPECT_EQ(1, sub.start("timers"));
    std::vector<unsigned long> handles;
    PZThreadMng::GetInstance()->getActiveThreadList(handles);
    ASSERT_EQ(1U, handles.size());
    EXPECT_EQ(4000U, PZThreadMng::GetInstance()->getWatchTime(handles[0]));
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

TEST_F(PZLTimerSubMngStartTest, StartWithoutANameCallsTheThreadPZLTimerSubMng) {
    EXPECT_EQ(1, sub.start(nullptr));
    EXPECT_EQ(std::vector<std::string>{"PZLTimerSubMng"}, thread_names());
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

TEST_F(PZLTimerSubMngStartTest, StartAnswersZeroWhenTheThreadCannotBeMade) {
    StdoutCapture output;
    pthread_create_call.FailNext(EAGAIN);
    EXPECT_EQ(0, sub.start("timers"));
    EXPECT_TRUE(
        has_report(output.Take(), "Start", "PZThread.h", "PZThread::Start() failed !! [timers]\r"));
    EXPECT_TRUE(priorities.Changes().empty());
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

TEST_F(PZLTimerSubMngStartTest, StartAnswersZeroWhenThePriorityIsRefusedAndTheThreadRuns) {
    StdoutCapture output;
    pztest::setpriority_call.FailNext(EPERM);
    EXPECT_EQ(0, sub.start("timers"));
    EXPECT_TRUE(has_report(output.Take(), "SetPriority", "PZThreadMng.cpp",
                           "error : errno[1 : Operation not permitted]"));
    ExpectATimerFiresAndEnd();
}

TEST_F(PZLTimerSubMngStartTest, ASecondStartAnswersZeroAndLeavesTheThreadAlone) {
    EXPECT_EQ(1, sub.start("timers"));
    StdoutCapture output;
    EXPECT_EQ(0, sub.start("others"));
    EXPECT_TRUE(has_report(output.Take(), "Start", "PZThread.h", "error [others]"));
    EXPECT_EQ(std::vector<std::string>{"timers"}, thread_names());
    ExpectATimerFiresAndEnd();
}

TEST_F(PZLTimerSubMngStartTest, StartAnswersOnlyWhenTheThreadHasReadTheTick) {
    static std::atomic<bool> answered;
    static std::atomic<int> readings;
    static std::atomic<int> readingsAfterTheAnswer;
    static pthread_t starter;
    answered = false;
    readings = 0;
    readingsAfterTheAnswer = 0;
    starter = pthread_self();
    // The thread's reading takes its time; start must not answer meanwhile.
    pztest::clock_gettime_call.Replace([](clockid_t clock, timespec* now) {
        if (pthread_equal(pthread_self(), starter) == 0) {
            ++readings;
            for (int nap = 0; nap < 50 && !answered; ++nap) usleep(1000);
            if (answered) ++readingsAfterTheAnswer;
        }
        return pztest::clock_gettime_call.Real(clock, now);
    });
    EXPECT_EQ(1, sub.start("timers"));
    answered = true;
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    pztest::clock_gettime_call.Replace(nullptr);
    EXPECT_EQ(1, readings);
    EXPECT_EQ(0, readingsAfterTheAnswer);
}

TEST_F(PZLTimerSubMngStartTest, AStartThatSignalsInterruptWaitsForTheThreadAllTheSame) {
    static std::atomic<bool> answered;
    static std::atomic<bool> answeredTooEarly;
    static pthread_t starter;
    answered = false;
    answeredTooEarly = false;
    starter = pthread_self();
    // The thread takes its time to register, before it comes to read the tick.
    pztest::getpriority_call.Replace([](__priority_which_t, id_t) {
        if (pthread_equal(pthread_self(), starter) == 0) {
            while (pztest::Interruptions::Taken() < 5) usleep(1000);
            for (int nap = 0; nap < 50 && !answered; ++nap) usleep(1000);
            answeredTooEarly = answered.load();
        }
        return 0;
    });
    {
        const pztest::Interruptions interruptions(std::chrono::milliseconds(1));
        EXPECT_EQ(1, sub.start("timers"));
        answered = true;
        EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    }
    EXPECT_FALSE(answeredTooEarly);
}

TEST_F(PZLTimerSubMngStartTest, AnEndedThreadCanBeStartedAgain) {
    EXPECT_EQ(1, sub.start("first"));
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    EXPECT_EQ(1, sub.start("second"));
    EXPECT_EQ(std::vector<std::string>{"second"}, thread_names());
    ExpectATimerFiresAndEnd();
}

// End

TEST_F(PZLTimerSubMngStartTest, EndWithoutAThreadAnswersOne) {
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    EXPECT_EQ(0, pthread_join_call.Calls());
}

TEST_F(PZLTimerSubMngStartTest, EndWithoutAThreadEndsTheNextOneAtOnce) {
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    EXPECT_EQ(1, sub.start("timers"));
    const id_t thread = priorities.Changes()[0].thread;
    EXPECT_TRUE(wait_until([&] { return !kernel_thread_exists(thread); }));
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

TEST_F(PZLTimerSubMngStartTest, EndJoinsAndUnregistersTheThread) {
    EXPECT_EQ(1, sub.start("timers"));
    const id_t thread = priorities.Changes()[0].thread;
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    // It is listed a moment longer than its join takes.
    EXPECT_TRUE(wait_until([&] { return !kernel_thread_exists(thread); }));
    EXPECT_TRUE(thread_names().empty());
}

TEST_F(PZLTimerSubMngStartTest, EndRemovesAllTimersWithoutCallingThem) {
    EXPECT_EQ(1, sub.start("timers"));
    CallbackTimer timer;
    EXPECT_EQ(1, sub.addTimer(&timer, 100));
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    EXPECT_EQ(0, sub.isActive(&timer));
    EXPECT_EQ(0U, timer.Fired());
}

TEST_F(PZLTimerSubMngStartTest, EndWaitsLongerThanItsTimeoutForARunningCallback) {
    std::promise<void> release;
    const CallbackTimer::Callback hold = [released = release.get_future().share()](TimerInfo*) {
        released.wait();
        return 0;
    };
    CallbackTimer timer(hold);
    EXPECT_EQ(1, sub.start("timers"));
    EXPECT_EQ(1, sub.addTimer(&timer, 0));
    EXPECT_TRUE(wait_until([&] { return timer.Fired() == 1; }));

    std::atomic<bool> ended{false};
    int result = -1;
    std::thread ender([&] {
        result = sub.end(/*timeout=*/0);
        ended = true;
    });
    EXPECT_TRUE(wait_until([] { return pthread_join_call.Calls() == 1; }));
    EXPECT_FALSE(ended);
    release.set_value();
    ender.join();
    EXPECT_EQ(1, result);
}

TEST_F(PZLTimerSubMngStartTest, EndAnswersZeroWhenTheJoinFails) {
    EXPECT_EQ(1, sub.start("timers"));
    StdoutCapture output;
    pthread_join_call.Replace([](pthread_t handle, void** result) {
        pthread_join_call.Real(handle, result);
        errno = EINTR;
        return ESRCH;
    });
    EXPECT_EQ(0, sub.end(kIgnoredTimeout));
    pthread_join_call.Replace(nullptr);
    EXPECT_TRUE(has_report(output.Take(), "WaitExit", "PZThread.h",
                           "pthread_join failed !! ret[3] errno[4 : Interrupted system call]"));
    EXPECT_TRUE(thread_names().empty());
}

// Priority

TEST_F(PZLTimerSubMngTest, IsLeftAloneByAForkedChildThatEndsIt) {
    const pztest::ChildResult child = pztest::run_in_child(
        [this] { return sub.end(kIgnoredTimeout) == 1 ? 42 : 1; }, /*limitSeconds=*/20);
    EXPECT_EQ(42, child.status) << child.output;
    CallbackTimer timer;
    Add(timer, 0);
    EXPECT_EQ(1U, timer.Fired());
}

TEST_F(PZLTimerSubMngTest, SetPriorityGivesTheThreadAnotherPriority) {
    EXPECT_EQ(1, sub.setPriority(251));
    ASSERT_EQ(2U, priorities.Changes().size());
    EXPECT_EQ(priorities.Changes()[0].thread, priorities.Changes()[1].thread);
    EXPECT_EQ(0, priorities.Changes()[1].nice);
}

TEST_F(PZLTimerSubMngTest, SetPriorityAnswersZeroWhenItIsRefused) {
    StdoutCapture output;
    pztest::setpriority_call.FailNext(EACCES);
    EXPECT_EQ(0, sub.setPriority(177));
    EXPECT_TRUE(has_report(output.Take(), "SetPriority", "PZThreadMng.cpp",
                           "error : errno[13 : Permission denied]"));
}

TEST_F(PZLTimerSubMngStartTest, SetPriorityWithoutAThreadReportsTheMissingThreadId) {
    StdoutCapture output;
    pztest::setpriority_call.FailNext(ESRCH);
    EXPECT_EQ(0, sub.setPriority(200));
    EXPECT_TRUE(has_report(output.Take(), "SetPriority", "PZThread.h", "invalid thread id"));
}

// Adding, removing, querying

TEST_F(PZLTimerSubMngTest, ANullTimerIsNeitherAddedNorActiveNorRemoved) {
    EXPECT_EQ(0, sub.addTimer(nullptr, 10));
    EXPECT_EQ(0, sub.isActive(nullptr));
    EXPECT_EQ(0, sub.removeTimer(nullptr));
    EXPECT_EQ(TimeOuts{kNoLimit}, waits.TimeOuts());
}

TEST_F(PZLTimerSubMngTest, AnAddedTimerIsActive) {
    CallbackTimer timer;
    EXPECT_EQ(0, sub.isActive(&timer));
    EXPECT_EQ(1, sub.addTimer(&timer, 100));
    EXPECT_EQ(1, sub.isActive(&timer));
}

TEST_F(PZLTimerSubMngTest, ARemovedTimerIsNoLongerActive) {
    CallbackTimer timer;
    EXPECT_EQ(1, sub.addTimer(&timer, 100));
    EXPECT_EQ(1, sub.removeTimer(&timer));
    EXPECT_EQ(0, sub.isActive(&timer));
    EXPECT_EQ(0, sub.removeTimer(&timer));
}

TEST_F(PZLTimerSubMngTest, ARemovedTimerDoesNotFire) {
    CallbackTimer timer;
    Add(timer, 100);
    EXPECT_EQ(1, sub.removeTimer(&timer));
    AdvanceToCheck(100);
    EXPECT_EQ(0U, timer.Fired());
}

TEST_F(PZLTimerSubMngTest, ATimerInThePlaceOfARemovedOneHasItsOwnIntervalAndExpiry) {
    std::array<CallbackTimer, 3> timers;
    TimerInfo seen = {};
    CallbackTimer inPlace([&](TimerInfo* info) {
        seen = *info;
        return 1;
    });
    Add(timers[1], 100);
    AddQuietly(timers[0], 300);
    AddQuietly(timers[2], 200);
    ASSERT_EQ(1, sub.removeTimer(&timers[2]));
    ASSERT_EQ(1, sub.removeTimer(&timers[0]));
    AddQuietly(inPlace, 150);
    AdvanceToCheck(100);
    EXPECT_EQ(Ticks{kStart + 100}, timers[1].FiredAt());
    EXPECT_EQ(0U, inPlace.Fired());
    EXPECT_EQ(50, LastTimeOut());
    AdvanceToCheck(50);
    EXPECT_EQ(150U, seen.interval);
    EXPECT_EQ(kStart + 150, seen.expiry);
    AdvanceToCheck(150);
    EXPECT_EQ((Ticks{kStart + 150, kStart + 300}), inPlace.FiredAt());
    EXPECT_EQ(0U, timers[0].Fired());
    EXPECT_EQ(0U, timers[2].Fired());
}

TEST_F(PZLTimerSubMngTest, AddingAnActiveTimerAnswersZeroAndKeepsIntervalAndExpiry) {
    TimerInfo seen = {};
    CallbackTimer timer(keep_in(seen));
    Add(timer, 100);
    tick.Advance(50);
    EXPECT_EQ(0, sub.addTimer(&timer, 500));
    AdvanceToCheck(50);
    EXPECT_EQ(Ticks{kStart + 100}, timer.FiredAt());
    EXPECT_EQ(100U, seen.interval);
    EXPECT_EQ(kStart + 100, seen.expiry);
}

TEST_F(PZLTimerSubMngTest, ATimerThreadThatDoesNotRunKeepsWhatIsAddedAndRemoved) {
    PZLTimerSubMng idle(50, 200);
    CallbackTimer timer;
    EXPECT_EQ(1, idle.addTimer(&timer, 1));
    EXPECT_EQ(1, idle.isActive(&timer));
    EXPECT_EQ(1, idle.removeTimer(&timer));
}

// Firing

TEST_F(PZLTimerSubMngTest, ATimerFiresWhenItsIntervalIsOver) {
    CallbackTimer timer;
    Add(timer, 100);
    EXPECT_EQ(0U, timer.Fired());
    AdvanceToCheck(100);
    EXPECT_EQ(Ticks{kStart + 100}, timer.FiredAt());
}

TEST_F(PZLTimerSubMngTest, ATimerDoesNotFireOneMillisecondBeforeItsIntervalIsOver) {
    CallbackTimer timer;
    Add(timer, 100);
    tick.Advance(99);
    Check();
    EXPECT_EQ(0U, timer.Fired());
    AdvanceToCheck(1);
    EXPECT_EQ(Ticks{kStart + 100}, timer.FiredAt());
}

TEST_F(PZLTimerSubMngTest, TheCallbackSeesIntervalAndExpiry) {
    TimerInfo seen = {};
    CallbackTimer timer(keep_in(seen));
    Add(timer, 100);
    AdvanceToCheck(107);
    EXPECT_EQ(100U, seen.interval);
    EXPECT_EQ(kStart + 100, seen.expiry);
}

TEST_F(PZLTimerSubMngTest, ATimerThatAnswersZeroIsNoLongerActive) {
    CallbackTimer timer(0);
    Add(timer, 100);
    AdvanceToCheck(100);
    EXPECT_EQ(0, sub.isActive(&timer));
    EXPECT_EQ((TimeOuts{kNoLimit, 100, kNoLimit}), waits.TimeOuts());
}

TEST_F(PZLTimerSubMngTest, ATimerThatAnswersNonZeroRepeats) {
    CallbackTimer timer(-1);
    Add(timer, 100);
    AdvanceToCheck(100);
    EXPECT_EQ(1, sub.isActive(&timer));
    AdvanceToCheck(100);
    AdvanceToCheck(100);
    EXPECT_EQ((Ticks{kStart + 100, kStart + 200, kStart + 300}), timer.FiredAt());
    EXPECT_EQ((TimeOuts{kNoLimit, 100, 100, 100, 100}), waits.TimeOuts());
}

TEST_F(PZLTimerSubMngTest, ThePeriodCountsFromTheCheckAndALateOneIsNotCaughtUp) {
    CallbackTimer timer(1);
    Add(timer, 100);
    AdvanceToCheck(130);
    EXPECT_EQ(100, LastTimeOut());
    tick.Advance(99);
    Check();
    EXPECT_EQ(1U, timer.Fired());
    AdvanceToCheck(1);
    EXPECT_EQ((Ticks{kStart + 130, kStart + 230}), timer.FiredAt());
}

TEST_F(PZLTimerSubMngTest, ATimerThatIsManyPeriodsLateFiresOnce) {
    CallbackTimer timer(1);
    Add(timer, 100);
    AdvanceToCheck(1000);
    EXPECT_EQ(Ticks{kStart + 1000}, timer.FiredAt());
    EXPECT_EQ(100, LastTimeOut());
}

TEST_F(PZLTimerSubMngTest, TheTimeACallbackTakesDoesNotMoveTheRepetitions) {
    CallbackTimer timer([&](TimerInfo*) {
        tick.Advance(30);
        return 1;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    TimerInfo seen = {};
    CallbackTimer probe([&](TimerInfo* info) {
        seen = *info;
        return 0;
    });
    Add(probe, 70);  // at 130: due together with the repetition, 100 after the check
    AdvanceToCheck(70);
    EXPECT_EQ(kStart + 200, seen.expiry);
    EXPECT_EQ(2U, timer.Fired());
}

TEST_F(PZLTimerSubMngTest, TheCallbackMayChangeTheInterval) {
    CallbackTimer timer([](TimerInfo* info) {
        info->interval += 50;
        return 1;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    AdvanceToCheck(150);
    EXPECT_EQ((Ticks{kStart + 100, kStart + 250}), timer.FiredAt());
    EXPECT_EQ((TimeOuts{kNoLimit, 100, 150, 200}), waits.TimeOuts());
}

TEST_F(PZLTimerSubMngTest, AnExpiryWrittenByTheCallbackIsNotUsed) {
    CallbackTimer timer([](TimerInfo* info) {
        info->expiry = 7;
        return 1;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    EXPECT_EQ(100, LastTimeOut());
}

TEST_F(PZLTimerSubMngTest, AnIntervalOfZeroFiresAtTheNextCheck) {
    CallbackTimer timer;
    Add(timer, 0);
    EXPECT_EQ(Ticks{kStart}, timer.FiredAt());
    EXPECT_EQ((TimeOuts{kNoLimit, kNoLimit}), waits.TimeOuts());
}

TEST_F(PZLTimerSubMngTest, ARepeatingIntervalOfZeroWaitsWithoutLimitForTheNextAddedTimer) {
    CallbackTimer eager(1);
    CallbackTimer other;
    Add(other, 10);
    Add(eager, 0);
    EXPECT_EQ(1U, eager.Fired());
    EXPECT_EQ(kNoLimit, LastTimeOut());
    tick.Advance(1000);
    CallbackTimer added;
    Add(added, 100);
    EXPECT_EQ(Ticks{kStart + 1000}, other.FiredAt());
    EXPECT_EQ((Ticks{kStart, kStart + 1000}), eager.FiredAt());
}

TEST_F(PZLTimerSubMngTest, TimersDueTogetherFireInTheOrderOfTheirAddresses) {
    using Order = std::vector<const PZLTimerBase*>;
    class Noted : public PZLTimerBase {
    public:
        explicit Noted(Order& order) : order_(order) {}
        int OnTimer(TimerInfo*) override {
            order_.push_back(this);
            return 0;
        }

    private:
        Order& order_;
    };
    Order order;
    std::vector<std::unique_ptr<Noted>> timers;
    timers.reserve(20);
    for (int i = 0; i < 20; ++i) timers.push_back(std::make_unique<Noted>(order));
    // The later added, the earlier due: neither is the order of the calls.
    unsigned int ms = 100;
    for (auto it = timers.rbegin(); it != timers.rend(); ++it) Add(**it, ms--);
    AdvanceToCheck(100);
    ASSERT_EQ(timers.size(), order.size());
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end(), std::less<const PZLTimerBase*>()));
}

TEST_F(PZLTimerSubMngTest, ATimerMayBeDeletedThroughItsBase) {
    class Counted : public PZLTimerBase {
    public:
        explicit Counted(int& destroyed) : destroyed_(destroyed) {}
        ~Counted() override { ++destroyed_; }
        int OnTimer(TimerInfo*) override { return 0; }

    private:
        int& destroyed_;
    };
    int destroyed = 0;
    const std::unique_ptr<PZLTimerBase> timer = std::make_unique<Counted>(destroyed);
    Add(*timer, 0);
    EXPECT_EQ(0, destroyed);
}

// Waiting

TEST_F(PZLTimerSubMngTest, WithoutTimersTheThreadWaitsWithoutLimit) {
    EXPECT_EQ(TimeOuts{kNoLimit}, waits.TimeOuts());
}

TEST_F(PZLTimerSubMngTest, TheThreadWaitsForTheSmallestExpiry) {
    CallbackTimer first;
    CallbackTimer second;
    CallbackTimer third;
    Add(first, 300);
    Add(second, 100);
    AddQuietly(third, 200);
    EXPECT_EQ((TimeOuts{kNoLimit, 300, 100}), waits.TimeOuts());
    AdvanceToCheck(100);
    AdvanceToCheck(100);
    AdvanceToCheck(100);
    EXPECT_EQ((TimeOuts{kNoLimit, 300, 100, 100, 100, kNoLimit}), waits.TimeOuts());
    EXPECT_EQ(Ticks{kStart + 100}, second.FiredAt());
    EXPECT_EQ(Ticks{kStart + 200}, third.FiredAt());
    EXPECT_EQ(Ticks{kStart + 300}, first.FiredAt());
}

TEST_F(PZLTimerSubMngTest, RemovingATimerDoesNotWakeTheThread) {
    CallbackTimer timer;
    Add(timer, 100);
    EXPECT_EQ(1, sub.removeTimer(&timer));
    EXPECT_EQ((TimeOuts{kNoLimit, 100}), waits.TimeOuts());
    AdvanceToCheck(100);
    EXPECT_EQ((TimeOuts{kNoLimit, 100, kNoLimit}), waits.TimeOuts());
}

TEST_F(PZLTimerSubMngTest, TheLongestLimitedWaitIsTwoToThe31Minus1) {
    CallbackTimer timer;
    Add(timer, 0x7FFFFFFFU);
    EXPECT_EQ(0x7FFFFFFF, LastTimeOut());
}

TEST_F(PZLTimerSubMngTest, AnIntervalOfTwoToThe31WaitsWithoutLimit) {
    CallbackTimer timer;
    Add(timer, 0x80000000U);
    EXPECT_GT(0, LastTimeOut());
    tick.Advance(0x80000000LL);
    CallbackTimer added;
    Add(added, 100);  // brings about the check
    EXPECT_EQ(1U, timer.Fired());
}

TEST_F(PZLTimerSubMngTest, AnIntervalThatReachesAroundTheTickIntoTheLastWindowFiresAtOnce) {
    tick.Advance(10);
    CallbackTimer timer;
    Add(timer, 0xFFFFFFFFU);
    EXPECT_EQ(Ticks{kStart + 10}, timer.FiredAt());
}

TEST_F(PZLTimerSubMngTest, TheWindowOfDueExpiriesBeginsWithThePreviousCheck) {
    tick.Advance(10);
    Check();
    CallbackTimer timer;
    Add(timer, 0xFFFFFFFFU);  // expiry one millisecond before the previous check
    EXPECT_EQ(0U, timer.Fired());
}

TEST_F(PZLTimerSubMngTest, AFailedWaitIsAnAssertionAndTheThreadWaitsAgainForTheSameTime) {
    StdoutCapture output;
    pztest::epoll_wait_call.FailNext(EIO);
    CallbackTimer timer;
    Add(timer, 100);
    EXPECT_EQ((TimeOuts{kNoLimit, 100}), waits.TimeOuts());
    const std::string text = output.Take();
    EXPECT_EQ(1U, pztest::assertions_of(text, "Utility/private/PZLTimerSubMng.cpp")) << text;
    AdvanceToCheck(100);
    EXPECT_EQ(1U, timer.Fired());
}

TEST_F(PZLTimerSubMngTest, TellsTheWatchdogOfEachWait) {
    EXPECT_EQ(1, pztest::into_waits);
    EXPECT_EQ(0, pztest::out_waits);
    CallbackTimer timer;
    Add(timer, 100);
    EXPECT_EQ(2, pztest::into_waits);
    EXPECT_EQ(1, pztest::out_waits);
    AdvanceToCheck(100);
    EXPECT_EQ(3, pztest::into_waits);
    EXPECT_EQ(2, pztest::out_waits);
}

// The wrap of the tick

TEST_F(PZLTimerSubMngWrapTest, ATimerBeyondTheWrapWaitsForTheSumOfTickAndExpiry) {
    StartAt(kWrap - 10);
    CallbackTimer timer;
    Add(timer, 30);  // expiry 20, at the tick 2^32 - 10: the sum is 10
    EXPECT_EQ(10, LastTimeOut());
    AdvanceToCheck(10);
    EXPECT_EQ(0U, timer.Fired());
    EXPECT_EQ(20, LastTimeOut());
    AdvanceToCheck(20);
    EXPECT_EQ(Ticks{20}, timer.FiredAt());
}

TEST_F(PZLTimerSubMngWrapTest, ASumThatIsTooLargeWaitsWithoutLimit) {
    StartAt(kWrap - 51);
    CallbackTimer timer;
    Add(timer, 100);  // expiry 49: the sum is 2^32 - 2
    EXPECT_EQ(-2, LastTimeOut());
    tick.Advance(100);
    CallbackTimer added;
    Add(added, 5);  // brings about the check
    EXPECT_EQ(Ticks{49}, timer.FiredAt());
}

TEST_F(PZLTimerSubMngWrapTest, AnotherThreadThatAddsATimerAfterTheWrapEndsAWaitWithoutLimit) {
    StartAt(kWrap - 60);
    CallbackTimer late;
    CallbackTimer shortOne([](TimerInfo* info) {
        info->interval = 70;  // beyond the wrap from now on
        return 1;
    });
    Add(late, 100);
    Add(shortOne, 0);
    EXPECT_GT(0, LastTimeOut());  // the short one does not help
    tick.Advance(1000);
    CallbackTimer check;
    std::thread([&] { EXPECT_EQ(1, sub.addTimer(&check, 0)); }).join();
    EXPECT_TRUE(wait_until([&] { return check.Fired() == 1 && sub.isActive(&check) == 0; }));
    EXPECT_EQ(Ticks{940}, late.FiredAt());
    EXPECT_EQ((Ticks{0xFFFFFFC4U, 940}), shortOne.FiredAt());
}

TEST_F(PZLTimerSubMngWrapTest, ASumOfZeroWaitsWithoutLimit) {
    StartAt(kWrap - 50);
    CallbackTimer timer;
    Add(timer, 100);  // expiry 50: the sum is 0
    EXPECT_EQ(kNoLimit, LastTimeOut());
}

TEST_F(PZLTimerSubMngWrapTest, AnExpiryOfZeroLiesBeyondTheWrap) {
    StartAt(kWrap - 50);
    CallbackTimer timer;
    Add(timer, 50);  // expiry 0: the sum is 2^32 - 50
    EXPECT_EQ(-50, LastTimeOut());
}

TEST_F(PZLTimerSubMngWrapTest, TheLastTickBeforeTheWrapIsWaitedFor) {
    StartAt(kWrap - 50);
    CallbackTimer timer;
    Add(timer, 49);
    EXPECT_EQ(49, LastTimeOut());
    AdvanceToCheck(49);
    EXPECT_EQ(Ticks{0xFFFFFFFFU}, timer.FiredAt());
}

TEST_F(PZLTimerSubMngWrapTest, AnExpiryBeforeTheWrapIsWaitedForFirst) {
    StartAt(kWrap - 50);
    CallbackTimer beyond;
    CallbackTimer before;
    Add(beyond, 60);  // expiry 10
    Add(before, 40);
    EXPECT_EQ(40, LastTimeOut());
    AdvanceToCheck(40);
    EXPECT_EQ(Ticks{0xFFFFFFF6U}, before.FiredAt());
    EXPECT_EQ(0U, beyond.Fired());
}

TEST_F(PZLTimerSubMngWrapTest, TheSmallestExpiryBeyondTheWrapIsWaitedFor) {
    StartAt(kWrap - 10);
    CallbackTimer late;
    CallbackTimer early;
    Add(late, 90);
    EXPECT_EQ(70, LastTimeOut());  // expiry 80
    Add(early, 40);
    EXPECT_EQ(20, LastTimeOut());  // expiry 30
}

TEST_F(PZLTimerSubMngWrapTest, ALateCheckBeyondTheWrapFiresWhatWasDueBeforeIt) {
    StartAt(kWrap - 50);
    CallbackTimer before;
    CallbackTimer atTheEnd;
    CallbackTimer later;
    Add(before, 40);
    AddQuietly(atTheEnd, 53);
    AddQuietly(later, 54);
    AdvanceToCheck(53);
    EXPECT_EQ(Ticks{3}, before.FiredAt());
    EXPECT_EQ(Ticks{3}, atTheEnd.FiredAt());
    EXPECT_EQ(0U, later.Fired());
    EXPECT_EQ(1, LastTimeOut());
}

TEST_F(PZLTimerSubMngWrapTest, TheRepetitionIsA32BitSum) {
    StartAt(kWrap - 150);
    std::vector<unsigned long long> expiries;
    CallbackTimer timer([&](TimerInfo* info) {
        expiries.push_back(info->expiry);
        return 1;
    });
    Add(timer, 100);
    AdvanceToCheck(100);  // at 2^32 - 50, next expiry 50, sum 0
    EXPECT_EQ(kNoLimit, LastTimeOut());
    tick.Advance(100);
    Check();
    EXPECT_EQ((std::vector<unsigned long long>{0xFFFFFFCEULL, 50ULL}), expiries);
}

// From inside a callback

TEST_F(PZLTimerSubMngTest, ATimerIsNotActiveWhileItFires) {
    int active = -1;
    CallbackTimer timer([&](TimerInfo*) {
        active = sub.isActive(&timer);
        return 1;
    });
    Add(timer, 0);
    EXPECT_EQ(0, active);
    EXPECT_EQ(1, sub.isActive(&timer));
}

TEST_F(PZLTimerSubMngTest, RemovingTheFiringTimerFindsNothingAndDoesNotStopIt) {
    int removed = -1;
    CallbackTimer timer([&](TimerInfo*) {
        removed = sub.removeTimer(&timer);
        return 1;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    EXPECT_EQ(0, removed);
    EXPECT_EQ(1, sub.isActive(&timer));
    AdvanceToCheck(100);
    EXPECT_EQ(2U, timer.Fired());
}

TEST_F(PZLTimerSubMngTest, AddingTheFiringTimerWinsOverItsRepetition) {
    int added = -1;
    std::vector<unsigned int> intervals;
    CallbackTimer timer([&](TimerInfo* info) {
        intervals.push_back(info->interval);
        if (intervals.size() == 1) {
            tick.Advance(7);
            added = sub.addTimer(&timer, 500);
        }
        return 1;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    EXPECT_EQ(1, added);
    ASSERT_TRUE(waits.AwaitCount(4));  // the added timer brings about one more check
    EXPECT_EQ((TimeOuts{kNoLimit, 100, 507, 500}), waits.TimeOuts());
    AdvanceToCheck(500);
    EXPECT_EQ((std::vector<unsigned int>{100, 500}), intervals);
    EXPECT_EQ((Ticks{kStart + 100, kStart + 607}), timer.FiredAt());
}

TEST_F(PZLTimerSubMngTest, AddingTheFiringTimerKeepsItActiveThoughItAnswersZero) {
    CallbackTimer timer([&](TimerInfo*) {
        if (timer.Fired() == 1) sub.addTimer(&timer, 500);
        return 0;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    EXPECT_EQ(1, sub.isActive(&timer));
    ASSERT_TRUE(waits.AwaitCount(4));
    AdvanceToCheck(500);
    EXPECT_EQ(2U, timer.Fired());
    EXPECT_EQ(0, sub.isActive(&timer));
}

TEST_F(PZLTimerSubMngTest, RemovingTheFiringTimerAfterAddingItTakesBackTheAdding) {
    int removed = -1;
    CallbackTimer timer([&](TimerInfo*) {
        sub.addTimer(&timer, 500);
        removed = sub.removeTimer(&timer);
        return 0;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    EXPECT_EQ(1, removed);
    EXPECT_EQ(0, sub.isActive(&timer));
    ASSERT_TRUE(waits.AwaitCount(4));
}

TEST_F(PZLTimerSubMngTest, RemovingAnotherDueTimerFindsNothingAndDoesNotStopIt) {
    // Two timers that try to remove each other when they are due together.
    std::vector<int> removed;
    CallbackTimer* other = nullptr;
    CallbackTimer one([&](TimerInfo*) {
        removed.push_back(sub.removeTimer(other));
        return 0;
    });
    CallbackTimer two([&](TimerInfo*) {
        removed.push_back(sub.removeTimer(&one));
        return 0;
    });
    other = &two;
    Add(one, 100);
    AddQuietly(two, 100);
    AdvanceToCheck(100);
    EXPECT_EQ((std::vector<int>{0, 0}), removed);
    EXPECT_EQ(1U, one.Fired());
    EXPECT_EQ(1U, two.Fired());
}

TEST_F(PZLTimerSubMngTest, ACallbackCanRemoveATimerThatIsNotDue) {
    CallbackTimer victim;
    int removed = -1;
    CallbackTimer timer([&](TimerInfo*) {
        removed = sub.removeTimer(&victim);
        return 0;
    });
    Add(victim, 101);
    Add(timer, 100);
    AdvanceToCheck(100);
    EXPECT_EQ(1, removed);
    EXPECT_EQ(0, sub.isActive(&victim));
    EXPECT_EQ(kNoLimit, LastTimeOut());
}

TEST_F(PZLTimerSubMngTest, ACallbackCanAddAnotherTimer) {
    CallbackTimer next;
    CallbackTimer timer([&](TimerInfo*) {
        sub.addTimer(&next, 10);
        return 0;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    ASSERT_TRUE(waits.AwaitCount(4));
    AdvanceToCheck(10);
    EXPECT_EQ(Ticks{kStart + 110}, next.FiredAt());
}

TEST_F(PZLTimerSubMngTest, ATimerAddedByACallbackFiresAtTheEarliestInTheNextCheck) {
    CallbackTimer next;
    size_t firedMeanwhile = 99;
    CallbackTimer timer([&](TimerInfo*) {
        sub.addTimer(&next, 0);
        firedMeanwhile = next.Fired();
        return 0;
    });
    Add(timer, 100);
    AdvanceToCheck(100);
    ASSERT_TRUE(waits.AwaitCount(4));
    EXPECT_EQ(0U, firedMeanwhile);
    EXPECT_EQ(1U, next.Fired());
}

TEST_F(PZLTimerSubMngTest, ACallbackMayDeleteItsTimerWhenItAnswersZero) {
    class SelfDestroying : public PZLTimerBase {
    public:
        explicit SelfDestroying(std::atomic<bool>& destroyed) : destroyed_(destroyed) {}
        ~SelfDestroying() override { destroyed_ = true; }
        int OnTimer(TimerInfo*) override {
            delete this;
            return 0;
        }

    private:
        std::atomic<bool>& destroyed_;
    };
    std::atomic<bool> destroyed{false};
    Add(*new SelfDestroying(destroyed), 0);
    EXPECT_TRUE(destroyed);
}

TEST_F(PZLTimerSubMngTest, AnExceptionFromACallbackEndsTheThreadAndFreesTheLock) {
    CallbackTimer timer([](TimerInfo*) -> int { throw std::runtime_error("no timer"); });
    const id_t thread = priorities.Changes()[0].thread;
    EXPECT_EQ(1, sub.addTimer(&timer, 0));
    EXPECT_TRUE(wait_until([&] { return !kernel_thread_exists(thread); }));
    EXPECT_EQ(0, sub.isActive(&timer));
}

// Several threads

/// A timer whose callback waits until it is released.
struct HeldTimer {
    explicit HeldTimer(int result)
        : timer([this, result, released = release.get_future().share()](TimerInfo*) {
              released.wait();
              returned = true;
              return result;
          }) {}

    std::promise<void> release;
    std::atomic<bool> returned{false};
    CallbackTimer timer;
};

TEST_F(PZLTimerSubMngTest, RemovingATimerWaitsForItsRunningCallback) {
    HeldTimer held(1);
    EXPECT_EQ(1, sub.addTimer(&held.timer, 0));
    EXPECT_TRUE(wait_until([&] { return held.timer.Fired() == 1; }));

    int removed = -1;
    bool returnedBefore = false;
    std::promise<void> goesIn;
    std::thread remover([&] {
        goesIn.set_value();
        removed = sub.removeTimer(&held.timer);
        returnedBefore = held.returned;
    });
    goesIn.get_future().wait();
    held.release.set_value();
    remover.join();
    EXPECT_EQ(1, removed);
    EXPECT_TRUE(returnedBefore);
}

TEST_F(PZLTimerSubMngTest, AddingAndQueryingWaitForARunningCallback) {
    HeldTimer held(0);
    EXPECT_EQ(1, sub.addTimer(&held.timer, 0));
    EXPECT_TRUE(wait_until([&] { return held.timer.Fired() == 1; }));

    CallbackTimer other;
    std::promise<void> firstGoesIn;
    std::promise<void> secondGoesIn;
    std::atomic<int> returnedBefore{0};
    std::thread adder([&] {
        firstGoesIn.set_value();
        sub.addTimer(&other, 100);
        returnedBefore += held.returned ? 1 : 0;
    });
    std::thread asker([&] {
        secondGoesIn.set_value();
        sub.isActive(&held.timer);
        returnedBefore += held.returned ? 1 : 0;
    });
    firstGoesIn.get_future().wait();
    secondGoesIn.get_future().wait();
    held.release.set_value();
    adder.join();
    asker.join();
    EXPECT_EQ(2, returnedBefore);
}

// Memory that runs out

/// Repeats every millisecond, without memory.
class CountingTimer : public PZLTimerBase {
public:
    int OnTimer(TimerInfo*) override {
        ++fired_;
        return repeats_ ? 1 : 0;
    }
    int Fired() const { return fired_; }
    void End() { repeats_ = false; }

private:
    std::atomic<int> fired_{0};
    std::atomic<bool> repeats_{true};
};

TEST(PZLTimerSubMngMemoryTest, IsNotMadeWithoutMemoryForItsLock) {
    const StdoutCapture output;
    sem_init_call.FailNext(ENOMEM);
    EXPECT_THROW(PZLTimerSubMng(30, kPriority), std::bad_alloc);
}

TEST(PZLTimerSubMngMemoryTest, ATimerForWhichThereIsNoMemoryIsRefusedAndNothingIsHalfDone) {
    PZLTimerSubMng sub(30, kPriority);
    StdoutCapture output;
    int refusals = 0;
    CountingTimer timer;
    for (int skip = 0;; ++skip) {
        int result = -1;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            result = sub.addTimer(&timer, 1000);
            refused = shortage.Refused();
        }
        if (refused == 0) {
            EXPECT_EQ(1, result);
            break;
        }
        ++refusals;
        EXPECT_EQ(0, result) << "refused allocation " << skip;
        EXPECT_EQ(0, sub.isActive(&timer));
        EXPECT_EQ(0, sub.removeTimer(&timer));
        EXPECT_TRUE(has_report(output.Take(), "addTimer", "PZLTimerSubMng.cpp",
                               "failed to allocate memory"));
    }
    EXPECT_EQ(2, refusals);
    EXPECT_EQ(1, sub.isActive(&timer));
    EXPECT_EQ(1, sub.removeTimer(&timer));
}

TEST(PZLTimerSubMngMemoryTest, ATimerTakesThePlaceOfARemovedOneWithoutMemory) {
    PZLTimerSubMng sub(30, kPriority);
    std::array<CountingTimer, 4> timers;
    ASSERT_EQ(1, sub.addTimer(&timers[0], 1000));
    ASSERT_EQ(1, sub.addTimer(&timers[2], 2000));
    ASSERT_EQ(1, sub.removeTimer(&timers[2]));
    int again = -1;
    int inPlace = -1;
    int further = -1;
    {
        const StdoutCapture output;
        const pztest::MemoryShortage shortage;
        again = sub.addTimer(&timers[0], 3000);  // active: takes no place
        inPlace = sub.addTimer(&timers[1], 3000);
        further = sub.addTimer(&timers[3], 3000);
    }
    EXPECT_EQ(0, again);
    EXPECT_EQ(1, inPlace);
    EXPECT_EQ(0, further);
    EXPECT_EQ(1, sub.isActive(&timers[0]));
    EXPECT_EQ(1, sub.isActive(&timers[1]));
    EXPECT_EQ(0, sub.isActive(&timers[2]));
    EXPECT_EQ(0, sub.isActive(&timers[3]));
}

TEST(PZLTimerSubMngMemoryTest, ActiveTimersFireAndRepeatWithoutMemory) {
    PZLTimerSubMng sub(30, kPriority);
    {
        const StdoutCapture output;
        sub.start("timers");
    }
    std::array<CountingTimer, 3> timers;
    for (CountingTimer& timer : timers) ASSERT_EQ(1, sub.addTimer(&timer, 1));
    bool allFired = false;
    int removed = -1;
    {
        const pztest::GeneralMemoryShortage shortage;
        const int before = timers[2].Fired();
        allFired = wait_until([&] { return timers[2].Fired() >= before + 20; });
        timers[1].End();
        allFired = allFired && wait_until([&] { return sub.isActive(&timers[1]) == 0; });
        removed = sub.removeTimer(&timers[0]);
    }
    EXPECT_TRUE(allFired);
    EXPECT_EQ(1, removed);
    CountingTimer added;
    EXPECT_EQ(1, sub.addTimer(&added, 1));
    EXPECT_TRUE(wait_until([&] { return added.Fired() >= 2; }));
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

TEST(PZLTimerSubMngMemoryTest, AThreadThatStartsWithoutMemoryServesItsTimers) {
    PZLTimerSubMng sub(30, kPriority);
    {
        const StdoutCapture output;
        const pztest::GeneralMemoryShortage shortage;
        sub.start("timers");
    }
    CountingTimer timer;
    EXPECT_EQ(1, sub.addTimer(&timer, 1));
    EXPECT_TRUE(wait_until([&] { return timer.Fired() >= 5; }));
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

// Descriptors and threads that run out

TEST_F(PZLTimerSubMngStartTest, RefusesTimersFromAStartThatMadeNoThreadToOneThatDoes) {
    CallbackTimer timer;
    EXPECT_EQ(1, sub.addTimer(&timer, 0));  // nothing has failed yet
    EXPECT_EQ(1, sub.removeTimer(&timer));
    StdoutCapture output;
    pthread_create_call.FailNext(EAGAIN);
    EXPECT_EQ(0, sub.start("timers"));
    EXPECT_EQ(1U, pztest::error_messages(output.Take()).size());
    EXPECT_EQ(0, sub.addTimer(&timer, 0));
    EXPECT_EQ(0, sub.isActive(&timer));
    EXPECT_EQ(1, sub.start("timers"));
    EXPECT_EQ(0, sub.start("others"));  // makes no thread either, but there is one
    EXPECT_EQ(1, sub.addTimer(&timer, 0));
    EXPECT_TRUE(wait_until([&] { return timer.Fired() == 1; }));
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

// The sanitizer's check of an object's type needs descriptors of its own, and takes the lack of
// them for a wrong type.
#ifndef __SANITIZE_ADDRESS__
TEST(PZLTimerSubMngDescriptorsTest, MakesNoThreadWithoutDescriptorsAndSaysWhy) {
    StdoutCapture output;
    std::unique_ptr<PZLTimerSubMng> sub;
    CountingTimer timer;
    int started = -1;
    int added = -1;
    int ended = -1;
    std::string why;
    {
        const pztest::FewDescriptors none(0);
        sub = std::make_unique<PZLTimerSubMng>(30, kPriority);
        output.Take();
        started = sub->start("timers");
        why = output.Take();
        added = sub->addTimer(&timer, 1);
        ended = sub->end(kIgnoredTimeout);
    }
    EXPECT_EQ(0, started);
    EXPECT_EQ(std::vector<std::string>{"std library error [24 : Too many open files]"},
              pztest::error_messages(why));
    EXPECT_EQ(0, added);
    EXPECT_EQ(1, ended);
    sub->start("timers");  // descriptors are back; the priority may be refused
    EXPECT_EQ(1, sub->addTimer(&timer, 1));
    EXPECT_TRUE(wait_until([&] { return timer.Fired() >= 2; }));
    EXPECT_EQ(1, sub->end(kIgnoredTimeout));
}

TEST(PZLTimerSubMngDescriptorsTest, ServesQuietlyWithoutFurtherDescriptors) {
    StdoutCapture output;
    PZLTimerSubMng sub(30, kPriority);
    sub.start("timers");
    output.Take();
    CountingTimer timer;
    bool fired = false;
    {
        const pztest::FewDescriptors none(0);
        EXPECT_EQ(1, sub.addTimer(&timer, 1));
        fired = wait_until([&] { return timer.Fired() >= 20; });
    }
    EXPECT_TRUE(fired);
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
}

#endif

// Interrupted waits

TEST(PZLTimerSubMngSignalTest, ATimerFiresInTimeUnderSignalsThatComeMoreOftenThanItDoes) {
    struct sigaction before = {};
    struct sigaction ignored = {};
    ignored.sa_handler = [](int) {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &ignored, &before));
    PZLTimerSubMng sub(30, kPriority);
    {
        const StdoutCapture output;
        sub.start("timers");
    }
    std::vector<unsigned long> handles;
    PZThreadMng::GetInstance()->getActiveThreadList(handles);
    ASSERT_EQ(1U, handles.size());
    CountingTimer timer;
    ASSERT_EQ(1, sub.addTimer(&timer, 300));
    // Fifty times the interval.
    for (int i = 0; i < 150 && timer.Fired() == 0; ++i) {
        usleep(100000);
        ASSERT_EQ(0, pthread_kill(handles[0], SIGUSR1));
    }
    EXPECT_NE(0, timer.Fired());
    EXPECT_EQ(1, sub.end(kIgnoredTimeout));
    ASSERT_EQ(0, sigaction(SIGUSR1, &before, nullptr));
}

TEST(PZLTimerSubMngSignalTest, ATimerOfAProcessThatWasStoppedFiresWhenItsTimeIsOver) {
    constexpr unsigned int kIntervalMs = 3000;
    constexpr int kLate = 2;
    int status = kLate;
    // A busy machine may delay a timer or two. One that began again would be late each time.
    for (int attempt = 0; status == kLate && attempt < 5; ++attempt) {
        pztest::ChildProcess child([] {
            PZLTimerSubMng sub(30, kPriority);
            {
                const StdoutCapture output;
                sub.start("timers");
            }
            CallbackTimer timer;
            const unsigned int start = pztest::tick_now();
            sub.addTimer(&timer, kIntervalMs);
            if (!wait_until([&] { return timer.Fired() == 1; })) return 1;
            const unsigned int took = timer.FiredAt()[0] - start;
            sub.end(kIgnoredTimeout);
            if (took < kIntervalMs) return 3;
            return took < kIntervalMs + 1500 ? 0 : kLate;
        });
        usleep(2000000);
        ASSERT_EQ(0, kill(child.Pid(), SIGSTOP));
        usleep(10000);
        ASSERT_EQ(0, kill(child.Pid(), SIGCONT));
        status = child.Wait();
    }
    EXPECT_EQ(0, status);
}

// The thread

TEST_F(PZLTimerSubMngTest, TheThreadsWaitsAreExact) {
    int slackNs = -1;
    CallbackTimer timer([&slackNs](TimerInfo*) {
        slackNs = prctl(PR_GET_TIMERSLACK);
        return 0;
    });
    Add(timer, 0);
    EXPECT_EQ(1, slackNs);
}

TEST_F(PZLTimerSubMngTest, AThreadWhoseWaitsFailPausesBetweenThem) {
    const StdoutCapture output;
    timespec start = {};
    timespec end = {};
    pztest::clock_gettime_call.Real(CLOCK_MONOTONIC, &start);
    pztest::epoll_wait_call.FailNext(EIO, 3);
    CallbackTimer timer;
    Add(timer, 100);
    pztest::clock_gettime_call.Real(CLOCK_MONOTONIC, &end);
    const long long tookNs =
        (end.tv_sec - start.tv_sec) * 1000000000LL + (end.tv_nsec - start.tv_nsec);
    EXPECT_LE(300000000, tookNs);
}

TEST_F(PZLTimerSubMngTest, ATimerThatIsAddedAfterAFailedWaitIsNotTakenForOneOfThatWait) {
    // Time goes by from the wait that fails to the next one.
    const auto delay = [](const PZDbgOutput::ST_RECORD&, void* theTick) {
        if (pztest::tick_now() == kStart) static_cast<pztest::ManualTick*>(theTick)->Advance(50);
        return false;
    };
    PZDbgOutput::SetSink(delay, &tick);
    CallbackTimer one;
    CallbackTimer two;
    pztest::epoll_wait_call.FailNext(EIO);
    Add(one, 100);
    PZDbgOutput::SetSink(nullptr, nullptr);
    EXPECT_EQ(100, LastTimeOut());
    Add(two, 70);
    EXPECT_EQ(50, LastTimeOut());
    AdvanceToCheck(50);
    AdvanceToCheck(20);
    EXPECT_EQ(Ticks{kStart + 100}, one.FiredAt());
    EXPECT_EQ(Ticks{kStart + 120}, two.FiredAt());
}

// A flood of added timers.

constexpr int kFlood = 70000;  // a pipe would hold 65536 signals

TEST_F(PZLTimerSubMngStartTest, AFloodOfAddedTimersBeforeTheStartIsOneWakeUp) {
    StdoutCapture output;
    CallbackTimer flooding;
    for (int i = 0; i < kFlood; ++i) {
        ASSERT_EQ(1, sub.addTimer(&flooding, 1000));
        ASSERT_EQ(1, sub.removeTimer(&flooding));
    }
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(1, sub.start("timers"));
    ExpectATimerFiresAndEnd();
}

TEST_F(PZLTimerSubMngTest, TimersFireAfterAFloodFromACallback) {
    StdoutCapture output;
    CallbackTimer flooding;
    CallbackTimer flooder([&](TimerInfo*) {
        for (int i = 0; i < kFlood; ++i) {
            sub.addTimer(&flooding, 1000);
            sub.removeTimer(&flooding);
        }
        return 0;
    });
    ASSERT_EQ(1, sub.addTimer(&flooder, 0));
    ASSERT_TRUE(wait_until([&] { return sub.isActive(&flooder) == 0 && flooder.Fired() == 1; }));
    CallbackTimer timer;
    EXPECT_EQ(1, sub.addTimer(&timer, 0));
    EXPECT_TRUE(wait_until([&] { return timer.Fired() == 1; }));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZLTimerSubMngTest, EveryTimerThatIsDueAtOnceBringsAboutACheckHoweverManyThereWere) {
    CallbackTimer timer;
    for (int i = 0; i < 300; ++i) Add(timer, 0);
    EXPECT_EQ(301U, waits.Count());
    EXPECT_EQ(300U, timer.Fired());
}

TEST_F(PZLTimerSubMngTest, ATimerWakesTheThreadWhenTheOneBeforeCouldNot) {
    CallbackTimer first;
    CallbackTimer second;
    write_call.FailNext(EBADF);
    ASSERT_EQ(1, sub.addTimer(&first, 1000));
    EXPECT_EQ(1U, waits.Count());
    Add(second, 1000);
    AdvanceToCheck(1000);
    EXPECT_EQ(1U, first.Fired());
    EXPECT_EQ(1U, second.Fired());
}

TEST_F(PZLTimerSubMngTest, AddedTimersBringAboutChecksAfterManyThatCouldNotBeSignalled) {
    CallbackTimer timer;
    write_call.FailNext(EBADF, 300);
    for (int i = 0; i < 300; ++i) {
        ASSERT_EQ(1, sub.addTimer(&timer, 1000));
        ASSERT_EQ(1, sub.removeTimer(&timer));
    }
    write_call.Reset();
    EXPECT_EQ(1U, waits.Count());
    Add(timer, 1000);
    EXPECT_EQ(1, sub.isActive(&timer));
}

// What the table of the process shows

/// The band of the only timer thread that runs.
ST_INSPECTED_BAND<PZInspectionLive>& shown_band() {
    const void* record = pz_inspection.bands.pointer.load();
    while (record != nullptr) {
        auto* const band = static_cast<const ST_INSPECTED_BAND<PZInspectionLive>*>(record);
        if (band->tid != 0) return *const_cast<ST_INSPECTED_BAND<PZInspectionLive>*>(band);
        record = band->next.pointer.load();
    }
    throw std::logic_error("no timer thread is shown");
}

TEST_F(PZLTimerSubMngTest, HalvesItsCountsOfLatenessWhenOneWouldOverflow) {
    auto& lateness = shown_band().lateness;
    for (auto& count : lateness) count = 10;
    lateness[0] = 0xFFFF;
    CallbackTimer timer;
    Add(timer, 7);
    AdvanceToCheck(7);
    EXPECT_EQ(1U, timer.Fired());
    EXPECT_EQ(0x8000, lateness[0]);
    for (size_t i = 1; i < std::size(lateness); ++i) EXPECT_EQ(5, lateness[i]) << i;
}

TEST_F(PZLTimerSubMngTest, ACallbackBehindASlowOneOfTheSameCheckCountsAsLate) {
    const auto slow = [](TimerInfo*) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        return 0;
    };
    CallbackTimer one(slow);
    CallbackTimer two(slow);
    Add(one, 7);
    AddQuietly(two, 7);
    AdvanceToCheck(7);
    EXPECT_EQ(2U, one.Fired() + two.Fired());
    EXPECT_LE(40U, shown_band().worstLateMs) << "the table's clock moves in steps of up to 10 ms";
    EXPECT_GE(20000U, shown_band().worstLateMs);
}

// Thread hooks

TEST_F(PZLTimerSubMngStartTest, InitializeSucceeds) {
    EXPECT_EQ(0, sub.Initialize());
}

TEST_F(PZLTimerSubMngStartTest, FinalizeRemovesAllTimers) {
    CallbackTimer one;
    CallbackTimer two;
    EXPECT_EQ(1, sub.addTimer(&one, 1));
    EXPECT_EQ(1, sub.addTimer(&two, 1));
    sub.Finalize();
    EXPECT_EQ(0, sub.isActive(&one));
    EXPECT_EQ(0, sub.isActive(&two));
}

static_assert(std::is_same<unsigned int, decltype(TimerInfo::interval)>::value, "32 bits");
static_assert(std::is_same<unsigned long long, decltype(TimerInfo::expiry)>::value, "64 bits");
static_assert(!std::is_copy_constructible<PZLTimerSubMng>::value, "not to be copied");
static_assert(!std::is_copy_assignable<PZLTimerSubMng>::value, "not to be copied");
static_assert(std::has_virtual_destructor<PZLTimerBase>::value, "deleted through the base");

}  // namespace
