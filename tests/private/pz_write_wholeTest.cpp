#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>

#include <gtest/gtest.h>

#include <Framework/private/pz_write_whole.h>

#include "support/Interposed.h"

PZ_INTERPOSE(write, 3);

namespace {

std::string taken;

ssize_t take_three(int /*fd*/, const void* bytes, size_t size) {
    const size_t count = std::min<size_t>(size, 3);
    taken.append(static_cast<const char*>(bytes), count);
    return static_cast<ssize_t>(count);
}

class pz_write_wholeTest : public testing::Test {
protected:
    pz_write_wholeTest() {
        write_call.Reset();
        taken.clear();
    }
    ~pz_write_wholeTest() override { write_call.Reset(); }

    static constexpr int kFile = 99;
};

TEST_F(pz_write_wholeTest, WritesPieceByPieceWhatTheSystemTakes) {
    write_call.Replace(take_three);
    const bool written = pz_write_whole(kFile, "12345678");
    write_call.Replace(nullptr);
    EXPECT_TRUE(written);
    EXPECT_EQ("12345678", taken);
}

TEST_F(pz_write_wholeTest, GoesOnAfterAnInterruptionAndEndsWithAnError) {
    write_call.Replace(take_three);
    write_call.FailNext(EINTR, 2);
    const bool written = pz_write_whole(kFile, "1234");
    write_call.FailNext(ENOSPC, 1, 1);
    const bool refused = pz_write_whole(kFile, "5678");
    const int error = errno;
    write_call.Replace(nullptr);
    EXPECT_TRUE(written);
    EXPECT_FALSE(refused);
    EXPECT_EQ(ENOSPC, error);
    EXPECT_EQ("1234567", taken);
}

TEST_F(pz_write_wholeTest, FailsWhenTheSystemTakesNothing) {
    write_call.Replace([](int, const void*, size_t) -> ssize_t { return 0; });
    const bool written = pz_write_whole(kFile, "1");
    write_call.Replace(nullptr);
    EXPECT_FALSE(written);
}

TEST_F(pz_write_wholeTest, AnEmptyTextIsWrittenWithoutASystemCall) {
    EXPECT_TRUE(pz_write_whole(kFile, ""));
    EXPECT_EQ(0, write_call.Calls());
}

}  // namespace
