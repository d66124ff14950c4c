#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <Framework/Foundation/private/PZBoxWait.h>

#include "support/CancelledStack.h"
#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(read, 3);
PZ_INTERPOSE(write, 3);

using pztest::has_report;
using pztest::StdoutCapture;
using pztest::wait_until;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr int kFdsLookedAt = 64;

class PZBoxWaitTest : public testing::Test {
protected:
    PZBoxWaitTest() {
        read_call.Reset();
        write_call.Reset();
    }
    ~PZBoxWaitTest() override {
        read_call.Reset();
        write_call.Reset();
    }

    /// Whether the next wait would sleep: it is woken by this then.
    bool IsQuiet() {
        loop.DiscardWakeUps();
        read_call.Reset();
        loop.Wake();
        return loop.Wait() == PZBoxWait::en_WAKE && read_call.Calls() == 1;
    }

    PZBoxWait loop;
};

void ignore_signal(int /*signal*/) {}

}  // namespace

// The first in this file: of a process that has never waited.
TEST(PZBoxWaitSigpipeTest, IsSetToBeIgnoredAtTheFirstWaitOnly) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const auto ignored = [] {
            struct sigaction action = {};
            return sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
        };
        signal(SIGPIPE, SIG_DFL);
        PZBoxWait loop;
        loop.Wake();
        if (ignored()) return 1;
        loop.Wait();
        if (!ignored()) return 2;
        signal(SIGPIPE, SIG_DFL);
        loop.Wake();
        loop.Wait();
        return ignored() ? 3 : 0;
    });
    EXPECT_EQ(0, child.status);
}

TEST_F(PZBoxWaitTest, IsEndedOnceByAllWakeUpsBeforeIt) {
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(PZBoxWait::en_WAKE, loop.Wait());
    EXPECT_TRUE(IsQuiet());
}

TEST_F(PZBoxWaitTest, CountsTheRequestsToEnd) {
    EXPECT_EQ(1, loop.End());
    EXPECT_EQ(1, loop.End());
    EXPECT_EQ(PZBoxWait::en_END, loop.Wait());
    EXPECT_EQ(1, loop.End());
    EXPECT_EQ(PZBoxWait::en_END, loop.Wait());
    EXPECT_EQ(PZBoxWait::en_END, loop.Wait());
    EXPECT_TRUE(IsQuiet());
}

TEST_F(PZBoxWaitTest, AnswersTheEndThatComesWithWakeUpsAndForgetsThese) {
    loop.Wake();
    loop.End();
    loop.Wake();
    EXPECT_EQ(PZBoxWait::en_END, loop.Wait());
    EXPECT_TRUE(IsQuiet());
}

TEST_F(PZBoxWaitTest, KeepsTheRequestsToEndWhenItDiscardsWakeUps) {
    loop.DiscardWakeUps();
    loop.Wake();
    loop.End();
    loop.DiscardWakeUps();
    EXPECT_EQ(PZBoxWait::en_END, loop.Wait());
    EXPECT_TRUE(IsQuiet());
}

TEST_F(PZBoxWaitTest, EndsAWaitThatRuns) {
    for (int round = 0; round < 50; ++round) {
        PZBoxWait::EN_RESULT first = PZBoxWait::en_ERROR;
        PZBoxWait::EN_RESULT second = PZBoxWait::en_ERROR;
        read_call.Reset();
        std::thread waiter([&] {
            first = loop.Wait();
            second = loop.Wait();
        });
        EXPECT_TRUE(wait_until([] { return read_call.Calls() == 1; }));
        EXPECT_EQ(1, loop.Wake());
        EXPECT_TRUE(wait_until([] { return read_call.Calls() == 2; }));
        EXPECT_EQ(1, loop.End());
        waiter.join();
        EXPECT_EQ(PZBoxWait::en_WAKE, first);
        EXPECT_EQ(PZBoxWait::en_END, second);
    }
}

TEST_F(PZBoxWaitTest, LosesNoWakeUpBetweenTwoLoops) {
    constexpr int kRounds = 20000;
    PZBoxWait other;
    std::thread echo([&] {
        for (int i = 0; i < kRounds; ++i) {
            loop.Wait();
            other.Wake();
        }
    });
    int woken = 0;
    for (int i = 0; i < kRounds; ++i) {
        loop.Wake();
        if (other.Wait() == PZBoxWait::en_WAKE) ++woken;
    }
    echo.join();
    EXPECT_EQ(kRounds, woken);
}

TEST_F(PZBoxWaitTest, NeedsTwoSystemCallsForAWakeUp) {
    loop.Wake();
    loop.Wait();
    EXPECT_EQ(1, write_call.Calls());
    EXPECT_EQ(1, read_call.Calls());
}

TEST_F(PZBoxWaitTest, AnswersASignalThatCouldNotBeGiven) {
    write_call.FailNext(EBADF, 2);
    EXPECT_EQ(0, loop.Wake());
    EXPECT_EQ(0, loop.End());
    EXPECT_TRUE(IsQuiet());
}

TEST_F(PZBoxWaitTest, WaitsThroughInterruptions) {
    struct sigaction action = {};
    action.sa_handler = ignore_signal;
    sigaction(SIGUSR1, &action, nullptr);
    const pthread_t self = pthread_self();
    std::thread caller([this, self] {
        for (int i = 0; i < 20; ++i) {
            std::this_thread::sleep_for(milliseconds(5));
            pthread_kill(self, SIGUSR1);
        }
        loop.Wake();
    });
    const auto start = steady_clock::now();
    EXPECT_EQ(PZBoxWait::en_WAKE, loop.Wait());
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
    caller.join();
}

TEST_F(PZBoxWaitTest, ReportsAFailedWaitAndPausesBeforeItAnswers) {
    StdoutCapture output;
    read_call.FailNext(EIO);
    const auto start = steady_clock::now();
    EXPECT_EQ(PZBoxWait::en_ERROR, loop.Wait());
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "Wait", "PZBoxWait.cpp",
                           "std library error [5 : " + std::string(strerror(EIO)) + "]"));
    EXPECT_EQ(1U, pztest::error_messages(text).size());
    loop.Wake();
    EXPECT_EQ(PZBoxWait::en_WAKE, loop.Wait());
}

TEST_F(PZBoxWaitTest, ReportsWakeUpsThatCannotBeDiscarded) {
    StdoutCapture output;
    loop.Wake();
    read_call.FailNext(EIO);
    loop.DiscardWakeUps();
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "DiscardWakeUps", "PZBoxWait.cpp",
                           "std library error [5 : " + std::string(strerror(EIO)) + "]"));
    EXPECT_EQ(1U, pztest::error_messages(text).size());
}

// Descriptors

TEST_F(PZBoxWaitTest, HasOneDescriptorAndGivesItBack) {
    const int before = pztest::open_descriptors();
    {
        PZBoxWait another;
        EXPECT_EQ(before + 1, pztest::open_descriptors());
        another.Wake();
        another.Wait();
        EXPECT_EQ(before + 1, pztest::open_descriptors());
    }
    EXPECT_EQ(before, pztest::open_descriptors());
}

TEST(PZBoxWaitProcessTest, KeepsItsDescriptorAboveTheStandardOnesAndFromStartedPrograms) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        for (int fd = 0; fd < kFdsLookedAt; ++fd) ::close(fd);
        PZBoxWait loop;
        if (!loop.IsOpen()) return 1;
        int found = 0;
        for (int fd = 0; fd < kFdsLookedAt; ++fd) {
            const int flags = ::fcntl(fd, F_GETFD);
            if (flags == -1) continue;
            if (fd <= STDERR_FILENO) return 2;
            if (flags != FD_CLOEXEC) return 3;
            ++found;
        }
        if (found != 1) return 4;
        loop.Wake();
        return loop.Wait() == PZBoxWait::en_WAKE ? 0 : 5;
    });
    EXPECT_EQ(0, child.status);
}

TEST(PZBoxWaitProcessTest, OpensOnceADescriptorIsFreeAgain) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const int firstFree = ::dup(STDIN_FILENO);
        ::close(firstFree);
        rlimit limit = {};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        const rlimit few = {static_cast<rlim_t>(firstFree), limit.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &few);
        PZBoxWait loop;
        if (loop.IsOpen() || loop.Wake() != 0 || loop.End() != 0) return 1;
        if (loop.Open()) return 2;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        if (!loop.Open() || loop.Wake() != 1) return 3;
        return loop.Wait() == PZBoxWait::en_WAKE ? 0 : 4;
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(2U, pztest::error_messages(child.output).size());
    EXPECT_TRUE(has_report(child.output, "Open", "PZBoxWait.cpp",
                           "std library error [24 : " + std::string(strerror(EMFILE)) + "]"));
}

// Cancellation

void* wait_forever(void* loop) {
    const pztest::CancelledStack stack;
    static_cast<PZBoxWait*>(loop)->Wait();
    return nullptr;
}

TEST_F(PZBoxWaitTest, LetsACancelledThreadGo) {
    pthread_t waiter = {};
    ASSERT_EQ(0, pthread_create(&waiter, nullptr, wait_forever, &loop));
    ASSERT_TRUE(wait_until([] { return read_call.Calls() == 1; }));
    ASSERT_EQ(0, pthread_cancel(waiter));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(waiter, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    loop.Wake();
    EXPECT_EQ(PZBoxWait::en_WAKE, loop.Wait());
}
