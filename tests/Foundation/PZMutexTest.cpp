#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <thread>

#include <gtest/gtest.h>

#include <Framework/Foundation/private/PZMutex.h>

#include "support/WaitUntil.h"

namespace {

using Clock = std::chrono::steady_clock;

TEST(PZMutexTest, KeepsOtherThreadsOutWhileALockLives) {
    PZMutex mutex;
    std::atomic<bool> isIn{false};
    std::thread other;
    {
        const PZMutexLock lock(mutex);
        other = std::thread([&] {
            const PZMutexLock inner(mutex);
            isIn = true;
        });
        EXPECT_FALSE(pztest::wait_until([&] { return isIn.load(); }, std::chrono::seconds(1)));
    }
    other.join();
    EXPECT_TRUE(isIn);
}

TEST(PZMutexTest, OneThreadHoldsARecursiveOneSeveralTimes) {
    PZRecursiveMutex mutex;
    int visits = 0;
    const auto visit = [&] {
        const PZMutexLock lock(mutex);
        ++visits;
    };
    {
        const PZMutexLock outer(mutex);
        visit();
    }
    EXPECT_EQ(1, visits);
    std::thread(visit).join();
    EXPECT_EQ(2, visits);
}

TEST(PZMutexTest, AWaitEndsWhenItsTimeIsOverAndHoldsTheMutexAgain) {
    PZMutex mutex;
    std::condition_variable changed;
    const auto deadline = Clock::now() + std::chrono::milliseconds(20);
    std::atomic<bool> isIn{false};
    std::thread other;
    {
        const PZMutexLock lock(mutex);
        while (lock.WaitUntil(changed, deadline)) {
        }
        EXPECT_GE(Clock::now(), deadline);
        other = std::thread([&] {
            const PZMutexLock inner(mutex);
            isIn = true;
        });
        EXPECT_FALSE(pztest::wait_until([&] { return isIn.load(); }, std::chrono::seconds(1)));
    }
    other.join();
}

TEST(PZMutexTest, AWaitLetsOthersInAndGoesOnWhenItIsNotified) {
    PZMutex mutex;
    std::condition_variable changed;
    bool isDone = false;
    const auto start = Clock::now();
    std::thread other;
    {
        const PZMutexLock lock(mutex);
        other = std::thread([&] {
            const PZMutexLock inner(mutex);
            isDone = true;
            changed.notify_all();
        });
        while (!isDone && lock.WaitUntil(changed, start + std::chrono::seconds(60))) {
        }
        EXPECT_TRUE(isDone);
    }
    other.join();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(60));
}

/// Waits until it is cancelled, with the mutex, and without a limit or with one.
struct Waiter {
    explicit Waiter(bool isLimited) : hasLimit(isLimited) {}

    void Wait() {
        const PZMutexLock lock(mutex);
        isIn = true;
        for (;;) {
            if (hasLimit) {
                lock.WaitUntil(changed, Clock::now() + std::chrono::hours(1));
            } else {
                lock.Wait(plain);
            }
        }
    }

    PZMutex mutex;
    std::condition_variable changed;
    pthread_cond_t plain = PTHREAD_COND_INITIALIZER;
    std::atomic<bool> isIn{false};
    const bool hasLimit;
};

class PZMutexCancelTest : public testing::TestWithParam<bool> {};

TEST_P(PZMutexCancelTest, AWaitThatIsCancelledLeavesTheMutexFree) {
    Waiter waiter(GetParam());
    pthread_t thread = 0;
    const auto body = [](void* argument) -> void* {
        static_cast<Waiter*>(argument)->Wait();
        return nullptr;
    };
    ASSERT_EQ(0, pthread_create(&thread, nullptr, body, &waiter));
    ASSERT_TRUE(pztest::wait_until([&] { return waiter.isIn.load(); }));
    {
        const PZMutexLock lock(waiter.mutex);  // it waits
    }
    ASSERT_EQ(0, pthread_cancel(thread));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    const PZMutexLock lock(waiter.mutex);  // not free, the test would not end
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutALimit, PZMutexCancelTest, testing::Bool());

}  // namespace
