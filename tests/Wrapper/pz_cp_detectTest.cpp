#include <dlfcn.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Wrapper/pz_cp_conv.h>

#include "Wrapper/fake_icu.h"
#include "support/StdoutCapture.h"

// Detection with an ICU that does what the test wants. Every test runs in a process of its own,
// which has no ICU before the test loads one.

namespace {

/// Loads the fake ICU whose functions carry `suffix`; the process keeps it.
FakeIcu& load_icu(const std::string& suffix) {
    const std::string path = FAKE_ICU_FOLDER "/libfake_icu" + suffix + ".so";
    void* const module = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (module == nullptr) ADD_FAILURE() << dlerror();
    return *reinterpret_cast<FakeIcu* (*)()>(dlsym(module, "get_fake_icu"))();
}

struct IcuName {
    const char* name;
    int page;
};

// clang-format off
constexpr IcuName kIcuNames[] = {
    { "UTF-8", 32 },
    { "UTF-16BE", 35 },
    { "UTF-16LE", 36 },
    { "UTF-32BE", 52 },
    { "UTF-32LE", 52 },
    { "ISO-8859-1", 22 },
    { "ISO-8859-2", 23 },
    { "ISO-8859-5", 25 },
    { "ISO-8859-6", 26 },
    { "ISO-8859-7", 27 },
    { "ISO-8859-8-I", 28 },
    { "ISO-8859-8", 28 },
    { "windows-1251", 44 },
    { "windows-1256", 45 },
    { "KOI8-R", 41 },
    { "ISO-8859-9", 29 },
    { "Shift_JIS", 20 },
    { "GB18030", 37 },
    { "EUC-JP", 39 },
    { "EUC-KR", 40 },
    { "Big5", 38 },
    { "ISO-2022-JP", 46 },
    { "ISO-2022-KR", 47 },
    { "ISO-2022-CN", 48 },
    { "IBM424_rtl", 52 },
    { "IBM424_ltr", 52 },
    { "IBM420_rtl", 52 },
    { "IBM420_ltr", 52 },
};
// clang-format on

EN_XCP detect(EN_XCP hint = XCP_NONE, int threshold = 0) {
    return pz_cp_detect("text", 4, hint, threshold);
}

/// True when `output` is one error line of `function`.
bool reports(const std::string& output, const std::string& function, const std::string& message) {
    return pztest::error_messages(output).size() == 1 &&
           pztest::has_report(output, function, "pz_cp_conv.cpp", message);
}

class pz_cp_detectTest : public testing::Test {
protected:
    pz_cp_detectTest() : icu(load_icu("")) { icu.matches = {{"UTF-8", 90}}; }

    void TearDown() override { EXPECT_EQ(icu.opened, icu.closed); }

    /// Expects that nothing is detected and `report`, if there is one, by `function`; and how many
    /// detectors are closed then.
    void ExpectNone(const std::string& report, int closed = 1,
                    const std::string& function = "pz_cp_detect") {
        pztest::StdoutCapture output;
        EXPECT_EQ(XCP_NONE, detect(XCP_GB18030, 50));
        const std::string text = output.Take();
        EXPECT_TRUE(report.empty() ? text.empty() : reports(text, function, report)) << text;
        EXPECT_EQ(closed, icu.closed);
    }

    FakeIcu& icu;
};

}  // namespace

TEST_F(pz_cp_detectTest, AnswersTheBestMatch) {
    icu.matches = {{"KOI8-R", 60}, {"UTF-8", 50}};
    pztest::StdoutCapture output;
    EXPECT_EQ(XCP_KOI8_R, detect());
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(1, icu.opened);
    EXPECT_EQ(1, icu.closed);
}

TEST_F(pz_cp_detectTest, HandsTheWholeTextToTheDetector) {
    EXPECT_EQ(XCP_UTF8, pz_cp_detect("a\0bcd", 4, XCP_NONE, 0));
    EXPECT_EQ(std::string("a\0bc", 4), icu.text);
}

TEST_F(pz_cp_detectTest, StartsItsCallsWithAClearStatus) {
    icu.matches = {{"UTF-8", 10}, {"Big5", 5}};
    EXPECT_EQ(XCP_BIG5, detect(XCP_BIG5, 50));
    ASSERT_EQ(5U, icu.setStatus.size());  // open, and name and confidence of two matches
    for (const int status : icu.setStatus) EXPECT_EQ(0, status);
}

TEST_F(pz_cp_detectTest, MapsEveryNameOfTheDetector) {
    for (const IcuName& row : kIcuNames) {
        icu.matches = {{row.name, 90}};
        EXPECT_EQ(row.page, detect()) << row.name;
    }
    EXPECT_EQ(28U, std::size(kIcuNames));
}

TEST_F(pz_cp_detectTest, AnswersNoneForANameItDoesNotKnow) {
    pztest::StdoutCapture output;
    for (const char* const name : {"windows-1252", "utf-8", "UTF-8 ", ""}) {
        icu.matches = {{name, 90}, {"UTF-8", 80}};
        EXPECT_EQ(XCP_NONE, detect()) << name;
    }
    EXPECT_EQ("", output.Take());
}

// The hint

TEST_F(pz_cp_detectTest, TheHintWinsOverALessCertainBestMatch) {
    icu.matches = {{"Big5", 30}, {"GB18030", 20}};
    EXPECT_EQ(XCP_GB18030, detect(XCP_GB18030, 50));
}

TEST_F(pz_cp_detectTest, ACertainBestMatchWinsOverTheHint) {
    icu.matches = {{"Big5", 50}, {"GB18030", 50}};
    EXPECT_EQ(XCP_BIG5, detect(XCP_GB18030, 50));
    EXPECT_EQ(XCP_GB18030, detect(XCP_GB18030, 51));
}

TEST_F(pz_cp_detectTest, TheFirstCertainMatchStopsTheSearchForTheHint) {
    icu.matches = {{"Big5", 40}, {"EUC-JP", 60}, {"GB18030", 20}};
    EXPECT_EQ(XCP_EUC_JP, detect(XCP_GB18030, 50));
}

TEST_F(pz_cp_detectTest, TheBestMatchWinsWhenTheHintIsNotAmongThem) {
    icu.matches = {{"Big5", 30}, {"EUC-JP", 20}};
    EXPECT_EQ(XCP_BIG5, detect(XCP_GB18030, 50));
}

TEST_F(pz_cp_detectTest, ThePageNoneIsNoHint) {
    icu.matches = {{"UTF-8", 30}, {"UTF-32BE", 90}, {"Big5", 95}};
    EXPECT_EQ(XCP_UTF8, detect(XCP_NONE, 50));
}

TEST_F(pz_cp_detectTest, APageThatIcuDoesNotDetectIsNoHint) {
    icu.matches = {{"UTF-8", 30}, {"Big5", 95}};
    for (const EN_XCP hint : {XCP_CP1251, XCP_WCHAR, XCP_RDS, static_cast<EN_XCP>(100)}) {
        EXPECT_EQ(XCP_UTF8, detect(hint, 50)) << hint;
    }
}

TEST_F(pz_cp_detectTest, AHintStandsForTheFirstNameOfItsPage) {
    icu.matches = {{"UTF-8", 30}, {"ISO-8859-8", 20}, {"ISO-8859-8-I", 10}};
    EXPECT_EQ(XCP_ISO8859_8, detect(XCP_ISO8859_8, 50));
    icu.matches = {{"UTF-8", 30}, {"ISO-8859-8", 20}};  // not the hint's name
    EXPECT_EQ(XCP_UTF8, detect(XCP_ISO8859_8, 50));
}

TEST_F(pz_cp_detectTest, ACertainMatchWithoutAPageFallsBackToTheBestMatch) {
    icu.matches = {{"Big5", 30}, {"UTF-32BE", 60}, {"GB18030", 20}};
    EXPECT_EQ(XCP_BIG5, detect(XCP_GB18030, 50));
    icu.matches = {{"UTF-32BE", 60}, {"GB18030", 20}};
    EXPECT_EQ(XCP_NONE, detect(XCP_GB18030, 50));
}

TEST_F(pz_cp_detectTest, AThresholdOfZeroTakesTheFirstMatch) {
    icu.matches = {{"Big5", 0}, {"GB18030", 0}};
    EXPECT_EQ(XCP_BIG5, detect(XCP_GB18030, 0));
    EXPECT_EQ(XCP_GB18030, detect(XCP_GB18030, 1));
}

// Failures

TEST_F(pz_cp_detectTest, ReportsAFailedOpenAndClosesNothing) {
    icu.openError = 7;
    ExpectNone("ucsdet_open err [7]", 0);
}

TEST_F(pz_cp_detectTest, ReportsAnOpenThatAnswersNothing) {
    icu.opensNull = true;
    ExpectNone("ucsdet_open err [0]", 0);
}

TEST_F(pz_cp_detectTest, ReportsAFailedSetText) {
    icu.setTextError = 1;
    ExpectNone("ucsdet_setText err [1]");
}

TEST_F(pz_cp_detectTest, ReportsAFailedDetectInTheWordsOfTheNextStep) {
    icu.detectError = 5;
    ExpectNone("ucsdet_detectAll err [5]");
}

TEST_F(pz_cp_detectTest, AnswersNoneWithoutAMatch) {
    icu.hasNoBest = true;
    ExpectNone("");
}

TEST_F(pz_cp_detectTest, ReportsAFailedDetectAll) {
    icu.detectAllError = 6;
    ExpectNone("ucsdet_detectAll err [6]");
}

TEST_F(pz_cp_detectTest, AnswersNoneWithoutAList) {
    icu.hasNoList = true;
    ExpectNone("");
}

TEST_F(pz_cp_detectTest, ReportsANameThatCannotBeRead) {
    icu.matches = {{"UTF-8", 90, 2}, {"Big5", 80}};
    ExpectNone("ucsdet_getName err [2]", 1, "get_icu_cp_string");
}

TEST_F(pz_cp_detectTest, ANameThatCannotBeReadEndsTheSearchForTheHint) {
    icu.matches = {{"UTF-8", 30}, {"Big5", 20, 3}, {"GB18030", 10}};
    ExpectNone("ucsdet_getName err [3]", 1, "get_icu_cp_string");
}

TEST_F(pz_cp_detectTest, AMatchWithoutANameIsNone) {
    icu.matches = {{nullptr, 30}, {"GB18030", 20}};
    EXPECT_EQ(XCP_NONE, detect());
    EXPECT_EQ(XCP_NONE, detect(XCP_GB18030, 50));
}

TEST_F(pz_cp_detectTest, TakesWarningsAsSuccess) {
    icu.openError = icu.setTextError = icu.detectError = icu.detectAllError = -128;
    icu.matches = {{"UTF-8", 90, -127}};
    pztest::StdoutCapture output;
    EXPECT_EQ(XCP_UTF8, detect());
    EXPECT_EQ("", output.Take());
}

TEST_F(pz_cp_detectTest, ReportsInvalidArgumentsBeforeItAsksIcu) {
    pztest::StdoutCapture output;
    EXPECT_EQ(XCP_NONE, pz_cp_detect(nullptr, 4, XCP_UTF8, 0));
    EXPECT_TRUE(reports(output.Take(), "pz_cp_detect", "invalid args : str[(nil)] sz[4]"));
    EXPECT_EQ(0, icu.opened);
}

// Finding ICU in the process

namespace {

/// Detects with one match in `icu`, and tells whether that ICU was asked.
bool asks(FakeIcu& icu) {
    const int before = icu.opened;
    icu.matches = {{"UTF-8", 90}};
    return detect() == XCP_UTF8 && icu.opened == before + 1;
}

}  // namespace

TEST(pz_icu_detectorTest, FindsAnIcuThatIsLoadedLater) {
    pztest::StdoutCapture output;
    EXPECT_EQ(XCP_NONE, detect());
    EXPECT_TRUE(reports(output.Take(), "pz_cp_detect",
                        "no ICU in this process : code pages are not detected"));
    EXPECT_TRUE(asks(load_icu("")));
}

TEST(pz_icu_detectorTest, FindsTheOldestVersion) {
    EXPECT_TRUE(asks(load_icu("_40")));
}

TEST(pz_icu_detectorTest, FindsTheNewestVersion) {
    EXPECT_TRUE(asks(load_icu("_99")));
}

TEST(pz_icu_detectorTest, PassesOverOtherVersions) {
    load_icu("_39");
    pztest::StdoutCapture output;
    EXPECT_EQ(XCP_NONE, detect());
    EXPECT_EQ(1U, pztest::error_messages(output.Take()).size());
}

TEST(pz_icu_detectorTest, PrefersNamesWithoutAVersion) {
    load_icu("_40");
    EXPECT_TRUE(asks(load_icu("")));
}

TEST(pz_icu_detectorTest, PrefersTheOlderOfTwoVersionsItWasNotBuiltWith) {
    load_icu("_99");
    EXPECT_TRUE(asks(load_icu("_40")));
}

#if __has_include(<unicode/uvernum.h>)
TEST(pz_icu_detectorTest, PrefersTheVersionItWasBuiltWith) {
    load_icu("_40");
    EXPECT_TRUE(asks(load_icu("_built")));
}
#endif

TEST(pz_icu_detectorTest, PassesOverAnIcuThatLacksAFunction) {
    load_icu("_incomplete");
    FakeIcu& icu = load_icu("_40");
    EXPECT_TRUE(asks(icu));
}

TEST(pz_icu_detectorTest, KeepsTheIcuItHasFound) {
    FakeIcu& first = load_icu("_40");
    EXPECT_TRUE(asks(first));
    load_icu("");
    EXPECT_TRUE(asks(first));
}

TEST(pz_icu_detectorTest, IsFoundBySeveralThreadsAtOnce) {
    FakeIcu& icu = load_icu("_99");
    icu.matches = {{"Big5", 30}, {"GB18030", 20}};
    std::vector<std::thread> threads;
    threads.reserve(8);
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] { EXPECT_EQ(XCP_GB18030, detect(XCP_GB18030, 50)); });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(8, icu.opened);
    EXPECT_EQ(8, icu.closed);
}
