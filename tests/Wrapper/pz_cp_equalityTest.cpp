#include <iconv.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Wrapper/private/pz_iconv_names.h>
#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/StdoutCapture.h"

// Every conversion beside one call of iconv on a fresh descriptor: result, error, report, and every
// byte of the destination. Each is asked three times, because the second and the third may take
// another way than the first.

namespace {

constexpr char kFill = '\xA5';
constexpr int kPages = XCP_NONE + 1;

bool is_utf16(int page) {
    return page >= XCP_UTF16 && page <= XCP_UTF16LE;
}

bool is_unicode(int page) {
    return page >= XCP_UTF8 && page <= XCP_UTF16LE;
}

int terminator_of(int to) {
    if (to == XCP_WCHAR) return 4;
    return is_utf16(to) ? 2 : 1;
}

/// What a conversion leaves behind.
struct Outcome {
    int result = 0;
    int error = 0;  // only of a text that iconv refuses
    std::string dst;
    std::string report;

    bool operator==(const Outcome& o) const {
        return result == o.result && error == o.error && dst == o.dst;
    }
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
    return out << outcome.result << " errno " << outcome.error << " dst "
               << testing::PrintToString(outcome.dst);
}

/// One call of iconv, and what a converter makes of it.
Outcome ask_iconv(int to, int from, const std::string& src, size_t dstSize) {
    Outcome outcome;
    outcome.dst.assign(dstSize, kFill);
    const auto end = [&outcome](size_t at, int zeros) {
        for (; zeros > 0 && at < outcome.dst.size(); --zeros) outcome.dst[at++] = '\0';
    };
    iconv_t converter = iconv_open(kIconvNames[to], kIconvNames[from]);
    if (converter == reinterpret_cast<iconv_t>(-1)) {
        outcome.error = errno;
        outcome.report = "conv_character_code : iconv open error[" + std::to_string(errno) + ":" +
                         std::strerror(errno) + "] : not support in this version dst[" +
                         kIconvNames[to] + "] src[" + kIconvNames[from] + "]";
        end(0, to == XCP_WCHAR ? 4 : 1);
        return outcome;
    }
    std::string text = src;
    char* in = text.data();
    size_t inLeft = text.size();
    char* out = outcome.dst.data();
    size_t outLeft = dstSize;
    const size_t result = iconv(converter, &in, &inLeft, &out, &outLeft);
    const int error = errno;
    iconv_close(converter);
    if (result == static_cast<size_t>(-1)) {
        outcome.error = error;
        outcome.report = "conv_character_code : iconv error [-1] [" + std::to_string(error) + ":" +
                         std::strerror(error) + "] : dst[" + kIconvNames[to] + "] sz[" +
                         std::to_string(dstSize) + "] : src[" + kIconvNames[from] + "] sz[" +
                         std::to_string(src.size()) + "]";
        end(0, terminator_of(to));
        return outcome;
    }
    if (outLeft < static_cast<size_t>(terminator_of(to))) {
        outcome.report = "buffer size is too few.";
        end(0, terminator_of(to));
        return outcome;
    }
    if (terminator_of(to) > 1) end(dstSize - outLeft, terminator_of(to));
    outcome.result = static_cast<int>(dstSize - outLeft) / terminator_of(to);
    return outcome;
}

Outcome ask_library(int to, int from, const std::string& src, size_t dstSize) {
    Outcome outcome;
    outcome.dst.assign(dstSize, kFill);
    // On the heap without a terminator: the sanitizers see a byte that is read behind it.
    const std::vector<char> text(src.begin(), src.end());
    errno = 0;
    outcome.result =
        pz_cp_conv(outcome.dst.data(), static_cast<unsigned int>(dstSize), static_cast<EN_XCP>(to),
                   text.data(), static_cast<unsigned int>(text.size()), static_cast<EN_XCP>(from));
    outcome.error = errno;
    return outcome;
}

/// Compares, and collects the reports that must have been printed.
class Comparison {
public:
    void Check(int to, int from, const std::string& src, size_t dstSize) {
        const Outcome expected = ask_iconv(to, from, src, dstSize);
        for (int round = 0; round < 3; ++round) {
            Outcome seen = ask_library(to, from, src, dstSize);
            if (expected.error == 0) seen.error = 0;  // the last error counts after a failure only
            if (!expected.report.empty()) reports_.push_back(expected.report);
            if (seen == expected) continue;
            ++differences_;
            EXPECT_EQ(expected, seen) << kIconvNames[from] << " to " << kIconvNames[to] << " round "
                                      << round << " " << testing::PrintToString(src);
        }
    }

    /// With a destination of every size that makes a difference.
    void CheckSizes(int to, int from, const std::string& src) {
        const size_t large = 8 * src.size() + 16;
        const Outcome all = ask_iconv(to, from, src, large);
        const auto written = static_cast<size_t>(all.result * terminator_of(to));
        std::set<size_t> sizes = {large, written};
        // Between other pages iconv alone converts.
        if (is_unicode(to) || is_unicode(from)) {
            for (size_t more = 1; more <= 4; ++more) sizes.insert({more, written + more});
            if (written > 0) sizes.insert(written - 1);
        }
        sizes.erase(0);  // an invalid argument
        for (const size_t size : sizes) Check(to, from, src, size);
    }

    bool IsEqual() const { return differences_ == 0; }

    void CheckReports(const std::string& output) {
        // The report of a refused page has no line feed: what is printed is compared as one text.
        size_t at = 0;
        for (const std::string& report : reports_) {
            const size_t found = output.find("{} : " + report, at);
            ASSERT_NE(std::string::npos, found) << report;
            at = found + report.size();
        }
        EXPECT_EQ(reports_.size(), pztest::count_of(output, "[error] conv_character_code()@"));
        reports_.clear();
    }

private:
    std::vector<std::string> reports_;
    int differences_ = 0;
};

/// As much of a UTF-8 text as the page holds, in the page.
std::string in_page(int page, const std::string& utf8) {
    iconv_t converter = iconv_open(kIconvNames[page], "UTF-8");
    if (converter == reinterpret_cast<iconv_t>(-1)) return utf8;
    std::string text = utf8;
    std::string made(4 * utf8.size() + 64, '\0');
    char* in = text.data();
    size_t inLeft = text.size();
    char* out = made.data();
    size_t outLeft = made.size();
    while (inLeft > 0 &&
           iconv(converter, &in, &inLeft, &out, &outLeft) == static_cast<size_t>(-1)) {
        do {  // leave the character out
            ++in;
            --inLeft;
        } while (inLeft > 0 && (static_cast<unsigned char>(*in) & 0xC0U) == 0x80U);
    }
    iconv_close(converter);
    made.resize(made.size() - outLeft);
    return made;
}

const std::vector<std::string>& utf8_samples() {
    static const std::vector<std::string> samples = {
        "a",
        "plain ASCII text, longer than any block that is looked at together: 0123456789",
        "Gr\u00FC\u00DFe, d\u00E9j\u00E0 vu \u20AC \u0160\u017D\u0131\u011F",
        "\u0420\u0430\u0434\u0438\u043E \u0391\u03B8\u03AE\u03BD\u03B1 \u05D0\u05D1 \u0627\u0644 "
        "\u0E01\u0E02",
        "\u65E5\u672C\u8A9E \u30AB\u30BF\u30AB\u30CA \uFF76\uFF85 \uD55C\uAD6D\uC5B4 "
        "\u4E2D\u6587 ABC",
        "\U0001F600 \U00010000\U0010FFFF\U00020000 \uFEFF\uFFFE\uFFFF\uE000\uD7FF",
    };
    return samples;
}

/// Valid, cut, broken and mixed texts of a page.
std::vector<std::string> texts_of(int page) {
    std::vector<std::string> texts;
    for (const std::string& sample : utf8_samples()) {
        const std::string text = in_page(page, sample);
        if (text.empty()) continue;
        texts.push_back(text);
        texts.push_back(text.substr(0, text.size() - 1));
        texts.push_back(text.substr(text.size() - 1));
        std::string broken = text;
        broken.insert(broken.size() / 2, 1, '\xFF');
        texts.push_back(broken);
        broken = text;
        broken.insert(broken.size() / 2, std::string("\0\0\0\0", 4));
        texts.push_back(broken);
    }
    std::string everyByte;
    for (int byte = 0; byte < 256; ++byte) everyByte += static_cast<char>(byte);
    texts.push_back(everyByte);
    texts.push_back(everyByte.substr(1, 127));
    texts.push_back("\xED\xA0\x80");      // half of a surrogate pair
    texts.push_back("a\xC0\x80");         // longer than needed
    texts.push_back("\xF4\x90\x80\x80");  // behind the last character
    texts.push_back("abc\x80");
    texts.erase(std::remove(texts.begin(), texts.end(), ""), texts.end());
    return texts;
}

const int kUnicode[] = {XCP_UTF8, XCP_WCHAR, XCP_UTF16LE, XCP_UTF16BE, XCP_UTF16};

/// Every character, in UTF-8.
std::string all_characters() {
    std::string text;
    for (unsigned int c = 0; c <= 0x10FFFF; ++c) {
        if (c >= 0xD800 && c < 0xE000) continue;
        const auto put = [&text](unsigned int byte) { text += static_cast<char>(byte); };
        if (c < 0x80) {
            put(c);
        } else if (c < 0x800) {
            put(0xC0 | c >> 6);
            put(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            put(0xE0 | c >> 12);
            put(0x80 | (c >> 6 & 0x3F));
            put(0x80 | (c & 0x3F));
        } else {
            put(0xF0 | c >> 18);
            put(0x80 | (c >> 12 & 0x3F));
            put(0x80 | (c >> 6 & 0x3F));
            put(0x80 | (c & 0x3F));
        }
    }
    return text;
}

template <typename Unit>
std::string bytes_of(std::initializer_list<unsigned int> units) {
    std::string bytes;
    for (const unsigned int value : units) {
        const auto unit = static_cast<Unit>(value);
        bytes.append(reinterpret_cast<const char*>(&unit), sizeof unit);
    }
    return bytes;
}

bool is_radio(int page) {
    return page >= XCP_RDS && page <= XCP_RBDS_2017;
}

class pz_cp_equalityTest : public testing::TestWithParam<int> {};

/// The page that a row of tests converts from.
std::string name_of(const testing::TestParamInfo<int>& info) {
    return "page" + std::to_string(info.param);
}

}  // namespace

TEST_P(pz_cp_equalityTest, ConvertsIntoEveryPageAsIconvDoes) {
    const int from = GetParam();
    pztest::StdoutCapture output;
    Comparison comparison;
    const std::vector<std::string> texts = texts_of(from);
    for (int to = 0; to < kPages; ++to) {
        for (const std::string& text : texts) {
            comparison.CheckSizes(to, from, text);
            if (!comparison.IsEqual()) return;  // one difference says enough
        }
        comparison.CheckReports(output.Take());
    }
}

TEST_P(pz_cp_equalityTest, ConvertsEveryByteAndWhatItBeginsAsIconvDoes) {
    const int from = GetParam();
    pztest::StdoutCapture output;
    Comparison comparison;
    for (const int to : {XCP_UTF8, XCP_WCHAR, XCP_UTF16LE, XCP_UTF16BE}) {
        for (int first = 0; first < 256; ++first) {
            comparison.Check(to, from, std::string(1, static_cast<char>(first)), 16);
            for (const int second : {0x00, 0x41, 0xA1, 0xD8}) {
                const std::string pair = {static_cast<char>(first), static_cast<char>(second)};
                comparison.Check(to, from, pair, 16);
            }
            if (!comparison.IsEqual()) return;
        }
        comparison.CheckReports(output.Take());
    }
}

INSTANTIATE_TEST_SUITE_P(Sources, pz_cp_equalityTest, testing::ValuesIn([] {
                             std::vector<int> pages;
                             for (int page = 0; page < kPages; ++page) {
                                 if (!is_radio(page)) pages.push_back(page);
                             }
                             return pages;
                         }()),
                         name_of);

TEST(pz_cp_equality_of_unicodeTest, ConvertsEveryCharacterBetweenTheUnicodeFormsAsIconvDoes) {
    const std::string utf8 = all_characters();
    for (const int from : kUnicode) {
        const std::string text = in_page(from, utf8);
        for (const int to : kUnicode) {
            const Outcome expected = ask_iconv(to, from, text, 5 * utf8.size());
            const Outcome seen = ask_library(to, from, text, 5 * utf8.size());
            if (from == XCP_WCHAR && to == XCP_WCHAR) continue;  // which iconv refuses
            EXPECT_GT(expected.result, 0x10F000);
            EXPECT_TRUE(expected.result == seen.result && expected.dst == seen.dst)
                << kIconvNames[from] << " to " << kIconvNames[to];
        }
    }
}

TEST(pz_cp_equality_of_unicodeTest, RefusesWhatIsNoCharacterAsIconvDoes) {
    pztest::StdoutCapture output;
    Comparison comparison;
    for (const int to : kUnicode) {
        for (unsigned int c = 0xD7F0; c < 0xE010; c += c % 0x100 == 0xF0 ? 1 : 15) {
            const unsigned int swapped = (c << 8U | c >> 8U) & 0xFFFFU;
            comparison.Check(to, XCP_WCHAR, bytes_of<uint32_t>({'a', c}), 32);
            for (const unsigned int next : {0x0041U, 0xD800U, 0xDBFFU, 0xDC00U, 0xDFFFU, 0xE000U}) {
                const unsigned int other = (next << 8U | next >> 8U) & 0xFFFFU;
                comparison.Check(to, XCP_UTF16LE, bytes_of<uint16_t>({'a', c, next}), 32);
                comparison.Check(to, XCP_UTF16BE, bytes_of<uint16_t>({0x6100, swapped, other}), 32);
            }
            comparison.Check(to, XCP_UTF16LE, bytes_of<uint16_t>({'a', c}), 32);
            comparison.Check(to, XCP_UTF16BE, bytes_of<uint16_t>({0x6100, swapped}), 32);
        }
        for (const unsigned int c : {0x10FFFEU, 0x10FFFFU, 0x110000U, 0x7FFFFFFFU, 0x80000000U,
                                     0xFFFFFFFFU, 0xE0001U, 0xE007FU}) {
            comparison.Check(to, XCP_WCHAR, bytes_of<uint32_t>({'a', c, 'b'}), 32);
        }
        comparison.CheckReports(output.Take());
    }
}

TEST(pz_cp_equality_of_unicodeTest, ReadsEverySequenceOfLeadAndTailBytesAsIconvDoes) {
    constexpr unsigned char kTails[] = {0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xFF};
    pztest::StdoutCapture output;
    Comparison comparison;
    for (const int to : {XCP_WCHAR, XCP_UTF16LE}) {
        for (int lead = 0xC0; lead < 256; ++lead) {
            for (const unsigned char second : kTails) {
                for (const unsigned char third : kTails) {
                    std::string text = {static_cast<char>(lead), static_cast<char>(second),
                                        static_cast<char>(third)};
                    comparison.Check(to, XCP_UTF8, text, 32);
                    text += '\x80';
                    comparison.Check(to, XCP_UTF8, text, 32);
                    // The same where blocks are looked at together.
                    comparison.Check(to, XCP_UTF8, std::string(70, 'x') + text + "0123456789", 512);
                }
            }
            if (!comparison.IsEqual()) return;
        }
        comparison.CheckReports(output.Take());
    }
}

TEST(pz_cp_equality_of_unicodeTest, ConvertsAtEveryPlaceOfABlockAsIconvDoes) {
    pztest::StdoutCapture output;
    Comparison comparison;
    for (const int to : kUnicode) {
        for (const std::string& character :
             {std::string("\xC3\xA9"), std::string("\xE2\x82\xAC"), std::string("\xF0\x9F\x98\x80"),
              std::string("\xFF")}) {
            for (size_t length = 60; length < 80; ++length) {
                for (size_t at = 50; at < length; ++at) {
                    std::string text(length, 'x');
                    text.insert(at, character + character);
                    comparison.Check(to, XCP_UTF8, text, 5 * length);
                    comparison.Check(to, XCP_UTF8, text, 2 * length);
                }
            }
        }
        comparison.CheckReports(output.Take());
    }
}

TEST(pz_cp_equality_of_unicodeTest, ReadsWhatIsBrokenAtEveryPlaceOfEveryBlockAsIconvDoes) {
    const std::string sample =
        "Gr\u00FC\u00DFe, d\u00E9j\u00E0 vu \u20AC 80.0 \u65E5\u672C \U0001F600 and thirty bytes "
        "of plain "
        "text; \u0416\u0438\u0437\u043D\u044C, \uFFFD\u0800\u07FF, sm\u00F6rg\u00E5sbord, and so "
        "on and on";
    pztest::StdoutCapture output;
    Comparison comparison;
    for (const int to : {XCP_WCHAR, XCP_UTF16LE}) {
        for (const size_t length : std::initializer_list<size_t>{63, 64, 65, 111, 112, 113, 117}) {
            ASSERT_LE(length, sample.size());
            comparison.Check(to, XCP_UTF8, sample.substr(0, length), 512);
            for (size_t at = 0; at < length; ++at) {
                for (const char wrong : {'x', '\x80', '\xC1', '\xC3', '\xE2', '\xF0', '\xFF'}) {
                    std::string text = sample.substr(0, length);
                    text[at] = wrong;
                    comparison.Check(to, XCP_UTF8, text, 512);
                }
            }
            if (!comparison.IsEqual()) return;
        }
        comparison.CheckReports(output.Take());
    }
}

TEST(pz_cp_equality_of_unicodeTest, ConvertsEveryLengthFromAndToEveryAddressAsIconvDoes) {
    std::string sample;
    while (sample.size() < 200) sample += "Gr\u00FC\u00DFe and \u20AC, plain as plain can be; ";
    pztest::StdoutCapture output;  // of lengths that end inside a character
    for (const int to : {XCP_WCHAR, XCP_UTF16LE, XCP_UTF16BE}) {
        for (size_t length = 1; length <= sample.size(); ++length) {
            const std::string text = sample.substr(0, length);
            const size_t room = 4 * length + 4;
            const Outcome expected = ask_iconv(to, XCP_UTF8, text, room);
            for (size_t shift = 0; shift < 16; ++shift) {
                const std::string src = std::string(shift, 'x') + text;
                const std::vector<char> source(src.begin(), src.end());
                std::string dst(shift + room + 16, kFill);
                const int result = pz_cp_conv(dst.data() + shift, static_cast<unsigned int>(room),
                                              static_cast<EN_XCP>(to), source.data() + shift,
                                              static_cast<unsigned int>(length), XCP_UTF8);
                ASSERT_EQ(expected.result, result) << length << " bytes, shift " << shift;
                ASSERT_EQ(std::string(shift, kFill) + expected.dst + std::string(16, kFill), dst)
                    << length << " bytes, shift " << shift;
            }
        }
    }
}

TEST(pz_cp_equality_of_unicodeTest, ConvertsLongTextsIntoEverySmallerDestinationAsIconvDoes) {
    std::string text;
    while (text.size() < 700) text += "Gr\u00FC\u00DFe \u20AC \U0001F600 and plain text; ";
    pztest::StdoutCapture output;
    Comparison comparison;
    for (const int to : {XCP_WCHAR, XCP_UTF16LE, XCP_UTF16BE, XCP_UTF8}) {
        const Outcome all = ask_iconv(to, XCP_UTF8, text, 5 * text.size());
        const auto needed = static_cast<size_t>((all.result + 1) * terminator_of(to));
        for (size_t size = 1; size <= needed; size += 7) comparison.Check(to, XCP_UTF8, text, size);
        comparison.Check(to, XCP_UTF8, text, needed);
        comparison.Check(to, XCP_UTF8, text, needed - 1);
        comparison.CheckReports(output.Take());
    }
}

TEST(pz_cp_equality_of_threadsTest, ConvertsInManyThreadsAtOnceAsIconvDoes) {
    // All threads meet each page for the first time together. The modules of the C library stay
    // loaded meanwhile: the thread sanitizer cannot see the locks of its loader.
    std::vector<iconv_t> loaded;
    for (int page = 0; page < kPages - 4; ++page) {
        loaded.push_back(iconv_open("UTF-8", kIconvNames[page]));
        ASSERT_NE(reinterpret_cast<iconv_t>(-1), loaded.back());
    }
    std::atomic<int> wrong{0};
    std::atomic<int> waiting{8};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&wrong, &waiting] {
            --waiting;
            while (waiting > 0) std::this_thread::yield();
            for (int page = 0; page < kPages - 4; ++page) {
                const std::string text = in_page(page, "Radio \u20AC 1\u00E9\u0416\u3042\u4E2D");
                for (const int to : {XCP_UTF8, XCP_WCHAR, XCP_UTF16LE}) {
                    const Outcome expected = ask_iconv(to, page, text, 256);
                    for (int round = 0; round < 3; ++round) {
                        const Outcome seen = ask_library(to, page, text, 256);
                        if (seen.result != expected.result || seen.dst != expected.dst) ++wrong;
                    }
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (iconv_t converter : loaded) iconv_close(converter);
    EXPECT_EQ(0, wrong);
}
