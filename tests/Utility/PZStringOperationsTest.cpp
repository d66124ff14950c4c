#include "Framework/Utility/PZString.h"

#include <poll.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/StdoutCapture.h"
#include "support/Uncopyable.h"

namespace {

using Texts = std::vector<std::string>;
using WideTexts = std::vector<std::wstring>;

constexpr unsigned int npos = PZString::npos;
const unsigned short kLittle[] = {0x0061, 0x00E9, 0};
const char* const kNoText = nullptr;
const wchar_t* const kNoWideText = nullptr;

PZString units() {
    return PZString(kLittle, XCP_UTF16LE);
}

/// The elements, which must be narrow texts in UTF-8.
Texts texts(const PZString::SplitList& list) {
    Texts result;
    for (const PZString* element : list) {
        EXPECT_TRUE(*element == PZString(element->RefCHAR(), XCP_UTF8));
        result.emplace_back(element->RefCHAR());
    }
    return result;
}

/// The elements, which must be wide texts without a code page.
WideTexts wide_texts(const PZString::SplitList& list) {
    WideTexts result;
    for (const PZString* element : list) {
        EXPECT_TRUE(*element == PZString(element->RefWCHAR()));
        result.emplace_back(element->RefWCHAR());
    }
    return result;
}

/// A list that ends with its elements.
class OwnedList : private pztest::Uncopyable {
public:
    OwnedList() = default;
    ~OwnedList() { PZString().DeleteSplitString(list); }

    PZString::SplitList list;
};

template <typename T>
Texts split(const PZString& text, T separator) {
    OwnedList owned;
    EXPECT_TRUE(text.Split(owned.list, separator));
    return texts(owned.list);
}

template <typename T>
WideTexts split_wide(const PZString& text, T separator) {
    OwnedList owned;
    EXPECT_TRUE(text.Split(owned.list, separator));
    return wide_texts(owned.list);
}

/// True when `call` has begun in a child process and neither came back nor ended that process
/// within a second.
bool does_not_come_back(const std::function<void()>& call) {
    int fds[2];
    if (::pipe(fds) != 0) return false;
    bool stillInside = false;
    {
        const pztest::ChildProcess child([&] {
            ::close(fds[0]);
            if (::write(fds[1], "", 1) != 1) return 1;
            call();
            return 0;  // closes the pipe
        });
        ::close(fds[1]);
        char begun = 0;
        pollfd end = {fds[0], POLLIN, 0};
        stillInside = ::read(fds[0], &begun, 1) == 1 && ::poll(&end, 1, 1000) == 0;
    }
    ::close(fds[0]);
    return stillInside;
}

class PZStringOperationsTest : public testing::Test {
protected:
    /// True when exactly `message` was reported since the last look, by `operation`.
    bool Reported(const std::string& operation, const std::string& message) {
        const std::string output = capture.Take();
        return pztest::error_messages(output) == Texts{message} &&
               pztest::has_report(output, operation, "PZString.cpp", message);
    }

    bool Silent() { return capture.Take().empty(); }

    OwnedList owned;
    PZString::SplitList& list = owned.list;
    pztest::StdoutCapture capture;
};

}  // namespace

// Comparing

TEST_F(PZStringOperationsTest, IsLessByTheFirstDifferentUnitOrByLength) {
    EXPECT_TRUE(PZString("abc") < PZString("abd"));
    EXPECT_FALSE(PZString("abd") < PZString("abc"));
    EXPECT_TRUE(PZString("ab") < PZString("abc"));
    EXPECT_FALSE(PZString("abc") < PZString("ab"));
    EXPECT_FALSE(PZString("b") < PZString("abc"));
    EXPECT_FALSE(PZString("abc") < PZString("abc"));
    EXPECT_TRUE(PZString("a", XCP_SJIS) < PZString("b", XCP_UTF8));
    EXPECT_TRUE(PZString(L"abc") < PZString(L"abd"));
    EXPECT_TRUE(PZString(L"ab") < PZString(L"abc"));
    EXPECT_FALSE(PZString(L"abc") < PZString(L"ab"));
    EXPECT_FALSE(PZString(L"abc") < PZString(L"abc"));
    EXPECT_TRUE(PZString(L"z") < PZString(L"\u3042"));
}

TEST_F(PZStringOperationsTest, ComparesBytesAsUnsigned) {
    EXPECT_TRUE(PZString("z") < PZString("\xC3\xA9"));
    EXPECT_FALSE(PZString("\xC3\xA9") < PZString("z"));
    EXPECT_TRUE(PZString("z") < "\xC3\xA9");
}

TEST_F(PZStringOperationsTest, IsNotLessThanAnotherForm) {
    EXPECT_FALSE(PZString("a") < PZString(L"b"));
    EXPECT_FALSE(PZString(L"a") < PZString("b"));
    EXPECT_FALSE(PZString() < PZString("b"));
    EXPECT_FALSE(PZString("a") < PZString());
    EXPECT_FALSE(units() < units());
}

TEST_F(PZStringOperationsTest, IsLessThanPlainText) {
    EXPECT_TRUE(PZString("a") < "b");
    EXPECT_FALSE(PZString("a") < "a");
    EXPECT_TRUE(PZString("a") < std::string("ab"));
    EXPECT_FALSE(PZString("b") < std::string("ab"));
    EXPECT_TRUE(PZString(L"a") < L"b");
    EXPECT_FALSE(PZString(L"b") < L"a");
}

TEST_F(PZStringOperationsTest, IsNotLessThanNullOrPlainTextOfAnotherForm) {
    EXPECT_FALSE(PZString("a") < kNoText);
    EXPECT_FALSE(PZString(L"a") < kNoWideText);
    EXPECT_FALSE(PZString(L"a") < "b");
    EXPECT_FALSE(PZString(L"a") < std::string("b"));
    EXPECT_FALSE(PZString("a") < L"b");
    EXPECT_FALSE(PZString() < "b");
    EXPECT_FALSE(PZString() < L"b");
}

TEST_F(PZStringOperationsTest, IsGreaterWhereverItIsNotLess) {
    EXPECT_TRUE(PZString("b") > PZString("a"));
    EXPECT_TRUE(PZString("a") > PZString("a"));
    EXPECT_FALSE(PZString("a") > PZString("b"));
    EXPECT_TRUE(PZString("a") > PZString(L"b"));
    EXPECT_TRUE(PZString("a") > "a");
    EXPECT_FALSE(PZString("a") > "b");
    EXPECT_TRUE(PZString("a") > kNoText);
    EXPECT_TRUE(PZString("a") > std::string("a"));
    EXPECT_FALSE(PZString("a") > std::string("b"));
    EXPECT_TRUE(PZString(L"a") > L"a");
    EXPECT_FALSE(PZString(L"a") > L"b");
    EXPECT_TRUE(PZString(L"a") > kNoWideText);
}

TEST_F(PZStringOperationsTest, EqualsAnObjectWithTheSameTextAndCodePage) {
    EXPECT_TRUE(PZString("a") == PZString("a"));
    EXPECT_FALSE(PZString("a") == PZString("b"));
    EXPECT_FALSE(PZString("a") == PZString("a", XCP_SJIS));
    EXPECT_TRUE(PZString(L"a") == PZString(L"a"));
    EXPECT_FALSE(PZString(L"a") == PZString(L"b"));
}

TEST_F(PZStringOperationsTest, EqualsByCodePageAloneWhereTheFormsDiffer) {
    EXPECT_TRUE(PZString() == PZString());
    EXPECT_FALSE(PZString("a") == PZString(L"a"));
    EXPECT_TRUE(PZString("a", XCP_NONE) == PZString(L"b"));
    EXPECT_TRUE(PZString() == PZString(L"b"));
    const unsigned short other[] = {0x0062, 0};
    EXPECT_TRUE(units() == PZString(other, XCP_UTF16LE));
    EXPECT_FALSE(units() == PZString(kLittle, XCP_UTF16BE));
    PZString wide(L"a");
    wide.Append("b");
    EXPECT_FALSE(wide == PZString(L"ab"));
}

TEST_F(PZStringOperationsTest, EqualsPlainTextOfItsForm) {
    EXPECT_TRUE(PZString("a") == "a");
    EXPECT_TRUE(PZString("a", XCP_SJIS) == "a");
    EXPECT_FALSE(PZString("a") == "ab");
    EXPECT_FALSE(PZString("a") == kNoText);
    EXPECT_FALSE(PZString(L"a") == "a");
    EXPECT_FALSE(PZString() == "");
    EXPECT_FALSE(PZString() == kNoText);
    EXPECT_TRUE(PZString("a") == std::string("a"));
    EXPECT_FALSE(PZString("a") == std::string("a\0b", 3));
    EXPECT_FALSE(PZString(L"a") == std::string("a"));
    EXPECT_TRUE(PZString(L"a") == L"a");
    EXPECT_FALSE(PZString(L"a") == L"b");
    EXPECT_FALSE(PZString(L"a") == kNoWideText);
    EXPECT_FALSE(PZString("a") == L"a");
    EXPECT_FALSE(PZString() == kNoWideText);
}

TEST_F(PZStringOperationsTest, DiffersWhereItDoesNotEqual) {
    EXPECT_FALSE(PZString("a") != PZString("a"));
    EXPECT_TRUE(PZString("a") != PZString("a", XCP_SJIS));
    EXPECT_FALSE(PZString("a") != "a");
    EXPECT_TRUE(PZString("a") != kNoText);
    EXPECT_FALSE(PZString("a") != std::string("a"));
    EXPECT_TRUE(PZString("a") != std::string("b"));
    EXPECT_FALSE(PZString(L"a") != L"a");
    EXPECT_TRUE(PZString(L"a") != L"b");
}

TEST_F(PZStringOperationsTest, IsEqualToNarrowText) {
    EXPECT_TRUE(PZString("a", XCP_SJIS).IsEqual("a"));
    EXPECT_FALSE(PZString("a").IsEqual("b"));
    EXPECT_FALSE(PZString("a").IsEqual(kNoText));
    EXPECT_FALSE(PZString("").IsEqual(kNoText));
    EXPECT_FALSE(PZString(L"a").IsEqual("a"));
    EXPECT_FALSE(PZString(L"a").IsEqual(kNoText));
    EXPECT_TRUE(PZString().IsEqual(kNoText));
    EXPECT_FALSE(PZString().IsEqual(""));
    EXPECT_FALSE(units().IsEqual("a"));
    EXPECT_FALSE(units().IsEqual(kNoText));
    EXPECT_TRUE(PZString("a").IsEqual(std::string("a\0b", 3)));
    EXPECT_FALSE(PZString("a").IsEqual(std::string("b")));
}

TEST_F(PZStringOperationsTest, IsEqualToWideText) {
    EXPECT_TRUE(PZString(L"a").IsEqual(L"a"));
    EXPECT_FALSE(PZString(L"a").IsEqual(L"b"));
    EXPECT_FALSE(PZString(L"").IsEqual(kNoWideText));
    EXPECT_FALSE(PZString("a").IsEqual(L"a"));
    EXPECT_FALSE(PZString("a").IsEqual(kNoWideText));
    EXPECT_TRUE(PZString().IsEqual(kNoWideText));
    EXPECT_FALSE(PZString().IsEqual(L""));
    EXPECT_FALSE(units().IsEqual(L"a"));
    EXPECT_FALSE(units().IsEqual(kNoWideText));
}

TEST_F(PZStringOperationsTest, IsEqualToAnObject) {
    EXPECT_TRUE(PZString("a").IsEqual(PZString("a")));
    EXPECT_FALSE(PZString("a").IsEqual(PZString("b")));
    EXPECT_FALSE(PZString("a").IsEqual(PZString("a", XCP_SJIS)));
    EXPECT_TRUE(PZString(L"a").IsEqual(PZString(L"a")));
    EXPECT_FALSE(PZString(L"a").IsEqual(PZString(L"b")));
    EXPECT_FALSE(PZString("a").IsEqual(PZString(L"a")));
    EXPECT_FALSE(PZString(L"a").IsEqual(PZString("a")));
    EXPECT_FALSE(PZString().IsEqual(PZString("a")));
    EXPECT_FALSE(PZString().IsEqual(PZString(L"a")));
    PZString wide(L"a");
    wide.Append("b");  // has a code page now
    EXPECT_TRUE(wide.IsEqual(PZString(L"ab")));
}

TEST_F(PZStringOperationsTest, IsEqualToAnyObjectWithoutNarrowAndWideText) {
    const unsigned short other[] = {0x0062, 0};
    EXPECT_TRUE(PZString("a").IsEqual(PZString()));
    EXPECT_TRUE(PZString(L"a").IsEqual(PZString()));
    EXPECT_TRUE(PZString("a").IsEqual(units()));
    EXPECT_TRUE(units().IsEqual(PZString(other, XCP_UTF16BE)));
    EXPECT_TRUE(PZString().IsEqual(PZString()));
}

// Measuring

TEST_F(PZStringOperationsTest, CountsUtf8Characters) {
    EXPECT_EQ(4U, PZString("a\xC3\xA9\xE3\x81\x82\xF0\x9F\x98\x80").Length());
    EXPECT_EQ(0U, PZString("").Length());
    EXPECT_EQ(1U, PZString("\x80"
                           "a\xBF")
                      .Length());
    EXPECT_EQ(10U, PZString("a\xC3\xA9\xE3\x81\x82\xF0\x9F\x98\x80").LengthByte());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, DoesNotCountOtherNarrowText) {
    for (const EN_XCP page : {XCP_ISO8859_1, XCP_NONE, XCP_RDS}) {
        const PZString text("abc", page);
        EXPECT_EQ(0U, text.Length());
        EXPECT_TRUE(Reported("Length", "sorry, now under construction..."));
        EXPECT_EQ(3U, text.LengthByte());
        EXPECT_TRUE(Silent());
    }
}

TEST_F(PZStringOperationsTest, CountsWideCharactersAndUnits) {
    EXPECT_EQ(2U, PZString(L"a\u3042").Length());
    EXPECT_EQ(8U, PZString(L"a\u3042").LengthByte());
    EXPECT_EQ(2U, units().Length());
    EXPECT_EQ(4U, units().LengthByte());
    EXPECT_EQ(0U, PZString().Length());
    EXPECT_EQ(0U, PZString().LengthByte());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, MeasuresTheFirstCharactersOfUtf8) {
    const char text[] = "a\xC3\xA9\xE3\x81\x82z";
    EXPECT_EQ(0U, PZString::LengthByte(text, 7, 0));
    EXPECT_EQ(1U, PZString::LengthByte(text, 7, 1));
    EXPECT_EQ(3U, PZString::LengthByte(text, 7, 2));
    EXPECT_EQ(6U, PZString::LengthByte(text, 7, 3));
    EXPECT_EQ(7U, PZString::LengthByte(text, 7, 4));
    EXPECT_EQ(7U, PZString::LengthByte(text, 7, npos));
    EXPECT_EQ(2U, PZString::LengthByte(text, 2, 2));
    EXPECT_EQ(0U, PZString::LengthByte(text, 0, 2));
    EXPECT_EQ(0U, PZString::LengthByte(nullptr, 0, 2));
    EXPECT_EQ(2U, PZString::LengthByte("\x81\x82z", 3, 0));
}

// Searching

TEST_F(PZStringOperationsTest, FindsBytesInNarrowText) {
    const PZString text("a\xC3\xA9-a\xC3\xA9");
    EXPECT_EQ(1U, text.IndexOf("\xC3\xA9"));
    EXPECT_EQ(1U, text.IndexOf("\xC3\xA9", 1));
    EXPECT_EQ(5U, text.IndexOf("\xC3\xA9", 2));
    EXPECT_EQ(npos, text.IndexOf("\xC3\xA9", 6));
    EXPECT_EQ(npos, text.IndexOf("a", 100));
    EXPECT_EQ(npos, text.IndexOf("a", npos));
    EXPECT_EQ(npos, text.IndexOf("x"));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, FindsBytesWhereTheStandardSearchFindsThem) {
    std::mt19937 random(1);
    for (int round = 0; round < 20000; ++round) {
        // Few letters, so that much is found, and much nearly so.
        const auto text_of = [&random](size_t size) {
            std::string text(size, '\0');
            for (char& c : text) c = "abc"[random() % (1 + random() % 3)];
            return text;
        };
        const std::string haystack = text_of(random() % 100);
        const std::string needle = text_of(1 + random() % (1 + random() % 40));
        const auto start = static_cast<unsigned int>(random() % 110);
        const size_t expected = haystack.find(needle, start);
        ASSERT_EQ(static_cast<unsigned int>(expected),
                  PZString(haystack).IndexOf(needle.c_str(), start))
            << haystack << " " << needle << " " << start;
    }
}

TEST_F(PZStringOperationsTest, FindsBytesInTextsThatRepeatThemselves) {
    const std::string haystack(200000, 'a');
    const std::string half(100000, 'a');
    const PZString text(haystack + "b");
    EXPECT_EQ(PZString::npos, text.IndexOf((half + "ca").c_str()));
    EXPECT_EQ(100000U, text.IndexOf((half + "b").c_str()));
    EXPECT_EQ(PZString::npos, text.IndexOf(("ab" + half).c_str()));
    EXPECT_EQ(PZString::npos, PZString(haystack).IndexOf(("aa" + half + "b" + half).c_str()));
    EXPECT_EQ(0U, text.IndexOf(half.c_str()));
    EXPECT_EQ(100000U, text.IndexOf(half.c_str(), 100000));
    EXPECT_EQ(PZString::npos, text.IndexOf(half.c_str(), 100001));
}

TEST_F(PZStringOperationsTest, TextsThatRepeatThemselvesTakeNoSquareOfTheirLength) {
    const PZString text(std::string(4 << 20, 'a'));
    const std::string half(1 << 20, 'a');
    const auto used_time = [] {
        timespec time = {};
        EXPECT_EQ(0, clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time));
        return time.tv_sec;
    };
    const time_t before = used_time();
    // Each of two million places equals half of what is sought.
    EXPECT_EQ(PZString::npos, text.IndexOf((half + "b" + half).c_str()));
    EXPECT_GT(5, used_time() - before);
}

TEST_F(PZStringOperationsTest, FindsWideTextInWideText) {
    const PZString text(L"a\u00E9-a\u00E9");
    EXPECT_EQ(1U, text.IndexOf(L"\u00E9"));
    EXPECT_EQ(4U, text.IndexOf(L"\u00E9", 2));
    EXPECT_EQ(npos, text.IndexOf(L"\u00E9", 5));
    EXPECT_EQ(npos, text.IndexOf(L"x"));
}

TEST_F(PZStringOperationsTest, FindsUtf8InWideText) {
    const PZString text(L"a\u00E9-a\u00E9");
    EXPECT_EQ(1U, text.IndexOf("\xC3\xA9"));
    EXPECT_EQ(4U, text.IndexOf("\xC3\xA9", 2));
    EXPECT_TRUE(Silent());
    EXPECT_EQ(npos, text.IndexOf("\xFF"));
    EXPECT_FALSE(Silent());
}

TEST_F(PZStringOperationsTest, FindsWideTextInNarrowTextFromTheBeginningOnly) {
    const PZString text("-\xE9-\xE9", XCP_ISO8859_1);
    EXPECT_EQ(1U, text.IndexOf(L"\u00E9"));
    EXPECT_EQ(1U, text.IndexOf(L"\u00E9", 2));
    EXPECT_EQ(1U, text.IndexOf(L"\u00E9", npos));
    EXPECT_TRUE(Silent());
    EXPECT_EQ(npos, text.IndexOf(L"\u3042"));
}

TEST_F(PZStringOperationsTest, FindsAStandardStringFromTheBeginningOnly) {
    EXPECT_EQ(0U, PZString("abcabc").IndexOf(std::string("abc"), 5));
    EXPECT_EQ(3U, PZString("xyzabc").IndexOf(std::string("abc")));
    EXPECT_EQ(0U, PZString(L"abc").IndexOf(std::string("abc"), 2));
}

TEST_F(PZStringOperationsTest, FindsAnObjectOfTheSameForm) {
    EXPECT_EQ(2U, PZString("abab", XCP_SJIS).IndexOf(PZString("ab"), 1));
    EXPECT_EQ(0U, PZString("abab").IndexOf(PZString("ab")));
    EXPECT_EQ(2U, PZString(L"abab").IndexOf(PZString(L"ab"), 1));
    EXPECT_EQ(npos, PZString("abab").IndexOf(PZString(L"ab")));
    EXPECT_EQ(npos, PZString(L"abab").IndexOf(PZString("ab")));
    EXPECT_EQ(npos, PZString("abab").IndexOf(PZString()));
    EXPECT_EQ(npos, PZString().IndexOf(PZString("ab")));
    EXPECT_EQ(npos, units().IndexOf(units()));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, FindsNothingForNullAndEmptyText) {
    for (const PZString& text : {PZString("a"), PZString(L"a"), PZString()}) {
        EXPECT_EQ(npos, text.IndexOf(kNoText));
        EXPECT_EQ(npos, text.IndexOf(""));
        EXPECT_EQ(npos, text.IndexOf(kNoWideText));
        EXPECT_EQ(npos, text.IndexOf(L""));
        EXPECT_EQ(npos, text.IndexOf(std::string()));
        EXPECT_EQ(npos, text.LastIndexOf(kNoText));
        EXPECT_EQ(npos, text.LastIndexOf(""));
    }
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, FindsNothingWhereNoNarrowOrWideTextIsHeld) {
    for (const PZString& text : {PZString(), units()}) {
        EXPECT_EQ(npos, text.IndexOf("a"));
        EXPECT_EQ(npos, text.IndexOf(L"a"));
    }
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, FindsTheLastOccurrence) {
    const PZString text("abab");
    EXPECT_EQ(2U, text.LastIndexOf("ab"));
    EXPECT_EQ(2U, text.LastIndexOf("ab", 4));
    EXPECT_EQ(2U, text.LastIndexOf("ab", 2));
    EXPECT_EQ(0U, text.LastIndexOf("ab", 1));
    EXPECT_EQ(0U, text.LastIndexOf("ab", 0));
    EXPECT_EQ(npos, text.LastIndexOf("b", 0));
    EXPECT_EQ(npos, text.LastIndexOf("ab", 5));
    EXPECT_EQ(npos, text.LastIndexOf("x"));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, TakesTheNumberOfCharactersForAPositionInBytes) {
    const PZString text("\xC3\xA9\xC3\xA9-");  // 3 characters, 5 bytes
    EXPECT_EQ(2U, text.LastIndexOf("\xC3\xA9"));
    EXPECT_EQ(npos, text.LastIndexOf("-"));
    EXPECT_EQ(npos, text.LastIndexOf("-", 4));
}

TEST_F(PZStringOperationsTest, SearchesBackwardsOnlyAtTheStartOfUncountedText) {
    const PZString text("abab", XCP_ISO8859_1);
    EXPECT_EQ(0U, text.LastIndexOf("ab"));
    EXPECT_TRUE(Reported("Length", "sorry, now under construction..."));
    EXPECT_EQ(npos, text.LastIndexOf("ab", 2));
    EXPECT_TRUE(Reported("Length", "sorry, now under construction..."));
}

TEST_F(PZStringOperationsTest, SearchesBackwardsInNarrowTextOnly) {
    for (const PZString& text : {PZString(L"a"), units(), PZString()}) {
        EXPECT_EQ(npos, text.LastIndexOf("a"));
        EXPECT_TRUE(Reported("LastIndexOf", "not support for now."));
    }
}

// Cutting

TEST_F(PZStringOperationsTest, CutsNarrowTextToTheBytesBetweenTwoPositions) {
    PZString text("abcdef", XCP_SJIS);
    EXPECT_EQ(&text, &text.SubStr(1, 3));
    EXPECT_STREQ("bcd", text.RefCHAR());
    EXPECT_TRUE(text == PZString("bcd", XCP_SJIS));
    EXPECT_STREQ("cd", text.SubStr(1).RefCHAR());
    EXPECT_STREQ("cd", text.SubStr(0, 1).RefCHAR());
    EXPECT_STREQ("d", text.SubStr(1, npos).RefCHAR());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, DoesNotCutOutsideOfItsText) {
    PZString text("abcdef");
    EXPECT_STREQ("abcdef", text.SubStr(4, 2).RefCHAR());
    EXPECT_STREQ("abcdef", text.SubStr(0, 6).RefCHAR());
    EXPECT_STREQ("abcdef", text.SubStr(6, 3).RefCHAR());
    EXPECT_STREQ("abcdef", text.SubStr(6).RefCHAR());
    EXPECT_STREQ("abcdef", text.SubStr(6, 5).RefCHAR());
    EXPECT_STREQ(L"ab", PZString(L"ab").SubStr(8, 7).RefWCHAR());
    EXPECT_STREQ("", PZString("").SubStr(0).RefCHAR());
    EXPECT_EQ(nullptr, PZString().SubStr(0).RefCHAR());
    EXPECT_EQ(nullptr, PZString().SubStr(0, 0).RefCHAR());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, CutsToNothingWhenTheEndIsRightBeforeTheStart) {
    EXPECT_STREQ("", PZString("abcdef").SubStr(4, 3).RefCHAR());
    EXPECT_STREQ(L"", PZString(L"abcdef").SubStr(4, 3).RefWCHAR());
}

TEST_F(PZStringOperationsTest, CutsWideTextToTheCharactersBetweenTwoPositions) {
    PZString text(L"abcdef");
    EXPECT_EQ(&text, &text.SubStr(1, 3));
    EXPECT_STREQ(L"bcd", text.RefWCHAR());
    EXPECT_STREQ(L"cd", text.SubStr(1).RefWCHAR());
    EXPECT_STREQ(L"cd", text.SubStr(0, 8).RefWCHAR());
    EXPECT_STREQ(L"cd", text.SubStr(0, 7).RefWCHAR());
    EXPECT_STREQ(L"", text.SubStr(2, 7).RefWCHAR());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, ThrowsWhenACutBeginsAfterTheWideText) {
    PZString text(L"ab");
    try {
        text.SubStr(3, 5);
        ADD_FAILURE() << "came back";
    } catch (const std::out_of_range& error) {
        EXPECT_EQ(0U, std::string(error.what()).find("basic_string::substr"));
    }
    EXPECT_STREQ(L"ab", text.RefWCHAR());
    EXPECT_STREQ(L"ab", text.SubStr(8, 8).RefWCHAR());
}

TEST_F(PZStringOperationsTest, LeavesTextOfUnitsUncut) {
    PZString text = units();
    text.SubStr(0, 1);
    EXPECT_TRUE(Reported("SubStr", "not support for now."));
    EXPECT_EQ(2U, text.Length());
    text.SubStr(0, 4);
    EXPECT_TRUE(Silent());
}

// Splitting

TEST_F(PZStringOperationsTest, SplitsAtEveryStringAndKeepsEveryPiece) {
    EXPECT_EQ((Texts{"a", "b", ""}), split(PZString("a,b,"), ","));
    EXPECT_EQ((Texts{"", "a", "", "b"}), split(PZString(",a,,b"), ","));
    EXPECT_EQ((Texts{"abc"}), split(PZString("abc"), ","));
    EXPECT_EQ((Texts{"a", "b"}), split(PZString("a--b"), "--"));
    EXPECT_EQ((Texts{"a", "-b"}), split(PZString("a---b"), "--"));
    EXPECT_EQ((Texts{""}), split(PZString(""), ","));
    EXPECT_EQ((Texts{"a,b"}), split(PZString("a,b"), ""));
    EXPECT_EQ((Texts{""}), split(PZString(""), ""));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, SplitsWideTextAtEveryWideString) {
    EXPECT_EQ((WideTexts{L"a", L"b", L""}), split_wide(PZString(L"a,b,"), L","));
    EXPECT_EQ((WideTexts{L"", L"a", L"", L"b"}), split_wide(PZString(L",a,,b"), L","));
    EXPECT_EQ((WideTexts{L""}), split_wide(PZString(L""), L","));
    EXPECT_EQ((WideTexts{L"a,b"}), split_wide(PZString(L"a,b"), L""));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, SplitsAtEveryCharacterAsLinesAreRead) {
    EXPECT_EQ((Texts{"a", "b"}), split(PZString("a,b,"), ','));
    EXPECT_EQ((Texts{"", "a", "", "b"}), split(PZString(",a,,b"), ','));
    EXPECT_EQ((Texts{"a", ""}), split(PZString("a,,"), ','));
    EXPECT_EQ((Texts{""}), split(PZString(","), ','));
    EXPECT_EQ((Texts{"abc"}), split(PZString("abc"), ','));
    EXPECT_EQ((Texts{"abc"}), split(PZString("abc"), '\0'));
    EXPECT_EQ(Texts{}, split(PZString(""), ','));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, SplitsWideTextAtEveryWideCharacter) {
    EXPECT_EQ((WideTexts{L"a", L"b"}), split_wide(PZString(L"a\u3042b\u3042"), L'\u3042'));
    EXPECT_EQ((WideTexts{L"", L"a", L"", L"b"}), split_wide(PZString(L",a,,b"), L','));
    EXPECT_EQ(WideTexts{}, split_wide(PZString(L""), L','));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, GivesNarrowPiecesUtf8WhateverTheCodePage) {
    EXPECT_EQ((Texts{"\xE8", "\xE9"}), split(PZString("\xE8,\xE9", XCP_ISO8859_1), ","));
    EXPECT_EQ((Texts{"\xE8", "\xE9"}), split(PZString("\xE8,\xE9", XCP_ISO8859_1), ','));
}

TEST_F(PZStringOperationsTest, SplitsWideTextAtANarrowCharacterLikeAtAString) {
    EXPECT_EQ((WideTexts{L"a", L"b", L""}), split_wide(PZString(L"a,b,"), ','));
    EXPECT_EQ((WideTexts{L""}), split_wide(PZString(L""), ','));
    EXPECT_EQ((WideTexts{L"a,b"}), split_wide(PZString(L"a,b"), '\0'));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, SplitsNarrowTextAtAWideCharacterLikeAtAString) {
    EXPECT_EQ((Texts{"a", "b", ""}), split(PZString("a\xE9"
                                                    "b\xE9",
                                                    XCP_ISO8859_1),
                                           L'\u00E9'));
    EXPECT_EQ((Texts{""}), split(PZString(""), L','));
    EXPECT_EQ((Texts{"a,b"}), split(PZString("a,b"), L'\0'));
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, DoesNotSplitAtACharacterThatCannotBeConverted) {
    EXPECT_FALSE(PZString(L"ab").Split(list, '\xFF'));
    EXPECT_FALSE(PZString("ab", XCP_ISO8859_1).Split(list, L'\u3042'));
    EXPECT_FALSE(PZString("ab", XCP_NONE).Split(list, L','));
    EXPECT_EQ(0U, list.GetCount());
    EXPECT_FALSE(Silent());
}

TEST_F(PZStringOperationsTest, DoesNotSplitAtNull) {
    for (const PZString& text : {PZString("a"), PZString(L"a"), units(), PZString()}) {
        EXPECT_FALSE(text.Split(list, kNoText));
        EXPECT_FALSE(text.Split(list, kNoWideText));
    }
    EXPECT_EQ(0U, list.GetCount());
    EXPECT_TRUE(Silent());
}

TEST_F(PZStringOperationsTest, ReportsASplitWithoutNarrowOrWideText) {
    for (const PZString& text : {PZString(), units()}) {
        EXPECT_FALSE(text.Split(list, ","));
        EXPECT_TRUE(Reported("Split", "no string"));
        EXPECT_FALSE(text.Split(list, L","));
        EXPECT_TRUE(Reported("Split", "no string"));
        EXPECT_FALSE(text.Split(list, ','));
        EXPECT_TRUE(Reported("Split", "no string"));
        EXPECT_FALSE(text.Split(list, L','));
        EXPECT_TRUE(Reported("Split", "no string"));
    }
    EXPECT_EQ(0U, list.GetCount());
}

TEST_F(PZStringOperationsTest, AppendsPiecesToTheListAndKeepsItsOwnText) {
    const PZString text("a,b");
    EXPECT_TRUE(text.Split(list, ","));
    EXPECT_TRUE(text.Split(list, ','));
    EXPECT_EQ((Texts{"a", "b", "a", "b"}), texts(list));
    EXPECT_STREQ("a,b", text.RefCHAR());
}

TEST_F(PZStringOperationsTest, NeverReturnsFromASplitOfWideTextAtANarrowString) {
    const PZString text(L"a,b");
    EXPECT_TRUE(does_not_come_back([&] { text.Split(list, ","); }));
}

TEST_F(PZStringOperationsTest, NeverReturnsFromASplitOfNarrowTextAtAWideString) {
    const PZString text("a,b");
    EXPECT_TRUE(does_not_come_back([&] { text.Split(list, L","); }));
}

TEST_F(PZStringOperationsTest, DeletesThePiecesAndEmptiesTheList) {
    const PZString text("a,b,c");
    ASSERT_TRUE(text.Split(list, ","));
    list.AddTail(nullptr);
    PZString().DeleteSplitString(list);
    EXPECT_EQ(0U, list.GetCount());
    EXPECT_EQ(nullptr, list.GetHead());
    text.DeleteSplitString(list);
    EXPECT_EQ(0U, list.GetCount());
}
