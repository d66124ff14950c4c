#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include <Framework/Easy/Text.h>

#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"

using pztest::StdoutCapture;

namespace {

const std::string kRadio = "\xE3\x83\xA9\xE3\x82\xB8\xE3\x82\xAA";  // three katakana

}  // namespace

TEST(EasyTextTest, ConvertsToUtf8AndBack) {
    const std::string utf8 = pz::to_utf8("\x83\x89\x83\x57\x83\x49", XCP_SJIS);
    EXPECT_EQ(kRadio, utf8);
    EXPECT_EQ("\x83\x89\x83\x57\x83\x49", pz::from_utf8(kRadio, XCP_SJIS));
}

TEST(EasyTextTest, ConvertsWideUnitsCountedInBytes) {
    EXPECT_EQ(std::string("\x30\xE9\x30\xB8\x30\xAA"), pz::from_utf8(kRadio, XCP_UTF16BE));
    EXPECT_EQ(kRadio, pz::to_utf8("\x30\xE9\x30\xB8\x30\xAA", XCP_UTF16BE));
    const std::wstring wide = L"\x30E9\x30B8\x30AA";
    const std::string bytes(reinterpret_cast<const char*>(wide.data()),
                            wide.size() * sizeof(wchar_t));
    EXPECT_EQ(bytes, pz::from_utf8(kRadio, XCP_WCHAR));
}

TEST(EasyTextTest, AnEmptyTextStaysEmpty) {
    ASSERT_TRUE(pz::to_utf8("", XCP_SJIS).has_value());
    EXPECT_EQ("", *pz::to_utf8("", XCP_SJIS));
    EXPECT_EQ("", *pz::from_utf8("", XCP_SJIS));
    EXPECT_EQ("", *pz::to_utf8(std::string_view(), XCP_RDS));
}

TEST(EasyTextTest, HasRoomForTextsThatGrowTheMost) {
    // One escape sequence and one back for every second character.
    std::string mixed;
    for (int i = 0; i < 1000; ++i) mixed += "a\xE3\x83\xA9";
    for (const EN_XCP page : {XCP_ISO2022_JP, XCP_ISO2022_CN, XCP_GB18030, XCP_UTF16, XCP_WCHAR}) {
        EXPECT_TRUE(pz::from_utf8(mixed, page)) << page;
    }
    EXPECT_EQ(3000U, pz::to_utf8(std::string(1000, '\xB1'), XCP_SJIS)->size());
}

TEST(EasyTextTest, ReadsRadioSetsAndRefusesToWriteThem) {
    EXPECT_EQ("\xC3\xA1", pz::to_utf8("\x80", XCP_RDS));
    const StdoutCapture capture;
    EXPECT_FALSE(pz::from_utf8("a", XCP_RDS));
}

TEST(EasyTextTest, AnswersNothingForWhatCannotBeConverted) {
    StdoutCapture capture;
    EXPECT_FALSE(pz::to_utf8("\x83", XCP_SJIS));
    EXPECT_FALSE(pz::to_utf8("a", XCP_NONE));
    EXPECT_FALSE(pz::from_utf8(kRadio, XCP_ISO8859_1));
    EXPECT_FALSE(pz::from_utf8("\xFF", XCP_UTF8));
    const std::string empty = pz::to_utf8("\x83", XCP_SJIS);
    EXPECT_EQ("", empty);
    EXPECT_NE("", capture.Take());
}

TEST(EasyTextTest, AnswersNothingWithoutMemoryAndReportsIt) {
    StdoutCapture capture;
    {
        const pztest::MemoryShortage shortage;
        EXPECT_FALSE(pz::to_utf8("some bytes that are no short text", XCP_SJIS));
    }
    EXPECT_TRUE(pztest::has_report(capture.Take(), "convert", "Text.cpp",
                                   "no memory for a text of 33 bytes"));
}

TEST(EasyTextTest, DetectsNoPageWithoutAMatch) {
    EXPECT_EQ(std::nullopt, pz::detect(""));
    StdoutCapture capture;  // this process has no ICU
    EXPECT_EQ(std::nullopt, pz::detect("text"));
    EXPECT_NE(std::string::npos, capture.Take().find("no ICU in this process"));
}

TEST(EasyTextTest, AnswersNothingForAnUnknownPage) {
    const StdoutCapture capture;
    for (const int page : {-1, 53, 1000}) {
        EXPECT_FALSE(pz::to_utf8("text", static_cast<EN_XCP>(page))) << page;
        EXPECT_FALSE(pz::from_utf8("text", static_cast<EN_XCP>(page))) << page;
    }
}

TEST(EasyTextTest, AnswersNothingForATextThatIsTooLong) {
    // It is refused before it is read.
    const std::string_view endless("text", 128UL * 1024 * 1024 + 1);
    StdoutCapture capture;
    EXPECT_FALSE(pz::to_utf8(endless, XCP_SJIS));
    EXPECT_FALSE(pz::from_utf8(endless, XCP_SJIS));
    EXPECT_EQ(std::nullopt, pz::detect(endless));
    EXPECT_EQ(3U, pztest::count_of(capture.Take(), "a text of 134217729 bytes is too long"));
}

TEST(EasyTextTest, AZeroByteIsACharacterLikeOthersButForTheRadioSets) {
    const std::string_view bytes("a\0b", 3);
    EXPECT_EQ(bytes, *pz::to_utf8(bytes, XCP_SJIS));
    EXPECT_EQ(bytes, *pz::to_utf8(bytes, XCP_ISO8859_1));
    EXPECT_EQ(bytes, *pz::from_utf8(bytes, XCP_SJIS));
    EXPECT_EQ(std::string("\0a\0\0\0b", 6), *pz::from_utf8(bytes, XCP_UTF16BE));
    for (const EN_XCP page : {XCP_RDS, XCP_RDS_2017, XCP_RBDS_2017}) {
        EXPECT_EQ("a", *pz::to_utf8(bytes, page)) << page;
    }
}
