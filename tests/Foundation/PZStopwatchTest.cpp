#include "Framework/Foundation/PZStopwatch.h"

#include <gtest/gtest.h>

#include "support/ClockReadBy.h"
#include "support/ManualTick.h"

namespace {

constexpr long long kNsPerSecond = 1000000000;

class PZStopwatchTest : public testing::Test {
protected:
    void TearDown() override { pztest::clock_gettime_call.Reset(); }

    void StartAndWait(long long milliseconds) {
        watch.Start();
        tick.Advance(milliseconds);
    }

    pztest::ManualTick tick;
    PZStopwatch watch;
};

}  // namespace

TEST_F(PZStopwatchTest, MeasuresZeroBeforeItIsStarted) {
    tick.Advance(5);
    EXPECT_EQ(0ULL, watch.Lap());
    EXPECT_EQ(0ULL, watch.Split());
    EXPECT_EQ(0ULL, watch.Stop());
}

TEST_F(PZStopwatchTest, MeasuresNanosecondsSinceStart) {
    tick.SetNanoseconds(1000);
    watch.Start();
    tick.SetNanoseconds(1001);
    EXPECT_EQ(1ULL, watch.Split());
    tick.SetNanoseconds(5000001000);
    EXPECT_EQ(5000000000ULL, watch.Split());
}

TEST_F(PZStopwatchTest, MeasuresZeroWhileTheClockStands) {
    watch.Start();
    EXPECT_EQ(0ULL, watch.Split());
    EXPECT_EQ(0ULL, watch.Lap());
    EXPECT_EQ(0ULL, watch.Stop());
}

TEST_F(PZStopwatchTest, MeasuresAcrossAFullSecond) {
    tick.SetNanoseconds(1900000000);
    watch.Start();
    tick.SetNanoseconds(2100000000);
    EXPECT_EQ(200000000ULL, watch.Split());
}

TEST_F(PZStopwatchTest, ChangesNothingWithSplit) {
    StartAndWait(3);
    EXPECT_EQ(3000000ULL, watch.Split());
    EXPECT_EQ(3000000ULL, watch.Split());
    tick.Advance(4);
    EXPECT_EQ(7000000ULL, watch.Split());
    EXPECT_EQ(7000000ULL, watch.Lap());
}

TEST_F(PZStopwatchTest, MeasuresTheFirstLapFromStart) {
    StartAndWait(9);
    EXPECT_EQ(9000000ULL, watch.Lap());
}

TEST_F(PZStopwatchTest, BeginsANewLapWithEveryLap) {
    StartAndWait(9);
    watch.Lap();
    EXPECT_EQ(0ULL, watch.Lap());
    tick.Advance(2);
    EXPECT_EQ(2000000ULL, watch.Lap());
}

TEST_F(PZStopwatchTest, TellsLapsWhoseSumIsTheSplitOfTheSameMoment) {
    StartAndWait(11);
    const unsigned long long first = watch.Lap();
    tick.Advance(6);
    const unsigned long long second = watch.Lap();
    EXPECT_EQ(11000000ULL, first);
    EXPECT_EQ(6000000ULL, second);
    EXPECT_EQ(first + second, watch.Split());
}

TEST_F(PZStopwatchTest, TellsTheTimeSinceStartWhenStoppedAfterALap) {
    StartAndWait(11);
    watch.Lap();
    tick.Advance(6);
    EXPECT_EQ(17000000ULL, watch.Stop());
}

TEST_F(PZStopwatchTest, TellsTheElapsedTimeOnlyOnceWhenStopped) {
    StartAndWait(8);
    EXPECT_EQ(8000000ULL, watch.Stop());
    EXPECT_EQ(0ULL, watch.Stop());
}

TEST_F(PZStopwatchTest, DoesNotRunAfterStop) {
    StartAndWait(8);
    watch.Stop();
    tick.Advance(8);
    EXPECT_EQ(0ULL, watch.Lap());
    EXPECT_EQ(0ULL, watch.Split());
}

TEST_F(PZStopwatchTest, KeepsTheFirstStartWhileRunning) {
    StartAndWait(5);
    StartAndWait(5);
    EXPECT_EQ(10000000ULL, watch.Split());
}

TEST_F(PZStopwatchTest, KeepsTheLapWhenStartedWhileRunning) {
    StartAndWait(5);
    watch.Lap();
    tick.Advance(3);
    StartAndWait(1);
    EXPECT_EQ(4000000ULL, watch.Lap());
}

TEST_F(PZStopwatchTest, MeasuresFromZeroWhenStartedAfterStop) {
    StartAndWait(5);
    watch.Stop();
    tick.Advance(100);
    StartAndWait(2);
    EXPECT_EQ(2000000ULL, watch.Lap());
    EXPECT_EQ(2000000ULL, watch.Split());
}

TEST_F(PZStopwatchTest, ForgetsEverythingWithInit) {
    StartAndWait(5);
    watch.init();
    EXPECT_EQ(0ULL, watch.Lap());
    EXPECT_EQ(0ULL, watch.Split());
    EXPECT_EQ(0ULL, watch.Stop());
}

TEST_F(PZStopwatchTest, MeasuresFromZeroWhenStartedAfterInit) {
    StartAndWait(5);
    watch.init();
    StartAndWait(1);
    EXPECT_EQ(1000000ULL, watch.Stop());
}

TEST_F(PZStopwatchTest, MeasuresUpToTheLargestSigned32BitNumberOfSeconds) {
    tick.SetNanoseconds(0);
    watch.Start();
    tick.SetNanoseconds(0x7FFFFFFF * kNsPerSecond + 5);
    EXPECT_EQ(2147483647000000005ULL, watch.Split());
}

#if __SIZEOF_POINTER__ == 8  // a 32-bit clock has no more seconds than a result can hold
TEST_F(PZStopwatchTest, CountsTheSecondsAsASigned32BitNumber) {
    tick.SetNanoseconds(0);
    watch.Start();
    tick.SetNanoseconds(0x80000000 * kNsPerSecond);
    EXPECT_EQ(static_cast<unsigned long long>(-2147483648LL * kNsPerSecond), watch.Split());
    tick.SetNanoseconds(0x100000001 * kNsPerSecond);
    EXPECT_EQ(1000000000ULL, watch.Split());
}
#endif

TEST_F(PZStopwatchTest, ReadsTheMonotonicClock) {
    EXPECT_EQ(CLOCK_MONOTONIC, pztest::clock_read_by([this] { watch.Start(); }));
    EXPECT_EQ(CLOCK_MONOTONIC, pztest::clock_read_by([this] { watch.Split(); }));
}
