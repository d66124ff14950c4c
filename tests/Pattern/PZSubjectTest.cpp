#include "Framework/Pattern/PZSubject.h"

#include <execinfo.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/Assertions.h"
#include "support/CancelledThread.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(backtrace, 2);

namespace {

using pztest::StdoutCapture;

const EN_NTF_TYPE kAll = en_NTF_ALL;
const EN_NTF_TYPE kSelected = en_NTF_SELECTED;

/// Writes its name into the log, does what the test wants, and answers its result.
class Recorder : public PZObserver_ {
public:
    Recorder(std::string& log, char name, unsigned int result = 0)
        : log_(log), name_(name), result_(result) {}

    unsigned int OnNotify(unsigned int /*id*/, void* /*data*/, unsigned int /*size*/) override {
        log_ += name_;
        if (action) action();
        return result_;
    }

    std::function<void()> action;

private:
    std::string& log_;
    const char name_;
    const unsigned int result_;
};

/// Keeps the arguments of the last notification.
class ArgumentKeeper : public PZObserver_ {
public:
    unsigned int OnNotify(unsigned int id, void* data, unsigned int size) override {
        lastId = id;
        lastData = data;
        lastSize = size;
        thread = std::this_thread::get_id();
        return 0;
    }

    unsigned int lastId = 0;
    void* lastData = nullptr;
    unsigned int lastSize = 0;
    std::thread::id thread;
};

class PZSubjectTest : public testing::Test {
protected:
    PZSubjectTest() { backtrace_call.Reset(); }

    ~PZSubjectTest() override {
        for (Recorder* const observer : {&a, &b, &c}) {
            while (subject.RemoveObserver(observer) == 1) {
            }
        }
    }

    unsigned int Notify(EN_NTF_TYPE type = kAll, unsigned int id = 1) {
        return subject.NotifyObserver(id, nullptr, 0, type);
    }

    std::string log;
    Recorder a{log, 'a', 3};
    Recorder b{log, 'b', 4294967295U};
    Recorder c{log, 'c', 7};
    PZSubject subject;
};

TEST_F(PZSubjectTest, CallsTheObserversInTheOrderOfTheirSubscription) {
    EXPECT_EQ(1, subject.AddObserver(&b));
    EXPECT_EQ(1, subject.AddObserver(&c));
    EXPECT_EQ(1, subject.AddObserver(&a));
    Notify();
    EXPECT_EQ("bca", log);
}

TEST_F(PZSubjectTest, HandsIdDataAndSizeOnOnTheNotifyingThread) {
    ArgumentKeeper keeper;
    int data = 0;
    subject.AddObserver(&keeper);
    subject.NotifyObserver(0xFFFFFFFFU, &data, sizeof data, kAll);
    subject.RemoveObserver(&keeper);
    EXPECT_EQ(0xFFFFFFFFU, keeper.lastId);
    EXPECT_EQ(&data, keeper.lastData);
    EXPECT_EQ(sizeof data, keeper.lastSize);
    EXPECT_EQ(std::this_thread::get_id(), keeper.thread);
}

TEST_F(PZSubjectTest, AnswersTheLargestResultComparedUnsigned) {
    subject.AddObserver(&a);
    EXPECT_EQ(3U, Notify());
    subject.AddObserver(&b);
    subject.AddObserver(&c);
    EXPECT_EQ(4294967295U, Notify());
    subject.RemoveObserver(&b);
    EXPECT_EQ(7U, Notify());
}

TEST_F(PZSubjectTest, AnswersZeroWithoutObservers) {
    EXPECT_EQ(0U, Notify(kAll));
    EXPECT_EQ(0U, Notify(kSelected));
}

TEST_F(PZSubjectTest, EveryTypeButOneReachesEachObserverOnce) {
    unsigned int ids[] = {5, 5, 6};
    subject.AddObserver(&a);
    subject.AddObserver(&b, ids, 3);
    for (const int type : {0, 2, 3, -1}) {
        log.clear();
        EXPECT_EQ(4294967295U, Notify(static_cast<EN_NTF_TYPE>(type), 99));
        EXPECT_EQ("ab", log) << "type " << type;
    }
}

TEST_F(PZSubjectTest, TypeOneReachesOnlyObserversThatListedTheId) {
    unsigned int idsOfA[] = {1, 2};
    unsigned int idsOfB[] = {2, 3};
    subject.AddObserver(&a, idsOfA, 2);
    subject.AddObserver(&b, idsOfB, 2);
    subject.AddObserver(&c);
    EXPECT_EQ(3U, Notify(kSelected, 1));
    EXPECT_EQ("a", log);
    log.clear();
    EXPECT_EQ(4294967295U, Notify(kSelected, 2));
    EXPECT_EQ("ab", log);
    log.clear();
    EXPECT_EQ(4294967295U, Notify(kSelected, 3));
    EXPECT_EQ("b", log);
}

TEST_F(PZSubjectTest, TypeOneForAnIdNobodyListedAnswersZeroAndCallsNobody) {
    unsigned int ids[] = {1};
    subject.AddObserver(&a, ids, 1);
    subject.AddObserver(&b);
    EXPECT_EQ(0U, Notify(kSelected, 4));
    EXPECT_EQ("", log);
}

TEST_F(PZSubjectTest, AnIdListedTwiceGivesTwoCalls) {
    unsigned int ids[] = {8, 9, 8};
    subject.AddObserver(&a, ids, 3);
    subject.AddObserver(&b, ids + 1, 2);
    Notify(kSelected, 8);
    EXPECT_EQ("aab", log);
}

TEST_F(PZSubjectTest, AnEmptyListOfIdsIsNeverCalledForTypeOne) {
    unsigned int ids[] = {1};
    EXPECT_EQ(1, subject.AddObserver(&a, ids, 0));
    EXPECT_EQ(1, subject.AddObserver(&b, nullptr, 0));
    EXPECT_EQ(1, subject.AddObserver(&c, nullptr, 4));
    EXPECT_EQ(0U, Notify(kSelected, 1));
    EXPECT_EQ("", log);
    Notify(kAll, 1);
    EXPECT_EQ("abc", log);
}

TEST_F(PZSubjectTest, CopiesTheIds) {
    unsigned int ids[] = {1};
    subject.AddObserver(&a, ids, 1);
    ids[0] = 2;
    Notify(kSelected, 2);
    EXPECT_EQ("", log);
    Notify(kSelected, 1);
    EXPECT_EQ("a", log);
}

TEST_F(PZSubjectTest, AnObserverSubscribedTwiceIsCalledTwiceAndRemovedOnceAtATime) {
    subject.AddObserver(&a);
    subject.AddObserver(&b);
    subject.AddObserver(&a);
    Notify();
    EXPECT_EQ("aba", log);
    EXPECT_EQ(1, subject.RemoveObserver(&a));
    log.clear();
    Notify();
    EXPECT_EQ("ba", log);
    EXPECT_EQ(1, subject.RemoveObserver(&a));
    EXPECT_EQ(0, subject.RemoveObserver(&a));
}

TEST_F(PZSubjectTest, RemoveObserverTakesTheFirstSubscription) {
    unsigned int first[] = {1};
    unsigned int second[] = {2};
    subject.AddObserver(&a, first, 1);
    subject.AddObserver(&a, second, 1);
    EXPECT_EQ(1, subject.RemoveObserver(&a));
    Notify(kSelected, 1);
    EXPECT_EQ("", log);
    Notify(kSelected, 2);
    EXPECT_EQ("a", log);
}

TEST_F(PZSubjectTest, RemoveObserverAnswersZeroForNullAndForStrangersQuietly) {
    subject.AddObserver(&a);
    StdoutCapture out;
    EXPECT_EQ(0, subject.RemoveObserver(nullptr));
    EXPECT_EQ(0, subject.RemoveObserver(&b));
    EXPECT_EQ("", out.Take());
}

TEST_F(PZSubjectTest, AnObserverAddedDuringAPassIsReachedByIt) {
    subject.AddObserver(&a);
    a.action = [this] { subject.AddObserver(&c); };
    EXPECT_EQ(7U, Notify());
    EXPECT_EQ("ac", log);
}

TEST_F(PZSubjectTest, AnObserverAddedByTheLastOneInASelectedPassIsReachedByIt) {
    unsigned int ids[] = {5};
    subject.AddObserver(&a, ids, 1);
    a.action = [this, &ids] { subject.AddObserver(&c, ids, 1); };
    EXPECT_EQ(7U, Notify(kSelected, 5));
    EXPECT_EQ("ac", log);
}

TEST_F(PZSubjectTest, AnObserverMayNotifyAgain) {
    subject.AddObserver(&a);
    subject.AddObserver(&b);
    a.action = [this] {
        a.action = nullptr;
        Notify();
    };
    Notify();
    EXPECT_EQ("aabb", log);
}

TEST_F(PZSubjectTest, AnObserverMayRemoveOtherSubscriptionsDuringAPass) {
    subject.AddObserver(&a);
    subject.AddObserver(&b);
    subject.AddObserver(&c);
    b.action = [this] {
        EXPECT_EQ(1, subject.RemoveObserver(&a));
        EXPECT_EQ(1, subject.RemoveObserver(&c));
    };
    EXPECT_EQ(4294967295U, Notify());
    EXPECT_EQ("ab", log);
}

TEST_F(PZSubjectTest, ASubscriptionThatIsRemovedAndMadeAgainDuringAPassIsTheLastOne) {
    for (Recorder* const observer : {&a, &b, &c}) subject.AddObserver(observer);
    a.action = [this] {
        a.action = nullptr;
        EXPECT_EQ(1, subject.RemoveObserver(&b));
        EXPECT_EQ(1, subject.AddObserver(&b));
    };
    Notify();
    EXPECT_EQ("acb", log);
    Notify();
    EXPECT_EQ("acbacb", log);
}

TEST_F(PZSubjectTest, DuringAPassRemoveObserverTakesTheFirstSubscriptionThatIsLeft) {
    for (Recorder* const observer : {&b, &a, &b, &c, &b}) subject.AddObserver(observer);
    a.action = [this] {
        EXPECT_EQ(1, subject.RemoveObserver(&b));
        EXPECT_EQ(1, subject.RemoveObserver(&b));
    };
    Notify();
    EXPECT_EQ("bacb", log);
    EXPECT_EQ(1, subject.RemoveObserver(&b));
    EXPECT_EQ(0, subject.RemoveObserver(&b));
}

TEST_F(PZSubjectTest, ASelectedPassGoesOnWhenAThousandObserversAreAddedAfterIt) {
    constexpr int kAdded = 1000;
    unsigned int twice[] = {5, 5};
    subject.AddObserver(&a, twice, 2);
    a.action = [this, &twice] {
        a.action = nullptr;
        for (int i = 0; i < kAdded; ++i) subject.AddObserver(&c, twice, 1);
    };
    Notify(kSelected, 5);
    EXPECT_EQ("aa" + std::string(kAdded, 'c'), log);
    for (int i = 0; i < kAdded; ++i) EXPECT_EQ(1, subject.RemoveObserver(&c));
}

TEST_F(PZSubjectTest, APassThatEndsByAnExceptionKeepsWhatWasRemovedInItRemoved) {
    StdoutCapture out;
    {
        PZSubject other;
        for (Recorder* const observer : {&a, &b, &c}) other.AddObserver(observer);
        b.action = [&] {
            EXPECT_EQ(1, other.RemoveObserver(&a));
            throw 1;
        };
        EXPECT_THROW(other.NotifyObserver(1, nullptr, 0, kAll), int);
        EXPECT_EQ(0, other.RemoveObserver(&a));
    }
    EXPECT_EQ("call RemoveObserver() before delete. [2]",
              pztest::error_messages(out.Take()).front());
}

TEST_F(PZSubjectTest, AnObserverForWhichThereIsNoMemoryDuringAPassLeavesThePassAsItIs) {
    for (int skip = 0;; ++skip) {
        for (Recorder* const observer : {&a, &b, &c, &a}) subject.AddObserver(observer);
        log.clear();
        StdoutCapture out;
        bool refused = false;
        b.action = [&] {
            unsigned int ids[] = {1};
            const pztest::MemoryShortage shortage(skip);
            const int result = subject.AddObserver(&c, ids, 1);
            refused = shortage.Refused() != 0;
            EXPECT_EQ(refused ? 0 : 1, result);
        };
        Notify();
        EXPECT_EQ(refused ? "abca" : "abcac", log) << "refused allocation " << skip;
        for (Recorder* const observer : {&a, &b, &c}) {
            while (subject.RemoveObserver(observer) == 1) {
            }
        }
        if (!refused) break;
    }
}

/// The subject as it is described: a list, walked while it changes.
class ListSubject {
public:
    void AddObserver(PZObserver_* o, unsigned int* ids, unsigned int count) {
        entries_.push_back({o, {ids, ids + count}});
    }
    int RemoveObserver(PZObserver_* o) {
        for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
            if (entry->observer != o) continue;
            entries_.erase(entry);
            return 1;
        }
        return 0;
    }
    unsigned int NotifyObserver(unsigned int id, void* data, unsigned int size, EN_NTF_TYPE type) {
        unsigned int result = 0;
        for (const Entry& entry : entries_) {
            if (type != kSelected)
                result = std::max(result, entry.observer->OnNotify(id, data, size));
            for (size_t k = 0; type == kSelected && k < entry.ids.size(); ++k) {
                if (entry.ids[k] != id) continue;
                result = std::max(result, entry.observer->OnNotify(id, data, size));
            }
        }
        return result;
    }

private:
    struct Entry {
        PZObserver_* observer;
        std::vector<unsigned int> ids;
    };
    std::list<Entry> entries_;
};

/// A program of six observers that add, remove and notify while they are notified, by the dice of
/// `seed`. Answers everything that happened in it.
template <typename Subject>
std::string changes_during_passes(unsigned int seed) {
    constexpr int kObservers = 6;
    constexpr unsigned int kIds = 3;
    constexpr size_t kEnough = 400;
    std::mt19937 dice(seed);
    const auto below = [&dice](unsigned int end) {
        return static_cast<unsigned int>(dice()) % end;
    };
    std::string happened;
    std::vector<int> active;  // whom passes are at
    Subject subject;
    std::vector<std::unique_ptr<Recorder>> observers;

    const auto notify = [&] {
        const EN_NTF_TYPE type = below(2) == 0 ? kAll : kSelected;
        const unsigned int result = subject.NotifyObserver(below(kIds), nullptr, 0, type);
        happened += '(' + std::to_string(result) + ')';
    };
    const auto change = [&](int self) {
        active.push_back(self);
        const auto other = static_cast<int>(below(kObservers));
        PZObserver_* const observer = observers[static_cast<size_t>(other)].get();
        const unsigned int action = happened.size() < kEnough ? below(8) : 8;
        if (action < 2) {
            unsigned int ids[] = {below(kIds), below(kIds)};
            subject.AddObserver(observer, ids, below(3));
        } else if (action < 4 && std::count(active.begin(), active.end(), other) == 0) {
            happened += '-' + std::to_string(subject.RemoveObserver(observer));
        } else if (action == 4 && active.size() < 4) {
            notify();
        }
        active.pop_back();
    };
    for (int i = 0; i < kObservers; ++i) {
        observers.push_back(std::make_unique<Recorder>(happened, static_cast<char>('a' + i),
                                                       static_cast<unsigned int>(i)));
        observers.back()->action = [&change, i] { change(i); };
        unsigned int ids[] = {below(kIds), below(kIds)};
        subject.AddObserver(observers.back().get(), ids, 2);
    }
    for (int i = 0; i < 5; ++i) notify();
    for (const auto& observer : observers) {
        while (subject.RemoveObserver(observer.get()) == 1) happened += '.';
        happened += '|';
    }
    return happened;
}

TEST(PZSubjectChangeTest, WhateverObserversChangeDuringPassesIsCalledAsAWalkOverAListWould) {
    for (unsigned int seed = 0; seed < 2000; ++seed) {
        ASSERT_EQ(changes_during_passes<ListSubject>(seed), changes_during_passes<PZSubject>(seed))
            << "seed " << seed;
    }
}

/// Runs `body` below `depth` more frames.
// The work after the call keeps the compiler from folding the frames.
__attribute__((noinline)) int at_depth(int depth, const std::function<int()>& body) {
    if (depth == 0) return body();
    const volatile int result = at_depth(depth - 1, body);
    return result;
}

/// The lines that the call stack dump adds.
unsigned int stack_lines(const std::string& output) {
    return pztest::count_of(output, "dumpDirectly()@PZCallStack.cpp(");
}

TEST_F(PZSubjectTest, ANullObserverIsAnsweredWithZeroABannerAndTheWholeCallStack) {
    unsigned int ids[] = {1};
    const std::function<int()> adders[] = {[this] { return subject.AddObserver(nullptr); },
                                           [&] { return subject.AddObserver(nullptr, ids, 1); }};
    for (const auto& add : adders) {
        int result = -1;
        std::string printed;
        {
            StdoutCapture out;
            result = at_depth(20, add);
            printed = out.Take();
        }
        EXPECT_EQ(0, result);
        EXPECT_EQ(1U, pztest::assertions_of(printed, "Pattern/private/PZSubject.cpp")) << printed;
        EXPECT_GT(stack_lines(printed), 20U);
    }
    EXPECT_EQ(0U, Notify());
}

PZSubject* subject_in_use = nullptr;
std::future<unsigned int> other_notification;

/// A call stack capture that, the first time, lets another thread use the subject meanwhile.
int capture_beside_another_thread(void** frames, int size) {
    backtrace_call.Replace(nullptr);
    other_notification = std::async(
        std::launch::async, [] { return subject_in_use->NotifyObserver(1, nullptr, 0, kAll); });
    EXPECT_EQ(std::future_status::ready, other_notification.wait_for(std::chrono::seconds(60)));
    return backtrace_call.Real(frames, size);
}

TEST_F(PZSubjectTest, RefusesAnObserverForWhichThereIsNoMemoryAndKeepsNothing) {
    unsigned int ids[] = {1, 2};
    pztest::StdoutCapture output;
    int refusals = 0;
    for (int skip = 0;; ++skip) {
        int result = -1;
        bool refused = false;
        {
            const pztest::MemoryShortage shortage(skip);
            result = subject.AddObserver(&a, ids, 2);
            refused = shortage.Refused() != 0;
        }
        if (!refused) break;
        ++refusals;
        EXPECT_EQ(0, result) << "refused allocation " << skip;
        EXPECT_TRUE(pztest::has_report(output.Take(), "AddObserver", "PZSubject.cpp",
                                       "failed to allocate memory"));
        EXPECT_EQ(0, subject.RemoveObserver(&a));
    }
    EXPECT_EQ(2, refusals);
    EXPECT_EQ(1, subject.RemoveObserver(&a));
}

TEST(PZSubjectDestructionTest, AThreadThatIsBeingCancelledMayDestroyASubject) {
    class Nobody : public PZObserver_ {
        unsigned int OnNotify(unsigned int, void*, unsigned int) override { return 0; }
    } nobody;
    pztest::StdoutCapture output;
    auto subject = std::make_unique<PZSubject>();
    subject->AddObserver(&nobody);
    // Reports the observer that is left.
    EXPECT_TRUE(pztest::ends_whole_when_cancelled([&subject] { subject.reset(); }));
    EXPECT_EQ(1U, pztest::count_of(output.Take(), "call RemoveObserver() before delete. [1]"));
}

TEST_F(PZSubjectTest, PrintsTheBannerForANullObserverWithoutHoldingTheLock) {
    subject.AddObserver(&a);
    subject_in_use = &subject;
    StdoutCapture out;
    backtrace_call.Replace(&capture_beside_another_thread);
    EXPECT_EQ(0, subject.AddObserver(nullptr));
    EXPECT_EQ(3U, other_notification.get());
}

TEST(PZSubjectDestructionTest, IsQuietWhenNoSubscriptionIsLeft) {
    std::string log;
    Recorder a(log, 'a');
    StdoutCapture out;
    {
        PZSubject subject;
        subject.AddObserver(&a);
        subject.RemoveObserver(&a);
    }
    EXPECT_EQ("", out.Take());
}

TEST(PZSubjectDestructionTest, ReportsTheSubscriptionsThatAreLeftAndTenFramesOfTheCallStack) {
    std::string log;
    Recorder a(log, 'a');
    Recorder b(log, 'b');
    unsigned int ids[] = {1, 2, 3};
    auto subject = std::make_unique<PZSubject>();
    subject->AddObserver(&a);
    subject->AddObserver(&b, ids, 3);

    StdoutCapture out;
    at_depth(20, [&subject] {
        subject.reset();
        return 0;
    });
    const std::string printed = out.Take();
    EXPECT_TRUE(pztest::has_report(printed, "~PZSubject", "PZSubject.cpp",
                                   "call RemoveObserver() before delete. [2]"))
        << printed;
    EXPECT_EQ(10U, stack_lines(printed));
    EXPECT_EQ(11U, pztest::error_messages(printed).size());
}

TEST(PZSubjectDestructionTest, CountsAnObserverSubscribedTwiceTwiceAndDoesNotTouchIt) {
    std::string log;
    Recorder a(log, 'a');
    StdoutCapture out;
    {
        PZSubject subject;
        subject.AddObserver(&a);
        subject.AddObserver(&a);
        subject.AddObserver(&a);
    }
    EXPECT_EQ("call RemoveObserver() before delete. [3]",
              pztest::error_messages(out.Take()).front());
    EXPECT_EQ("", log);
    a.OnNotify(1, nullptr, 0);  // still alive
    EXPECT_EQ("a", log);
}

TEST_F(PZSubjectTest, OtherThreadsWaitUntilTheNotificationIsOver) {
    subject.AddObserver(&a);
    std::thread other;
    std::promise<void> otherIsUp;
    std::atomic<bool> removed{false};
    a.action = [&] {
        other = std::thread([&] {
            otherIsUp.set_value();
            EXPECT_EQ(1, subject.RemoveObserver(&a));
            removed = true;
        });
        otherIsUp.get_future().wait();
        std::this_thread::yield();
        EXPECT_FALSE(removed);
    };
    Notify();
    other.join();
    EXPECT_TRUE(removed);
}

TEST_F(PZSubjectTest, NotificationsOfSeveralThreadsDoNotMix) {
    constexpr unsigned int kThreads = 4;
    constexpr unsigned int kRounds = 250;
    unsigned int calls = 0;  // plain: the subject's lock must guard it
    a.action = [&calls] { ++calls; };
    subject.AddObserver(&a);
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < kThreads; ++i) {
        threads.emplace_back([this] {
            std::string unused;
            Recorder own(unused, 'x');
            for (unsigned int round = 0; round < kRounds; ++round) {
                EXPECT_EQ(1, subject.AddObserver(&own));
                EXPECT_EQ(3U, Notify());
                EXPECT_EQ(1, subject.RemoveObserver(&own));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kThreads * kRounds, calls);
}

TEST_F(PZSubjectTest, ReleasesItsLockWhenAnObserverThrows) {
    subject.AddObserver(&a);
    a.action = [] { throw 1; };
    EXPECT_THROW(Notify(), int);
    a.action = nullptr;
    const auto other = std::async(std::launch::async, [this] { return Notify(); });
    EXPECT_EQ(std::future_status::ready, other.wait_for(std::chrono::seconds(60)));
}

TEST(PZSubjectTypeTest, IsNotCopiedAndIsDestroyedThroughItsBase) {
    EXPECT_FALSE(std::is_copy_constructible_v<PZSubject>);
    EXPECT_FALSE(std::is_copy_assignable_v<PZSubject>);
    EXPECT_TRUE(std::has_virtual_destructor_v<PZSubject>);
    EXPECT_TRUE(std::has_virtual_destructor_v<PZObserver_>);
    EXPECT_EQ(0, en_NTF_ALL);
    EXPECT_EQ(1, en_NTF_SELECTED);
}

}  // namespace
