#include "Framework/Diagnostics/PZReport.h"

#include <execinfo.h>
#include <syslog.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Interposed.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(backtrace, 2);
PZ_INTERPOSE(backtrace_symbols, 2);

namespace {

int captured_three_frames(void** /*array*/, int /*size*/) {
    errno = ENOMEM;  // as when the unwinder is loaded on its first use
    return 3;
}

char** three_lines(void* const* /*array*/, int /*size*/) {
    static char innermost[] = "unit.so(inner+0x1) [0x10]";
    static char middle[] = "unit.so(middle+0x2) [0x20]";
    static char outermost[] = "app(main+0x3) [0x30]";
    auto** lines = static_cast<char**>(std::malloc(3 * sizeof(char*)));
    lines[0] = innermost;
    lines[1] = middle;
    lines[2] = outermost;
    return lines;
}

/// What an assertion of line 77 of this file prints first.
const char kBanner[] =
    "\033[49m#########\n#########\nASSERT Failed! - ../../src/Framework/x/Unit.cpp(77)\n"
    "#########\n#########\n\033[0m";

class PZReportTest : public testing::Test {
protected:
    /// The error that the test's body reports in that line, as it is printed.
    static std::string Error(int line, const std::string& message) {
        return pztest::padded_line("\033[31m", "[error] TestBody()@PZReportTest.cpp(" +
                                                   std::to_string(line) + ") {} : " + message);
    }

    void TearDown() override {
        backtrace_call.Reset();
        backtrace_symbols_call.Reset();
    }
};

}  // namespace

// The tests' own system log is not the machine's.
extern "C" void syslog(int /*pri*/, const char* /*fmt*/, ...) {}

TEST_F(PZReportTest, NamesThePlaceOfAnError) {
    pztest::StdoutCapture output;
    const int line = __LINE__ + 1;
    PZ_REPORT_ERROR("box %s is full: %d\n", "A", 256);
    EXPECT_EQ(Error(line, "box A is full: 256\n"), output.Take());
}

TEST_F(PZReportTest, TakesAnErrorWithoutArguments) {
    pztest::StdoutCapture output;
    PZ_REPORT_ERROR("invalid args\n");
    EXPECT_TRUE(pztest::has_report(output.Take(), "TestBody", "PZReportTest.cpp", "invalid args"));
}

TEST_F(PZReportTest, NamesThePlaceOfALastError) {
    pztest::StdoutCapture output;
    errno = ENOENT;
    const int line = __LINE__ + 1;
    PZ_REPORT_LAST_ERROR();
    EXPECT_EQ(Error(line, "std library error [2 : No such file or directory]\n"), output.Take());
}

TEST_F(PZReportTest, NamesThePlaceOfALastErrorWithAMessage) {
    pztest::StdoutCapture output;
    errno = ENOENT;
    const int line = __LINE__ + 1;
    PZ_REPORT_ERRNO("open [%s]\n", "/x");
    EXPECT_EQ(Error(line, "std library error [2 : No such file or directory] open [/x]\n"),
              output.Take());
}

TEST_F(PZReportTest, PrintsTheBannerOfAnAssertionWithItsWholePathThenTheWholeStack) {
    backtrace_call.Replace(captured_three_frames);
    backtrace_symbols_call.Replace(three_lines);
    pztest::StdoutCapture output;
    pz_report_assertion("../../src/Framework/x/Unit.cpp", 77);
    const std::string text = output.Take();

    const std::string banner = kBanner;
    ASSERT_EQ(banner, text.substr(0, banner.size()));
    const std::string stack = text.substr(banner.size());
    const std::vector<std::string> frames = {"unit.so(inner+0x1) [0x10]",
                                             "unit.so(middle+0x2) [0x20]", "app(main+0x3) [0x30]"};
    EXPECT_EQ(frames, pztest::error_messages(stack));
    EXPECT_EQ(3U, pztest::count_of(stack, "\n"));
    for (const std::string& frame : frames) {
        EXPECT_TRUE(pztest::has_report(stack, "dumpDirectly", "PZCallStack.cpp", frame));
    }
}

TEST_F(PZReportTest, NamesThePlaceOfAnAssertionByThePathOfTheBuild) {
    pztest::StdoutCapture output;
    const int line = __LINE__ + 1;
    PZ_REPORT_ASSERTION();
    EXPECT_EQ(1U, pztest::count_of(output.Take(), std::string("ASSERT Failed! - ") + __FILE__ +
                                                      "(" + std::to_string(line) +
                                                      ")\n#########\n#########\n"));
}

TEST_F(PZReportTest, DumpsTheFramesAboveTheAssertion) {
    static int frames = 0;
    backtrace_symbols_call.Replace([](void* const* addresses, int count) {
        frames = count;
        return backtrace_symbols_call.Real(addresses, count);
    });
    pztest::StdoutCapture output;
    PZ_REPORT_ASSERTION();
    EXPECT_GT(frames, 2);
    EXPECT_EQ(static_cast<size_t>(frames), pztest::error_messages(output.Take()).size());
}

TEST_F(PZReportTest, GoesOnAfterAnAssertionWithTheCallersErrno) {
    backtrace_call.Replace(captured_three_frames);
    backtrace_symbols_call.Replace(three_lines);
    const pztest::StdoutCapture output;
    errno = EBUSY;
    PZ_REPORT_ASSERTION();
    EXPECT_EQ(EBUSY, errno);
}
