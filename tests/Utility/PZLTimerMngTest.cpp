#include "Framework/Utility/PZLTimerMng.h"

#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZThreadMng.h>

#include "support/CallbackTimer.h"
#include "support/CancelledThread.h"
#include "support/FakePriorities.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OwnProcess.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(pthread_join, 2, EDEADLK);
PZ_INTERPOSE(pthread_create, 4, EAGAIN);

namespace {

using pztest::CallbackTimer;
using pztest::FakePriorities;
using pztest::StdoutCapture;
using pztest::wait_until;
using Handle = PZLTimerMng::TimerSubInfo;
using Names = std::vector<std::string>;

constexpr unsigned int kLong = 1000000;  // milliseconds that no test lasts

struct Band {
    int lo;
    int hi;
    int threadNice;  // of the timer thread
    int callerNice;  // of a caller in this band
};

// clang-format off
constexpr std::array<Band, 5> kBands = {{
    // lowest  highest  timer thread  caller
    {     177,     207,          -10,    -20 },
    {     208,     219,           -9,     -4 },
    {     220,     231,           -8,     -3 },
    {     232,     243,           -7,     -1 },
    {     244,     255,           -6,      0 },
}};
// clang-format on

/// The name under which the kernel knows the calling thread.
std::string own_name() {
    char name[16] = {};
    prctl(PR_GET_NAME, name);
    return name;
}

/// The registered threads, by their handles.
std::map<unsigned long, std::string> registered_threads() {
    std::vector<unsigned long> handles;
    PZThreadMng::GetInstance()->getActiveThreadList(handles);
    std::map<unsigned long, std::string> threads;
    for (const unsigned long handle : handles) {
        char label[256] = {};
        if (PZThreadMng::GetInstance()->getLabel(handle, label)) threads[handle] = label;
    }
    return threads;
}

Names sorted_names() {
    Names names;
    for (const auto& thread : registered_threads()) names.push_back(thread.second);
    std::sort(names.begin(), names.end());
    return names;
}

/// The process's timer manager, made again for every test.
class PZLTimerMngTest : public testing::Test {
protected:
    void TearDown() override { PZSingletonFinalizer::finalize(); }

    /// Calls AddTimer as a thread of that nice value.
    Handle* AddAs(int nice, PZLTimerBase* timer, unsigned int ms) {
        FakePriorities::SetOwnNice(nice);
        return manager->AddTimer(timer, ms);
    }

    FakePriorities priorities;
    PZLTimerMng* const manager = PZLTimerMng::GetTimerMng();
};

// The manager and its threads

TEST_F(PZLTimerMngTest, GetTimerMngIsTheSingleton) {
    EXPECT_NE(nullptr, manager);
    EXPECT_EQ(manager, PZLTimerMng::GetTimerMng());
    EXPECT_EQ(manager, PZLTimerMng::GetInstance());
}

TEST_F(PZLTimerMngTest, RunsFiveTimerThreads) {
    EXPECT_EQ((Names{"ZLTimerSubMng_0", "ZLTimerSubMng_1", "ZLTimerSubMng_2", "ZLTimerSubMng_3",
                     "ZLTimerSubMng_4"}),
              sorted_names());
}

TEST_F(PZLTimerMngTest, GivesEveryTimerThreadThePriorityOfItsBand) {
    const std::vector<pztest::PriorityChange> changes = priorities.Changes();
    ASSERT_EQ(kBands.size(), changes.size());
    for (size_t i = 0; i < kBands.size(); ++i) {
        EXPECT_EQ(kBands[i].threadNice, changes[i].nice) << "band " << i;
    }
}

TEST_F(PZLTimerMngTest, AFreshManagerIsMadeAfterTheSingletonsWereDestroyed) {
    CallbackTimer timer;
    ASSERT_NE(nullptr, manager->AddTimer(&timer, kLong));
    PZSingletonFinalizer::finalize();
    PZLTimerMng* const fresh = PZLTimerMng::GetTimerMng();
    ASSERT_NE(nullptr, fresh);
    EXPECT_EQ(5U, registered_threads().size());
    EXPECT_EQ(0, fresh->IsActive(fresh->Find(251), &timer));
    EXPECT_NE(nullptr, fresh->AddTimer(&timer, kLong));
}

TEST_F(PZLTimerMngTest, StartsThoughThePrioritiesAreRefused) {
    PZSingletonFinalizer::finalize();
    StdoutCapture output;
    pztest::setpriority_call.FailNext(EACCES, 5);
    PZLTimerMng* const fresh = PZLTimerMng::GetTimerMng();
    EXPECT_EQ(5U, pztest::error_messages(output.Take()).size());
    CallbackTimer timer;
    Handle* const handle = fresh->AddTimer(&timer, 0);
    ASSERT_NE(nullptr, handle);
    EXPECT_TRUE(wait_until([&] { return timer.Fired() == 1; }));
    EXPECT_EQ(0, fresh->IsActive(handle, &timer));  // waits for the callback's end
}

// Bands

TEST_F(PZLTimerMngTest, FindAnswersTheBandThatHoldsThePriority) {
    for (const Band& band : kBands) {
        Handle* const handle = manager->Find(band.lo);
        ASSERT_NE(nullptr, handle) << band.lo;
        EXPECT_EQ(band.lo, handle->lo);
        EXPECT_EQ(band.hi, handle->hi);
        for (int priority = band.lo; priority <= band.hi; ++priority) {
            EXPECT_EQ(handle, manager->Find(priority)) << priority;
        }
    }
}

TEST_F(PZLTimerMngTest, FindAnswersNullOutsideAllBands) {
    for (const int priority : {INT_MIN, -1, 0, 176, 256, INT_MAX}) {
        EXPECT_EQ(nullptr, manager->Find(priority)) << priority;
    }
}

TEST_F(PZLTimerMngTest, EveryBandHasItsOwnSubManager) {
    for (const Band& band : kBands) {
        for (const Band& other : kBands) {
            EXPECT_EQ(band.lo == other.lo,
                      manager->Find(band.lo)->sub == manager->Find(other.lo)->sub);
        }
    }
}

TEST_F(PZLTimerMngTest, CheckupComparesThePriorityWithTheBand) {
    for (const Band& band : kBands) {
        Handle* const handle = manager->Find(band.lo);
        EXPECT_EQ(-1, manager->Checkup(handle, INT_MIN));
        EXPECT_EQ(-1, manager->Checkup(handle, band.lo - 1));
        EXPECT_EQ(0, manager->Checkup(handle, band.lo));
        EXPECT_EQ(0, manager->Checkup(handle, band.hi));
        EXPECT_EQ(1, manager->Checkup(handle, band.hi + 1));
        EXPECT_EQ(1, manager->Checkup(handle, INT_MAX));
    }
}

TEST_F(PZLTimerMngTest, GetPriorityIsTheCallingThreadsWidePriority) {
    FakePriorities::SetOwnNice(-5);
    EXPECT_EQ(201, manager->GetPriority());
    FakePriorities::SetOwnNice(4);
    EXPECT_EQ(255, manager->GetPriority());
}

TEST_F(PZLTimerMngTest, AddTimerFilesByThePriorityOfTheCaller) {
    for (const Band& band : kBands) {
        CallbackTimer timer;
        Handle* const handle = AddAs(band.callerNice, &timer, kLong);
        ASSERT_NE(nullptr, handle);
        EXPECT_EQ(manager->Find(band.lo), handle);
        EXPECT_EQ(1, handle->sub->isActive(&timer));
        EXPECT_EQ(1, manager->RemoveTimer(handle, &timer));
    }
}

TEST_F(PZLTimerMngTest, CallbacksRunOnTheThreadOfTheirBand) {
    Names names;
    std::mutex namesMutex;
    const CallbackTimer::Callback note = [&](pztest::TimerInfo*) {
        const std::lock_guard<std::mutex> lock(namesMutex);
        names.push_back(own_name());
        return 0;
    };
    for (const Band& band : kBands) {
        CallbackTimer timer(note);
        Handle* const handle = AddAs(band.callerNice, &timer, 0);
        ASSERT_NE(nullptr, handle);
        ASSERT_TRUE(wait_until([&] { return timer.Fired() == 1; }));
        EXPECT_EQ(0, manager->IsActive(handle, &timer));  // waits for the callback's end
    }
    EXPECT_EQ((Names{"ZLTimerSubMng_0", "ZLTimerSubMng_1", "ZLTimerSubMng_2", "ZLTimerSubMng_3",
                     "ZLTimerSubMng_4"}),
              names);
}

TEST_F(PZLTimerMngTest, ATimerMayBeActiveInTwoBands) {
    CallbackTimer timer;
    Handle* const first = AddAs(-20, &timer, kLong);
    Handle* const last = AddAs(0, &timer, kLong);
    ASSERT_NE(nullptr, first);
    ASSERT_NE(nullptr, last);
    EXPECT_NE(first, last);
    EXPECT_EQ(1, manager->RemoveTimer(first, &timer));
    EXPECT_EQ(1, manager->IsActive(last, &timer));
    EXPECT_EQ(1, manager->RemoveTimer(last, &timer));
}

TEST_F(PZLTimerMngTest, ACallbackThatTakesLongHoldsUpItsOwnBandOnly) {
    std::promise<void> release;
    CallbackTimer slow([released = release.get_future().share()](pztest::TimerInfo*) {
        released.wait();
        return 0;
    });
    ASSERT_NE(nullptr, AddAs(-20, &slow, 0));
    ASSERT_TRUE(wait_until([&] { return slow.Fired() == 1; }));
    CallbackTimer quick;
    EXPECT_NE(nullptr, AddAs(0, &quick, 0));
    EXPECT_TRUE(wait_until([&] { return quick.Fired() == 1; }));
    release.set_value();
    EXPECT_EQ(0, manager->IsActive(manager->Find(177), &slow));
}

TEST_F(PZLTimerMngTest, AddTimerFromACallbackFilesByTheTimerThreadsOwnPriority) {
    for (const Band& band : kBands) {
        CallbackTimer next;
        std::promise<Handle*> added;
        CallbackTimer timer([&](pztest::TimerInfo*) {
            added.set_value(manager->AddTimer(&next, kLong));
            return 0;
        });
        Handle* const handle = AddAs(band.callerNice, &timer, 0);
        ASSERT_NE(nullptr, handle);
        EXPECT_EQ(manager->Find(177), added.get_future().get());
        EXPECT_EQ(0, manager->IsActive(handle, &timer));
        EXPECT_EQ(1, manager->RemoveTimer(manager->Find(177), &next));
    }
}

// Results

TEST_F(PZLTimerMngTest, AddTimerOfANullTimerAnswersNullWithoutAReport) {
    StdoutCapture output;
    EXPECT_EQ(nullptr, manager->AddTimer(nullptr, 10));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZLTimerMngTest, AddTimerOfAThreadBeyondTheLastBandIsReported) {
    StdoutCapture output;
    CallbackTimer timer;
    EXPECT_EQ(nullptr, AddAs(5, &timer, 10));  // nice 5 is no priority of the scale
    const std::string text = output.Take();
    EXPECT_EQ((Names{"error : nice[5]", "error"}), pztest::error_messages(text));
    EXPECT_TRUE(pztest::has_report(text, "AddTimer", "PZLTimerMng.cpp", "error"));
}

TEST_F(PZLTimerMngTest, AddTimerOfAThreadOfUnknownPriorityIsReported) {
    StdoutCapture output;
    CallbackTimer timer;
    pztest::getpriority_call.FailNext(ESRCH);
    EXPECT_EQ(nullptr, manager->AddTimer(&timer, 10));
    EXPECT_EQ((Names{"error : errno[3 : No such process]", "error"}),
              pztest::error_messages(output.Take()));
}

TEST_F(PZLTimerMngTest, AddTimerOfAnActiveTimerAnswersNullAndLeavesItAlone) {
    StdoutCapture output;
    CallbackTimer timer;
    Handle* const handle = manager->AddTimer(&timer, kLong);
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(nullptr, manager->AddTimer(&timer, 0));
    EXPECT_EQ(1, manager->IsActive(handle, &timer));
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(1, manager->RemoveTimer(handle, &timer));
    EXPECT_EQ(0U, timer.Fired());
}

TEST_F(PZLTimerMngTest, RemoveTimerAnswersWhetherTheTimerWasActiveInTheBand) {
    CallbackTimer timer;
    Handle* const handle = AddAs(0, &timer, kLong);
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(0, manager->RemoveTimer(manager->Find(177), &timer));
    EXPECT_EQ(1, manager->RemoveTimer(handle, &timer));
    EXPECT_EQ(0, manager->RemoveTimer(handle, &timer));
}

TEST_F(PZLTimerMngTest, IsActiveAnswersWhetherTheTimerIsActiveInTheBand) {
    CallbackTimer timer;
    Handle* const handle = AddAs(0, &timer, kLong);
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(1, manager->IsActive(handle, &timer));
    EXPECT_EQ(0, manager->IsActive(manager->Find(177), &timer));
    EXPECT_EQ(1, manager->RemoveTimer(handle, &timer));
    EXPECT_EQ(0, manager->IsActive(handle, &timer));
}

TEST_F(PZLTimerMngTest, NullHandlesAndNullTimersAreAnsweredWithZero) {
    CallbackTimer timer;
    Handle* const handle = manager->AddTimer(&timer, kLong);
    ASSERT_NE(nullptr, handle);
    EXPECT_EQ(0, manager->RemoveTimer(nullptr, &timer));
    EXPECT_EQ(0, manager->RemoveTimer(handle, nullptr));
    EXPECT_EQ(0, manager->RemoveTimer(nullptr, nullptr));
    EXPECT_EQ(0, manager->IsActive(nullptr, &timer));
    EXPECT_EQ(0, manager->IsActive(handle, nullptr));
    EXPECT_EQ(0, manager->IsActive(nullptr, nullptr));
    EXPECT_EQ(1, manager->RemoveTimer(handle, &timer));
}

// Destruction

TEST_F(PZLTimerMngTest, DestructionEndsTheThreadsInTheOrderOfTheBands) {
    static Names ended;
    static std::map<unsigned long, std::string> threads;
    ended.clear();
    threads = registered_threads();
    pthread_join_call.Replace([](pthread_t handle, void** result) {
        ended.push_back(threads[handle]);
        return pthread_join_call.Real(handle, result);
    });
    PZLTimerMng::destroy();
    pthread_join_call.Replace(nullptr);
    EXPECT_EQ((Names{"ZLTimerSubMng_0", "ZLTimerSubMng_1", "ZLTimerSubMng_2", "ZLTimerSubMng_3",
                     "ZLTimerSubMng_4"}),
              ended);
    EXPECT_TRUE(registered_threads().empty());
}

TEST_F(PZLTimerMngTest, DestructionDropsActiveTimersWithoutCallingThem) {
    CallbackTimer timer;
    ASSERT_NE(nullptr, manager->AddTimer(&timer, kLong));
    PZLTimerMng::destroy();
    EXPECT_EQ(0U, timer.Fired());
}

TEST_F(PZLTimerMngTest, DestructionLeavesASubManagerThatCannotBeEndedInPlace) {
    static Handle* left;  // static: the leak on purpose stays reachable
    static int joins;
    left = manager->Find(220);
    joins = 0;
    StdoutCapture output;
    pthread_join_call.Replace([](pthread_t handle, void** result) {
        pthread_join_call.Real(handle, result);
        return ++joins == 3 ? ESRCH : 0;
    });
    PZLTimerMng::destroy();
    pthread_join_call.Replace(nullptr);

    EXPECT_EQ(5, joins);
    const std::string text = output.Take();
    EXPECT_EQ(2U, pztest::error_messages(text).size());
    EXPECT_EQ(1U, pztest::count_of(text, "pthread_join failed !! ret[3] errno["));
    EXPECT_TRUE(
        pztest::has_report(text, "~PZLTimerMng", "PZLTimerMng.cpp", "failed to end timer submng"));
    EXPECT_EQ(220, left->lo);
    CallbackTimer timer;
    EXPECT_EQ(1, left->sub->addTimer(&timer, kLong));
    EXPECT_EQ(1, left->sub->isActive(&timer));
    delete left->sub;
    delete left;
}

TEST_F(PZLTimerMngTest, TimersMayAddTimersUntilTheirThreadHasEnded) {
    for (int round = 0; round < 20; ++round) {
        PZLTimerMng* const fresh = PZLTimerMng::GetTimerMng();
        std::array<CallbackTimer, 64> added;
        std::atomic<unsigned int> next{0};
        const CallbackTimer::Callback add = [&](pztest::TimerInfo* info) {
            info->interval = 1;
            PZLTimerMng::GetTimerMng()->AddTimer(&added[next++ % added.size()], kLong);
            return 1;
        };
        CallbackTimer inFirst(add);
        CallbackTimer inThird(add);
        CallbackTimer inLast(add);
        FakePriorities::SetOwnNice(-20);
        ASSERT_NE(nullptr, fresh->AddTimer(&inFirst, 1));
        FakePriorities::SetOwnNice(-3);
        ASSERT_NE(nullptr, fresh->AddTimer(&inThird, 1));
        FakePriorities::SetOwnNice(0);
        ASSERT_NE(nullptr, fresh->AddTimer(&inLast, 1));
        ASSERT_TRUE(wait_until([&] { return inFirst.Fired() + inThird.Fired() > 2; }));
        ASSERT_TRUE(wait_until([&] { return inLast.Fired() > 1; }));
        PZLTimerMng::destroy();
        EXPECT_TRUE(registered_threads().empty());
    }
}

// Failures

TEST_F(PZLTimerMngTest, AddTimerAnswersNullForABandThatHasNoThread) {
    PZSingletonFinalizer::finalize();
    StdoutCapture output;
    pthread_create_call.FailNext(EAGAIN, 1, /*skip=*/4);
    PZLTimerMng* const fresh = PZLTimerMng::GetTimerMng();
    EXPECT_EQ((Names{"PZThread::Start() failed !! [ZLTimerSubMng_4]\r"}),
              pztest::error_messages(output.Take()));
    CallbackTimer timer;
    FakePriorities::SetOwnNice(0);
    EXPECT_EQ(nullptr, fresh->AddTimer(&timer, 0));
    FakePriorities::SetOwnNice(-20);
    Handle* const handle = fresh->AddTimer(&timer, 0);
    ASSERT_NE(nullptr, handle);
    EXPECT_TRUE(wait_until([&] { return timer.Fired() == 1; }));
    EXPECT_EQ(0, fresh->IsActive(handle, &timer));  // waits for the callback's end
    EXPECT_EQ("", output.Take());
}

TEST_F(PZLTimerMngTest, AManagerForWhichThereIsNoMemoryLeavesNoThread) {
    pztest::setpriority_call.Replace(nullptr);  // the fake one needs memory
    int refusals = 0;
    for (int skip = 0;; ++skip) {
        PZSingletonFinalizer::finalize();
        const StdoutCapture output;
        bool refused = false;
        bool failed = false;
        {
            const pztest::MemoryShortage shortage(skip);
            try {
                PZLTimerMng::GetTimerMng();
            } catch (const std::bad_alloc&) {
                failed = true;
            }
            refused = shortage.Refused() != 0;
        }
        if (!refused) break;
        ++refusals;
        ASSERT_TRUE(failed) << "refused allocation " << skip;
        ASSERT_TRUE(registered_threads().empty()) << "refused allocation " << skip;
        // A thread that was joined may show for a moment.
        ASSERT_TRUE(wait_until([] { return pztest::threads_named("ZLTimerSubMng_").empty(); }));
    }
    EXPECT_LT(10, refusals);  // at least two for each band
    EXPECT_EQ(5U, registered_threads().size());
}

TEST_F(PZLTimerMngTest, AddTimerAnswersNullWhenThereIsNoMemory) {
    StdoutCapture output;
    CallbackTimer timer;
    Handle* handle = nullptr;
    {
        const pztest::MemoryShortage shortage;
        handle = manager->AddTimer(&timer, 0);
    }
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(Names{"failed to allocate memory"}, pztest::error_messages(output.Take()));
    handle = manager->AddTimer(&timer, 0);
    ASSERT_NE(nullptr, handle);
    EXPECT_TRUE(wait_until([&] { return timer.Fired() == 1; }));
    EXPECT_EQ(0, manager->IsActive(handle, &timer));  // waits for the callback's end
}

TEST_F(PZLTimerMngTest, AThreadThatIsBeingCancelledMayDestroyTheManager) {
    EXPECT_TRUE(pztest::ends_whole_when_cancelled([] { PZLTimerMng::destroy(); }));
    EXPECT_TRUE(registered_threads().empty());
}

// Under load, in real time

TEST_F(PZLTimerMngTest, ATimerNeverFiresEarly) {
    const unsigned int addedAt = pztest::tick_now();
    CallbackTimer timer;
    ASSERT_NE(nullptr, manager->AddTimer(&timer, 40));
    ASSERT_TRUE(wait_until([&] { return timer.Fired() == 1; }));
    EXPECT_LE(40U, timer.FiredAt()[0] - addedAt);
    EXPECT_GT(30000U, timer.FiredAt()[0] - addedAt);
    EXPECT_EQ(0, manager->IsActive(manager->Find(251), &timer));
}

TEST_F(PZLTimerMngTest, NoPeriodIsShorterThanTheInterval) {
    std::vector<unsigned int> expiries;
    CallbackTimer timer([&](pztest::TimerInfo* info) {
        expiries.push_back(static_cast<unsigned int>(info->expiry));
        return 1;
    });
    Handle* const handle = manager->AddTimer(&timer, 10);
    ASSERT_NE(nullptr, handle);
    ASSERT_TRUE(wait_until([&] { return timer.Fired() >= 6; }));
    EXPECT_EQ(1, manager->RemoveTimer(handle, &timer));
    const pztest::Ticks firedAt = timer.FiredAt();
    ASSERT_EQ(firedAt.size(), expiries.size());
    for (size_t i = 0; i < firedAt.size(); ++i) {
        EXPECT_GT(30000U, firedAt[i] - expiries[i]) << "fired before its expiry, or far too late";
        if (i > 0) {
            EXPECT_LE(10U, expiries[i] - expiries[i - 1]);
        }
    }
}

TEST_F(PZLTimerMngTest, ATimerMayBeDeletedAsSoonAsRemoveTimerHasReturned) {
    for (int i = 0; i < 300; ++i) {
        auto timer = std::make_unique<CallbackTimer>(1);
        Handle* const handle = manager->AddTimer(timer.get(), 1);
        ASSERT_NE(nullptr, handle);
        if (i % 3 == 0) {
            ASSERT_TRUE(wait_until([&] { return timer->Fired() > 0; }));
        }
        EXPECT_EQ(1, manager->RemoveTimer(handle, timer.get()));
    }
}

/// Repeats until it has fired twice, adding another one each time.
class AddingTimer : public PZLTimerBase {
public:
    int OnTimer(pztest::TimerInfo*) override {
        if (next != nullptr && PZLTimerMng::GetTimerMng()->AddTimer(next, 1) == nullptr) ++refused;
        return ++fired < 2 ? 1 : 0;
    }

    PZLTimerBase* next = nullptr;
    std::atomic<unsigned int> fired{0};
    std::atomic<unsigned int> refused{0};
};

/// Fires once for each time that it is added.
class OnceTimer : public PZLTimerBase {
public:
    int OnTimer(pztest::TimerInfo*) override {
        ++fired;
        return 0;
    }
    std::atomic<unsigned int> fired{0};
};

TEST_F(PZLTimerMngTest, AHundredThousandTimersOfFourThreadsFireWhileTheyAreAddedAndRemoved) {
    // Half of the timers are added by the threads, half by callbacks.
    constexpr size_t kThreads = 4;
    constexpr unsigned int kTimersPerThread = PZ_THREAD_SANITIZER ? 1000 : 12500;
    std::atomic<int> failures{0};
    const auto work = [&](const Band& band) {
        FakePriorities::SetOwnNice(band.callerNice);
        std::vector<AddingTimer> timers(kTimersPerThread);
        std::vector<OnceTimer> added(kTimersPerThread);
        std::vector<OnceTimer> removed(kTimersPerThread);
        Handle* handle = nullptr;
        for (unsigned int i = 0; i < kTimersPerThread; ++i) {
            timers[i].next = &added[i];
            handle = manager->AddTimer(&timers[i], 1 + i % 7);
            if (handle == nullptr) ++failures;
            if (manager->AddTimer(&removed[i], kLong) != handle) ++failures;
            if (i % 2 == 0 && manager->RemoveTimer(handle, &removed[i]) != 1) ++failures;
        }
        for (unsigned int i = 0; i < kTimersPerThread; ++i) {
            const bool done = wait_until(
                [&] { return timers[i].fired == 2 && added[i].fired + timers[i].refused == 2; });
            if (!done) ++failures;
            if (manager->IsActive(handle, &timers[i]) != 0 || removed[i].fired != 0) ++failures;
            if (i % 2 != 0 && manager->RemoveTimer(handle, &removed[i]) != 1) ++failures;
            // What a callback adds is in the first band, and may still be firing there.
            if (manager->IsActive(manager->Find(177), &added[i]) != 0) ++failures;
        }
    };
    std::vector<std::thread> threads;
    // Two of them share a band.
    for (size_t i = 0; i < kThreads; ++i)
        threads.emplace_back(work, std::cref(kBands[i == 3 ? 2 : i]));
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, failures);
}

static_assert(std::is_base_of<PZSingleton<PZLTimerMng>, PZLTimerMng>::value, "a singleton");
static_assert(!std::is_default_constructible<PZLTimerMng>::value, "made by GetTimerMng only");

}  // namespace
