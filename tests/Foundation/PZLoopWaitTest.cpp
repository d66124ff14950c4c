#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <Framework/Foundation/private/PZLoopWait.h>
#include <Framework/private/pz_epoll_wait.h>

#include "support/CancelledStack.h"
#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(epoll_wait, 4);
PZ_INTERPOSE(write, 3);

using pztest::has_report;
using pztest::StdoutCapture;
using pztest::wait_until;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr unsigned int kNoLimit = 0xFFFFFFFF;
constexpr int kFdsLookedAt = 64;

std::atomic<int> waits_begun{0};

int count_and_wait(int epollFd, epoll_event* events, int room, int timeoutMs) {
    ++waits_begun;
    return epoll_wait_call.Real(epollFd, events, room, timeoutMs);
}

void ignore_signal(int /*signal*/) {}

/// Interrupts the calling thread every `periodMs` milliseconds while it lives.
class Interruptions {
public:
    explicit Interruptions(int periodMs)
        : victim_(pthread_self()), hammer_([this, periodMs] { Hammer(periodMs); }) {}
    ~Interruptions() {
        stop_ = true;
        hammer_.join();
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

private:
    void Hammer(int periodMs) {
        struct sigaction action = {};
        action.sa_handler = ignore_signal;
        sigaction(SIGUSR1, &action, nullptr);
        while (!stop_) {
            std::this_thread::sleep_for(milliseconds(periodMs));
            pthread_kill(victim_, SIGUSR1);
        }
    }

    const pthread_t victim_;
    std::atomic<bool> stop_{false};
    std::thread hammer_;
};

class PZLoopWaitTest : public testing::Test {
protected:
    void TearDown() override {
        epoll_wait_call.Reset();
        write_call.Reset();
    }

    PZLoopWait loop;
};

}  // namespace

// The first in this file: of a process that has never waited.
TEST(PZLoopWaitSigpipeTest, IsSetToBeIgnoredAtTheFirstWaitOnly) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const auto ignored = [] {
            struct sigaction action = {};
            return sigaction(SIGPIPE, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
        };
        signal(SIGPIPE, SIG_DFL);
        PZLoopWait loop;
        if (ignored()) return 1;
        loop.Wait(0);
        if (!ignored()) return 2;
        signal(SIGPIPE, SIG_DFL);
        loop.Wait(0);
        return ignored() ? 3 : 0;
    });
    EXPECT_EQ(0, child.status);
}

TEST_F(PZLoopWaitTest, TimesOutWhenNobodyCalls) {
    ASSERT_TRUE(loop.IsOpen());
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
    const auto start = steady_clock::now();
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(30));
    EXPECT_GE(steady_clock::now() - start, milliseconds(30));
}

TEST_F(PZLoopWaitTest, IsEndedOnceByAllWakeUpsBeforeIt) {
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
}

TEST_F(PZLoopWaitTest, CountsTheRequestsToEnd) {
    EXPECT_EQ(1, loop.End());
    EXPECT_EQ(1, loop.End());
    EXPECT_EQ(PZLoopWait::en_END, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_END, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
}

TEST_F(PZLoopWaitTest, AnswersTheEndFirstAndKeepsTheWakeUpThatCameWithIt) {
    loop.Wake();
    loop.End();
    EXPECT_EQ(PZLoopWait::en_END, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));

    loop.Wake();
    loop.End();
    loop.End();
    EXPECT_EQ(PZLoopWait::en_END, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_END, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
}

TEST_F(PZLoopWaitTest, EndsAWaitThatRuns) {
    epoll_wait_call.Replace(count_and_wait);
    for (int round = 0; round < 50; ++round) {
        waits_begun = 0;
        PZLoopWait::EN_RESULT first = PZLoopWait::en_ERROR;
        PZLoopWait::EN_RESULT second = PZLoopWait::en_ERROR;
        std::thread waiter([&] {
            first = loop.Wait(kNoLimit);
            second = loop.Wait(kNoLimit);
        });
        EXPECT_TRUE(wait_until([] { return waits_begun == 1; }));
        EXPECT_EQ(1, loop.Wake());
        EXPECT_TRUE(wait_until([] { return waits_begun == 2; }));
        EXPECT_EQ(1, loop.End());
        waiter.join();
        EXPECT_EQ(PZLoopWait::en_WAKE, first);
        EXPECT_EQ(PZLoopWait::en_END, second);
    }
}

TEST_F(PZLoopWaitTest, LosesNoWakeUpBetweenTwoLoops) {
    constexpr int kRounds = 20000;
    PZLoopWait other;
    std::thread echo([&] {
        for (int i = 0; i < kRounds; ++i) {
            loop.Wait(kNoLimit);
            other.Wake();
        }
    });
    int woken = 0;
    for (int i = 0; i < kRounds; ++i) {
        loop.Wake();
        if (other.Wait(60000) == PZLoopWait::en_WAKE) ++woken;
    }
    echo.join();
    EXPECT_EQ(kRounds, woken);
}

TEST_F(PZLoopWaitTest, NeedsTwoSystemCallsForAWakeUp) {
    epoll_wait_call.Reset();
    write_call.Reset();
    loop.Wake();
    loop.Wait(kNoLimit);
    EXPECT_EQ(1, write_call.Calls());
    EXPECT_EQ(1, epoll_wait_call.Calls());
}

TEST_F(PZLoopWaitTest, AnswersASignalThatCouldNotBeGiven) {
    write_call.FailNext(EBADF, 2);
    EXPECT_EQ(0, loop.Wake());
    EXPECT_EQ(0, loop.End());
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
}

TEST_F(PZLoopWaitTest, GoesOnAfterAnInterruptionForTheTimeThatIsLeft) {
    const Interruptions interruptions(20);
    const auto start = steady_clock::now();
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(200));
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, milliseconds(200));
    EXPECT_LT(waited, milliseconds(5000));
}

TEST_F(PZLoopWaitTest, EndsOnTimeInAProcessThatWasStoppedMeanwhile) {
    int ready[2] = {-1, -1};
    ASSERT_EQ(0, ::pipe(ready));
    pztest::ChildProcess child([&] {
        const auto start = steady_clock::now();
        static_cast<void>(::write(ready[1], "r", 1));
        if (loop.Wait(1000) != PZLoopWait::en_TIMEOUT) return 1;
        return steady_clock::now() - start < milliseconds(1450) ? 0 : 2;
    });
    char byte = 0;
    ASSERT_EQ(1, ::read(ready[0], &byte, 1));
    std::this_thread::sleep_for(milliseconds(500));
    ASSERT_EQ(0, kill(child.Pid(), SIGSTOP));
    int status = 0;
    ASSERT_EQ(child.Pid(), waitpid(child.Pid(), &status, WUNTRACED));
    ASSERT_EQ(0, kill(child.Pid(), SIGCONT));
    EXPECT_EQ(0, child.Wait());
    ::close(ready[0]);
    ::close(ready[1]);
}

TEST_F(PZLoopWaitTest, WaitsWithoutLimitThroughInterruptions) {
    std::thread caller([this] {
        std::this_thread::sleep_for(milliseconds(100));
        loop.Wake();
    });
    const Interruptions interruptions(5);
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
    caller.join();
}

TEST(PZLoopWaitTimeLeftTest, IsRoundedUpAndNeverNegative) {
    static_assert(pz_ms_left(200, {5, 0}, {5, 0}) == 200);
    static_assert(pz_ms_left(200, {5, 0}, {5, 1}) == 200);
    static_assert(pz_ms_left(200, {5, 0}, {5, 1000000}) == 199);
    static_assert(pz_ms_left(200, {5, 900000000}, {6, 99999999}) == 1);
    static_assert(pz_ms_left(200, {5, 900000000}, {6, 100000000}) == 0);
    static_assert(pz_ms_left(200, {5, 0}, {9, 0}) == 0);
    static_assert(pz_ms_left(0x7FFFFFFF, {5, 0}, {5, 1}) == 0x7FFFFFFF);
    EXPECT_EQ(2147482647, pz_ms_left(0x7FFFFFFF, {5, 0}, {6, 0}));
}

TEST_F(PZLoopWaitTest, ReportsAFailedWaitAndPausesBeforeItAnswers) {
    StdoutCapture output;
    epoll_wait_call.FailNext(EIO);
    const auto start = steady_clock::now();
    EXPECT_EQ(PZLoopWait::en_ERROR, loop.Wait(kNoLimit));
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "Wait", "PZLoopWait.cpp",
                           "std library error [5 : " + std::string(strerror(EIO)) + "]"));
    EXPECT_EQ(1U, pztest::error_messages(text).size());
    loop.Wake();
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
}

// Descriptors

TEST_F(PZLoopWaitTest, HasThreeDescriptorsAndGivesThemBack) {
    const int before = pztest::open_descriptors();
    {
        PZLoopWait another;
        EXPECT_EQ(before + 3, pztest::open_descriptors());
        another.Wake();
        another.Wait(kNoLimit);
        EXPECT_EQ(before + 3, pztest::open_descriptors());
    }
    EXPECT_EQ(before, pztest::open_descriptors());
}

TEST(PZLoopWaitProcessTest, KeepsItsDescriptorsAboveTheStandardOnesAndFromStartedPrograms) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        for (int fd = 0; fd < kFdsLookedAt; ++fd) ::close(fd);
        PZLoopWait loop;
        if (!loop.IsOpen()) return 1;
        int found = 0;
        for (int fd = 0; fd < kFdsLookedAt; ++fd) {
            const int flags = ::fcntl(fd, F_GETFD);
            if (flags == -1) continue;
            if (fd <= STDERR_FILENO) return 2;
            if (flags != FD_CLOEXEC) return 3;
            ++found;
        }
        if (found != 3) return 4;
        loop.Wake();
        return loop.Wait(0) == PZLoopWait::en_WAKE ? 0 : 5;
    });
    EXPECT_EQ(0, child.status);
}

TEST(PZLoopWaitProcessTest, OpensOnceDescriptorsAreFreeAgain) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const int firstFree = ::dup(STDIN_FILENO);
        ::close(firstFree);
        rlimit limit = {};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        for (rlim_t more = 0; more < 3; ++more) {
            const rlimit few = {static_cast<rlim_t>(firstFree) + more, limit.rlim_max};
            ::setrlimit(RLIMIT_NOFILE, &few);
            PZLoopWait loop;
            if (loop.IsOpen() || loop.Wake() != 0 || loop.End() != 0) return 1;
            if (loop.Open()) return 2;
            const int stillFree = ::dup(STDIN_FILENO);
            if (more > 0 && stillFree != firstFree) return 3;  // nothing half open is left behind
            ::close(stillFree);
            ::setrlimit(RLIMIT_NOFILE, &limit);
            if (!loop.Open() || loop.Wake() != 1) return 4;
            if (loop.Wait(0) != PZLoopWait::en_WAKE) return 5;
        }
        return 0;
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(6U, pztest::error_messages(child.output).size());
    EXPECT_TRUE(has_report(child.output, "Open", "PZLoopWait.cpp",
                           "std library error [24 : " + std::string(strerror(EMFILE)) + "]"));
}

// Cancellation

void* wait_forever(void* loop) {
    const pztest::CancelledStack stack;
    static_cast<PZLoopWait*>(loop)->Wait(kNoLimit);
    return nullptr;
}

TEST_F(PZLoopWaitTest, LetsACancelledThreadGo) {
    epoll_wait_call.Replace(count_and_wait);
    waits_begun = 0;
    pthread_t waiter = {};
    ASSERT_EQ(0, pthread_create(&waiter, nullptr, wait_forever, &loop));
    ASSERT_TRUE(wait_until([] { return waits_begun == 1; }));
    ASSERT_EQ(0, pthread_cancel(waiter));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(waiter, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    loop.Wake();
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
}
