#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <Framework/Foundation/private/PZBoxWait.h>

#include "Foundation/WakingLoopTest.h"
#include "support/Interposed.h"
#include "support/Interruptions.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(read, 3);
PZ_INTERPOSE(write, 3);

using pztest::has_report;
using pztest::StdoutCapture;
using std::chrono::milliseconds;

struct BoxWaitKind : LoopCalls<read_call, write_call> {
    using Loop = PZBoxWait;
    static constexpr char kFile[] = "PZBoxWait.cpp";
    static constexpr int kDescriptors = 1;

    static PZBoxWait::EN_RESULT Wait(PZBoxWait& loop) { return loop.Wait(); }
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

INSTANTIATE_TYPED_TEST_SUITE_P(PZBoxWait, WakingLoopTest, BoxWaitKind, );

}  // namespace

TEST_F(PZBoxWaitTest, AllWakeUpsBeforeAWaitEndItOnce) {
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(PZBoxWait::en_WAKE, loop.Wait());
    EXPECT_TRUE(IsQuiet());
}

TEST_F(PZBoxWaitTest, EveryRequestToEndEndsOneWait) {
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
    const pztest::Interruptions interruptions(milliseconds(5));
    std::thread caller([this] {
        pztest::wait_until([] { return pztest::Interruptions::Taken() >= 20; });
        loop.Wake();
    });
    EXPECT_EQ(PZBoxWait::en_WAKE, loop.Wait());
    EXPECT_GE(pztest::Interruptions::Taken(), 20);
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
