#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <Framework/Foundation/private/PZBoxWait.h>

#include "Foundation/WakingLoopTest.h"
#include "support/Interposed.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(read, 3);
PZ_INTERPOSE(write, 3);

using pztest::has_report;
using pztest::StdoutCapture;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct BoxWaitKind {
    using Loop = PZBoxWait;
    static constexpr char kFile[] = "PZBoxWait.cpp";
    static constexpr int kDescriptors = 1;

    static PZBoxWait::EN_RESULT Wait(PZBoxWait& loop) { return loop.Wait(); }
    static void Reset() {
        read_call.Reset();
        write_call.Reset();
    }
    static int WaitsBegun() { return read_call.Calls(); }
    static void FailNextWait(int error) { read_call.FailNext(error); }
    static void FailNextSignals(int error, int times) { write_call.FailNext(error, times); }
    static int SystemCalls() { return read_call.Calls() + write_call.Calls(); }
};

namespace {

class PZBoxWaitTest : public testing::Test {
protected:
    PZBoxWaitTest() { BoxWaitKind::Reset(); }
    ~PZBoxWaitTest() override { BoxWaitKind::Reset(); }

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

INSTANTIATE_TYPED_TEST_SUITE_P(PZBoxWait, WakingLoopTest, BoxWaitKind, );

}  // namespace

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
