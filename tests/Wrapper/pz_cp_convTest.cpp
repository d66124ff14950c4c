#include "Framework/Wrapper/pz_cp_conv.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/Interposed.h"
#include "support/RunCommand.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(iconv_open, 2, reinterpret_cast<iconv_t>(-1));
PZ_INTERPOSE(iconv, 5);
PZ_INTERPOSE(iconv_close, 1);

namespace {

constexpr unsigned int kMeasure = 0xFFFFFFFF;

struct PageName {
    int page;
    const char* name;
};

// clang-format off
constexpr PageName kPageNames[] = {
    {  0, "ASCII" }, {  1, "CP1256" }, {  2, "CP1251" },
    {  3, "CP850" }, {  4, "CP874" }, {  5, "CP1252" },
    {  6, "CP1253" }, {  7, "CP1254" }, {  8, "ASCII" },
    {  9, "CP850" }, { 10, "CP874" }, { 11, "CP932" },
    { 12, "CP936" }, { 13, "CP949" }, { 14, "CP950" },
    { 15, "CP1251" }, { 16, "CP1252" }, { 17, "CP1253" },
    { 18, "CP1254" }, { 19, "CP1256" }, { 20, "SJIS" },
    { 21, "ISO646-US" }, { 22, "ISO8859-1" }, { 23, "ISO8859-2" },
    { 24, "ISO8859-4" }, { 25, "ISO8859-5" }, { 26, "ISO8859-6" },
    { 27, "ISO8859-7" }, { 28, "ISO8859-8" }, { 29, "ISO8859-9" },
    { 30, "ISO8859-10" }, { 31, "ISO8859-16" }, { 32, "UTF-8" },
    { 33, "WCHAR_T" }, { 34, "UTF-16" }, { 35, "UTF-16BE" },
    { 36, "UTF-16LE" }, { 37, "GB18030" }, { 38, "BIG-5" },
    { 39, "EUC-JP" }, { 40, "EUC-KR" }, { 41, "KOI8-R" },
    { 42, "KOI8-U" }, { 43, "WINDOWS-1250" }, { 44, "WINDOWS-1251" },
    { 45, "WINDOWS-1256" }, { 46, "ISO-2022-JP" }, { 47, "ISO-2022-KR" },
    { 48, "ISO-2022-CN" }, { 49, "_____error" }, { 50, "_____error" },
    { 51, "_____error" }, { 52, "_____error" },
};
// clang-format on

/// The last names that the library gave to iconv_open.
std::string openedTo;
std::string openedFrom;

iconv_t record_open(const char* to, const char* from) {
    openedTo = to;
    openedFrom = from;
    errno = EINVAL;
    return reinterpret_cast<iconv_t>(-1);
}

/// Writes two bytes and counts three conversions as not reversible.
size_t convert_irreversibly(iconv_t /*converter*/, char** in, size_t* inLeft, char** out,
                            size_t* outLeft) {
    *in += *inLeft;
    *inLeft = 0;
    std::memcpy(*out, "ok", 2);
    *out += 2;
    *outLeft -= 2;
    return 3;
}

size_t fail_after_two_bytes(iconv_t converter, char** in, size_t* inLeft, char** out,
                            size_t* outLeft) {
    convert_irreversibly(converter, in, inLeft, out, outLeft);
    errno = EILSEQ;
    return static_cast<size_t>(-1);
}

int close_and_leave_an_error(iconv_t converter) {
    const int result = iconv_close_call.Real(converter);
    errno = EBADF;
    return result;
}

EN_XCP page(int value) {
    return static_cast<EN_XCP>(value);
}

std::string pointer_text(const void* pointer) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", pointer);
    return text;
}

std::string invalid_args(const void* dst, int dstSize, const void* src, int srcSize) {
    return "invalied args dst[" + pointer_text(dst) + "] dst_size[" + std::to_string(dstSize) +
           "] src[" + pointer_text(src) + "] src_size[" + std::to_string(srcSize) + "]";
}

/// True when `output` is the report of conv_character_code about its arguments, followed by the
/// innermost 10 frames of the stack.
bool reports_invalid_args(const std::string& output, const std::string& message) {
    const std::vector<std::string> messages = pztest::error_messages(output);
    return messages.size() == 11 && messages[0] == message &&
           pztest::has_report(output, "conv_character_code", "pz_cp_conv.cpp", message) &&
           pztest::has_report(output, "dumpDirectly", "PZCallStack.cpp", messages[10]);
}

/// True when `output` is one error line of conv_character_code.
bool reports(const std::string& output, const std::string& message) {
    return pztest::error_messages(output).size() == 1 &&
           pztest::has_report(output, "conv_character_code", "pz_cp_conv.cpp", message);
}

/// The same for the one report that ends without a line feed.
bool reports_failed_open(const std::string& output, const std::string& cause) {
    return pztest::error_messages(output).size() == 1 &&
           pztest::has_unended_report(output, "conv_character_code", "pz_cp_conv.cpp",
                                      "conv_character_code : iconv open error" + cause);
}

/// A destination whose untouched bytes can be told.
struct Buffer {
    Buffer() { std::memset(bytes, '-', sizeof bytes); }

    std::string First(size_t count) const { return std::string(bytes, count); }
    wchar_t* Wide() { return reinterpret_cast<wchar_t*>(bytes); }
    unsigned short* Units() { return reinterpret_cast<unsigned short*>(bytes); }

    alignas(wchar_t) char bytes[64];
};

/// Converts UTF-8 that iconv refuses. Expects one report of it, and answers what the destination
/// begins with then.
std::string refused(unsigned int size, EN_XCP to, const std::string& text,
                    const std::string& error) {
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, size, to, text.data(),
                            static_cast<unsigned int>(text.size()), XCP_UTF8));
    EXPECT_TRUE(reports(output.Take(), "conv_character_code : iconv error [-1] " + error));
    return dst.First(3);
}

std::string bytes_of(const wchar_t* text, size_t count) {
    return std::string(reinterpret_cast<const char*>(text), count * sizeof(wchar_t));
}

class pz_cp_convTest : public testing::Test {
protected:
    void TearDown() override {
        iconv_open_call.Reset();
        iconv_call.Reset();
        iconv_close_call.Reset();
    }
};

}  // namespace

// The code pages

TEST_F(pz_cp_convTest, NumbersTheCodePages) {
    static_assert(sizeof(EN_XCP) == 4, "as stored");
    const EN_XCP inOrder[] = {
        XCP_LATIN_ASCII,  XCP_ARABIC,     XCP_CYRILLIC,   XCP_LATIN_OEM,    XCP_THAI,
        XCP_WESTERN,      XCP_GREEK,      XCP_TURKISH,    XCP_ASCII,        XCP_CP850,
        XCP_CP874,        XCP_CP932,      XCP_CP936,      XCP_CP949,        XCP_CP950,
        XCP_CP1251,       XCP_CP1252,     XCP_CP1253,     XCP_CP1254,       XCP_CP1256,
        XCP_SJIS,         XCP_ISO646_US,  XCP_ISO8859_1,  XCP_ISO8859_2,    XCP_ISO8859_4,
        XCP_ISO8859_5,    XCP_ISO8859_6,  XCP_ISO8859_7,  XCP_ISO8859_8,    XCP_ISO8859_9,
        XCP_ISO8859_10,   XCP_ISO8859_16, XCP_UTF8,       XCP_WCHAR,        XCP_UTF16,
        XCP_UTF16BE,      XCP_UTF16LE,    XCP_GB18030,    XCP_BIG5,         XCP_EUC_JP,
        XCP_EUC_KR,       XCP_KOI8_R,     XCP_KOI8_U,     XCP_WINDOWS_1250, XCP_WINDOWS_1251,
        XCP_WINDOWS_1256, XCP_ISO2022_JP, XCP_ISO2022_KR, XCP_ISO2022_CN,   XCP_RDS,
        XCP_RDS_2017,     XCP_RBDS_2017,  XCP_NONE};
    ASSERT_EQ(53U, std::size(inOrder));
    for (int i = 0; i < 53; ++i) EXPECT_EQ(i, inOrder[i]);
}

// Texts that iconv has to convert, because there is no other way into or out of these pages, or to
// refuse.

TEST_F(pz_cp_convTest, OpensEveryTargetByItsName) {
    iconv_open_call.Replace(record_open);
    pztest::StdoutCapture output;
    int expectedPage = 0;
    for (const PageName& row : kPageNames) {
        ASSERT_EQ(expectedPage++, row.page);
        Buffer dst;
        EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, page(row.page), "\xFF", 1, XCP_UTF8));
        EXPECT_EQ(row.name, openedTo);
        EXPECT_EQ("UTF-8", openedFrom);
    }
    EXPECT_EQ(53, expectedPage);
}

TEST_F(pz_cp_convTest, OpensEverySourceByItsName) {
    iconv_open_call.Replace(record_open);
    pztest::StdoutCapture output;
    for (const PageName& row : kPageNames) {
        if (row.page >= XCP_RDS && row.page <= XCP_RBDS_2017) continue;
        Buffer dst;
        EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_GB18030, "a", 1, page(row.page)));
        EXPECT_EQ("GB18030", openedTo);
        EXPECT_EQ(row.name, openedFrom);
    }
}

TEST_F(pz_cp_convTest, TakesAPageOutsideTheListAsNone) {
    iconv_open_call.Replace(record_open);
    pztest::StdoutCapture output;
    for (const int value : {-1, 53, INT_MAX, INT_MIN}) {
        Buffer dst;
        EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, page(value), "a", 1, page(value)));
        EXPECT_EQ("_____error", openedTo);
        EXPECT_EQ("_____error", openedFrom);
    }
}

// Narrow targets

TEST_F(pz_cp_convTest, AnswersTheNumberOfBytes) {
    Buffer dst;
    EXPECT_EQ(4, pz_cp_conv(dst.bytes, sizeof dst.bytes, XCP_UTF8, "x\xE9y", 3, XCP_ISO8859_1));
    EXPECT_EQ("x\xC3\xA9y-", dst.First(5));
}

TEST_F(pz_cp_convTest, ConvertsOnlyTheLengthOfTheSource) {
    const std::vector<char> unterminated = {'a', 'b', 'c'};
    Buffer dst;
    EXPECT_EQ(2, pz_cp_conv(dst.bytes, 8, XCP_UTF8, unterminated.data(), 2, XCP_UTF8));
    EXPECT_EQ("ab--", dst.First(4));
    EXPECT_EQ(3, pz_cp_conv(dst.bytes, 8, XCP_UTF8, unterminated.data(), 3, XCP_UTF8));
}

TEST_F(pz_cp_convTest, ConvertsZeroBytesInTheSourceLikeOthers) {
    Buffer dst;
    EXPECT_EQ(3, pz_cp_conv(dst.bytes, 8, XCP_UTF8, "a\0b", 3, XCP_ASCII));
    EXPECT_EQ(std::string("a\0b-", 4), dst.First(4));
}

TEST_F(pz_cp_convTest, MeasuresTheSourceUpToItsTerminator) {
    Buffer dst;
    EXPECT_EQ(3, pz_cp_conv(dst.bytes, 8, XCP_UTF8, "abc\0def", kMeasure, XCP_UTF8));
    EXPECT_EQ("abc--", dst.First(5));
}

TEST_F(pz_cp_convTest, WritesNoTerminatorAfterNarrowText) {
    Buffer dst;
    EXPECT_EQ(3, pz_cp_conv(dst.bytes, sizeof dst.bytes, XCP_UTF8, "abc", 3, XCP_UTF8));
    EXPECT_EQ("abc-----", dst.First(8));
}

TEST_F(pz_cp_convTest, NeedsRoomForATerminatorAfterNarrowText) {
    Buffer dst;
    EXPECT_EQ(3, pz_cp_conv(dst.bytes, 4, XCP_UTF8, "abc", 3, XCP_UTF8));
    EXPECT_EQ("abc-", dst.First(4));
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 3, XCP_UTF8, "xyz", 3, XCP_UTF8));
    EXPECT_TRUE(reports(output.Take(), "buffer size is too few."));
    EXPECT_EQ(std::string("\0yz-", 4), dst.First(4));
}

TEST_F(pz_cp_convTest, CountsAnIrreversibleConversionAsSuccess) {
    iconv_call.Replace(convert_irreversibly);
    Buffer dst;
    EXPECT_EQ(2, pz_cp_conv(dst.bytes, 8, XCP_ASCII, "??", 2, XCP_UTF8));
    EXPECT_EQ("ok-", dst.First(3));
}

TEST_F(pz_cp_convTest, LeavesAStatefulTargetAsTheTextEnds) {
    Buffer dst;
    const char hiraganaA[] = "\xE3\x81\x82";
    EXPECT_EQ(5, pz_cp_conv(dst.bytes, 32, XCP_ISO2022_JP, hiraganaA, 3, XCP_UTF8));
    EXPECT_EQ("\x1B$B$\"-", dst.First(6));
}

// Failures of iconv

TEST_F(pz_cp_convTest, ReportsACodePageThatCannotBeOpenedWithoutALineFeed) {
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_UTF8, "abc", 3, XCP_NONE));
    const std::string text = output.Take();
    EXPECT_TRUE(reports_failed_open(text,
                                    "[22:Invalid argument] : not support in this version "
                                    "dst[UTF-8] src[_____error]"));
    EXPECT_EQ(1U, pztest::count_of(text, "dst[UTF-8] src[_____error]\033[0m"));
    EXPECT_EQ(0U, pztest::count_of(text, "\n"));
    EXPECT_EQ(std::string("\0---", 4), dst.First(4));
    EXPECT_EQ(0, iconv_close_call.Calls());
}

TEST_F(pz_cp_convTest, RefusesTheRadioSetsAndNoneAsTargets) {
    for (const EN_XCP to : {XCP_RDS, XCP_RDS_2017, XCP_RBDS_2017, XCP_NONE}) {
        Buffer dst;
        pztest::StdoutCapture output;
        EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, to, "abc", 3, XCP_UTF8));
        EXPECT_TRUE(reports_failed_open(output.Take(),
                                        "[22:Invalid argument] : not support in this version "
                                        "dst[_____error] src[UTF-8]"));
        EXPECT_EQ(std::string("\0-", 2), dst.First(2));
    }
}

TEST_F(pz_cp_convTest, ReportsTheErrorOfAFailedOpen) {
    iconv_open_call.FailNext(ENOMEM);
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_UTF8, "abc", 3, XCP_KOI8_R));
    EXPECT_TRUE(reports_failed_open(output.Take(),
                                    "[12:Cannot allocate memory] : not support in this version "
                                    "dst[UTF-8] src[KOI8-R]"));
}

TEST_F(pz_cp_convTest, WritesAWideTerminatorAfterAFailedOpenOfTheWideForm) {
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_mbtowc(dst.Wide(), 4, "abc", 3, XCP_NONE));
    EXPECT_EQ(std::string("\0\0\0\0-", 5), dst.First(5));
}

TEST_F(pz_cp_convTest, WritesOneZeroByteAfterAFailedOpenOfA16BitForm) {
    for (const EN_XCP to : {XCP_UTF16, XCP_UTF16BE, XCP_UTF16LE}) {
        Buffer dst;
        pztest::StdoutCapture output;
        EXPECT_EQ(0, pz_mbtowc16(dst.Units(), 4, to, "abc", 3, XCP_NONE));
        EXPECT_EQ(std::string("\0--", 3), dst.First(3));
    }
}

TEST_F(pz_cp_convTest, ReportsBytesThatAreNotOfTheSourcePage) {
    EXPECT_EQ(std::string("\0b-", 3),
              refused(20, XCP_ISO8859_1,
                      "ab\xFF"
                      "cd",
                      "[84:Invalid or incomplete multibyte or wide character] : "
                      "dst[ISO8859-1] sz[20] : src[UTF-8] sz[5]"));
    EXPECT_EQ(1, iconv_call.Calls());
    EXPECT_EQ(1, iconv_close_call.Calls());
}

TEST_F(pz_cp_convTest, ReportsTheErrorOfTheConversionWhateverClosingLeavesInErrno) {
    iconv_close_call.Replace(close_and_leave_an_error);
    refused(2, XCP_UTF8, "abc", "[7:Argument list too long] : dst[UTF-8] sz[2] : src[UTF-8] sz[3]");
}

TEST_F(pz_cp_convTest, ReportsCharactersThatTheTargetPageLacks) {
    EXPECT_EQ(std::string("\0--", 3),
              refused(20, XCP_ISO8859_1, "\xE2\x82\xAC",
                      "[84:Invalid or incomplete multibyte or wide character] : "
                      "dst[ISO8859-1] sz[20] : src[UTF-8] sz[3]"));
}

TEST_F(pz_cp_convTest, ReportsATextThatEndsInsideACharacter) {
    EXPECT_EQ('\0', refused(20, XCP_UTF8, "a\xE2\x82",
                            "[22:Invalid argument] : dst[UTF-8] sz[20] : src[UTF-8] sz[3]")[0]);
}

TEST_F(pz_cp_convTest, ReportsADestinationThatIsTooSmallForTheText) {
    const std::string left = refused(
        2, XCP_UTF8, "abc", "[7:Argument list too long] : dst[UTF-8] sz[2] : src[UTF-8] sz[3]");
    EXPECT_EQ('\0', left[0]);
    EXPECT_EQ('-', left[2]);
}

TEST_F(pz_cp_convTest, DiscardsPartialOutputByATerminatorOfTheTargetsUnit) {
    iconv_call.Replace(fail_after_two_bytes);
    pztest::StdoutCapture output;
    Buffer narrow;
    EXPECT_EQ(0, pz_cp_conv(narrow.bytes, 8, XCP_CP850, "\xFF", 1, XCP_UTF8));
    EXPECT_EQ(std::string("\0k--", 4), narrow.First(4));
    for (const EN_XCP to : {XCP_UTF16, XCP_UTF16BE, XCP_UTF16LE}) {
        Buffer units;
        EXPECT_EQ(0, pz_mbtowc16(units.Units(), 4, to, "\xFF", 1, XCP_UTF8));
        EXPECT_EQ(std::string("\0\0--", 4), units.First(4));
    }
    Buffer wide;
    EXPECT_EQ(0, pz_mbtowc(wide.Wide(), 4, "\xFF", 1, XCP_UTF8));
    EXPECT_EQ(std::string("\0\0\0\0--", 6), wide.First(6));
}

TEST_F(pz_cp_convTest, CutsTheTerminatorToASmallerDestination) {
    pztest::StdoutCapture output;
    for (const unsigned int size : {1U, 2U, 3U}) {
        Buffer refused;
        EXPECT_EQ(0, pz_cp_conv(refused.bytes, size, XCP_WCHAR, "a", 1, XCP_NONE));
        EXPECT_EQ(std::string(size, '\0') + "-", refused.First(size + 1));
        Buffer tooSmall;
        EXPECT_EQ(0, pz_cp_conv(tooSmall.bytes, size, XCP_WCHAR, "a", 1, XCP_UTF8));
        EXPECT_EQ(std::string(size, '\0') + "-", tooSmall.First(size + 1));
    }
    Buffer oneByte;
    EXPECT_EQ(0, pz_cp_conv(oneByte.bytes, 1, XCP_UTF16LE, "a", 1, XCP_UTF8));
    EXPECT_EQ(std::string("\0-", 2), oneByte.First(2));
}

TEST_F(pz_cp_convTest, ClosesEveryConverterThatRefusesAText) {
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_UTF8, "\xFF", 1, XCP_UTF8));
    EXPECT_EQ(1, iconv_open_call.Calls());
    EXPECT_EQ(1, iconv_close_call.Calls());
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 1, XCP_GB18030, "ab", 2, XCP_UTF8));
    EXPECT_EQ(2, iconv_open_call.Calls());
    EXPECT_EQ(2, iconv_close_call.Calls());
}

// Invalid arguments

TEST_F(pz_cp_convTest, ReportsInvalidArgumentsWithTenFramesOfTheStack) {
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_UTF8, nullptr, 3, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, nullptr, 3)));
    EXPECT_EQ("--------", dst.First(8));
    EXPECT_EQ(0, iconv_open_call.Calls());
}

TEST_F(pz_cp_convTest, RefusesANullDestination) {
    const char src[] = "abc";
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(nullptr, 8, XCP_UTF8, src, 3, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(nullptr, 8, src, 3)));
}

TEST_F(pz_cp_convTest, RefusesADestinationOfNoSize) {
    Buffer dst;
    const char src[] = "abc";
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 0, XCP_UTF8, src, 3, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 0, src, 3)));
    EXPECT_EQ("-", dst.First(1));
}

TEST_F(pz_cp_convTest, RefusesAnEmptySource) {
    Buffer dst;
    const char src[] = "abc";
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_UTF8, src, 0, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, src, 0)));
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_UTF8, src + 3, kMeasure, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, src + 3, 0)));
    EXPECT_EQ("-", dst.First(1));
}

TEST_F(pz_cp_convTest, ReadsSizesAsSigned) {
    Buffer dst;
    const char src[] = "abc";
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 0x80000000, XCP_UTF8, src, 3, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, INT_MIN, src, 3)));
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 0xFFFFFFFF, XCP_UTF8, src, 3, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, -1, src, 3)));
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_UTF8, src, 0xFFFFFFFE, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, src, -2)));
    EXPECT_EQ("-", dst.First(1));
}

TEST_F(pz_cp_convTest, DoesNotMeasureANullSource) {
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_cp_conv(dst.bytes, 8, XCP_UTF8, nullptr, kMeasure, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, nullptr, -1)));
    EXPECT_EQ(0, pz_mbtowc(dst.Wide(), 2, nullptr, kMeasure, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, nullptr, -1)));
    EXPECT_EQ(0, pz_mbtowc16(dst.Units(), 4, XCP_UTF16LE, nullptr, kMeasure, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, nullptr, -1)));
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 8, nullptr, -1, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, nullptr, -4)));
    EXPECT_EQ(0, pz_wc16tomb(dst.bytes, 8, XCP_UTF8, nullptr, -1, XCP_UTF16LE));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, nullptr, -2)));
    EXPECT_EQ("-", dst.First(1));
}

TEST_F(pz_cp_convTest, RefusesNullAndNoSizeInEveryConverter) {
    Buffer dst;
    const wchar_t wide[] = L"a";
    const unsigned short units[] = {'a', 0};
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_mbtowc(nullptr, 2, "a", 1, XCP_UTF8));
    EXPECT_EQ(0, pz_mbtowc(dst.Wide(), 0, "a", 1, XCP_UTF8));
    EXPECT_EQ(0, pz_mbtowc(dst.Wide(), 2, "a", 0, XCP_UTF8));
    EXPECT_EQ(0, pz_mbtowc16(nullptr, 2, XCP_UTF16, "a", 1, XCP_UTF8));
    EXPECT_EQ(0, pz_mbtowc16(dst.Units(), 0, XCP_UTF16, "a", 1, XCP_UTF8));
    EXPECT_EQ(0, pz_mbtowc16(dst.Units(), 2, XCP_UTF16, "a", 0, XCP_UTF8));
    EXPECT_EQ(0, pz_wctomb(nullptr, 8, wide, 1, XCP_UTF8));
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 0, wide, 1, XCP_UTF8));
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 8, wide, 0, XCP_UTF8));
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 8, wide, -2, XCP_UTF8));
    EXPECT_EQ(0, pz_wc16tomb(nullptr, 8, XCP_UTF8, units, 1, XCP_UTF16LE));
    EXPECT_EQ(0, pz_wc16tomb(dst.bytes, 0, XCP_UTF8, units, 1, XCP_UTF16LE));
    EXPECT_EQ(0, pz_wc16tomb(dst.bytes, 8, XCP_UTF8, units, 0, XCP_UTF16LE));
    EXPECT_EQ(0, pz_wc16tomb(dst.bytes, 8, XCP_UTF8, units, -2, XCP_UTF16LE));
    EXPECT_EQ(14U, pztest::count_of(output.Take(), "invalied args dst["));
    EXPECT_EQ(0, iconv_open_call.Calls());
    EXPECT_EQ("-", dst.First(1));
}

TEST_F(pz_cp_convTest, RefusesSizesThatDoNotFitInsteadOfWrapping) {
    Buffer dst;
    const wchar_t wide[] = L"a";
    const unsigned short units[] = {'a', 0};
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 8, wide, 0x40000001, XCP_UTF8));  // wraps to 4 bytes
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, wide, INT_MIN)));
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 8, wide, 0x20000000, XCP_UTF8));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, wide, INT_MIN)));
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 8, wide, INT_MIN + 1, XCP_UTF8));  // wraps to 4 bytes
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, wide, INT_MIN)));
    EXPECT_EQ(0, pz_wc16tomb(dst.bytes, 8, XCP_UTF8, units, 0x40000000, XCP_UTF16LE));
    EXPECT_TRUE(reports_invalid_args(output.Take(), invalid_args(dst.bytes, 8, units, INT_MIN)));
    EXPECT_EQ(0, pz_mbtowc(dst.Wide(), 0x40000001, "a", 1, XCP_UTF8));
    EXPECT_EQ(0, pz_mbtowc16(dst.Units(), 0x80000001, XCP_UTF16LE, "a", 1, XCP_UTF8));
    EXPECT_EQ(2U, pztest::count_of(output.Take(), "dst_size[-2147483648]"));
    EXPECT_EQ("-", dst.First(1));
}

// Radio sets as sources

TEST_F(pz_cp_convTest, ConvertsTheRadioSetsToUtf8Only) {
    for (const EN_XCP from : {XCP_RDS, XCP_RDS_2017, XCP_RBDS_2017}) {
        for (const EN_XCP to : {XCP_ASCII, XCP_WCHAR, XCP_UTF16LE, XCP_RDS, XCP_NONE}) {
            Buffer dst;
            pztest::StdoutCapture output;
            EXPECT_EQ(-1, pz_cp_conv(dst.bytes, 16, to, "A", 1, from));
            const std::string text = output.Take();
            EXPECT_EQ(std::vector<std::string>{"not support."}, pztest::error_messages(text));
            EXPECT_TRUE(pztest::has_report(text, "pz_cp_conv", "pz_cp_conv.cpp", "not support."));
            EXPECT_EQ("----", dst.First(4));
        }
    }
}

TEST_F(pz_cp_convTest, ConvertsEachRadioSetByItsOwnTable) {
    Buffer dst;
    EXPECT_EQ(3, pz_cp_conv(dst.bytes, 1, XCP_UTF8, "\x60", 1, XCP_RDS));
    EXPECT_EQ("\xE2\x95\x91---", dst.First(6));
    EXPECT_EQ(2, pz_cp_conv(dst.bytes, 1, XCP_UTF8, "\x24", 1, XCP_RDS_2017));
    EXPECT_EQ("\xC5\x82", dst.First(2));
    EXPECT_EQ(2, pz_cp_conv(dst.bytes, 1, XCP_UTF8, "\x24", 1, XCP_RBDS_2017));
    EXPECT_EQ("\xC2\xA4", dst.First(2));
    EXPECT_EQ(0, iconv_open_call.Calls());
}

TEST_F(pz_cp_convTest, RefusesTheRadioSetsInTheOtherConverters) {
    for (const EN_XCP from : {XCP_RDS, XCP_RDS_2017, XCP_RBDS_2017}) {
        Buffer dst;
        pztest::StdoutCapture output;
        EXPECT_EQ(0, pz_mbtowc(dst.Wide(), 4, "A", 1, from));
        EXPECT_EQ(0, pz_mbtowc16(dst.Units(), 4, XCP_UTF16LE, "A", 1, from));
        EXPECT_EQ(2U, pztest::count_of(output.Take(), "src[_____error]"));
    }
}

// Wide targets

TEST_F(pz_cp_convTest, MbtowcAnswersTheNumberOfCharactersAndTerminates) {
    Buffer dst;
    EXPECT_EQ(3, pz_mbtowc(dst.Wide(), 8,
                           "a\xE2\x82\xAC"
                           "b",
                           5, XCP_UTF8));
    EXPECT_EQ(bytes_of(L"a\x20AC"
                       L"b",
                       4) +
                  "-",
              dst.First(17));
}

TEST_F(pz_cp_convTest, MbtowcMeasuresTheSource) {
    Buffer dst;
    EXPECT_EQ(2, pz_mbtowc(dst.Wide(), 8, "ab\0cd", kMeasure, XCP_UTF8));
    EXPECT_STREQ(L"ab", dst.Wide());
}

TEST_F(pz_cp_convTest, MbtowcNeedsRoomForTheTerminator) {
    Buffer dst;
    EXPECT_EQ(3, pz_mbtowc(dst.Wide(), 4, "abc", 3, XCP_UTF8));
    EXPECT_EQ(bytes_of(L"abc", 4) + "-", dst.First(17));
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_mbtowc(dst.Wide(), 3, "xyz", 3, XCP_UTF8));
    EXPECT_TRUE(reports(output.Take(), "buffer size is too few."));
    EXPECT_EQ(bytes_of(L"\0yz", 3), dst.First(12));
}

TEST_F(pz_cp_convTest, NeedsTheWholeWideTerminator) {
    for (unsigned int size = 4; size < 8; ++size) {
        Buffer dst;
        pztest::StdoutCapture output;
        EXPECT_EQ(0, pz_cp_conv(dst.bytes, size, XCP_WCHAR, "a", 1, XCP_UTF8)) << size;
        EXPECT_TRUE(reports(output.Take(), "buffer size is too few."));
        EXPECT_EQ(std::string("\0\0\0\0-", 5), dst.First(5));
    }
    Buffer dst;
    EXPECT_EQ(1, pz_cp_conv(dst.bytes, 8, XCP_WCHAR, "a", 1, XCP_UTF8));
    EXPECT_EQ(bytes_of(L"a", 2) + "-", dst.First(9));
}

TEST_F(pz_cp_convTest, MbtowcReportsItsFailures) {
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_mbtowc(dst.Wide(), 8, "a\xFF", 2, XCP_UTF8));
    EXPECT_TRUE(reports(output.Take(),
                        "conv_character_code : iconv error [-1] [84:Invalid or incomplete "
                        "multibyte or wide character] : dst[WCHAR_T] sz[32] : src[UTF-8] sz[2]"));
    EXPECT_EQ(std::string("\0\0\0\0-", 5), dst.First(5));
}

// 16-bit targets

TEST_F(pz_cp_convTest, Mbtowc16AnswersTheNumberOfUnitsAndTerminates) {
    Buffer be;
    EXPECT_EQ(2, pz_mbtowc16(be.Units(), 8, XCP_UTF16BE, "a\xE2\x82\xAC", 4, XCP_UTF8));
    EXPECT_EQ(std::string("\0a\x20\xAC\0\0-", 7), be.First(7));
    Buffer le;
    EXPECT_EQ(2, pz_mbtowc16(le.Units(), 8, XCP_UTF16LE, "a\xE2\x82\xAC", 4, XCP_UTF8));
    EXPECT_EQ(std::string("a\0\xAC\x20\0\0-", 7), le.First(7));
}

TEST_F(pz_cp_convTest, Mbtowc16BeginsTheUnmarkedFormWithAByteOrderMark) {
    Buffer dst;
    EXPECT_EQ(2, pz_mbtowc16(dst.Units(), 8, XCP_UTF16, "a", 1, XCP_UTF8));
    const unsigned short expected[] = {0xFEFF, 'a', 0};
    EXPECT_EQ(0, std::memcmp(expected, dst.bytes, sizeof expected));
    EXPECT_EQ('-', dst.bytes[sizeof expected]);
}

TEST_F(pz_cp_convTest, Mbtowc16CountsASurrogatePairAsTwo) {
    Buffer dst;
    EXPECT_EQ(2, pz_mbtowc16(dst.Units(), 8, XCP_UTF16BE, "\xF0\x9F\x98\x80", 4, XCP_UTF8));
    EXPECT_EQ(std::string("\xD8\x3D\xDE\x00\0\0-", 7), dst.First(7));
}

TEST_F(pz_cp_convTest, Mbtowc16MeasuresTheSource) {
    Buffer dst;
    EXPECT_EQ(2, pz_mbtowc16(dst.Units(), 8, XCP_UTF16LE, "ab\0cd", kMeasure, XCP_UTF8));
    EXPECT_EQ(std::string("a\0b\0\0\0-", 7), dst.First(7));
}

TEST_F(pz_cp_convTest, Mbtowc16NeedsRoomForTheTerminator) {
    for (const EN_XCP to : {XCP_UTF16BE, XCP_UTF16LE}) {
        Buffer dst;
        EXPECT_EQ(3, pz_mbtowc16(dst.Units(), 4, to, "abc", 3, XCP_UTF8));
        EXPECT_EQ(std::string("\0\0-", 3), dst.First(9).substr(6));
        pztest::StdoutCapture output;
        EXPECT_EQ(0, pz_mbtowc16(dst.Units(), 3, to, "abc", 3, XCP_UTF8));
        EXPECT_TRUE(reports(output.Take(), "buffer size is too few."));
        EXPECT_EQ(std::string(2, '\0'), dst.First(2));
    }
}

TEST_F(pz_cp_convTest, NeedsTheWhole16BitTerminator) {
    for (const unsigned int size : {2U, 3U}) {
        Buffer dst;
        pztest::StdoutCapture output;
        EXPECT_EQ(0, pz_cp_conv(dst.bytes, size, XCP_UTF16LE, "a", 1, XCP_UTF8)) << size;
        EXPECT_TRUE(reports(output.Take(), "buffer size is too few."));
        EXPECT_EQ(std::string("\0\0-", 3), dst.First(3));
    }
    Buffer dst;
    EXPECT_EQ(1, pz_cp_conv(dst.bytes, 4, XCP_UTF16LE, "a", 1, XCP_UTF8));
    EXPECT_EQ(std::string("a\0\0\0-", 5), dst.First(5));
}

TEST_F(pz_cp_convTest, Mbtowc16RefusesOtherTargetsSilently) {
    for (const int to : {0, 32, 33, 37, 49, 52, -1, 100}) {
        Buffer dst;
        pztest::StdoutCapture output;
        EXPECT_EQ(-1, pz_mbtowc16(dst.Units(), 8, page(to), "abc", 3, XCP_UTF8));
        EXPECT_EQ("", output.Take());
        EXPECT_EQ("--", dst.First(2));
    }
}

// Wide and 16-bit sources

TEST_F(pz_cp_convTest, WctombConvertsWideCharacters) {
    Buffer dst;
    EXPECT_EQ(5, pz_wctomb(dst.bytes, 16,
                           L"a\x20AC"
                           L"b",
                           3, XCP_UTF8));
    EXPECT_EQ(
        "a\xE2\x82\xAC"
        "b-",
        dst.First(6));
}

TEST_F(pz_cp_convTest, WctombConvertsOnlyTheLengthOfTheSource) {
    const std::vector<wchar_t> unterminated = {L'a', L'b'};
    Buffer dst;
    EXPECT_EQ(2, pz_wctomb(dst.bytes, 16, unterminated.data(), 2, XCP_UTF8));
    EXPECT_EQ(1, pz_wctomb(dst.bytes, 16, unterminated.data(), 1, XCP_UTF8));
}

TEST_F(pz_cp_convTest, WctombMeasuresTheSource) {
    Buffer dst;
    EXPECT_EQ(3, pz_wctomb(dst.bytes, 16, L"abc\0def", -1, XCP_UTF8));
    EXPECT_EQ("abc-", dst.First(4));
}

TEST_F(pz_cp_convTest, WctombNeedsRoomForATerminator) {
    Buffer dst;
    EXPECT_EQ(3, pz_wctomb(dst.bytes, 4, L"abc", 3, XCP_KOI8_R));
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 3, L"abc", 3, XCP_KOI8_R));
    EXPECT_TRUE(reports(output.Take(), "buffer size is too few."));
    EXPECT_EQ('\0', dst.bytes[0]);
}

TEST_F(pz_cp_convTest, WctombReportsALoneSurrogate) {
    Buffer dst;
    const wchar_t src[] = {static_cast<wchar_t>(0xD800), L'\0'};
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_wctomb(dst.bytes, 16, src, -1, XCP_UTF8));
    EXPECT_TRUE(reports(output.Take(),
                        "conv_character_code : iconv error [-1] [84:Invalid or incomplete "
                        "multibyte or wide character] : dst[UTF-8] sz[16] : src[WCHAR_T] sz[4]"));
}

TEST_F(pz_cp_convTest, Wc16tombConvertsEitherByteOrder) {
    const unsigned char be[] = {0x00, 'a', 0x20, 0xAC};
    const unsigned char le[] = {'a', 0x00, 0xAC, 0x20};
    unsigned short units[2];
    Buffer dst;
    std::memcpy(units, be, sizeof units);
    EXPECT_EQ(4, pz_wc16tomb(dst.bytes, 16, XCP_UTF8, units, 2, XCP_UTF16BE));
    EXPECT_EQ("a\xE2\x82\xAC-", dst.First(5));
    std::memcpy(units, le, sizeof units);
    EXPECT_EQ(4, pz_wc16tomb(dst.bytes, 16, XCP_UTF8, units, 2, XCP_UTF16LE));
    EXPECT_EQ("a\xE2\x82\xAC-", dst.First(5));
}

TEST_F(pz_cp_convTest, Wc16tombMeasuresTheSourceUpToAZeroUnit) {
    const unsigned short units[] = {'a', 'b', 0, 'c'};
    Buffer dst;
    const EN_XCP native = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? XCP_UTF16LE : XCP_UTF16BE;
    EXPECT_EQ(2, pz_wc16tomb(dst.bytes, 16, XCP_UTF8, units, -1, native));
    EXPECT_EQ("ab-", dst.First(3));
}

TEST_F(pz_cp_convTest, Wc16tombDoesNotStopAtUnitsWithOneZeroByte) {
    const unsigned short units[] = {0x0100, 0x00FF, 0};
    Buffer dst;
    const EN_XCP native = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? XCP_UTF16LE : XCP_UTF16BE;
    EXPECT_EQ(4, pz_wc16tomb(dst.bytes, 16, XCP_UTF8, units, -1, native));
    EXPECT_EQ("\xC4\x80\xC3\xBF", dst.First(4));
}

TEST_F(pz_cp_convTest, Wc16tombReportsALoneSurrogate) {
    const unsigned short units[] = {0xDC00, 0};
    const EN_XCP native = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? XCP_UTF16LE : XCP_UTF16BE;
    Buffer dst;
    pztest::StdoutCapture output;
    EXPECT_EQ(0, pz_wc16tomb(dst.bytes, 16, XCP_UTF8, units, -1, native));
    EXPECT_EQ(1U, pztest::count_of(output.Take(), "iconv error [-1] [84:"));
    EXPECT_EQ(std::string("\0-", 2), dst.First(2));
}

// Against iconv(1)

namespace {

/// What iconv(1) makes of each single byte of a page, in UTF-8; "" where the page has none.
std::vector<std::string> single_bytes(const std::string& pageName) {
    std::string input;
    for (int byte = 0x01; byte <= 0xFF; ++byte) {
        if (byte != '\n') input += static_cast<char>(byte);
        input += '\n';
    }
    const std::string output = pztest::run_iconv(pageName, "UTF-8", input, "-c").output;
    std::vector<std::string> characters(1);
    for (size_t start = 0; start < output.size();) {
        const size_t end = output.find('\n', start);
        characters.push_back(output.substr(start, end - start));
        start = end + 1;
    }
    if (characters.size() > '\n') characters['\n'] = "\n";
    return characters;
}

constexpr EN_XCP kSingleBytePages[] = {
    XCP_LATIN_ASCII,  XCP_ARABIC,      XCP_CYRILLIC,  XCP_LATIN_OEM, XCP_THAI,
    XCP_WESTERN,      XCP_GREEK,       XCP_TURKISH,   XCP_ASCII,     XCP_CP850,
    XCP_CP874,        XCP_CP1251,      XCP_CP1252,    XCP_CP1253,    XCP_CP1254,
    XCP_CP1256,       XCP_ISO646_US,   XCP_ISO8859_1, XCP_ISO8859_2, XCP_ISO8859_4,
    XCP_ISO8859_5,    XCP_ISO8859_6,   XCP_ISO8859_7, XCP_ISO8859_8, XCP_ISO8859_9,
    XCP_ISO8859_10,   XCP_ISO8859_16,  XCP_KOI8_R,    XCP_KOI8_U,    XCP_WINDOWS_1250,
    XCP_WINDOWS_1251, XCP_WINDOWS_1256};

}  // namespace

TEST_F(pz_cp_convTest, ConvertsEveryByteOfEverySingleBytePageAsIconvDoes) {
    for (const EN_XCP from : kSingleBytePages) {
        const std::vector<std::string> expected = single_bytes(kPageNames[from].name);
        ASSERT_EQ(256U, expected.size()) << kPageNames[from].name;
        ASSERT_EQ("A", expected['A']);
        pztest::StdoutCapture output;
        for (int byte = 0x01; byte <= 0xFF; ++byte) {
            const char source = static_cast<char>(byte);
            char dst[16] = "";
            const int written = pz_cp_conv(dst, sizeof dst, XCP_UTF8, &source, 1, from);
            const std::string& character = expected[static_cast<size_t>(byte)];
            EXPECT_EQ(character, dst) << kPageNames[from].name << " byte " << byte;
            EXPECT_EQ(character.size(), static_cast<size_t>(written));
            if (character.empty()) continue;

            char back[16] = "";
            EXPECT_EQ(1, pz_cp_conv(back, sizeof back, from, character.c_str(), kMeasure, XCP_UTF8))
                << kPageNames[from].name << " byte " << byte;
            EXPECT_EQ(source, back[0]);
        }
    }
}

TEST_F(pz_cp_convTest, ConvertsMultiBytePagesAsIconvDoes) {
    struct Sample {
        EN_XCP page;
        const char* text;
    };
    const char japanese[] = "日本語の文字コード、カタカナ ABC 123";
    const char korean[] = "한국어 문자 ABC 123";
    const char simplified[] = "中文字符编码 ABC 123";
    const char traditional[] = "中文字元編碼 ABC 123";
    const Sample samples[] = {
        {XCP_SJIS, japanese},         {XCP_CP932, japanese},     {XCP_EUC_JP, japanese},
        {XCP_ISO2022_JP, japanese},   {XCP_EUC_KR, korean},      {XCP_CP949, korean},
        {XCP_ISO2022_KR, korean},     {XCP_GB18030, simplified}, {XCP_CP936, simplified},
        {XCP_ISO2022_CN, simplified}, {XCP_BIG5, traditional},   {XCP_CP950, traditional},
        {XCP_UTF16, japanese},        {XCP_UTF16BE, japanese},   {XCP_UTF16LE, japanese},
        {XCP_WCHAR, japanese},        {XCP_UTF8, japanese}};
    for (const Sample& sample : samples) {
        const std::string name = kPageNames[sample.page].name;
        std::string expected = pztest::run_iconv("UTF-8", name, sample.text).output;
        ASSERT_FALSE(expected.empty()) << name;
        // iconv(1) returns to the initial state at the end of its input.
        if (sample.page == XCP_ISO2022_CN && expected.back() == '\x0F') expected.pop_back();
        char encoded[256] = "";
        const int units =
            pz_cp_conv(encoded, sizeof encoded, sample.page, sample.text, kMeasure, XCP_UTF8);
        const int unitSize = sample.page == XCP_WCHAR                                 ? 4
                             : sample.page >= XCP_UTF16 && sample.page <= XCP_UTF16LE ? 2
                                                                                      : 1;
        EXPECT_EQ(expected, std::string(encoded, static_cast<size_t>(units * unitSize))) << name;

        char decoded[256] = "";
        EXPECT_EQ(static_cast<int>(std::strlen(sample.text)),
                  pz_cp_conv(decoded, sizeof decoded, XCP_UTF8, expected.data(),
                             static_cast<unsigned int>(expected.size()), sample.page))
            << name;
        EXPECT_STREQ(sample.text, decoded) << name;
    }
}

TEST_F(pz_cp_convTest, ConvertsInSeveralThreadsAtOnce) {
    std::vector<int> wrong(8, -1);
    std::vector<std::thread> threads;
    threads.reserve(wrong.size());
    for (int& count : wrong) {
        threads.emplace_back([&count] {
            count = 0;
            for (int round = 0; round < 200; ++round) {
                wchar_t wide[8] = L"";
                char narrow[16] = "";
                char koi[8] = "";
                if (pz_mbtowc(wide, 8,
                              "a\xE2\x82\xAC"
                              "b",
                              kMeasure, XCP_UTF8) != 3)
                    ++count;
                if (std::wcscmp(wide,
                                L"a\x20AC"
                                L"b") != 0)
                    ++count;
                if (pz_wctomb(narrow, sizeof narrow, wide, -1, XCP_UTF8) != 5) ++count;
                if (std::strcmp(narrow,
                                "a\xE2\x82\xAC"
                                "b") != 0)
                    ++count;
                if (pz_cp_conv(koi, sizeof koi, XCP_KOI8_R, "\xD0\x9F", 2, XCP_UTF8) != 1) ++count;
                if (std::strcmp(koi, "\xF0") != 0) ++count;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::vector<int>(8, 0), wrong);
}

// Detection, in a process that has no ICU

TEST_F(pz_cp_convTest, DetectsNothingWithoutIcuAndSaysSo) {
    pztest::StdoutCapture output;
    EXPECT_EQ(XCP_NONE, pz_cp_detect("some text", 9, XCP_UTF8, 50));
    const std::string text = output.Take();
    EXPECT_EQ(1U, pztest::error_messages(text).size());
    EXPECT_TRUE(pztest::has_report(text, "pz_cp_detect", "pz_cp_conv.cpp",
                                   "no ICU in this process : code pages are not detected"));
}

TEST_F(pz_cp_convTest, DetectReportsInvalidArguments) {
    const char text[] = "text";
    pztest::StdoutCapture output;
    EXPECT_EQ(XCP_NONE, pz_cp_detect(nullptr, 4, XCP_NONE, 0));
    EXPECT_EQ(XCP_NONE, pz_cp_detect(text, 0, XCP_NONE, 0));
    const std::string lines = output.Take();
    EXPECT_EQ((std::vector<std::string>{"invalid args : str[(nil)] sz[4]",
                                        "invalid args : str[" + pointer_text(text) + "] sz[0]"}),
              pztest::error_messages(lines));
    EXPECT_TRUE(pztest::has_report(lines, "pz_cp_detect", "pz_cp_conv.cpp",
                                   "invalid args : str[(nil)] sz[4]"));
}
