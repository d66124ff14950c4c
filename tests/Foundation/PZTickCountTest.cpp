#include "Framework/Foundation/PZTickCount.h"

#include <cstdint>
#include <cstring>
#include <type_traits>

#include <gtest/gtest.h>

#include "support/ClockReadBy.h"
#include "support/ManualTick.h"

using pztest::ManualTick;

namespace {

constexpr unsigned long long kAllBits = 0xFFFFFFFFFFFFFFFFULL;
constexpr long long kWrapMs = 0x100000000LL;  // 49.7 days

class PZTickCountTest : public testing::Test {
protected:
    void TearDown() override { pztest::clock_gettime_call.Reset(); }

    const PZTickCount& tick = *PZTickCount::GetInstance();
};

static_assert(std::is_base_of_v<PZSingleton<PZTickCount>, PZTickCount>);
static_assert(std::has_virtual_destructor_v<PZTickCount>);
static_assert(!std::is_copy_constructible_v<PZTickCount>);
static_assert(std::is_same_v<unsigned long, decltype(PZTickCount::GetInstance()->GetTime())>);

}  // namespace

TEST_F(PZTickCountTest, EveryGetInstanceAnswersTheSameObject) {
    EXPECT_EQ(&tick, PZTickCount::GetInstance());
}

TEST_F(PZTickCountTest, IsTheSameObjectAfterDelInstance) {
    PZTickCount::DelInstance();
    EXPECT_EQ(&tick, PZTickCount::GetInstance());
    EXPECT_EQ(1000ULL, tick.GetPerformanceFreq());
}

TEST_F(PZTickCountTest, TellsTheTimeInWholeMilliseconds) {
    ManualTick clock;
    clock.SetNanoseconds(12345999999);
    EXPECT_EQ(12345UL, tick.GetTime());
    clock.SetNanoseconds(12346000000);
    EXPECT_EQ(12346UL, tick.GetTime());
}

TEST_F(PZTickCountTest, TellsZeroAtTheTimeZero) {
    ManualTick clock(0);
    EXPECT_EQ(0UL, tick.GetTime());
    EXPECT_EQ(0ULL, tick.GetPerformanceCount());
    EXPECT_EQ(0ULL, tick.GetPerformanceTime());
}

TEST_F(PZTickCountTest, WrapsAfterTheLast32BitMillisecond) {
    ManualTick clock(kWrapMs - 1);
    EXPECT_EQ(0xFFFFFFFFUL, tick.GetTime());
    clock.Advance(1);
    EXPECT_EQ(0UL, tick.GetTime());
    clock.Advance(1);
    EXPECT_EQ(1UL, tick.GetTime());
}

TEST_F(PZTickCountTest, WrapsEveryTimeAgain) {
    ManualTick clock(3 * kWrapMs + 77);
    EXPECT_EQ(77UL, tick.GetTime());
}

TEST_F(PZTickCountTest, AnswersAllOnesIn32BitsWhenTheClockCannotBeRead) {
    pztest::clock_gettime_call.FailNext(EINVAL);
    EXPECT_EQ(0xFFFFFFFFUL, tick.GetTime());
}

TEST_F(PZTickCountTest, CountsNanoseconds) {
    ManualTick clock;
    clock.SetNanoseconds(7000000042);
    EXPECT_EQ(7000000042ULL, tick.GetPerformanceCount());
}

TEST_F(PZTickCountTest, CountsNanosecondsBeyond32Bits) {
    ManualTick clock;
    clock.SetNanoseconds(2000000000999999999);
    EXPECT_EQ(2000000000999999999ULL, tick.GetPerformanceCount());
}

TEST_F(PZTickCountTest, AnswersACountWithAllBitsSetWhenTheClockCannotBeRead) {
    pztest::clock_gettime_call.FailNext(EINVAL);
    EXPECT_EQ(kAllBits, tick.GetPerformanceCount());
}

TEST_F(PZTickCountTest, HasAFrequencyOf1000) {
    EXPECT_EQ(1000ULL, tick.GetPerformanceFreq());
}

TEST_F(PZTickCountTest, TellsThePerformanceTimeInWholeMilliseconds) {
    ManualTick clock;
    clock.SetNanoseconds(12345999999);
    EXPECT_EQ(12345ULL, tick.GetPerformanceTime());
}

TEST_F(PZTickCountTest, TellsThePerformanceTimeWithoutWrapping) {
    ManualTick clock(kWrapMs + 5);
    EXPECT_EQ(0x100000005ULL, tick.GetPerformanceTime());
}

TEST_F(PZTickCountTest, DividesTheCountOfAnUnreadableClockLikeAnyOther) {
    pztest::clock_gettime_call.FailNext(EINVAL);
    EXPECT_EQ(18446744073709ULL, tick.GetPerformanceTime());
}

TEST_F(PZTickCountTest, TellsNoPerformanceTimeWithoutAFrequency) {
    // Nothing ever changes the frequency, the last field of the object, but a stray write.
    char* const frequency =
        reinterpret_cast<char*>(PZTickCount::GetInstance() + 1) - sizeof(unsigned long long);
    unsigned long long value = 0;
    std::memcpy(&value, frequency, sizeof value);
    ASSERT_EQ(1000ULL, value);
    std::memset(frequency, 0, sizeof value);
    EXPECT_EQ(0ULL, tick.GetPerformanceFreq());
    EXPECT_EQ(0ULL, tick.GetPerformanceTime());
    std::memcpy(frequency, &value, sizeof value);
}

TEST_F(PZTickCountTest, TellsBothTimesAlikeToWithinAMillisecond) {
    const auto before = static_cast<std::uint32_t>(tick.GetTime());
    const auto performance = static_cast<std::uint32_t>(tick.GetPerformanceTime());
    const auto after = static_cast<std::uint32_t>(tick.GetTime());
    EXPECT_LE(performance - before, after - before);
}

TEST_F(PZTickCountTest, ReadsTheMonotonicClock) {
    EXPECT_EQ(CLOCK_MONOTONIC, pztest::clock_read_by([this] { tick.GetTime(); }));
    EXPECT_EQ(CLOCK_MONOTONIC, pztest::clock_read_by([this] { tick.GetPerformanceCount(); }));
    EXPECT_EQ(CLOCK_MONOTONIC, pztest::clock_read_by([this] { tick.GetPerformanceTime(); }));
}
