#include "Framework/Utility/PZString.h"

#include <iconv.h>

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/Interposed.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(iconv, 5);

namespace {

/// What the library handed to the last iconv call.
size_t offeredBytes;
bool offeredZeros;

size_t record_room(iconv_t converter, char** in, size_t* inLeft, char** out, size_t* outLeft) {
    offeredBytes = *outLeft;
    offeredZeros = std::all_of(*out, *out + *outLeft, [](char byte) { return byte == 0; });
    return iconv_call.Real(converter, in, inLeft, out, outLeft);
}

using Units = std::vector<unsigned short>;

// "aé" in every form
const char kUtf8[] = "a\xC3\xA9";
const char kLatin1[] = "a\xE9";
const wchar_t kWide[] = L"a\u00E9";
const unsigned short kLittle[] = {0x0061, 0x00E9, 0};
const unsigned short kBig[] = {0x6100, 0xE900, 0};
const unsigned short kNoUnits[] = {0};

const char* const kNoText = nullptr;
const wchar_t* const kNoWideText = nullptr;
const unsigned short* const kNull16 = nullptr;

Units units(const unsigned short* text) {
    if (text == nullptr) return {};
    const unsigned short* end = text;
    while (*end != 0) ++end;
    return Units(text, end);
}

/// The code page cannot be read, but objects that hold different forms are equal when theirs are.
bool has_code_page(const PZString& text, EN_XCP page) {
    PZString other("", page);
    if (text.RefCHAR() != nullptr) {
        if (page == XCP_NONE) {
            other.DeleteStr();
        } else {
            other.ToWCHAR();
        }
    }
    return text == other;
}

bool holds_nothing(PZString& text) {
    return text.RefCHAR() == nullptr && text.RefWCHAR() == nullptr &&
           text.ToWCHAR16(XCP_UTF16LE) == nullptr && text.Length() == 0;
}

/// A wide text whose object still has a code page: an empty narrow one was converted.
PZString wide_with_code_page(EN_XCP page) {
    PZString text("", page);
    text.ToWCHAR();
    return text;
}

class PZStringTest : public testing::Test {
protected:
    ~PZStringTest() override { iconv_call.Reset(); }

    /// True when exactly `message` was reported since the last look, by `operation`.
    bool Reported(const std::string& operation, const std::string& message) {
        const std::string output = capture.Take();
        return pztest::error_messages(output) == std::vector<std::string>{message} &&
               pztest::has_report(output, operation, "PZString.cpp", message);
    }

    /// The same where the converter below reports first.
    bool ReportedLast(const std::string& operation, const std::string& message) {
        const std::string output = capture.Take();
        const std::vector<std::string> messages = pztest::error_messages(output);
        return messages.size() == 2 && messages.back() == message &&
               pztest::has_report(output, operation, "PZString.cpp", message);
    }

    bool Silent() { return capture.Take().empty(); }

    pztest::StdoutCapture capture;
};

}  // namespace

static_assert(std::is_same_v<PZString::EN_CP, EN_XCP>, "one numbering");
#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(PZString) == 16, "a code page and three pointers");
#endif

TEST_F(PZStringTest, KeepsItsCodePageInFrontOfThreePointers) {
    // No operation tells where the fields lie.
    const PZString text("abc", XCP_ISO8859_1);
    int first = 0;
    std::memcpy(&first, static_cast<const void*>(&text), sizeof first);
    EXPECT_EQ(22, first);
    EXPECT_EQ(4 * sizeof(void*), sizeof(PZString));
}

// Construction

TEST_F(PZStringTest, HoldsNothingAtFirst) {
    PZString text;
    EXPECT_TRUE(holds_nothing(text));
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    EXPECT_EQ(nullptr, text.ToCHAR(XCP_UTF8));
    EXPECT_EQ(nullptr, text.ToTCHAR());
    EXPECT_EQ(nullptr, text.ToWCHAR());
    EXPECT_EQ(nullptr, text.ToWCHAR16(XCP_UTF16BE));
    EXPECT_EQ(nullptr, text.ToCHAR(XCP_NONE));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, IsMadeOfNarrowTextInUtf8OrTheGivenCodePage) {
    const PZString plain(kUtf8);
    EXPECT_STREQ(kUtf8, plain.RefCHAR());
    EXPECT_EQ(nullptr, plain.RefWCHAR());
    EXPECT_TRUE(has_code_page(plain, XCP_UTF8));
    const PZString latin(kLatin1, XCP_ISO8859_1);
    EXPECT_STREQ(kLatin1, latin.RefCHAR());
    EXPECT_TRUE(has_code_page(latin, XCP_ISO8859_1));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, KeepsTheGivenCodePageWhenMadeOfNoNarrowText) {
    PZString text(kNoText, XCP_ISO8859_1);
    EXPECT_TRUE(Reported("PZString", "error"));
    EXPECT_TRUE(holds_nothing(text));
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
}

TEST_F(PZStringTest, IsMadeOfAStandardStringUpToItsFirstZero) {
    const PZString text(std::string("ab\0cd", 5));
    EXPECT_STREQ("ab", text.RefCHAR());
    EXPECT_EQ(2U, text.LengthByte());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
}

TEST_F(PZStringTest, IsMadeOfWideText) {
    const PZString text(kWide);
    EXPECT_STREQ(kWide, text.RefWCHAR());
    EXPECT_EQ(nullptr, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    const PZString standard(std::wstring(L"ab\0cd", 5));
    EXPECT_STREQ(L"ab", standard.RefWCHAR());
    EXPECT_EQ(2U, standard.Length());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, HoldsNothingWhenMadeOfNoWideText) {
    PZString text(kNoWideText);
    EXPECT_TRUE(Reported("PZString", "error"));
    EXPECT_TRUE(holds_nothing(text));
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
}

TEST_F(PZStringTest, IsMadeOfUnitsInEitherByteOrder) {
    PZString little(kLittle, XCP_UTF16LE);
    EXPECT_EQ(units(kLittle), units(little.ToWCHAR16(XCP_UTF16LE)));
    EXPECT_TRUE(has_code_page(little, XCP_UTF16LE));
    EXPECT_EQ(nullptr, little.RefCHAR());
    EXPECT_EQ(nullptr, little.RefWCHAR());
    PZString big(kBig, XCP_UTF16BE);
    EXPECT_EQ(units(kBig), units(big.ToWCHAR16(XCP_UTF16BE)));
    EXPECT_TRUE(has_code_page(big, XCP_UTF16BE));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, KeepsTheGivenCodePageWhenMadeOfNoUnits) {
    PZString text(kNull16, XCP_UTF16BE);
    EXPECT_TRUE(Reported("PZString", "error"));
    EXPECT_TRUE(has_code_page(text, XCP_UTF16BE));
    EXPECT_TRUE(holds_nothing(text));
}

/// What is made of units in `page` holds nothing and keeps the page; `reports` tell of it.
void expect_refused_units(EN_XCP page, const std::string& reason, pztest::StdoutCapture& reports) {
    PZString text(kLittle, page);
    const std::string output = reports.Take();
    EXPECT_EQ((std::vector<std::string>{reason, "error"}), pztest::error_messages(output));
    EXPECT_TRUE(pztest::has_report(output, "Copy", "PZString.cpp", reason));
    EXPECT_TRUE(pztest::has_report(output, "PZString", "PZString.cpp", "error"));
    EXPECT_TRUE(has_code_page(text, page));
    EXPECT_TRUE(holds_nothing(text));
}

TEST_F(PZStringTest, HoldsNothingWhenMadeOfUnitsInARefusedCodePage) {
    expect_refused_units(XCP_UTF16, "not support for now.", capture);
}

TEST_F(PZStringTest, KeepsTheCodePageWhenMadeOfUnitsInAPageOfOtherText) {
    expect_refused_units(XCP_UTF8, "invalid param.", capture);
}

TEST_F(PZStringTest, CopiesWhateverFormTheOtherHolds) {
    const PZString narrow(kLatin1, XCP_ISO8859_1);
    const PZString narrowCopy(narrow);
    EXPECT_STREQ(kLatin1, narrowCopy.RefCHAR());
    EXPECT_NE(narrow.RefCHAR(), narrowCopy.RefCHAR());
    EXPECT_TRUE(has_code_page(narrowCopy, XCP_ISO8859_1));

    const PZString wide(wide_with_code_page(XCP_ISO8859_1));
    EXPECT_STREQ(L"", wide.RefWCHAR());
    EXPECT_TRUE(has_code_page(wide, XCP_ISO8859_1));

    PZString little(kLittle, XCP_UTF16LE);
    PZString littleCopy(little);
    EXPECT_EQ(units(kLittle), units(littleCopy.ToWCHAR16(XCP_UTF16LE)));
    EXPECT_NE(little.ToWCHAR16(XCP_UTF16LE), littleCopy.ToWCHAR16(XCP_UTF16LE));

    PZString nothing{PZString()};
    EXPECT_TRUE(holds_nothing(nothing));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, HoldsNothingAfterDeleteStr) {
    PZString texts[] = {PZString("a", XCP_ISO8859_1), PZString(L"a"),
                        PZString(kLittle, XCP_UTF16LE), PZString()};
    for (PZString& text : texts) {
        text.DeleteStr();
        EXPECT_TRUE(holds_nothing(text));
        EXPECT_TRUE(has_code_page(text, XCP_NONE));
    }
}

TEST_F(PZStringTest, AnEmptyTextIsATextAndNotNull) {
    EXPECT_STREQ("", PZString("").RefCHAR());
    EXPECT_STREQ(L"", PZString(L"").RefWCHAR());
    EXPECT_NE(nullptr, PZString(kNoUnits, XCP_UTF16LE).ToWCHAR16(XCP_UTF16LE));
}

// Setting

TEST_F(PZStringTest, CopyReplacesWhateverWasHeld) {
    PZString text(kLittle, XCP_UTF16LE);
    EXPECT_TRUE(text.Copy(kLatin1, XCP_ISO8859_1));
    EXPECT_STREQ(kLatin1, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_TRUE(text.Copy(kWide));
    EXPECT_EQ(nullptr, text.RefCHAR());
    EXPECT_STREQ(kWide, text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    EXPECT_TRUE(text.Copy(kBig, XCP_UTF16BE));
    EXPECT_EQ(nullptr, text.RefWCHAR());
    EXPECT_EQ(units(kBig), units(text.ToWCHAR16(XCP_UTF16BE)));
    EXPECT_TRUE(text.Copy(std::string("xy")));
    EXPECT_STREQ("xy", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
    EXPECT_TRUE(text.Copy(std::wstring(L"xy")));
    EXPECT_STREQ(L"xy", text.RefWCHAR());
    EXPECT_TRUE(text.Copy(PZString("z", XCP_SJIS)));
    EXPECT_STREQ("z", text.RefCHAR());
    EXPECT_EQ(nullptr, text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_SJIS));
    EXPECT_TRUE(text.Copy(PZString()));
    EXPECT_TRUE(holds_nothing(text));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, CopyTakesAnyCodePageForNarrowText) {
    PZString text;
    EXPECT_TRUE(text.Copy("a", static_cast<EN_XCP>(1000)));
    EXPECT_STREQ("a", text.RefCHAR());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, CopyRefusesNullAndLeavesTheObjectAlone) {
    PZString text(kLatin1, XCP_ISO8859_1);
    const char* const before = text.RefCHAR();
    EXPECT_FALSE(text.Copy(kNoText, XCP_UTF8));
    EXPECT_FALSE(text.Copy(kNoWideText));
    EXPECT_FALSE(text.Copy(kNull16, XCP_UTF16LE));
    EXPECT_EQ(before, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, CopyRefusesUnitsWithoutAByteOrder) {
    PZString text("abc");
    EXPECT_FALSE(text.Copy(kLittle, XCP_UTF16));
    EXPECT_TRUE(Reported("Copy", "not support for now."));
    for (const EN_XCP page : {XCP_UTF8, XCP_WCHAR, XCP_GB18030, XCP_NONE}) {
        EXPECT_FALSE(text.Copy(kLittle, page));
        EXPECT_TRUE(Reported("Copy", "invalid param."));
    }
    EXPECT_FALSE(text.Copy(kNull16, XCP_UTF16));
    EXPECT_TRUE(Reported("Copy", "not support for now."));
    EXPECT_STREQ("abc", text.RefCHAR());
}

TEST_F(PZStringTest, CopyOntoItselfChangesNothing) {
    PZString text("abc");
    const char* const before = text.RefCHAR();
    EXPECT_TRUE(text.Copy(text));
    EXPECT_EQ(before, text.RefCHAR());
}

TEST_F(PZStringTest, CopyTakesPartOfItsOwnText) {
    const std::string longText(100, 'x');
    PZString narrow(longText);
    EXPECT_TRUE(narrow.Copy(narrow.RefCHAR() + 40, XCP_SJIS));
    EXPECT_EQ(longText.substr(40), narrow.RefCHAR());
    narrow = narrow.RefCHAR() + 20;
    EXPECT_EQ(longText.substr(60), narrow.RefCHAR());

    const std::wstring longWide(100, L'x');
    PZString wide(longWide);
    EXPECT_TRUE(wide.Copy(wide.RefWCHAR() + 40));
    EXPECT_EQ(longWide.substr(40), wide.RefWCHAR());
    wide = wide.RefWCHAR();
    EXPECT_EQ(longWide.substr(40), wide.RefWCHAR());

    PZString little(kLittle, XCP_UTF16LE);
    EXPECT_TRUE(little.Copy(little.ToWCHAR16(XCP_UTF16LE) + 1, XCP_UTF16LE));
    EXPECT_EQ(Units{0x00E9}, units(little.ToWCHAR16(XCP_UTF16LE)));
}

TEST_F(PZStringTest, IsAssignedFromEveryKindOfText) {
    PZString text("old", XCP_SJIS);
    EXPECT_EQ(&text, &(text = kUtf8));
    EXPECT_STREQ(kUtf8, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
    EXPECT_EQ(&text, &(text = kWide));
    EXPECT_STREQ(kWide, text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    EXPECT_EQ(&text, &(text = std::string("xy")));
    EXPECT_STREQ("xy", text.RefCHAR());
    EXPECT_EQ(&text, &(text = PZString("z", XCP_SJIS)));
    EXPECT_STREQ("z", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_SJIS));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ReportsAnAssignmentOfNull) {
    PZString text("abc", XCP_SJIS);
    EXPECT_EQ(&text, &(text = kNoText));
    EXPECT_TRUE(Reported("operator=", "error"));
    EXPECT_EQ(&text, &(text = kNoWideText));
    EXPECT_TRUE(Reported("operator=", "error"));
    EXPECT_STREQ("abc", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_SJIS));
}

TEST_F(PZStringTest, AlwaysRefusesAnAssignmentOfUnits) {
    PZString text("abc", XCP_SJIS);
    for (const unsigned short* source : {kLittle, kBig, kNoUnits, kNull16}) {
        EXPECT_EQ(&text, &(text = source));
        const std::string output = capture.Take();
        EXPECT_EQ((std::vector<std::string>{"not support for now.", "error"}),
                  pztest::error_messages(output));
        EXPECT_TRUE(pztest::has_report(output, "operator=", "PZString.cpp", "error"));
    }
    EXPECT_STREQ("abc", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_SJIS));
}

TEST_F(PZStringTest, IgnoresAnAssignmentToItself) {
    PZString text("abc");
    const char* const before = text.RefCHAR();
    const PZString& same = text;
    EXPECT_EQ(&text, &(text = same));
    EXPECT_EQ(before, text.RefCHAR());
}

// Appending

TEST_F(PZStringTest, AddsBytesToNarrowTextUnchanged) {
    PZString text(kLatin1, XCP_ISO8859_1);
    EXPECT_TRUE(text.Append("\xE8"));
    EXPECT_TRUE(text.Append(std::string("!")));
    EXPECT_TRUE(text.AppendToHead("\xE7"));
    EXPECT_TRUE(text.AppendToHead(std::string("?")));
    EXPECT_STREQ(
        "?\xE7"
        "a\xE9\xE8!",
        text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, AddsWideTextToNarrowTextInItsCodePage) {
    PZString text("-", XCP_ISO8859_1);
    EXPECT_TRUE(text.Append(kWide));
    EXPECT_TRUE(text.AppendToHead(L"\u00E8"));
    EXPECT_STREQ("\xE8-a\xE9", text.RefCHAR());
    EXPECT_TRUE(text.Append(L""));
    EXPECT_STREQ("\xE8-a\xE9", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, KeepsNarrowTextWhenWideTextHasNoPlaceInItsCodePage) {
    PZString text("a", XCP_ISO8859_1);
    EXPECT_FALSE(text.Append(L"\u3042"));
    EXPECT_TRUE(ReportedLast("ToCHAR", "faild to convert"));
    EXPECT_FALSE(text.AppendToHead(L"\u3042"));
    EXPECT_TRUE(ReportedLast("ToCHAR", "faild to convert"));
    EXPECT_STREQ("a", text.RefCHAR());
    PZString unknown("a", XCP_NONE);
    EXPECT_FALSE(unknown.Append(L"b"));
    EXPECT_TRUE(Reported("ToCHAR", "invalid code page"));
}

TEST_F(PZStringTest, AppendGivesWideTextWithoutCodePageUtf8) {
    PZString text(L"-");
    EXPECT_TRUE(text.Append(kUtf8));
    EXPECT_STREQ(L"-a\u00E9", text.RefWCHAR());
    EXPECT_EQ(nullptr, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, AppendGivesWideTextUtf8EvenWhenTheBytesCannotBeConverted) {
    PZString text(L"-");
    EXPECT_FALSE(text.Append("\xFF"));
    EXPECT_TRUE(ReportedLast("ToWCHAR", "faild to convert"));
    EXPECT_STREQ(L"-", text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
}

TEST_F(PZStringTest, AppendReadsBytesInTheCodePageThatWideTextKept) {
    PZString text = wide_with_code_page(XCP_ISO8859_1);
    EXPECT_TRUE(text.Append(kLatin1));
    EXPECT_STREQ(kWide, text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
}

TEST_F(PZStringTest, AppendToHeadAlwaysReadsBytesAsUtf8ForWideText) {
    PZString text = wide_with_code_page(XCP_ISO8859_1);
    EXPECT_TRUE(text.AppendToHead(kUtf8));
    EXPECT_STREQ(kWide, text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    PZString plain(L"-");
    EXPECT_TRUE(plain.AppendToHead(kUtf8));
    EXPECT_STREQ(L"a\u00E9-", plain.RefWCHAR());
    EXPECT_TRUE(has_code_page(plain, XCP_NONE));
}

TEST_F(PZStringTest, AddsWideTextToWideTextUnchanged) {
    PZString text(L"-");
    EXPECT_TRUE(text.Append(L"b"));
    EXPECT_TRUE(text.AppendToHead(kWide));
    EXPECT_STREQ(L"a\u00E9-b", text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
}

TEST_F(PZStringTest, BecomesTheTextThatIsAddedToNothing) {
    PZString a;
    EXPECT_TRUE(a.Append("x"));
    EXPECT_STREQ("x", a.RefCHAR());
    EXPECT_TRUE(has_code_page(a, XCP_UTF8));
    PZString b;
    EXPECT_TRUE(b.AppendToHead("x"));
    EXPECT_STREQ("x", b.RefCHAR());
    PZString c;
    EXPECT_TRUE(c.Append(L"x"));
    EXPECT_STREQ(L"x", c.RefWCHAR());
    PZString d;
    EXPECT_TRUE(d.AppendToHead(L"x"));
    EXPECT_STREQ(L"x", d.RefWCHAR());
}

TEST_F(PZStringTest, LosesItsUnitsWhenTextIsAdded) {
    PZString a(kLittle, XCP_UTF16LE);
    EXPECT_TRUE(a.Append("x"));
    EXPECT_STREQ("x", a.RefCHAR());
    EXPECT_TRUE(has_code_page(a, XCP_UTF8));
    PZString b(kLittle, XCP_UTF16LE);
    EXPECT_TRUE(b.AppendToHead(L"x"));
    EXPECT_STREQ(L"x", b.RefWCHAR());
    EXPECT_TRUE(has_code_page(b, XCP_NONE));
    PZString c(kLittle, XCP_UTF16LE);
    EXPECT_TRUE(c.Append(PZString(kLatin1, XCP_ISO8859_1)));
    EXPECT_STREQ(kLatin1, c.RefCHAR());
    EXPECT_TRUE(has_code_page(c, XCP_ISO8859_1));
}

TEST_F(PZStringTest, AppendTakesAnyEndOfItsOwnTextWithAndWithoutRoomForIt) {
    const std::string letters = "abcdefghijklmnopqrstuvwxyz";
    for (size_t length = 0; length < 140; ++length) {
        std::string begin;
        while (begin.size() < length) begin += letters[begin.size() % letters.size()];
        for (size_t from = 0; from <= length; from += 7) {
            PZString text(begin);
            std::string expected = begin;
            for (int i = 0; i < 3; ++i) {
                expected += expected.substr(from);
                EXPECT_TRUE(text.Append(text.RefCHAR() + from));
            }
            EXPECT_EQ(expected, text.RefCHAR()) << length << " bytes, from " << from;
        }
    }
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, AppendRefusesNull) {
    PZString text("abc");
    EXPECT_FALSE(text.Append(kNoText));
    EXPECT_FALSE(text.Append(kNoWideText));
    PZString wide(L"abc");
    EXPECT_FALSE(wide.Append(kNoText));
    EXPECT_TRUE(has_code_page(wide, XCP_NONE));
    EXPECT_STREQ("abc", text.RefCHAR());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, AddsNarrowTextOfTheSameCodePageWithoutConversion) {
    PZString text(kLatin1, XCP_ISO8859_1);
    EXPECT_TRUE(text.Append(PZString("\xE8", XCP_ISO8859_1)));
    EXPECT_TRUE(text.AppendToHead(PZString("\xE7", XCP_ISO8859_1)));
    EXPECT_STREQ(
        "\xE7"
        "a\xE9\xE8",
        text.RefCHAR());
    PZString unknown("a", XCP_NONE);
    EXPECT_TRUE(unknown.Append(PZString("b", XCP_NONE)));
    EXPECT_STREQ("ab", unknown.RefCHAR());
    EXPECT_EQ(0, iconv_call.Calls());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, AddsObjectsToNarrowTextInItsCodePage) {
    const PZString latin(kLatin1, XCP_ISO8859_1);
    const PZString wide(kWide);
    PZString text("-");
    EXPECT_TRUE(text.Append(latin));
    EXPECT_TRUE(text.AppendToHead(wide));
    EXPECT_STREQ("a\xC3\xA9-a\xC3\xA9", text.RefCHAR());
    EXPECT_STREQ(kLatin1, latin.RefCHAR());
    EXPECT_STREQ(kWide, wide.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
}

TEST_F(PZStringTest, AddsObjectsToWideText) {
    PZString text(L"-");
    EXPECT_TRUE(text.Append(PZString(kLatin1, XCP_ISO8859_1)));
    EXPECT_TRUE(text.AppendToHead(PZString(L"b")));
    EXPECT_TRUE(text.AppendToHead(PZString(kUtf8)));
    EXPECT_STREQ(L"a\u00E9b-a\u00E9", text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, BecomesTheObjectThatIsAddedToNothing) {
    PZString a;
    EXPECT_TRUE(a.Append(PZString(kLatin1, XCP_ISO8859_1)));
    EXPECT_STREQ(kLatin1, a.RefCHAR());
    EXPECT_TRUE(has_code_page(a, XCP_ISO8859_1));
    PZString b;
    EXPECT_TRUE(b.AppendToHead(wide_with_code_page(XCP_ISO8859_1)));
    EXPECT_STREQ(L"", b.RefWCHAR());
    EXPECT_TRUE(has_code_page(b, XCP_NONE));
}

TEST_F(PZStringTest, ReportsAnObjectWithoutTextThatIsAddedToNarrowTextOrNothing) {
    const PZString nothing;
    const PZString little(kLittle, XCP_UTF16LE);
    for (const PZString* added : {&nothing, &little}) {
        PZString text("abc");
        EXPECT_FALSE(text.Append(*added));
        EXPECT_TRUE(Reported("Append", "no string in param"));
        EXPECT_FALSE(text.AppendToHead(*added));
        EXPECT_TRUE(Reported("AppendToHead", "no string in param"));
        EXPECT_STREQ("abc", text.RefCHAR());
        PZString empty;
        EXPECT_FALSE(empty.Append(*added));
        EXPECT_TRUE(Reported("Append", "no string in param"));
        EXPECT_FALSE(empty.AppendToHead(*added));
        EXPECT_TRUE(Reported("AppendToHead", "no string in param"));
    }
}

TEST_F(PZStringTest, DoesNotAddAnObjectWithoutTextToWideText) {
    PZString text(L"abc");
    EXPECT_FALSE(text.Append(PZString()));
    EXPECT_TRUE(Silent());
    EXPECT_FALSE(text.AppendToHead(PZString(kLittle, XCP_UTF16LE)));
    EXPECT_TRUE(Reported("ToWCHAR", "not support for now."));
    EXPECT_STREQ(L"abc", text.RefWCHAR());
}

TEST_F(PZStringTest, KeepsItsTextWhenAnAddedObjectCannotBeConverted) {
    PZString narrow("a", XCP_ISO8859_1);
    EXPECT_FALSE(narrow.Append(PZString(L"\u3042")));
    EXPECT_TRUE(ReportedLast("ToCHAR", "faild to convert"));
    EXPECT_FALSE(narrow.AppendToHead(PZString("\xE3\x81\x82")));
    EXPECT_TRUE(ReportedLast("ToCHAR", "faild to convert ret[0]"));
    EXPECT_STREQ("a", narrow.RefCHAR());
    EXPECT_TRUE(has_code_page(narrow, XCP_ISO8859_1));

    PZString wide(L"a");
    EXPECT_FALSE(wide.Append(PZString("\xFF")));
    EXPECT_TRUE(ReportedLast("ToWCHAR", "faild to convert"));
    EXPECT_FALSE(wide.AppendToHead(PZString("", XCP_NONE)));
    EXPECT_TRUE(Reported("ToWCHAR", "unknown code page"));
    EXPECT_STREQ(L"a", wide.RefWCHAR());
    EXPECT_TRUE(has_code_page(wide, XCP_NONE));
}

TEST_F(PZStringTest, AddsAnEmptyObjectOfAnyCodePage) {
    PZString text("a", XCP_ISO8859_1);
    EXPECT_TRUE(text.Append(PZString("")));
    EXPECT_TRUE(text.AppendToHead(PZString(L"")));
    EXPECT_TRUE(text.Append(PZString("", XCP_NONE)));
    EXPECT_STREQ("a", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, AddsItselfToItself) {
    const std::string once = "0123456789abcdefghij";
    PZString text(once);
    EXPECT_TRUE(text.Append(text));
    EXPECT_EQ(once + once, text.RefCHAR());
    EXPECT_TRUE(text.AppendToHead(text));
    EXPECT_EQ(once + once + once + once, text.RefCHAR());
    text = once;
    EXPECT_TRUE(text.Append(text.RefCHAR()));
    EXPECT_TRUE(text.AppendToHead(text.RefCHAR() + 30));
    EXPECT_EQ("abcdefghij" + once + once, text.RefCHAR());
    text = once;
    text += text;
    text + text.RefCHAR();
    EXPECT_EQ(once + once + once + once, text.RefCHAR());

    const std::wstring wideOnce = L"0123456789abcdefghij";
    PZString wide(wideOnce);
    EXPECT_TRUE(wide.Append(wide));
    EXPECT_TRUE(wide.AppendToHead(wide));
    EXPECT_EQ(wideOnce + wideOnce + wideOnce + wideOnce, wide.RefWCHAR());
    wide = wideOnce.c_str();
    EXPECT_TRUE(wide.Append(wide.RefWCHAR()));
    EXPECT_TRUE(wide.AppendToHead(wide.RefWCHAR() + 30));
    EXPECT_EQ(L"abcdefghij" + wideOnce + wideOnce, wide.RefWCHAR());
}

TEST_F(PZStringTest, PlusChangesItsLeftSide) {
    PZString text("a");
    EXPECT_EQ(&text, &(text + "b"));
    EXPECT_EQ(&text, &(text + std::string("c")));
    EXPECT_EQ(&text, &(text + L"d"));
    EXPECT_EQ(&text, &(text + PZString("e")));
    EXPECT_STREQ("abcde", text.RefCHAR());
}

TEST_F(PZStringTest, PlusAssignAppends) {
    PZString text("a");
    EXPECT_EQ(&text, &(text += "b"));
    EXPECT_EQ(&text, &(text += std::string("c")));
    EXPECT_EQ(&text, &(text += L"d"));
    EXPECT_EQ(&text, &(text += PZString("e")));
    EXPECT_STREQ("abcde", text.RefCHAR());
}

TEST_F(PZStringTest, ReportsAFailedPlus) {
    PZString text("a");
    text + kNoText;
    EXPECT_TRUE(Reported("operator+", "error"));
    text + kNoWideText;
    EXPECT_TRUE(Reported("operator+", "error"));
    text += kNoText;
    EXPECT_TRUE(Reported("operator+=", "error"));
    text += kNoWideText;
    EXPECT_TRUE(Reported("operator+=", "error"));
    text + PZString();
    std::string output = capture.Take();
    EXPECT_EQ((std::vector<std::string>{"no string in param", "error"}),
              pztest::error_messages(output));
    EXPECT_TRUE(pztest::has_report(output, "operator+", "PZString.cpp", "error"));
    text += PZString();
    output = capture.Take();
    EXPECT_EQ((std::vector<std::string>{"no string in param", "error"}),
              pztest::error_messages(output));
    EXPECT_TRUE(pztest::has_report(output, "operator+=", "PZString.cpp", "error"));
    EXPECT_STREQ("a", text.RefCHAR());
}

// Conversion to narrow text

TEST_F(PZStringTest, ConvertsToWideTextAndBack) {
    PZString text("abc", XCP_UTF8);
    EXPECT_STREQ(L"abc", text.ToWCHAR());
    EXPECT_EQ(nullptr, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    EXPECT_STREQ("abc", text.ToCHAR(XCP_UTF8));
    EXPECT_EQ(nullptr, text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
}

TEST_F(PZStringTest, ToCharReturnsTextInTheAskedCodePageAsItIs) {
    PZString text(kLatin1, XCP_ISO8859_1);
    const char* const before = text.RefCHAR();
    EXPECT_EQ(before, text.ToCHAR(XCP_ISO8859_1));
    PZString unknown("a", XCP_NONE);
    EXPECT_STREQ("a", unknown.ToCHAR(XCP_NONE));
    EXPECT_EQ(0, iconv_call.Calls());
}

TEST_F(PZStringTest, ToCharConvertsBetweenCodePages) {
    PZString text(kLatin1, XCP_ISO8859_1);
    EXPECT_STREQ(kUtf8, text.ToCHAR());
    EXPECT_STREQ(kUtf8, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
    EXPECT_STREQ(kLatin1, text.ToCHAR(XCP_ISO8859_1));
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_STREQ(kUtf8, text.ToTCHAR());
}

TEST_F(PZStringTest, ToCharReadsRadioText) {
    PZString text("abc", XCP_RDS);
    EXPECT_STREQ("abc", text.ToCHAR(XCP_UTF8));
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
    // Three bytes for each: the largest text that the buffer has to take.
    PZString arrows(std::string(50, '\xAD').c_str(), XCP_RDS);
    ASSERT_NE(nullptr, arrows.ToCHAR(XCP_UTF8));
    EXPECT_EQ(50U, arrows.Length());
}

TEST_F(PZStringTest, TurnsRadioTextIntoNoOtherForm) {
    for (const EN_XCP page : {XCP_RDS, XCP_RDS_2017, XCP_RBDS_2017}) {
        PZString text("a", page);
        EXPECT_EQ(nullptr, text.ToWCHAR());
        EXPECT_TRUE(ReportedLast("ToWCHAR", "faild to convert"));
        EXPECT_EQ(nullptr, text.ToWCHAR16(XCP_UTF16LE));
        EXPECT_TRUE(ReportedLast("ToWCHAR16", "faild to convert"));
        EXPECT_STREQ("a", text.RefCHAR());
        EXPECT_TRUE(has_code_page(text, page));
    }
}

TEST_F(PZStringTest, ToCharLeavesEmptyNarrowTextInItsCodePage) {
    PZString text("", XCP_ISO8859_1);
    const char* const before = text.RefCHAR();
    EXPECT_EQ(before, text.ToCHAR(XCP_UTF8));
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_EQ(before, text.ToCHAR(XCP_NONE));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ToCharKeepsTextThatCannotBeConverted) {
    PZString text("\xFF", XCP_UTF8);
    const char* const before = text.RefCHAR();
    EXPECT_EQ(nullptr, text.ToCHAR(XCP_ISO8859_1));
    EXPECT_TRUE(ReportedLast("ToCHAR", "faild to convert ret[0]"));
    EXPECT_EQ(before, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
    PZString radio("a", XCP_RDS);
    EXPECT_EQ(nullptr, radio.ToCHAR(XCP_ISO8859_1));
    EXPECT_TRUE(ReportedLast("ToCHAR", "faild to convert ret[-1]"));
    EXPECT_TRUE(has_code_page(radio, XCP_RDS));
}

TEST_F(PZStringTest, ToCharConvertsWideText) {
    PZString text(kWide);
    EXPECT_STREQ(kLatin1, text.ToCHAR(XCP_ISO8859_1));
    EXPECT_EQ(nullptr, text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ToCharKeepsWideTextThatCannotBeConverted) {
    PZString text(L"\u3042");
    EXPECT_EQ(nullptr, text.ToCHAR(XCP_NONE));
    EXPECT_TRUE(Reported("ToCHAR", "invalid code page"));
    EXPECT_EQ(nullptr, text.ToCHAR(XCP_ISO8859_1));
    EXPECT_TRUE(ReportedLast("ToCHAR", "faild to convert"));
    EXPECT_STREQ(L"\u3042", text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    PZString empty(L"");
    EXPECT_EQ(nullptr, empty.ToCHAR(XCP_NONE));
    EXPECT_TRUE(Reported("ToCHAR", "invalid code page"));
}

TEST_F(PZStringTest, ToCharLeavesTheCodePageOfEmptyWideText) {
    PZString text(L"");
    EXPECT_STREQ("", text.ToCHAR(XCP_UTF8));
    EXPECT_EQ(nullptr, text.RefWCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    PZString latin = wide_with_code_page(XCP_ISO8859_1);
    EXPECT_STREQ("", latin.ToCHAR(XCP_UTF8));
    EXPECT_TRUE(has_code_page(latin, XCP_ISO8859_1));
}

TEST_F(PZStringTest, ToCharConvertsUnitsToUtf8) {
    PZString little(kLittle, XCP_UTF16LE);
    EXPECT_STREQ(kUtf8, little.ToCHAR(XCP_UTF8));
    EXPECT_TRUE(has_code_page(little, XCP_UTF8));
    PZString big(kBig, XCP_UTF16BE);
    EXPECT_STREQ(kUtf8, big.ToTCHAR());
    EXPECT_STREQ(kWide, big.ToWCHAR());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ToCharConvertsUnitsToNothingButUtf8) {
    PZString text(kLittle, XCP_UTF16LE);
    EXPECT_EQ(nullptr, text.ToCHAR(XCP_NONE));
    EXPECT_TRUE(Reported("ToCHAR", "invalid code page"));
    EXPECT_EQ(nullptr, text.ToCHAR(XCP_ISO8859_1));
    EXPECT_TRUE(Reported("ToCHAR", "not support for now."));
    PZString empty(kNoUnits, XCP_UTF16LE);
    EXPECT_EQ(nullptr, empty.ToCHAR(XCP_ISO8859_1));
    EXPECT_TRUE(Reported("ToCHAR", "not support for now."));
    EXPECT_EQ(units(kLittle), units(text.ToWCHAR16(XCP_UTF16LE)));
}

TEST_F(PZStringTest, ToCharLeavesTheCodePageOfEmptyUnits) {
    PZString text(kNoUnits, XCP_UTF16BE);
    EXPECT_STREQ("", text.ToCHAR(XCP_UTF8));
    EXPECT_STREQ("", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF16BE));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ToCharKeepsUnitsThatCannotBeConverted) {
    const unsigned short loneSurrogate[] = {0xD800, 0};
    PZString text(loneSurrogate, XCP_UTF16LE);
    EXPECT_EQ(nullptr, text.ToCHAR(XCP_UTF8));
    EXPECT_TRUE(ReportedLast("ToCHAR", "faild to convert"));
    EXPECT_EQ(Units{0xD800}, units(text.ToWCHAR16(XCP_UTF16LE)));
}

// Conversion to wide text

TEST_F(PZStringTest, ToWcharReadsTheCodePage) {
    PZString text(kLatin1, XCP_ISO8859_1);
    EXPECT_STREQ(kWide, text.ToWCHAR());
    EXPECT_EQ(nullptr, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_NONE));
    EXPECT_EQ(text.RefWCHAR(), text.ToWCHAR());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ToWcharRefusesTextWithoutCodePage) {
    for (const char* bytes : {"a", ""}) {
        PZString text(bytes, XCP_NONE);
        EXPECT_EQ(nullptr, text.ToWCHAR());
        EXPECT_TRUE(Reported("ToWCHAR", "unknown code page"));
        EXPECT_STREQ(bytes, text.RefCHAR());
    }
}

TEST_F(PZStringTest, ToWcharLeavesTheCodePageOfEmptyText) {
    PZString text("", XCP_ISO8859_1);
    EXPECT_STREQ(L"", text.ToWCHAR());
    EXPECT_EQ(nullptr, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_ISO8859_1));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ToWcharKeepsTextThatCannotBeConverted) {
    PZString text("\xFF");
    EXPECT_EQ(nullptr, text.ToWCHAR());
    EXPECT_TRUE(ReportedLast("ToWCHAR", "faild to convert"));
    EXPECT_STREQ("\xFF", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
}

TEST_F(PZStringTest, ToWcharDoesNotConvertUnits) {
    PZString text(kLittle, XCP_UTF16LE);
    EXPECT_EQ(nullptr, text.ToWCHAR());
    EXPECT_TRUE(Reported("ToWCHAR", "not support for now."));
    EXPECT_EQ(units(kLittle), units(text.ToWCHAR16(XCP_UTF16LE)));
}

// Conversion to units

TEST_F(PZStringTest, ToWchar16ConvertsNarrowTextIntoEitherByteOrder) {
    PZString little(kLatin1, XCP_ISO8859_1);
    EXPECT_EQ(units(kLittle), units(little.ToWCHAR16(XCP_UTF16LE)));
    EXPECT_EQ(nullptr, little.RefCHAR());
    EXPECT_TRUE(has_code_page(little, XCP_UTF16LE));
    PZString big(kUtf8);
    EXPECT_EQ(units(kBig), units(big.ToWCHAR16(XCP_UTF16BE)));
    EXPECT_TRUE(has_code_page(big, XCP_UTF16BE));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ToWchar16RefusesOtherCodePages) {
    PZString text("a");
    EXPECT_EQ(nullptr, text.ToWCHAR16(XCP_UTF16));
    EXPECT_TRUE(Reported("ToWCHAR16", "not support for now."));
    for (const EN_XCP page : {XCP_UTF8, XCP_WCHAR, XCP_GB18030, XCP_NONE}) {
        EXPECT_EQ(nullptr, text.ToWCHAR16(page));
        EXPECT_TRUE(Reported("ToWCHAR16", "invalid param."));
    }
    PZString nothing;
    EXPECT_EQ(nullptr, nothing.ToWCHAR16(XCP_UTF16));
    EXPECT_TRUE(Reported("ToWCHAR16", "not support for now."));
    EXPECT_STREQ("a", text.RefCHAR());
}

TEST_F(PZStringTest, ToWchar16GivesEmptyTextTheAskedCodePage) {
    PZString text("", XCP_NONE);
    ASSERT_NE(nullptr, text.ToWCHAR16(XCP_UTF16BE));
    EXPECT_EQ(0U, text.Length());
    EXPECT_EQ(nullptr, text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF16BE));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringTest, ToWchar16KeepsTextThatCannotBeConverted) {
    PZString text("\xFF");
    EXPECT_EQ(nullptr, text.ToWCHAR16(XCP_UTF16LE));
    EXPECT_TRUE(ReportedLast("ToWCHAR16", "faild to convert"));
    EXPECT_STREQ("\xFF", text.RefCHAR());
    EXPECT_TRUE(has_code_page(text, XCP_UTF8));
}

TEST_F(PZStringTest, ToWchar16DoesNotConvertWideText) {
    PZString text(kWide);
    EXPECT_EQ(nullptr, text.ToWCHAR16(XCP_UTF16LE));
    EXPECT_TRUE(Reported("ToWCHAR16", "not support for now."));
    EXPECT_STREQ(kWide, text.RefWCHAR());
}

TEST_F(PZStringTest, ToWchar16DoesNotSwapBytes) {
    PZString text(kLittle, XCP_UTF16LE);
    const unsigned short* const before = text.ToWCHAR16(XCP_UTF16LE);
    EXPECT_EQ(nullptr, text.ToWCHAR16(XCP_UTF16BE));
    EXPECT_TRUE(Reported("ToWCHAR16", "not support for now. this cp[36] param cp[35]"));
    EXPECT_EQ(before, text.ToWCHAR16(XCP_UTF16LE));
}

// Buffers and pointers

TEST_F(PZStringTest, ConvertsThroughZeroedBuffersOfSettledSizes) {
    iconv_call.Replace(record_room);
    PZString text("abc", XCP_GB18030);  // a page that iconv alone converts
    text.ToCHAR(XCP_EUC_JP);
    EXPECT_EQ(4U * 6U, offeredBytes);
    EXPECT_TRUE(offeredZeros);
    text.ToWCHAR();
    EXPECT_EQ(4U * 4U, offeredBytes);
    EXPECT_TRUE(offeredZeros);
    text.ToCHAR(XCP_GB18030);
    EXPECT_EQ(4U * 6U, offeredBytes);
    EXPECT_TRUE(offeredZeros);
    EXPECT_STREQ("abc", text.RefCHAR());
    text.ToWCHAR16(XCP_UTF16LE);
    EXPECT_EQ(4U * 2U, offeredBytes);
    EXPECT_TRUE(offeredZeros);
    EXPECT_EQ(4, iconv_call.Calls());

    const unsigned short halves[] = {0xD800, 0xD800, 0xD800, 0};  // refused, and by iconv
    PZString noText(halves, XCP_UTF16LE);
    pztest::StdoutCapture output;
    EXPECT_EQ(nullptr, noText.ToCHAR(XCP_UTF8));
    EXPECT_EQ(4U * 6U, offeredBytes);
    EXPECT_TRUE(offeredZeros);
}

TEST_F(PZStringTest, IsCopiedAndConvertedByEightThreadsAtOnce) {
    const PZString original(kUtf8);
    std::vector<int> wrong(8, -1);
    std::vector<std::thread> threads;
    threads.reserve(wrong.size());
    for (int& count : wrong) {
        threads.emplace_back([&count, &original] {
            count = 0;
            for (int round = 0; round < 100; ++round) {
                PZString text(original);
                const wchar_t* const wide = text.ToWCHAR();
                if (wide == nullptr || std::wcscmp(kWide, wide) != 0) ++count;
                const char* const latin = text.ToCHAR(XCP_ISO8859_1);
                if (latin == nullptr || std::strcmp(kLatin1, latin) != 0) ++count;
                if (units(text.ToWCHAR16(XCP_UTF16BE)) != units(kBig)) ++count;
                const char* const back = text.ToTCHAR();
                if (back == nullptr || std::strcmp(kUtf8, back) != 0) ++count;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::vector<int>(8, 0), wrong);
    EXPECT_STREQ(kUtf8, original.RefCHAR());
}

TEST_F(PZStringTest, KeepsItsPointersWhileItIsOnlyRead) {
    PZString text("abc");
    const char* const pointer = text.ToCHAR(XCP_UTF8);
    text.Length();
    text.IndexOf(L"b");
    EXPECT_FALSE(text == L"abc");
    EXPECT_EQ(nullptr, text.RefWCHAR());
    EXPECT_EQ(pointer, text.RefCHAR());
    EXPECT_EQ(pointer, text.ToTCHAR());
}
