#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <Framework/Wrapper/private/special_cp_conv/cp_conv_to_utf8.h>

#include "support/StdoutCapture.h"

TEST(cp_conv_to_utf8Test, ReportsAnEntryOfAnotherSizeAndStopsWithoutATerminator) {
    for (const int size : {0, 4, -1}) {
        ST_UTF8_TABLE table = {};
        table.chars[0x41] = {1, 'a'};
        table.chars[0x42] = {size, 'b'};
        char dst[9];
        std::memset(dst, '-', sizeof dst);
        pztest::StdoutCapture output;
        EXPECT_EQ(2, cp_conv_to_utf8(dst, "\x41\x41\x42\x41", 4, table));
        EXPECT_EQ("aa-------", std::string(dst, sizeof dst));
        EXPECT_TRUE(pztest::has_report(output.Take(), "cp_conv_to_utf8", "cp_conv_basic_rds.cpp",
                                       "invalid byte size(" + std::to_string(size) + ")"));
    }
}

TEST(cp_conv_to_utf8Test, WritesTheBytesOfTheLargestSize) {
    ST_UTF8_TABLE table = {};
    table.chars[0x41] = {3, 0xE282AC};
    char dst[8] = "";
    EXPECT_EQ(3, cp_conv_to_utf8(dst, "A", 1, table));
    EXPECT_STREQ("\xE2\x82\xAC", dst);
}
