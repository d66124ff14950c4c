#include "Framework/Foundation/PZSyncLock.h"

#include <semaphore.h>

#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/Interposed.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(sem_wait, 1);
PZ_INTERPOSE(sem_timedwait, 2);
PZ_INTERPOSE(sem_post, 1);

// Clang's analysis does not follow recursion.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

/// What another thread's single attempt answers; what it got, it gives back.
unsigned int try_elsewhere(PZSync& sync) {
    unsigned int result = 99;
    std::thread([&] {
        result = sync.Lock(0);
        if (result == 0) sync.Unlock();
    }).join();
    return result;
}

class PZSyncLockTest : public testing::Test {
protected:
    PZSyncLockTest() {
        sem_wait_call.Reset();
        sem_timedwait_call.Reset();
        sem_post_call.Reset();
    }
};

TEST_F(PZSyncLockTest, HoldsTheLockToTheEndOfTheScope) {
    PZSync sync;
    {
        const PZSyncLock lock(sync);
        EXPECT_EQ(1U, try_elsewhere(sync));
    }
    EXPECT_EQ(0U, try_elsewhere(sync));
}

TEST_F(PZSyncLockTest, WaitsWithoutATimeLimit) {
    PZSync sync;
    { const PZSyncLock lock(sync); }
    EXPECT_EQ(1, sem_wait_call.Calls());
    EXPECT_EQ(0, sem_timedwait_call.Calls());
    EXPECT_EQ(1, sem_post_call.Calls());
}

TEST_F(PZSyncLockTest, LocksOfOneThreadMayBeNested) {
    PZSync sync;
    {
        const PZSyncLock outer(sync);
        { const PZSyncLock inner(sync); }
        EXPECT_EQ(0, sem_post_call.Calls());
        EXPECT_EQ(1U, try_elsewhere(sync));
    }
    EXPECT_EQ(1, sem_post_call.Calls());
    EXPECT_EQ(0U, try_elsewhere(sync));
}

TEST_F(PZSyncLockTest, GivesTheLockBackWhenAnExceptionEndsTheScope) {
    PZSync sync;
    try {
        const PZSyncLock lock(sync);
        throw std::runtime_error("out");
    } catch (const std::runtime_error&) {
        EXPECT_EQ(0U, try_elsewhere(sync));
    }
    EXPECT_EQ(2, sem_post_call.Calls());
}

TEST_F(PZSyncLockTest, RunsTheSectionWithoutALockThatWasNotCreatedAndReportsItOnce) {
    pztest::StdoutCapture output;
    PZSync sync(nullptr, PZSync::en_TYPE_UNNAMED);
    output.Take();
    { const PZSyncLock lock(sync); }
    const std::string text = output.Take();
    EXPECT_EQ(1U, pztest::count_of(text, "handle is not created\n"));
    EXPECT_TRUE(pztest::has_report(text, "Lock", "PZSync.cpp", "handle is not created"));
}

TEST_F(PZSyncLockTest, GivesNothingBackThatItDidNotGet) {
    pztest::StdoutCapture output;
    PZSync sync;
    sem_wait_call.FailNext(EINVAL);
    { const PZSyncLock lock(sync); }
    EXPECT_EQ(0, sem_post_call.Calls());
    EXPECT_EQ(1U, pztest::error_messages(output.Take()).size());
}

TEST_F(PZSyncLockTest, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<PZSyncLock>);
    EXPECT_FALSE(std::is_copy_assignable_v<PZSyncLock>);
}

}  // namespace
