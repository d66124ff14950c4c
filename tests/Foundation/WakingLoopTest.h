#ifndef PZ_TESTS_FOUNDATION_WAKINGLOOPTEST_H
#define PZ_TESTS_FOUNDATION_WAKINGLOOPTEST_H

#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "support/CancelledStack.h"
#include "support/ChildProcess.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

// What PZBoxWait and PZLoopWait have in common. A `Kind` describes one of them:
//
//     using Loop = ...;                       // the class, in ...
//     static constexpr char kFile[];          // ... this source
//     static constexpr int kDescriptors;      // that one of them has
//     static Loop::EN_RESULT Wait(Loop&);     // without limit
//
// and has the interposed system calls by which it waits and is woken as its base LoopCalls.

template <auto& wait, auto& signal>
struct LoopCalls {
    /// Of everything below.
    static void Reset() {
        wait.Reset();
        signal.Reset();
    }
    static int WaitsBegun() { return wait.Calls(); }
    static void FailNextWait(int error) { wait.FailNext(error); }
    static void FailNextSignals(int error, int times) { signal.FailNext(error, times); }
    static int SystemCalls() { return wait.Calls() + signal.Calls(); }
};

/// Whether SIGPIPE is ignored.
inline bool ignores_sigpipe() {
    struct sigaction action = {};
    return sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

template <typename Kind>
class WakingLoopTest : public testing::Test {
protected:
    using Loop = typename Kind::Loop;

    WakingLoopTest() { Kind::Reset(); }
    ~WakingLoopTest() override { Kind::Reset(); }

    static std::string SystemError(int error) {
        return "std library error [" + std::to_string(error) + " : " + strerror(error) + "]";
    }

    /// The body of a thread that is cancelled.
    static void* WaitForever(void* loop) {
        const pztest::CancelledStack stack;
        Kind::Wait(*static_cast<Loop*>(loop));
        return nullptr;
    }

    Loop loop;
};

TYPED_TEST_SUITE_P(WakingLoopTest);

// The first: of a process that has never waited.
TYPED_TEST_P(WakingLoopTest, SetsSigpipeToBeIgnoredAtTheFirstWaitOnly) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        signal(SIGPIPE, SIG_DFL);
        typename TypeParam::Loop fresh;
        fresh.Wake();
        if (ignores_sigpipe()) return 1;
        TypeParam::Wait(fresh);
        if (!ignores_sigpipe()) return 2;
        signal(SIGPIPE, SIG_DFL);
        fresh.Wake();
        TypeParam::Wait(fresh);
        return ignores_sigpipe() ? 3 : 0;
    });
    EXPECT_EQ(0, child.status);
}

TYPED_TEST_P(WakingLoopTest, AWakeUpEndsAWaitThatRuns) {
    for (int round = 0; round < 50; ++round) {
        auto first = TypeParam::Loop::en_ERROR;
        auto second = TypeParam::Loop::en_ERROR;
        TypeParam::Reset();
        std::thread waiter([&] {
            first = TypeParam::Wait(this->loop);
            second = TypeParam::Wait(this->loop);
        });
        EXPECT_TRUE(pztest::wait_until([] { return TypeParam::WaitsBegun() == 1; }));
        EXPECT_EQ(1, this->loop.Wake());
        EXPECT_TRUE(pztest::wait_until([] { return TypeParam::WaitsBegun() == 2; }));
        EXPECT_EQ(1, this->loop.End());
        waiter.join();
        EXPECT_EQ(TypeParam::Loop::en_WAKE, first);
        EXPECT_EQ(TypeParam::Loop::en_END, second);
    }
}

TYPED_TEST_P(WakingLoopTest, LosesNoWakeUpBetweenTwoLoops) {
    constexpr int kRounds = 20000;
    typename TypeParam::Loop other;
    std::thread echo([&] {
        for (int i = 0; i < kRounds; ++i) {
            TypeParam::Wait(this->loop);
            other.Wake();
        }
    });
    int woken = 0;
    for (int i = 0; i < kRounds; ++i) {
        this->loop.Wake();
        if (TypeParam::Wait(other) == TypeParam::Loop::en_WAKE) ++woken;
    }
    echo.join();
    EXPECT_EQ(kRounds, woken);
}

TYPED_TEST_P(WakingLoopTest, NeedsTwoSystemCallsForAWakeUp) {
    this->loop.Wake();
    TypeParam::Wait(this->loop);
    EXPECT_EQ(2, TypeParam::SystemCalls());
}

TYPED_TEST_P(WakingLoopTest, AnswersASignalThatCouldNotBeGivenAndIsNotWokenByIt) {
    TypeParam::FailNextSignals(EBADF, 2);
    EXPECT_EQ(0, this->loop.Wake());
    EXPECT_EQ(0, this->loop.End());
    this->loop.End();
    EXPECT_EQ(TypeParam::Loop::en_END, TypeParam::Wait(this->loop));
    this->loop.Wake();
    EXPECT_EQ(TypeParam::Loop::en_WAKE, TypeParam::Wait(this->loop));
}

TYPED_TEST_P(WakingLoopTest, ReportsAFailedWaitAndPausesBeforeItAnswers) {
    pztest::StdoutCapture output;
    TypeParam::FailNextWait(EIO);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TypeParam::Loop::en_ERROR, TypeParam::Wait(this->loop));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    const std::string text = output.Take();
    EXPECT_TRUE(pztest::has_report(text, "Wait", TypeParam::kFile, this->SystemError(EIO)));
    EXPECT_EQ(1U, pztest::error_messages(text).size());
    this->loop.Wake();
    EXPECT_EQ(TypeParam::Loop::en_WAKE, TypeParam::Wait(this->loop));
}

TYPED_TEST_P(WakingLoopTest, HasItsDescriptorsFromTheStartAndGivesThemBack) {
    const int before = pztest::open_descriptors();
    {
        typename TypeParam::Loop another;
        EXPECT_EQ(before + TypeParam::kDescriptors, pztest::open_descriptors());
        another.Wake();
        TypeParam::Wait(another);
        EXPECT_EQ(before + TypeParam::kDescriptors, pztest::open_descriptors());
    }
    EXPECT_EQ(before, pztest::open_descriptors());
}

TYPED_TEST_P(WakingLoopTest, KeepsItsDescriptorsAboveTheStandardOnesAndFromStartedPrograms) {
    constexpr int kFdsLookedAt = 64;
    const pztest::ChildResult child = pztest::run_in_child([] {
        for (int fd = 0; fd < kFdsLookedAt; ++fd) ::close(fd);
        typename TypeParam::Loop fresh;
        if (!fresh.IsOpen()) return 1;
        int found = 0;
        for (int fd = 0; fd < kFdsLookedAt; ++fd) {
            const int flags = ::fcntl(fd, F_GETFD);
            if (flags == -1) continue;
            if (fd <= STDERR_FILENO) return 2;
            if (flags != FD_CLOEXEC) return 3;
            ++found;
        }
        if (found != TypeParam::kDescriptors) return 4;
        fresh.Wake();
        return TypeParam::Wait(fresh) == TypeParam::Loop::en_WAKE ? 0 : 5;
    });
    EXPECT_EQ(0, child.status);
}

TYPED_TEST_P(WakingLoopTest, OpensOnceDescriptorsAreFreeAgain) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const int firstFree = ::dup(STDIN_FILENO);
        ::close(firstFree);
        rlimit limit = {};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        for (int more = 0; more < TypeParam::kDescriptors; ++more) {
            const rlimit few = {static_cast<rlim_t>(firstFree + more), limit.rlim_max};
            ::setrlimit(RLIMIT_NOFILE, &few);
            typename TypeParam::Loop fresh;
            if (fresh.IsOpen() || fresh.Wake() != 0 || fresh.End() != 0) return 1;
            if (fresh.Open()) return 2;
            const int stillFree = ::dup(STDIN_FILENO);
            if (more > 0 && stillFree != firstFree) return 3;  // nothing half open is left behind
            ::close(stillFree);
            ::setrlimit(RLIMIT_NOFILE, &limit);
            if (!fresh.Open() || fresh.Wake() != 1) return 4;
            if (TypeParam::Wait(fresh) != TypeParam::Loop::en_WAKE) return 5;
        }
        return 0;
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(2U * TypeParam::kDescriptors, pztest::error_messages(child.output).size());
    EXPECT_TRUE(
        pztest::has_report(child.output, "Open", TypeParam::kFile, this->SystemError(EMFILE)));
}

TYPED_TEST_P(WakingLoopTest, AThreadMayBeCancelledInItsWait) {
    pthread_t waiter = {};
    ASSERT_EQ(0, pthread_create(&waiter, nullptr, this->WaitForever, &this->loop));
    ASSERT_TRUE(pztest::wait_until([] { return TypeParam::WaitsBegun() == 1; }));
    ASSERT_EQ(0, pthread_cancel(waiter));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(waiter, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    this->loop.Wake();
    EXPECT_EQ(TypeParam::Loop::en_WAKE, TypeParam::Wait(this->loop));
}

REGISTER_TYPED_TEST_SUITE_P(WakingLoopTest, SetsSigpipeToBeIgnoredAtTheFirstWaitOnly,
                            AWakeUpEndsAWaitThatRuns, LosesNoWakeUpBetweenTwoLoops,
                            NeedsTwoSystemCallsForAWakeUp,
                            AnswersASignalThatCouldNotBeGivenAndIsNotWokenByIt,
                            ReportsAFailedWaitAndPausesBeforeItAnswers,
                            HasItsDescriptorsFromTheStartAndGivesThemBack,
                            KeepsItsDescriptorsAboveTheStandardOnesAndFromStartedPrograms,
                            OpensOnceDescriptorsAreFreeAgain, AThreadMayBeCancelledInItsWait);

#endif  // PZ_TESTS_FOUNDATION_WAKINGLOOPTEST_H
