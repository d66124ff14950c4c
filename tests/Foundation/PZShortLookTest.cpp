#include <sched.h>

#include <ctime>

#include <gtest/gtest.h>

#include <Framework/Foundation/private/PZShortLook.h>

#include "support/Interposed.h"

PZ_INTERPOSE(sched_getcpu, 0);
PZ_INTERPOSE(clock_gettime, 2);

namespace {

constexpr long kTestNs = 30;
constexpr long kClockNs = 25;

int processor = 0;
long now_ns = 0;

int manual_getcpu() {
    return processor;
}
int manual_clock(clockid_t /*clock*/, timespec* now) {
    now_ns += kClockNs;
    *now = {now_ns / 1000000000, now_ns % 1000000000};
    return 0;
}

class PZShortLookTest : public testing::Test {
protected:
    PZShortLookTest() {
        sched_getcpu_call.Replace(manual_getcpu);
        clock_gettime_call.Replace(manual_clock);
        now_ns = 999999000;  // a second ends during the look
    }
    ~PZShortLookTest() override {
        sched_getcpu_call.Reset();
        clock_gettime_call.Reset();
    }

    void PostFrom(int poster) {
        processor = poster;
        look.NotePost();
    }

    /// The number of tests for work that a look on processor 0 makes without success.
    int TestsOfALook() {
        processor = 0;
        int tests = 0;
        EXPECT_FALSE(look([&tests] {
            ++tests;
            now_ns += kTestNs;
            return false;
        }));
        return tests;
    }

    bool FindsWork() {
        processor = 0;
        return look([] { return true; });
    }

    /// How many sleeps in turn, each after a post from another processor, have no look.
    int SleepsWithoutALook() {
        int sleeps = 0;
        for (PostFrom(1); TestsOfALook() == 0; PostFrom(1)) ++sleeps;
        return sleeps;
    }

    PZShortLook look;
};

}  // namespace

TEST_F(PZShortLookTest, IsLeftOutBeforeTheFirstPost) {
    EXPECT_EQ(0, TestsOfALook());
}

TEST_F(PZShortLookTest, IsLeftOutAfterAPostOnTheLoopsOwnProcessor) {
    PostFrom(1);
    PostFrom(0);
    EXPECT_EQ(0, TestsOfALook());
}

TEST_F(PZShortLookTest, EndsWithTheFirstTestThatFindsWork) {
    PostFrom(1);
    processor = 0;
    int tests = 0;
    EXPECT_TRUE(look([&tests] { return ++tests == 20; }));
    EXPECT_EQ(20, tests);
}

TEST_F(PZShortLookTest, TakesLessThanTenMicroseconds) {
    PostFrom(1);
    const long start = now_ns;
    EXPECT_GT(TestsOfALook(), 100);
    EXPECT_GE(now_ns - start, 8000);
    EXPECT_LT(now_ns - start, 10000);
}

TEST_F(PZShortLookTest, ComesOnceAfterAPost) {
    PostFrom(1);
    EXPECT_TRUE(FindsWork());
    EXPECT_EQ(0, TestsOfALook());
    PostFrom(1);
    EXPECT_TRUE(FindsWork());
}

TEST_F(PZShortLookTest, LeavesOutTwiceAsManySleepsAfterEachLookWithoutSuccess) {
    PostFrom(1);
    EXPECT_GT(TestsOfALook(), 0);
    EXPECT_EQ(1, SleepsWithoutALook());
    EXPECT_EQ(3, SleepsWithoutALook());
    EXPECT_EQ(7, SleepsWithoutALook());
    EXPECT_EQ(15, SleepsWithoutALook());
    EXPECT_EQ(31, SleepsWithoutALook());
    EXPECT_EQ(63, SleepsWithoutALook());
    EXPECT_EQ(63, SleepsWithoutALook());
}

TEST_F(PZShortLookTest, LeavesOutNoSleepAfterASuccess) {
    PostFrom(1);
    EXPECT_GT(TestsOfALook(), 0);
    EXPECT_EQ(1, SleepsWithoutALook());
    for (int i = 0; i < 3; ++i) {
        PostFrom(1);
        EXPECT_FALSE(FindsWork());
    }
    PostFrom(1);
    EXPECT_TRUE(FindsWork());
    PostFrom(1);
    EXPECT_TRUE(FindsWork());
    PostFrom(1);
    EXPECT_GT(TestsOfALook(), 0);
    EXPECT_EQ(1, SleepsWithoutALook());
}
