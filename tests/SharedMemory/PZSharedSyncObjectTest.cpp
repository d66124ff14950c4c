#include "Framework/SharedMemory/PZSharedSyncObject.h"

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/ProcessSignal.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(sem_wait, 1);
PZ_INTERPOSE(sem_timedwait, 2);
PZ_INTERPOSE(sem_post, 1);
PZ_INTERPOSE(sem_close, 1);
PZ_INTERPOSE(sem_unlink, 1);
PZ_INTERPOSE(clock_gettime, 2);

namespace {

using Texts = std::vector<std::string>;

class PZSharedSyncObjectTest : public testing::Test {
protected:
    PZSharedSyncObjectTest() : name_("pz_shared_" + std::to_string(getpid())) {
        sem_wait_call.Reset();
        sem_timedwait_call.Reset();
        sem_post_call.Reset();
        sem_close_call.Reset();
        sem_unlink_call.Reset();
        clock_gettime_call.Reset();
    }
    ~PZSharedSyncObjectTest() override { sem_unlink_call.Real(Path().c_str()); }

    std::string Path() const { return "/" + name_; }
    const char* Name() const { return name_.c_str(); }

    /// The value of the system's semaphore; -1 when it does not exist.
    int Value() const {
        sem_t* const semaphore = sem_open(Path().c_str(), 0);
        if (semaphore == SEM_FAILED) return -1;
        int value = -1;
        sem_getvalue(semaphore, &value);
        sem_close_call.Real(semaphore);
        return value;
    }

    const std::string name_;
    pztest::StdoutCapture output_;
};

TEST_F(PZSharedSyncObjectTest, MakesTheSystemsSemaphoreOfItsName) {
    EXPECT_EQ(-1, Value());
    const PZSharedSyncObject object(Name());
    EXPECT_EQ(1, Value());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZSharedSyncObjectTest, TakesTheSemaphoreAndGivesItBack) {
    const PZSharedSyncObject object(Name());
    object.lock();
    EXPECT_EQ(0, Value());
    object.unlock();
    EXPECT_EQ(1, Value());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZSharedSyncObjectTest, IsRecursiveInOneThread) {
    const PZSharedSyncObject object(Name());
    object.lock();
    object.lock();
    object.unlock();
    EXPECT_EQ(0, Value());
    object.unlock();
    EXPECT_EQ(1, Value());
    EXPECT_EQ(1, sem_timedwait_call.Calls());
}

TEST_F(PZSharedSyncObjectTest, ServesAsTheObjectOfAGuard) {
    const PZSharedSyncObject object(Name());
    {
        const PZSyncGuard guard(object);
        EXPECT_EQ(0, Value());
    }
    EXPECT_EQ(1, Value());
}

TEST_F(PZSharedSyncObjectTest, SharesOneSemaphoreWithItsNamesakesAndLeavesItInTheSystem) {
    {
        const PZSharedSyncObject first(Name());
        const PZSharedSyncObject second(Name());
        first.lock();
        sem_timedwait_call.FailNext(ETIMEDOUT);
        second.lock();
        EXPECT_EQ(Texts{"PZSync.Lock() error [1]"}, pztest::error_messages(output_.Take()));
        first.unlock();
        second.lock();
        second.unlock();
        EXPECT_EQ("", output_.Take());
    }
    EXPECT_EQ(2, sem_close_call.Calls());
    EXPECT_EQ(0, sem_unlink_call.Calls());
    EXPECT_EQ(1, Value());
}

// --- Time limit and failures ---

timespec deadline = {};

int answer_clock(clockid_t, timespec* now) {
    *now = {100, 250000000};
    return 0;
}

int time_out(sem_t*, const timespec* until) {
    deadline = *until;
    errno = ETIMEDOUT;
    return -1;
}

TEST_F(PZSharedSyncObjectTest, GoesOnWithAReportAfter5000Milliseconds) {
    const PZSharedSyncObject object(Name());
    clock_gettime_call.Replace(answer_clock);
    sem_timedwait_call.Replace(time_out);
    object.lock();
    clock_gettime_call.Reset();
    EXPECT_EQ(105, deadline.tv_sec);
    EXPECT_EQ(250000000, deadline.tv_nsec);
    EXPECT_EQ(0, sem_wait_call.Calls());
    const std::string text = output_.Take();
    EXPECT_EQ(Texts{"PZSync.Lock() error [1]"}, pztest::error_messages(text));
    EXPECT_TRUE(pztest::has_report(text, "lock", "PZSharedSyncObject.cpp",  //
                                   "PZSync.Lock() error [1]"));
}

TEST_F(PZSharedSyncObjectTest, GoesOnWithReportsAfterAFailedWait) {
    const PZSharedSyncObject object(Name());
    sem_timedwait_call.FailNext(EINVAL);
    object.lock();
    EXPECT_EQ((Texts{"create error : errno[22 : Invalid argument]", "PZSync.Lock() error [2]"}),
              pztest::error_messages(output_.Take()));
    EXPECT_EQ(1, Value());
}

TEST_F(PZSharedSyncObjectTest, GivesBackWhatItDidNotGetAtTheEndOfAGuard) {
    const PZSharedSyncObject object(Name());
    sem_timedwait_call.FailNext(ETIMEDOUT);
    { const PZSyncGuard guard(object); }
    EXPECT_EQ(2, Value());
}

TEST_F(PZSharedSyncObjectTest, ReportsEveryCallWhenItCouldNotBeCreated) {
    const PZSharedSyncObject object(nullptr);
    EXPECT_EQ(Texts{"invalid arg : name is null"}, pztest::error_messages(output_.Take()));

    object.lock();
    const Texts messages = pztest::error_messages(output_.Take());
    ASSERT_EQ(12U, messages.size());  // ten lines of the call stack between the two
    EXPECT_EQ("handle is not created", messages.front());
    EXPECT_EQ("PZSync.Lock() error [2]", messages.back());

    object.unlock();
    EXPECT_TRUE(pztest::has_report(output_.Take(), "Unlock", "PZSync.cpp",  //
                                   "handle is not created"));
    EXPECT_EQ(0, sem_post_call.Calls());
}

TEST_F(PZSharedSyncObjectTest, IsALockObjectThatCannotBeCopied) {
    EXPECT_TRUE((std::is_base_of_v<PZSyncObjectBase, PZSharedSyncObject>));
    EXPECT_EQ(2 * sizeof(void*), sizeof(PZSharedSyncObject));
    EXPECT_FALSE(std::is_copy_constructible_v<PZSharedSyncObject>);
    EXPECT_FALSE(std::is_copy_assignable_v<PZSharedSyncObject>);
}

// --- Threads and processes ---

/// A loaded machine may take its time.
int wait_for_ever(sem_t* semaphore, const timespec*) {
    return sem_wait_call.Real(semaphore);
}

TEST_F(PZSharedSyncObjectTest, KeepsACounterExactBetweenThreads) {
    sem_timedwait_call.Replace(wait_for_ever);
    constexpr int kThreads = 4;
    constexpr int kRounds = 2000;
    const PZSharedSyncObject object(Name());
    int counter = 0;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < kRounds; ++round) {
                const PZSyncGuard guard(object);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kThreads * kRounds, counter);
}

TEST_F(PZSharedSyncObjectTest, ExcludesTheOtherProcess) {
    const pztest::ProcessSignal locked;
    const pztest::ProcessSignal goOn;
    pztest::ChildProcess child([&] {
        const PZSharedSyncObject object(Name());
        const PZSyncGuard guard(object);
        return locked.Give() && goOn.Wait() ? 0 : 1;
    });
    ASSERT_TRUE(locked.Wait());
    const PZSharedSyncObject object(Name());
    EXPECT_EQ(0, Value());
    sem_timedwait_call.FailNext(ETIMEDOUT);
    object.lock();
    EXPECT_EQ(Texts{"PZSync.Lock() error [1]"}, pztest::error_messages(output_.Take()));

    EXPECT_TRUE(goOn.Give());
    sem_timedwait_call.Replace(wait_for_ever);
    object.lock();
    EXPECT_EQ("", output_.Take());
    EXPECT_EQ(0, Value());
    object.unlock();
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ(1, Value());
}

TEST_F(PZSharedSyncObjectTest, ReportsEveryCallWhenThereWasNoMemoryForIt) {
    std::unique_ptr<PZSharedSyncObject> object;
    void* const room = ::operator new(sizeof(PZSharedSyncObject));
    {
        const pztest::MemoryShortage shortage;
        object.reset(new (room) PZSharedSyncObject(Name()));
    }
    EXPECT_EQ(Texts{"create error : errno[12 : Cannot allocate memory]"},
              pztest::error_messages(output_.Take()));
    object->lock();
    object->unlock();
    EXPECT_EQ((Texts{"PZSync.Lock() error [2]", "handle is not created"}),
              pztest::error_messages(output_.Take()));
}

}  // namespace
