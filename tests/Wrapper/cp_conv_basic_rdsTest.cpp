#include "Framework/Wrapper/cp_conv_basic_rds.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "Wrapper/radio_characters.h"
#include "support/StdoutCapture.h"

namespace {

using Converter = int (*)(char*, unsigned int, const char*, unsigned int);

/// One of the three sets: its converter, its code page, and its column of the chart.
struct Set {
    const char* name;
    Converter convert;
    EN_XCP page;
    const char* RadioCharacter::*column;
};

// clang-format off
constexpr Set kSets[] = {
    { "RDS",       cp_conv_basic_rds_to_utf8,       XCP_RDS,       &RadioCharacter::rds      },
    { "RDS 2017",  cp_conv_basic_rds_2017_to_utf8,  XCP_RDS_2017,  &RadioCharacter::rds2017  },
    { "RBDS 2017", cp_conv_basic_rbds_2017_to_utf8, XCP_RBDS_2017, &RadioCharacter::rbds2017 },
};
// clang-format on

/// The text of `source` in a zero-filled buffer; the result is checked to be its length.
std::string converted(const Set& set, const std::string& source) {
    std::vector<char> dst(6 * (source.size() + 1), '\0');
    const int written = set.convert(dst.data(), static_cast<unsigned int>(dst.size()),
                                    source.data(), static_cast<unsigned int>(source.size()));
    std::string text(dst.data());
    EXPECT_EQ(text.size(), static_cast<size_t>(written)) << set.name;
    return text;
}

const Set& kRds = kSets[0];
const Set& kRds2017 = kSets[1];
const Set& kRbds2017 = kSets[2];

}  // namespace

TEST(cp_conv_basic_rdsTest, ConvertsEveryByteOfEverySet) {
    unsigned int expectedByte = 1;
    for (const RadioCharacter& row : kRadioCharacters) {
        ASSERT_EQ(expectedByte++, row.byte);
        for (const Set& set : kSets) {
            EXPECT_EQ(row.*set.column, converted(set, std::string(1, static_cast<char>(row.byte))))
                << set.name << " byte " << static_cast<int>(row.byte);
        }
    }
    EXPECT_EQ(256U, expectedByte);
}

TEST(cp_conv_basic_rdsTest, ConvertsAllBytesInOneText) {
    std::string source;
    for (const RadioCharacter& row : kRadioCharacters) source += static_cast<char>(row.byte);
    for (const Set& set : kSets) {
        std::string expected;
        for (const RadioCharacter& row : kRadioCharacters) expected += row.*set.column;
        EXPECT_EQ(expected, converted(set, source)) << set.name;
    }
}

TEST(cp_conv_basic_rdsTest, NeverReadsTheCharacterOfTheZeroByte) {
    for (const Set& set : kSets) EXPECT_EQ("", converted(set, std::string(1, '\0'))) << set.name;
}

TEST(cp_conv_basic_rdsTest, WritesTheFirstByteOfACharacterFirst) {
    for (const Set& set : kSets) EXPECT_EQ("\xC3\xA1", converted(set, "\x80")) << set.name;
}

TEST(cp_conv_basic_rdsTest, KeepsTheCurrencySignInTheBasicAndTheRbdsSet) {
    EXPECT_EQ("\xC2\xA4", converted(kRds, "\x24"));
    EXPECT_EQ("\xC5\x82", converted(kRds2017, "\x24"));
    EXPECT_EQ("\xC2\xA4", converted(kRbds2017, "\x24"));
}

TEST(cp_conv_basic_rdsTest, BlanksControlCharactersInTheBasicSetOnly) {
    EXPECT_EQ(" ", converted(kRds, "\x05"));
    EXPECT_EQ("\xC4\x96", converted(kRds2017, "\x05"));
    EXPECT_EQ("\xC4\x96", converted(kRbds2017, "\x05"));
}

TEST(cp_conv_basic_rdsTest, WritesThreeBytesForAEuroSign) {
    for (const Set& set : kSets) {
        EXPECT_EQ("\xE2\x82\xAC\xE2\x82\xAC\xE2\x82\xAC", converted(set, "\xA9\xA9\xA9"))
            << set.name;
    }
}

TEST(cp_conv_basic_rdsTest, StopsAtAZeroByte) {
    for (const Set& set : kSets) {
        EXPECT_EQ("AB", converted(set, std::string("AB\0C", 4))) << set.name;
    }
}

TEST(cp_conv_basic_rdsTest, StopsAtTheLengthOfTheSource) {
    const std::vector<char> unterminated = {'A', 'B', 'C'};
    for (const Set& set : kSets) {
        char dst[16] = "";
        EXPECT_EQ(2, set.convert(dst, sizeof dst, unterminated.data(), 2));
        EXPECT_STREQ("AB", dst);
        EXPECT_EQ(3, set.convert(dst, sizeof dst, unterminated.data(), 3));
        EXPECT_STREQ("ABC", dst);
    }
}

TEST(cp_conv_basic_rdsTest, ReadsToTheTerminatorForTheLargestLength) {
    for (const Set& set : kSets) {
        char dst[16] = "";
        EXPECT_EQ(3, set.convert(dst, sizeof dst, "ABC", 0xFFFFFFFF));
        EXPECT_STREQ("ABC", dst);
    }
}

TEST(cp_conv_basic_rdsTest, WritesOneZeroByteAtTwiceTheLengthOfTheOutput) {
    for (const Set& set : kSets) {
        char dst[10];
        std::memset(dst, '-', sizeof dst);
        EXPECT_EQ(4, set.convert(dst, sizeof dst, "A\xA9", 2));
        EXPECT_EQ(std::string("A\xE2\x82\xAC----\0-", 10), std::string(dst, sizeof dst))
            << set.name;
    }
}

TEST(cp_conv_basic_rdsTest, NeedsTwiceTheOutputAndOneByte) {
    std::vector<char> dst(2 * 9 + 1, '\0');  // the sanitizer guards its end
    EXPECT_EQ(9, cp_conv_basic_rds_to_utf8(dst.data(), 19, "\xA9\xA9\xA9", 3));
}

TEST(cp_conv_basic_rdsTest, DoesNotBoundTheOutputByTheSize) {
    for (const Set& set : kSets) {
        char dst[16] = "";
        EXPECT_EQ(3, set.convert(dst, 0, "ABC", 3));
        EXPECT_STREQ("ABC", dst);
    }
}

TEST(cp_conv_basic_rdsTest, WritesAZeroByteForAnEmptySource) {
    for (const Set& set : kSets) {
        pztest::StdoutCapture output;
        char dst[4] = "---";
        EXPECT_EQ(0, set.convert(dst, sizeof dst, "ABC", 0));
        EXPECT_EQ(std::string("\0--", 3), std::string(dst, 3));
        std::strcpy(dst, "---");
        EXPECT_EQ(0, set.convert(dst, sizeof dst, "", 3));
        EXPECT_EQ(std::string("\0--", 3), std::string(dst, 3));
        EXPECT_EQ("", output.Take());
    }
}

TEST(cp_conv_basic_rdsTest, ReportsNullArguments) {
    for (const Set& set : kSets) {
        pztest::StdoutCapture output;
        char dst[4] = "---";
        EXPECT_EQ(0, set.convert(nullptr, 4, "A", 1));
        EXPECT_EQ(0, set.convert(dst, sizeof dst, nullptr, 1));
        const std::string text = output.Take();
        EXPECT_EQ((std::vector<std::string>{"invalid args", "invalid args"}),
                  pztest::error_messages(text));
        EXPECT_TRUE(
            pztest::has_report(text, "cp_conv_to_utf8", "cp_conv_basic_rds.cpp", "invalid args"));
        EXPECT_STREQ("---", dst);
    }
}

TEST(cp_conv_basic_rdsTest, IsReachedThroughItsCodePage) {
    for (const Set& set : kSets) {
        for (const RadioCharacter& row : kRadioCharacters) {
            const char source[] = {static_cast<char>(row.byte), '\0'};
            char dst[12] = "";
            const int written = pz_cp_conv(dst, sizeof dst, XCP_UTF8, source, 1, set.page);
            EXPECT_EQ(std::strlen(row.*set.column), static_cast<size_t>(written));
            EXPECT_STREQ(row.*set.column, dst) << set.name;
        }
    }
}

TEST(cp_conv_basic_rdsTest, IsMeasuredThroughItsCodePage) {
    for (const Set& set : kSets) {
        char dst[24] = "";
        EXPECT_EQ(3, pz_cp_conv(dst, sizeof dst, XCP_UTF8, "ABC", 0xFFFFFFFF, set.page));
        EXPECT_STREQ("ABC", dst);
    }
}

TEST(cp_conv_basic_rdsTest, ReportsNullThroughItsCodePage) {
    for (const Set& set : kSets) {
        pztest::StdoutCapture output;
        char dst[4] = "---";
        EXPECT_EQ(0, pz_cp_conv(dst, sizeof dst, XCP_UTF8, nullptr, 0xFFFFFFFF, set.page));
        EXPECT_EQ(std::vector<std::string>{"invalid args"}, pztest::error_messages(output.Take()));
        EXPECT_STREQ("---", dst);
    }
}

TEST(cp_conv_basic_rdsTest, ConvertsInSeveralThreadsAtOnce) {
    std::string source;
    for (const RadioCharacter& row : kRadioCharacters) source += static_cast<char>(row.byte);
    std::vector<std::string> texts(8);
    std::vector<std::thread> threads;
    threads.reserve(texts.size());
    for (std::string& text : texts) {
        threads.emplace_back([&] {
            for (int round = 0; round < 100; ++round) text = converted(kRds2017, source);
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (const std::string& text : texts) EXPECT_EQ(converted(kRds2017, source), text);
}
