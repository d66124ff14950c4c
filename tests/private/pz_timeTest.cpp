#include <gtest/gtest.h>

#include <Framework/private/pz_time.h>

namespace {

// Longer than 32 bits have room for, which is what the seconds of some machines have.
constexpr timespec kTime = {2000000000, 123456789};

TEST(pz_timeTest, TellsATimeInNanoseconds) {
    EXPECT_EQ(2000000000123456789LL, pz_ns_of(kTime));
}

TEST(pz_timeTest, TellsATimeInWholeMilliseconds) {
    EXPECT_EQ(2000000000123LL, pz_ms_of(kTime));
}

TEST(pz_timeTest, TheMonotonicClockDoesNotGoBack) {
    const long long before = pz_ns_of(pz_monotonic_now());
    const long long after = pz_ns_of(pz_monotonic_now());
    EXPECT_GT(before, 0);
    EXPECT_GE(after, before);
}

}  // namespace
