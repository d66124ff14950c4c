#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/RunCommand.h"
#include "support/StdoutCapture.h"

// Conversion compared with iconv(1), a program of its own that is fed through files: what a page
// holds, how each of its characters is written, and what it refuses.

using pztest::IconvResult;
using pztest::run_iconv;
using pztest::StdoutCapture;

namespace {

struct Page {
    EN_XCP page;
    const char* name;  // for iconv(1)
};

constexpr Page kSingleByte[] = {{XCP_ASCII, "ASCII"},
                                {XCP_CP850, "CP850"},
                                {XCP_CP874, "CP874"},
                                {XCP_CP1251, "CP1251"},
                                {XCP_CP1252, "CP1252"},
                                {XCP_CP1253, "CP1253"},
                                {XCP_CP1254, "CP1254"},
                                {XCP_CP1256, "CP1256"},
                                {XCP_ISO646_US, "ISO646-US"},
                                {XCP_ISO8859_1, "ISO8859-1"},
                                {XCP_ISO8859_2, "ISO8859-2"},
                                {XCP_ISO8859_4, "ISO8859-4"},
                                {XCP_ISO8859_5, "ISO8859-5"},
                                {XCP_ISO8859_6, "ISO8859-6"},
                                {XCP_ISO8859_7, "ISO8859-7"},
                                {XCP_ISO8859_8, "ISO8859-8"},
                                {XCP_ISO8859_9, "ISO8859-9"},
                                {XCP_ISO8859_10, "ISO8859-10"},
                                {XCP_ISO8859_16, "ISO8859-16"},
                                {XCP_KOI8_R, "KOI8-R"},
                                {XCP_KOI8_U, "KOI8-U"},
                                {XCP_WINDOWS_1250, "WINDOWS-1250"},
                                {XCP_WINDOWS_1251, "WINDOWS-1251"},
                                {XCP_WINDOWS_1256, "WINDOWS-1256"}};

// Pages in which a character is written the same wherever it stands.
constexpr Page kMultiByte[] = {
    {XCP_SJIS, "SJIS"},   {XCP_CP932, "CP932"},      {XCP_CP936, "CP936"},
    {XCP_CP949, "CP949"}, {XCP_CP950, "CP950"},      {XCP_GB18030, "GB18030"},
    {XCP_BIG5, "BIG-5"},  {XCP_EUC_JP, "EUC-JP"},    {XCP_EUC_KR, "EUC-KR"},
    {XCP_UTF8, "UTF-8"},  {XCP_UTF16BE, "UTF-16BE"}, {XCP_UTF16LE, "UTF-16LE"}};

// Pages with shift sequences.
constexpr Page kStateful[] = {{XCP_ISO2022_JP, "ISO-2022-JP"},
                              {XCP_ISO2022_KR, "ISO-2022-KR"},
                              {XCP_ISO2022_CN, "ISO-2022-CN"}};

constexpr size_t kSampleSize = 500;

constexpr bool is_utf16(EN_XCP page) {
    return page == XCP_UTF16BE || page == XCP_UTF16LE;
}

/// A character in UTF-8.
std::string utf8(unsigned int codePoint) {
    const auto byte = [](unsigned int value) { return static_cast<char>(value); };
    const auto tail = [&](unsigned int shift) { return byte(0x80 | (codePoint >> shift & 0x3F)); };
    if (codePoint < 0x80) return {byte(codePoint)};
    if (codePoint < 0x800) return {byte(0xC0 | codePoint >> 6), tail(0)};
    if (codePoint < 0x10000) return {byte(0xE0 | codePoint >> 12), tail(6), tail(0)};
    return {byte(0xF0 | codePoint >> 18), tail(12), tail(6), tail(0)};
}

/// All characters that a page may hold, but the line feed; and some above U+FFFF.
const std::vector<std::string>& all_characters() {
    static const std::vector<std::string> characters = [] {
        std::vector<std::string> list;
        for (unsigned int c = 1; c < 0x20400; ++c) {
            if (c == '\n' || (c >= 0xD800 && c < 0xE000)) continue;
            if (c >= 0x10000 && c < 0x20000) continue;
            list.push_back(utf8(c));
        }
        return list;
    }();
    return characters;
}

std::string join(const std::vector<std::string>& lines) {
    std::string text;
    for (const std::string& line : lines) text += line + "\n";
    return text;
}

/// The lines of a text in which `feed` ends each.
std::vector<std::string> split(const std::string& text, const std::string& feed = "\n") {
    std::vector<std::string> lines;
    for (size_t start = 0; start < text.size();) {
        size_t end = text.find(feed, start);
        while (end != std::string::npos && (end - start) % feed.size() != 0) {
            end = text.find(feed, end + 1);
        }
        if (end == std::string::npos) end = text.size();
        lines.push_back(text.substr(start, end - start));
        start = end + feed.size();
    }
    return lines;
}

std::string line_feed_of(EN_XCP page) {
    if (page == XCP_UTF16BE) return std::string("\0\n", 2);
    if (page == XCP_UTF16LE) return std::string("\n\0", 2);
    return "\n";
}

/// What the library converts a text into; "" when it refuses.
std::string convert(const std::string& text, EN_XCP from, EN_XCP to) {
    std::vector<char> dst(8 * text.size() + 16);
    const int units = pz_cp_conv(dst.data(), static_cast<unsigned int>(dst.size()), to, text.data(),
                                 static_cast<unsigned int>(text.size()), from);
    if (units < 1) return "";
    return std::string(dst.data(), static_cast<size_t>(is_utf16(to) ? 2 * units : units));
}

/// A character, and how iconv(1) writes it.
struct Encoded {
    std::string character;
    std::string bytes;
};

/// What iconv(1) makes of all characters.
struct Charset {
    std::vector<Encoded> held;
    std::vector<std::string> refused;
};

Charset charset_of(const Page& page) {
    const std::vector<std::string>& characters = all_characters();
    const std::vector<std::string> lines = split(
        run_iconv("UTF-8", page.name, join(characters), "-c").output, line_feed_of(page.page));
    Charset set;
    EXPECT_EQ(characters.size(), lines.size()) << page.name;
    if (characters.size() != lines.size()) return set;
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].empty()) {
            set.refused.push_back(characters[i]);
        } else {
            set.held.push_back({characters[i], lines[i]});
        }
    }
    return set;
}

/// At most `count` of `list`, evenly spread, the last among them.
template <typename T>
std::vector<T> sample_of(const std::vector<T>& list, size_t count) {
    if (list.size() <= count) return list;
    std::vector<T> sample;
    for (size_t i = 1; i <= count; ++i) sample.push_back(list[i * list.size() / count - 1]);
    return sample;
}

/// Compares the encoded characters in both directions with iconv(1).
void expect_same_in_both_directions(const Page& page, const std::vector<Encoded>& characters) {
    const std::string feed = line_feed_of(page.page);
    std::string text;
    for (const Encoded& encoded : characters) text += encoded.bytes + feed;
    const IconvResult decoded = run_iconv(page.name, "UTF-8", text);
    ASSERT_EQ(0, decoded.status) << page.name << decoded.error;
    const std::vector<std::string> back = split(decoded.output);
    ASSERT_EQ(characters.size(), back.size()) << page.name;
    for (size_t i = 0; i < characters.size(); ++i) {
        const Encoded& encoded = characters[i];
        EXPECT_EQ(encoded.bytes, convert(encoded.character, XCP_UTF8, page.page))
            << page.name << " " << encoded.character;
        EXPECT_EQ(back[i], convert(encoded.bytes, page.page, XCP_UTF8))
            << page.name << " " << encoded.character;
    }
    EXPECT_EQ(decoded.output, convert(text, page.page, XCP_UTF8)) << page.name;
}

/// Each of the texts by itself is refused, with one report.
void expect_refused(const std::vector<std::string>& texts, EN_XCP from, EN_XCP to,
                    const char* what) {
    StdoutCapture output;
    for (const std::string& text : texts) {
        EXPECT_EQ("", convert(text, from, to)) << what << " " << text;
    }
    EXPECT_EQ(texts.size(),
              pztest::count_of(output.Take(), "conv_character_code : iconv error [-1] ["))
        << what;
}

}  // namespace

TEST(pz_cp_oracleTest, WritesEveryCharacterOfEverySingleBytePageAndReadsItBack) {
    for (const Page& page : kSingleByte) {
        const Charset set = charset_of(page);
        ASSERT_GE(set.held.size(), 126U) << page.name;
        ASSERT_LE(set.held.size(), 256U) << page.name;
        StdoutCapture output;
        expect_same_in_both_directions(page, set.held);
        EXPECT_EQ("", output.Take());
    }
}

TEST(pz_cp_oracleTest, RefusesCharactersThatASingleBytePageLacks) {
    for (const Page& page : kSingleByte) {
        const Charset set = charset_of(page);
        ASSERT_FALSE(set.refused.empty()) << page.name;
        const std::vector<std::string> sample = sample_of(set.refused, 100);
        EXPECT_EQ(1, run_iconv("UTF-8", page.name, sample[0]).status) << page.name;
        expect_refused(sample, XCP_UTF8, page.page, page.name);
    }
}

TEST(pz_cp_oracleTest, RefusesATextWithAnUndefinedByteWhereIconvStops) {
    unsigned int pagesWithGaps = 0;
    for (const Page& page : kSingleByte) {
        // Every byte in a text of its own, all in one run of iconv(1).
        std::string lines;
        for (int byte = 0x80; byte <= 0xFF; ++byte) lines += {'a', static_cast<char>(byte), '\n'};
        const std::vector<std::string> decoded =
            split(run_iconv(page.name, "UTF-8", lines, "-c").output);
        ASSERT_EQ(128U, decoded.size()) << page.name;
        std::vector<std::string> refused;
        for (size_t i = 0; i < decoded.size(); ++i) {
            if (decoded[i].size() > 1) continue;
            refused.push_back({'a', static_cast<char>(0x80 + i), 'b'});
        }
        if (refused.empty()) continue;
        ++pagesWithGaps;
        expect_refused(refused, page.page, XCP_UTF8, page.name);
        const IconvResult result = run_iconv(page.name, "UTF-8", refused[0]);
        EXPECT_EQ(1, result.status) << page.name;
        EXPECT_EQ("a", result.output) << page.name;
        EXPECT_NE(std::string::npos, result.error.find("position 1")) << result.error;
    }
    // Both names of ASCII and some others have gaps; the common pages have none.
    EXPECT_GE(pagesWithGaps, 8U);
    EXPECT_LT(pagesWithGaps, std::size(kSingleByte));
}

TEST(pz_cp_oracleTest, WritesASampleOfEveryMultiBytePageAndReadsItBack) {
    for (const Page& page : kMultiByte) {
        const std::vector<Encoded> sample = sample_of(charset_of(page).held, kSampleSize);
        ASSERT_EQ(kSampleSize, sample.size()) << page.name;
        StdoutCapture output;
        expect_same_in_both_directions(page, sample);
        EXPECT_EQ("", output.Take());
    }
}

TEST(pz_cp_oracleTest, RefusesCharactersThatAMultiBytePageLacks) {
    for (const Page& page : kMultiByte) {
        const Charset set = charset_of(page);
        if (set.refused.empty()) {
            EXPECT_TRUE(page.page == XCP_UTF8 || is_utf16(page.page)) << page.name;
            continue;
        }
        expect_refused(sample_of(set.refused, 100), XCP_UTF8, page.page, page.name);
    }
}

TEST(pz_cp_oracleTest, ReadsAndRefusesPairsOfBytesAsIconvDoes) {
    constexpr unsigned char kSecond[] = {0x20, 0x39, 0x40, 0x7E, 0x7F, 0x80, 0xA1, 0xFE, 0xFF};
    for (const Page& page : kMultiByte) {
        if (is_utf16(page.page)) continue;
        StdoutCapture output;
        std::vector<std::string> accepted;
        std::vector<std::string> refused;
        std::string decoded;
        for (int first = 0x80; first <= 0xFF; ++first) {
            for (const unsigned char second : kSecond) {
                const std::string pair = {static_cast<char>(first), static_cast<char>(second)};
                const std::string text = convert(pair, page.page, XCP_UTF8);
                (text.empty() ? refused : accepted).push_back(pair);
                if (!text.empty()) decoded += text + "\n";
            }
        }
        ASSERT_FALSE(accepted.empty()) << page.name;
        const IconvResult result = run_iconv(page.name, "UTF-8", join(accepted));
        EXPECT_EQ(0, result.status) << page.name << result.error;
        EXPECT_EQ(decoded, result.output) << page.name;
        ASSERT_FALSE(refused.empty()) << page.name;
        for (const std::string& pair : sample_of(refused, 20)) {
            EXPECT_EQ(1, run_iconv(page.name, "UTF-8", pair).status) << page.name;
        }
    }
}

TEST(pz_cp_oracleTest, WritesASampleOfEveryPageWithShiftsAndReadsItBack) {
    for (const Page& page : kStateful) {
        // Beyond ASCII, to which the shifts themselves belong.
        std::vector<std::string> candidates = all_characters();
        candidates.erase(std::remove_if(candidates.begin(), candidates.end(),
                                        [](const std::string& c) { return c < "\x80"; }),
                         candidates.end());
        const IconvResult kept = run_iconv("UTF-8", page.name, join(candidates), "-c");
        std::vector<std::string> held = split(run_iconv(page.name, "UTF-8", kept.output).output);
        held.erase(std::remove(held.begin(), held.end(), ""), held.end());
        const std::vector<std::string> sample = sample_of(held, kSampleSize);
        ASSERT_EQ(kSampleSize, sample.size()) << page.name;

        const std::string text = join(sample);
        const IconvResult encoded = run_iconv("UTF-8", page.name, text);
        ASSERT_EQ(0, encoded.status) << page.name << encoded.error;
        EXPECT_EQ(encoded.output, convert(text, XCP_UTF8, page.page)) << page.name;
        EXPECT_EQ(text, convert(encoded.output, page.page, XCP_UTF8)) << page.name;
        for (const std::string& character : sample) {
            EXPECT_EQ(character,
                      convert(convert(character, XCP_UTF8, page.page), page.page, XCP_UTF8))
                << page.name;
        }
    }
}

TEST(pz_cp_oracleTest, RefusesWhatAPageWithShiftsLacks) {
    for (const Page& page : kStateful) {
        for (const std::string text :
             {"\xC3\xBF", "\xF0\x9F\x98\x80"}) {  // y with diaeresis, emoji
            EXPECT_EQ(1, run_iconv("UTF-8", page.name, text).status) << page.name;
            expect_refused({text}, XCP_UTF8, page.page, page.name);
        }
        for (const std::string bytes : {"\x1B%\x80", "a\xFF"}) {
            EXPECT_EQ(1, run_iconv(page.name, "UTF-8", bytes).status) << page.name;
            expect_refused({bytes}, page.page, XCP_UTF8, page.name);
        }
    }
}

// Wide and 16-bit forms, with characters above U+FFFF

namespace {

/// Characters of every plane, the first and the last of each range among them.
std::vector<unsigned int> code_points() {
    std::vector<unsigned int> list = {0x01,   0x7F,   0x80,    0x7FF,   0x800,   0xD7FF,
                                      0xE000, 0xFFFD, 0x10000, 0x103FF, 0x10400, 0x10FFFF};
    for (unsigned int plane = 0; plane <= 0x10; ++plane) {
        for (unsigned int c = 0x0123; c < 0xD800; c += 0x765) list.push_back(plane << 16 | c);
    }
    return list;
}

std::string text_of(const std::vector<unsigned int>& codePoints) {
    std::string text;
    for (const unsigned int c : codePoints) text += utf8(c);
    return text;
}

}  // namespace

TEST(pz_cp_oracleTest, TakesEveryPlaneThroughTheWideForm) {
    const std::vector<unsigned int> expected = code_points();
    const std::string text = text_of(expected);
    std::vector<wchar_t> wide(expected.size() + 1);
    ASSERT_EQ(static_cast<int>(expected.size()),
              pz_mbtowc(wide.data(), static_cast<unsigned int>(wide.size()), text.data(),
                        static_cast<unsigned int>(text.size()), XCP_UTF8));
    const std::string bytes(reinterpret_cast<const char*>(wide.data()),
                            expected.size() * sizeof(wchar_t));
    EXPECT_EQ(run_iconv("UTF-8", "WCHAR_T", text).output, bytes);
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(expected[i], static_cast<unsigned int>(wide[i]));
    }

    std::vector<char> back(text.size() + 1);
    ASSERT_EQ(
        static_cast<int>(text.size()),
        pz_wctomb(back.data(), static_cast<unsigned int>(back.size()), wide.data(), -1, XCP_UTF8));
    EXPECT_EQ(text, back.data());
}

TEST(pz_cp_oracleTest, TakesEveryPlaneThroughThe16BitForms) {
    const std::vector<unsigned int> characters = code_points();
    const std::string text = text_of(characters);
    size_t units = 0;
    for (const unsigned int c : characters) units += c > 0xFFFF ? 2 : 1;
    for (const Page& page : {Page{XCP_UTF16BE, "UTF-16BE"}, Page{XCP_UTF16LE, "UTF-16LE"}}) {
        std::vector<unsigned short> form(units + 1);
        ASSERT_EQ(static_cast<int>(units),
                  pz_mbtowc16(form.data(), static_cast<unsigned int>(form.size()), page.page,
                              text.data(), static_cast<unsigned int>(text.size()), XCP_UTF8));
        const std::string bytes(reinterpret_cast<const char*>(form.data()), 2 * units);
        EXPECT_EQ(run_iconv("UTF-8", page.name, text).output, bytes) << page.name;

        std::vector<char> back(text.size() + 1);
        ASSERT_EQ(static_cast<int>(text.size()),
                  pz_wc16tomb(back.data(), static_cast<unsigned int>(back.size()), XCP_UTF8,
                              form.data(), -1, page.page));
        EXPECT_EQ(text, back.data()) << page.name;
    }
}

TEST(pz_cp_oracleTest, AStringTakesEveryPlaneThroughAllItsForms) {
    const std::string text = text_of(code_points());
    PZString string(text);
    ASSERT_NE(nullptr, string.ToWCHAR());
    EXPECT_EQ(code_points().size(), string.Length());
    ASSERT_NE(nullptr, string.ToCHAR(XCP_GB18030));
    EXPECT_EQ(run_iconv("UTF-8", "GB18030", text).output, string.RefCHAR());
    ASSERT_NE(nullptr, string.ToWCHAR16(XCP_UTF16LE));
    ASSERT_NE(nullptr, string.ToTCHAR());
    EXPECT_EQ(text, string.RefCHAR());
}
