#include <dlfcn.h>

#include <cstdint>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/RunCommand.h"
#include "support/TempDir.h"

// Detection of real texts with the machine's own ICU, which is asked directly, too. The test brings
// ICU into its process at run time: it needs the runtime library only, on every kind of machine.

namespace {

/// ICU's detector, as the test asks it.
class Icu {
public:
    Icu() {
        for (int version = 99; library_ == nullptr && version >= 40; --version) {
            suffix_ = std::to_string(version);
            library_ = dlopen(("libicui18n.so." + suffix_).c_str(), RTLD_NOW | RTLD_GLOBAL);
        }
        find(open_, "ucsdet_open_");
        find(setText_, "ucsdet_setText_");
        find(detectAll_, "ucsdet_detectAll_");
        find(getName_, "ucsdet_getName_");
        find(getConfidence_, "ucsdet_getConfidence_");
        find(close_, "ucsdet_close_");
    }

    bool IsComplete() const { return complete_; }

    struct Match {
        std::string name;
        int confidence;
    };

    /// ICU's candidates, best first.
    std::vector<Match> Ask(const std::string& bytes) const {
        int error = 0;
        void* const detector = open_(&error);
        setText_(detector, bytes.data(), static_cast<int32_t>(bytes.size()), &error);
        int32_t count = 0;
        const void* const* const matches = detectAll_(detector, &count, &error);
        std::vector<Match> list;
        for (int32_t i = 0; i < count; ++i) {
            list.push_back({getName_(matches[i], &error), getConfidence_(matches[i], &error)});
        }
        close_(detector);
        EXPECT_EQ(0, error);
        return list;
    }

private:
    template <typename Function>
    void find(Function*& function, const char* name) {
        if (library_ == nullptr) complete_ = false;
        if (!complete_) return;
        function = reinterpret_cast<Function*>(dlsym(library_, (name + suffix_).c_str()));
        if (function == nullptr) complete_ = false;
    }

    std::string suffix_;
    void* library_ = nullptr;  // stays loaded: the library looks for it in the process
    bool complete_ = true;
    void* (*open_)(int*) = nullptr;
    void (*setText_)(void*, const char*, int32_t, int*) = nullptr;
    const void* const* (*detectAll_)(void*, int32_t*, int*) = nullptr;
    const char* (*getName_)(const void*, int*) = nullptr;
    int32_t (*getConfidence_)(const void*, int*) = nullptr;
    void (*close_)(void*) = nullptr;
};

/// The texts of the data file, by name.
std::map<std::string, std::string> read_prose() {
    std::map<std::string, std::string> texts;
    std::istringstream lines(pztest::read_file(PZ_PROSE));
    std::string name;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') {
            name = line.substr(1, line.find(']') - 1);
        } else {
            texts[name] += line + "\n";
        }
    }
    return texts;
}

/// A code page, its name for ICU and for iconv(1), and the text that the test writes in it.
struct Sample {
    EN_XCP page;
    const char* icuName;
    const char* iconvName;
    const char* text;
};

// Every code page that detection can answer. A text in one of the 16-bit forms begins with the mark
// that ICU recognises them by.
// clang-format off
constexpr Sample kSamples[] = {
    { XCP_UTF8,         "UTF-8",        "UTF-8",       "russian"     },
    { XCP_UTF8,         "UTF-8",        "UTF-8",       "japanese"    },
    { XCP_UTF8,         "UTF-8",        "UTF-8",       "polish"      },
    { XCP_UTF16BE,      "UTF-16BE",     "UTF-16BE",    "english"     },
    { XCP_UTF16LE,      "UTF-16LE",     "UTF-16LE",    "russian"     },
    { XCP_ISO8859_1,    "ISO-8859-1",   "ISO-8859-1",  "english"     },
    { XCP_ISO8859_1,    "ISO-8859-1",   "ISO-8859-1",  "french"      },
    { XCP_ISO8859_2,    "ISO-8859-2",   "ISO-8859-2",  "polish"      },
    { XCP_ISO8859_5,    "ISO-8859-5",   "ISO-8859-5",  "russian"     },
    { XCP_ISO8859_6,    "ISO-8859-6",   "ISO-8859-6",  "arabic"      },
    { XCP_ISO8859_7,    "ISO-8859-7",   "ISO-8859-7",  "greek"       },
    { XCP_ISO8859_8,    "ISO-8859-8-I", "ISO-8859-8",  "hebrew"      },
    { XCP_ISO8859_9,    "ISO-8859-9",   "ISO-8859-9",  "turkish"     },
    { XCP_WINDOWS_1251, "windows-1251", "CP1251",      "russian"     },
    { XCP_WINDOWS_1256, "windows-1256", "CP1256",      "arabic"      },
    { XCP_KOI8_R,       "KOI8-R",       "KOI8-R",      "russian"     },
    { XCP_SJIS,         "Shift_JIS",    "SJIS",        "japanese"    },
    { XCP_EUC_JP,       "EUC-JP",       "EUC-JP",      "japanese"    },
    { XCP_ISO2022_JP,   "ISO-2022-JP",  "ISO-2022-JP", "japanese"    },
    { XCP_EUC_KR,       "EUC-KR",       "EUC-KR",      "korean"      },
    { XCP_ISO2022_KR,   "ISO-2022-KR",  "ISO-2022-KR", "korean"      },
    { XCP_GB18030,      "GB18030",      "GB18030",     "simplified"  },
    { XCP_ISO2022_CN,   "ISO-2022-CN",  "ISO-2022-CN", "simplified"  },
    { XCP_BIG5,         "Big5",         "BIG5",        "traditional" },
};
// clang-format on

/// The page of a name of ICU's; XCP_NONE for those without one.
EN_XCP page_of(const std::string& icuName) {
    if (icuName == "ISO-8859-8") return XCP_ISO8859_8;
    for (const Sample& sample : kSamples) {
        if (sample.icuName == icuName) return sample.page;
    }
    return XCP_NONE;
}

EN_XCP detect(const std::string& bytes, EN_XCP hint = XCP_NONE, int threshold = 0) {
    return pz_cp_detect(bytes.data(), static_cast<unsigned int>(bytes.size()), hint, threshold);
}

/// What ICU's own answers mean with a hint: the first candidate that is certain enough or the hint
/// itself, else the best.
EN_XCP choose(const std::vector<Icu::Match>& matches, const Sample& hint, int threshold) {
    for (const Icu::Match& match : matches) {
        if (match.confidence < threshold && match.name != hint.icuName) continue;
        const EN_XCP page = page_of(match.name);
        if (page != XCP_NONE) return page;
        break;
    }
    return page_of(matches[0].name);
}

class pz_cp_detect_icuTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(icu.IsComplete()) << "libicui18n is missing: scripts/bootstrap installs it";
        const std::map<std::string, std::string> prose = read_prose();
        for (const Sample& sample : kSamples) {
            ASSERT_EQ(1U, prose.count(sample.text)) << sample.text;
            const bool marked = sample.page == XCP_UTF16BE || sample.page == XCP_UTF16LE;
            const pztest::IconvResult encoded = pztest::run_iconv(
                "UTF-8", sample.iconvName, (marked ? "\xEF\xBB\xBF" : "") + prose.at(sample.text));
            ASSERT_EQ(0, encoded.status) << sample.iconvName << encoded.error;
            texts.push_back(encoded.output);
        }
    }

    const Icu icu;
    std::vector<std::string> texts;  // in the order of kSamples
};

}  // namespace

TEST_F(pz_cp_detect_icuTest, DetectsThePageOfEveryTextAsIcuDoes) {
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::vector<Icu::Match> matches = icu.Ask(texts[i]);
        ASSERT_FALSE(matches.empty());
        EXPECT_EQ(kSamples[i].icuName, matches[0].name) << kSamples[i].text;
        EXPECT_EQ(kSamples[i].page, detect(texts[i])) << matches[0].name;
    }
}

TEST_F(pz_cp_detect_icuTest, WeighsEveryHintByIcusConfidence) {
    unsigned int wonByHint = 0;
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::vector<Icu::Match> matches = icu.Ask(texts[i]);
        ASSERT_FALSE(matches.empty());
        for (const Sample& hint : kSamples) {
            const int best = matches[0].confidence;
            for (const int threshold : {0, 50, best, best + 1, 101}) {
                const EN_XCP expected = choose(matches, hint, threshold);
                EXPECT_EQ(expected, detect(texts[i], hint.page, threshold))
                    << kSamples[i].icuName << ", hint " << hint.icuName << " at " << threshold;
                if (expected == hint.page && expected != kSamples[i].page) ++wonByHint;
            }
        }
    }
    EXPECT_GT(wonByHint, 0U);
}

TEST_F(pz_cp_detect_icuTest, LetsTheHintWinWhereIcuHasItAmongItsCandidates) {
    for (size_t i = 0; i < texts.size(); ++i) {
        if (kSamples[i].page != XCP_KOI8_R) continue;
        const int best = icu.Ask(texts[i])[0].confidence;
        EXPECT_EQ(XCP_WINDOWS_1251, detect(texts[i], XCP_WINDOWS_1251, best + 1));
        EXPECT_EQ(XCP_KOI8_R, detect(texts[i], XCP_WINDOWS_1251, best));
    }
}

TEST_F(pz_cp_detect_icuTest, TakesAPageThatIcuDoesNotDetectAsNoHint) {
    for (size_t i = 0; i < texts.size(); ++i) {
        for (const EN_XCP hint : {XCP_CP932, XCP_KOI8_U, XCP_NONE, XCP_RDS}) {
            EXPECT_EQ(kSamples[i].page, detect(texts[i], hint, 101));
        }
    }
}

TEST_F(pz_cp_detect_icuTest, AnswersNoneForUtf32) {
    const std::string bytes = std::string("\0\0\xFE\xFF", 4) + std::string("\0\0\0a\0\0\0b", 8);
    ASSERT_EQ("UTF-32BE", icu.Ask(bytes)[0].name);
    EXPECT_EQ(XCP_NONE, detect(bytes));
}

TEST_F(pz_cp_detect_icuTest, DetectsInSeveralThreadsAtOnce) {
    std::vector<int> wrong(8, 0);
    std::vector<std::thread> threads;
    threads.reserve(wrong.size());
    for (int& count : wrong) {
        threads.emplace_back([this, &count] {
            for (size_t i = 0; i < texts.size(); ++i) {
                if (detect(texts[i]) != kSamples[i].page) ++count;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(std::vector<int>(8, 0), wrong);
}
