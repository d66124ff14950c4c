#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"

// Conversion and detection in a process without memory for the library. (iconv's own memory is the
// C library's: its refusal is an error of iconv_open.)

TEST(pz_cp_convMemoryTest, ConvertsEveryPageWithoutMemoryOfItsOwn) {
    pztest::StdoutCapture output;
    for (int page = XCP_LATIN_ASCII; page <= XCP_ISO2022_CN; ++page) {
        const bool isUnits = page == XCP_WCHAR || (page >= XCP_UTF16 && page <= XCP_UTF16LE);
        for (int round = 0; round < 3; ++round) {  // the first text teaches the page
            char dst[32] = "";
            int there = 0;
            int back = 0;
            char utf8[32] = "";
            {
                const pztest::GeneralMemoryShortage shortage;
                there = pz_cp_conv(dst, sizeof dst, static_cast<EN_XCP>(page), "ab", 2,
                                   page == XCP_UTF8 ? XCP_ASCII : XCP_UTF8);
                const int unit = page == XCP_WCHAR ? 4 : isUnits ? 2 : 1;
                back =
                    pz_cp_conv(utf8, sizeof utf8, page == XCP_UTF8 ? XCP_ASCII : XCP_UTF8, dst,
                               static_cast<unsigned int>(there * unit), static_cast<EN_XCP>(page));
            }
            EXPECT_GE(there, 2) << page;
            EXPECT_EQ(2, back) << page;
            EXPECT_STREQ("ab", utf8) << page;
        }
    }
    EXPECT_EQ("", output.Take());
}

TEST(pz_cp_convMemoryTest, LooksForADetectorWithoutMemory) {
    pztest::StdoutCapture output;
    EN_XCP found = XCP_UTF8;
    int refused = -1;
    {
        const pztest::MemoryShortage shortage;
        found = pz_cp_detect("some text", 9, XCP_NONE, 0);
        refused = shortage.Refused();
    }
    EXPECT_EQ(XCP_NONE, found);
    EXPECT_EQ(0, refused);
    EXPECT_EQ(1U, pztest::count_of(output.Take(), "no ICU in this process"));
}
