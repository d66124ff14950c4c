#include <sys/epoll.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>

#include <gtest/gtest.h>

#include <Framework/Foundation/private/PZLoopWait.h>
#include <Framework/private/pz_epoll_wait.h>

#include "Foundation/WakingLoopTest.h"
#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/Interruptions.h"
#include "support/ProcessSignal.h"

PZ_INTERPOSE(epoll_wait, 4);
PZ_INTERPOSE(write, 3);

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr unsigned int kNoLimit = 0xFFFFFFFF;

struct LoopWaitKind : LoopCalls<epoll_wait_call, write_call> {
    using Loop = PZLoopWait;
    static constexpr char kFile[] = "PZLoopWait.cpp";
    static constexpr int kDescriptors = 3;

    static PZLoopWait::EN_RESULT Wait(PZLoopWait& loop) { return loop.Wait(kNoLimit); }
};

namespace {

class PZLoopWaitTest : public testing::Test {
protected:
    ~PZLoopWaitTest() override { LoopWaitKind::Reset(); }

    PZLoopWait loop;
};

INSTANTIATE_TYPED_TEST_SUITE_P(PZLoopWait, WakingLoopTest, LoopWaitKind, );

}  // namespace

TEST_F(PZLoopWaitTest, TimesOutWhenNobodyCalls) {
    ASSERT_TRUE(loop.IsOpen());
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
    const auto start = steady_clock::now();
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(30));
    EXPECT_GE(steady_clock::now() - start, milliseconds(30));
}

TEST_F(PZLoopWaitTest, AllWakeUpsBeforeAWaitEndItOnce) {
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
    EXPECT_EQ(1, loop.Wake());
    EXPECT_EQ(PZLoopWait::en_WAKE, loop.Wait(kNoLimit));
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(0));
}

TEST_F(PZLoopWaitTest, EveryRequestToEndEndsOneWait) {
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

TEST_F(PZLoopWaitTest, GoesOnAfterAnInterruptionForTheTimeThatIsLeft) {
    const pztest::Interruptions interruptions(milliseconds(20));
    const auto start = steady_clock::now();
    EXPECT_EQ(PZLoopWait::en_TIMEOUT, loop.Wait(200));
    const auto waited = steady_clock::now() - start;
    EXPECT_GE(waited, milliseconds(200));
    EXPECT_LT(waited, milliseconds(5000));
}

TEST_F(PZLoopWaitTest, EndsOnTimeInAProcessThatWasStoppedMeanwhile) {
    constexpr int kLate = 2;
    int status = kLate;
    // A busy machine may delay a wait or two. One that began again would be late each time.
    for (int attempt = 0; status == kLate && attempt < 10; ++attempt) {
        const pztest::ProcessSignal ready;
        pztest::ChildProcess child([&] {
            const auto start = steady_clock::now();
            if (!ready.Give()) return 3;
            if (loop.Wait(1000) != PZLoopWait::en_TIMEOUT) return 1;
            return steady_clock::now() - start < milliseconds(1450) ? 0 : kLate;
        });
        ASSERT_TRUE(ready.Wait());
        std::this_thread::sleep_for(milliseconds(500));
        child.Stop();
        child.Signal(SIGCONT);
        status = child.Wait();
    }
    EXPECT_EQ(0, status);
}

TEST_F(PZLoopWaitTest, WaitsWithoutLimitThroughInterruptions) {
    std::thread caller([this] {
        std::this_thread::sleep_for(milliseconds(100));
        loop.Wake();
    });
    const pztest::Interruptions interruptions(milliseconds(5));
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
