#include <pthread.h>
#include <pty.h>
#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Diagnostics/PZReport.h>

#include "support/ChildProcess.h"
#include "support/ManualTick.h"
#include "support/StdoutCapture.h"

// Lines in another form than the usual one. The style of this process is set by SetStyle; what the
// environment says is tried in children that begin without one: see PZReportEnvironmentTest.

namespace {

using pztest::padded_line;
using Output = PZDbgOutput;

constexpr char kDefault[] = "\033[49m";
constexpr char kRed[] = "\033[31m";
constexpr char kReset[] = "\033[0m";

std::mutex system_log_mutex;
std::vector<std::string> system_log;

}  // namespace

// The system log of these tests.
extern "C" void syslog(int /*pri*/, const char* fmt, ...) {
    char line[4096];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(line, sizeof line, fmt, args);
    va_end(args);
    const std::lock_guard<std::mutex> lock(system_log_mutex);
    system_log.push_back(line);
}

namespace {

void info(const char* message) {
    Output::DbgPrint("../x/unit", "f", 12, Output::en_TAG_INFO, "%s", message);
}

void error(const char* message) {
    Output::DbgPrint("../x/unit", "f", 12, Output::en_TAG_ERROR, "%s", message);
}

class PZDbgOutputStyleTest : public testing::Test {
protected:
    ~PZDbgOutputStyleTest() override {
        Output::SetStyle(Output::en_STYLE_DEFAULT);
        system_log.clear();
    }

    std::string PrintedIn(unsigned int style, void (*print)()) {
        Output::SetStyle(style);
        print();
        return output.Take();
    }

    pztest::StdoutCapture output;
};

std::time_t seconds_now() {
    return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

/// What is printed in `style` while the standard output is a terminal.
std::string printed_on_a_terminal(unsigned int style) {
    int terminal = -1;
    int end = -1;
    EXPECT_EQ(0, openpty(&terminal, &end, nullptr, nullptr, nullptr));
    const int saved = dup(STDOUT_FILENO);
    dup2(end, STDOUT_FILENO);
    Output::SetStyle(style);
    info("hi\n");
    dup2(saved, STDOUT_FILENO);
    for (const int fd : {saved, end}) close(fd);
    // A terminal hands over a text in pieces, and fails once nobody can write to it any more.
    std::string printed;
    char piece[512];
    for (ssize_t size = 0; (size = read(terminal, piece, sizeof piece)) > 0;) {
        printed.append(piece, static_cast<size_t>(size));
    }
    close(terminal);
    return printed;
}

}  // namespace

TEST_F(PZDbgOutputStyleTest, PrintsColoursAndPaddingInTheDefaultStyle) {
    Output::SetStyle(Output::en_STYLE_DEFAULT);
    info("hi\n");
    error("oh\n");
    Output::DbgPrint("plain");
    EXPECT_EQ(padded_line(kDefault, "[info] f()@unit(12) {} : hi\n") +
                  padded_line(kRed, "[error] f()@unit(12) {} : oh\n") + kDefault + "plain" + kReset,
              output.Take());
}

TEST_F(PZDbgOutputStyleTest, PrintsNoColoursInThePlainStyle) {
    EXPECT_EQ(padded_line("", "[info] f()@unit(12) {} : hi\n"),
              PrintedIn(Output::en_STYLE_PLAIN, [] { info("hi\n"); }) + kReset);
    EXPECT_EQ("x", PrintedIn(Output::en_STYLE_PLAIN, [] { Output::DbgPrint("x"); }));
}

TEST_F(PZDbgOutputStyleTest, PrintsNoPaddingInTheStyleWithoutPadding) {
    EXPECT_EQ(std::string(kDefault) + "[info] f()@unit(12) {} : hi\n" + kReset,
              PrintedIn(Output::en_STYLE_NOPAD, [] { info("hi\n"); }));
}

TEST_F(PZDbgOutputStyleTest, PrintsEveryFormOfALineWithoutColoursAndPadding) {
    Output::SetStyle(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD);
    Output::DbgPrint("x/unit", "f", 12, "a\n");
    Output::DbgPrint("x/unit", "f", -1, "b\n");
    Output::DbgPrint("x/unit", "f", -1, L"c\n");
    Output::DbgPrint("x/unit", "f", 12, Output::en_TAG_SYS, L"d\n");
    errno = ENOENT;
    Output::DbgPrintStdErr("x/unit", "f", 13);
    Output::DbgPrintStdErr("x/unit", "f", 14, "e\n");
    EXPECT_EQ(
        "f ()@unit(12) {} : a\n"
        "f ()@unit{} : b\n"
        "f ()@unit(-1) {} : c\n"
        "[sys] f ()@unit(12) {} : d\n"
        "[error] f()@unit(13) {} : std library error [2 : No such file or directory]\n"
        "[error] f()@unit(14) {} : std library error [2 : No such file or directory] e\n",
        output.Take());
}

TEST_F(PZDbgOutputStyleTest, ColoursATerminalAndNothingElseInTheAutomaticStyle) {
    unsetenv("NO_COLOR");
    EXPECT_EQ(std::string(kDefault) + "[info] f()@unit(12) {} : hi\r\n" + kReset,
              printed_on_a_terminal(Output::en_STYLE_AUTO | Output::en_STYLE_NOPAD));
    EXPECT_EQ("[info] f()@unit(12) {} : hi\n",
              PrintedIn(Output::en_STYLE_AUTO | Output::en_STYLE_NOPAD, [] { info("hi\n"); }));
}

TEST_F(PZDbgOutputStyleTest, PrintsToATerminalWithoutColoursWhereTheUserWantsNone) {
    setenv("NO_COLOR", "1", 1);
    EXPECT_EQ("[info] f()@unit(12) {} : hi\r\n",
              printed_on_a_terminal(Output::en_STYLE_AUTO | Output::en_STYLE_NOPAD));
    unsetenv("NO_COLOR");
}

TEST_F(PZDbgOutputStyleTest, ColoursATerminalWhenTheVariableAgainstColoursIsEmpty) {
    setenv("NO_COLOR", "", 1);
    EXPECT_EQ(std::string(kDefault) + "[info] f()@unit(12) {} : hi\r\n" + kReset,
              printed_on_a_terminal(Output::en_STYLE_AUTO | Output::en_STYLE_NOPAD));
    unsetenv("NO_COLOR");
}

TEST_F(PZDbgOutputStyleTest, ColoursATerminalWhenItIsToldToWhateverTheUserWants) {
    setenv("NO_COLOR", "1", 1);
    EXPECT_EQ(std::string(kDefault) + "[info] f()@unit(12) {} : hi\r\n" + kReset,
              printed_on_a_terminal(Output::en_STYLE_NOPAD));
    unsetenv("NO_COLOR");
}

TEST_F(PZDbgOutputStyleTest, BeginsALineWithItsTime) {
    // Not `time`: it may still answer the second before, from a coarser clock.
    const std::time_t before = seconds_now();
    const std::string line =
        PrintedIn(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD | Output::en_STYLE_TIME,
                  [] { info("hi\n"); });
    const std::time_t after = seconds_now();
    std::smatch parts;
    ASSERT_TRUE(std::regex_match(line, parts,
                                 std::regex("(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d)\\.\\d{3} "
                                            "\\[info\\] f\\(\\)@unit\\(12\\) \\{\\} : hi\n")))
        << line;
    std::tm time = {};
    ASSERT_NE(nullptr, strptime(parts[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &time));
    time.tm_isdst = -1;
    const std::time_t printed = std::mktime(&time);
    EXPECT_LE(before, printed);
    EXPECT_LE(printed, after);
}

TEST_F(PZDbgOutputStyleTest, NamesTheThreadOfALine) {
    Output::SetStyle(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD | Output::en_STYLE_THREAD);
    long id = 0;
    std::thread([&id] {
        pthread_setname_np(pthread_self(), "tuner");
        id = syscall(SYS_gettid);
        info("hi\n");
    }).join();
    EXPECT_EQ("tuner(" + std::to_string(id) + ") [info] f()@unit(12) {} : hi\n", output.Take());
}

TEST_F(PZDbgOutputStyleTest, PadsTheWholeLineToEightyColumns) {
    pthread_setname_np(pthread_self(), "main");
    const std::string line =
        PrintedIn(Output::en_STYLE_PLAIN | Output::en_STYLE_THREAD, [] { info("hi\n"); });
    EXPECT_EQ(80U, line.size());
    const std::string text = "main(" + std::to_string(getpid()) + ") [info] f()@unit(12) {} : hi\n";
    EXPECT_EQ(std::string(80 - text.size(), ' ') + text, line);
}

TEST_F(PZDbgOutputStyleTest, PrintsToTheStandardError) {
    testing::internal::CaptureStderr();
    const std::string onOutput = PrintedIn(Output::en_STYLE_STDERR | Output::en_STYLE_NOPAD, [] {
        info("hi\n");
        Output::DbgPrint("x");
    });
    EXPECT_EQ("", onOutput);
    EXPECT_EQ(
        std::string(kDefault) + "[info] f()@unit(12) {} : hi\n" + kReset + kDefault + "x" + kReset,
        testing::internal::GetCapturedStderr());
}

TEST_F(PZDbgOutputStyleTest, KeepsTheSystemLogAsItIs) {
    PrintedIn(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD | Output::en_STYLE_THREAD |
                  Output::en_STYLE_TIME,
              [] {
                  info("not\n");
                  error("oh\n");
              });
    EXPECT_EQ((std::vector<std::string>{"[error] f()@unit(12) {} : oh\n"}), system_log);
}

TEST_F(PZDbgOutputStyleTest, TellsTheStyleInForceAndIgnoresBitsWithoutAMeaning) {
    Output::SetStyle(Output::en_STYLE_TIME | Output::en_STYLE_REPEATS | 0xFFFFFF00U);
    EXPECT_EQ(Output::en_STYLE_TIME | Output::en_STYLE_REPEATS, Output::GetStyle());
    Output::SetStyle(Output::en_STYLE_DEFAULT);
    EXPECT_EQ(0U, Output::GetStyle());
}

TEST_F(PZDbgOutputStyleTest, KeepsTheCallersErrno) {
    for (const unsigned int style : {0U, 0xFFU & ~Output::en_STYLE_STDERR}) {
        errno = EDOM;
        Output::SetStyle(style);
        info("hi\n");
        EXPECT_EQ(style, Output::GetStyle());
        EXPECT_EQ(EDOM, errno);
    }
}

TEST_F(PZDbgOutputStyleTest, NeverMixesTheLinesOfDifferentThreadsWhileTheStyleChanges) {
    constexpr int kLines = 200;
    Output::SetStyle(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD);
    std::atomic<bool> isOver{false};
    std::thread changer([&isOver] {
        while (!isOver) {
            Output::SetStyle(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD);
            Output::SetStyle(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD |
                             Output::en_STYLE_THREAD | Output::en_STYLE_REPEATS);
        }
    });
    std::vector<std::thread> printers;
    for (int i = 0; i < 3; ++i) {
        printers.emplace_back([i] {
            for (int line = 0; line < kLines; ++line) {
                Output::DbgPrint("u", "f", line, Output::en_TAG_INFO, "%d.%d\n", i, line);
            }
        });
    }
    for (std::thread& printer : printers) printer.join();
    isOver = true;
    changer.join();
    const std::string printed = output.Take();
    const std::regex form("(.*\\(\\d+\\) )?\\[info\\] f\\(\\)@u\\(\\d+\\) \\{\\} : \\d\\.\\d+");
    size_t lines = 0;
    for (size_t at = 0; at < printed.size(); ++lines) {
        const size_t end = printed.find('\n', at);
        ASSERT_NE(std::string::npos, end);
        EXPECT_TRUE(std::regex_match(printed.substr(at, end - at), form))
            << printed.substr(at, end - at);
        at = end + 1;
    }
    EXPECT_EQ(3U * kLines, lines);
}

// ---- repetitions ----

namespace {

class PZDbgOutputRepeatsTest : public PZDbgOutputStyleTest {
protected:
    static constexpr unsigned int kStyle =
        Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD | Output::en_STYLE_REPEATS;

    PZDbgOutputRepeatsTest() { Output::SetStyle(kStyle); }

    pztest::ManualTick tick;
};

}  // namespace

TEST_F(PZDbgOutputRepeatsTest, CountsALineThatEqualsTheOneBeforeUntilAnotherComes) {
    for (int i = 0; i < 121; ++i) error("busy\n");
    EXPECT_EQ("[error] f()@unit(12) {} : busy\n", output.Take());
    error("free\n");
    EXPECT_EQ(
        "[error] f()@unit(12) {} : repeated 120 times\n"
        "[error] f()@unit(12) {} : free\n",
        output.Take());
    EXPECT_EQ((std::vector<std::string>{"[error] f()@unit(12) {} : busy\n",
                                        "[error] f()@unit(12) {} : repeated 120 times\n",
                                        "[error] f()@unit(12) {} : free\n"}),
              system_log);
}

TEST_F(PZDbgOutputRepeatsTest, SaysOneTimeOfALineThatWasRepeatedOnce) {
    info("a\n");
    info("a\n");
    info("b\n");
    EXPECT_EQ(
        "[info] f()@unit(12) {} : a\n"
        "[info] f()@unit(12) {} : repeated 1 time\n"
        "[info] f()@unit(12) {} : b\n",
        output.Take());
}

TEST_F(PZDbgOutputRepeatsTest, PrintsEveryLineThatDiffersInAnythingFromTheOneBefore) {
    Output::DbgPrint("unit", "f", 1, Output::en_TAG_INFO, "a\n");
    Output::DbgPrint("unit", "f", 2, Output::en_TAG_INFO, "a\n");
    Output::DbgPrint("unit", "g", 2, Output::en_TAG_INFO, "a\n");
    Output::DbgPrint("other", "g", 2, Output::en_TAG_INFO, "a\n");
    Output::DbgPrint("other", "g", 2, Output::en_TAG_DEBUG, "a\n");
    Output::DbgPrint("other", "g", 2, Output::en_TAG_DEBUG, "b\n");
    EXPECT_EQ(6U, pztest::count_of(output.Take(), "\n"));
}

TEST_F(PZDbgOutputRepeatsTest, TellsTheCountWithTheFirstEqualLineAfterFiveSeconds) {
    for (int i = 0; i < 4; ++i) info("a\n");
    tick.Advance(4999);
    info("a\n");
    EXPECT_EQ("[info] f()@unit(12) {} : a\n", output.Take());
    tick.Advance(1);
    info("a\n");
    EXPECT_EQ("[info] f()@unit(12) {} : repeated 5 times\n", output.Take());
    info("a\n");
    EXPECT_EQ("", output.Take());
    tick.Advance(5000);
    info("a\n");
    EXPECT_EQ("[info] f()@unit(12) {} : repeated 2 times\n", output.Take());
}

TEST_F(PZDbgOutputRepeatsTest, PrintsPlainMessagesAndPiecesOfLinesEachTime) {
    Output::DbgPrint(".");
    Output::DbgPrint(".");
    info("piece");
    info("piece");
    EXPECT_EQ("..[info] f()@unit(12) {} : piece[info] f()@unit(12) {} : piece", output.Take());
}

TEST_F(PZDbgOutputRepeatsTest, TellsTheCountWhenTheLimitIsLifted) {
    info("a\n");
    info("a\n");
    Output::SetStyle(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD);
    info("a\n");
    EXPECT_EQ(
        "[info] f()@unit(12) {} : a\n"
        "[info] f()@unit(12) {} : repeated 1 time\n"
        "[info] f()@unit(12) {} : a\n",
        output.Take());
}

TEST_F(PZDbgOutputRepeatsTest, CountsTheLinesOfAllThreadsTogether) {
    constexpr int kThreads = 4;
    constexpr int kLines = 100;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (int line = 0; line < kLines; ++line) info("a\n");
        });
    }
    for (std::thread& thread : threads) thread.join();
    info("b\n");
    EXPECT_EQ(
        "[info] f()@unit(12) {} : a\n"
        "[info] f()@unit(12) {} : repeated 399 times\n"
        "[info] f()@unit(12) {} : b\n",
        output.Take());
}

TEST_F(PZDbgOutputRepeatsTest, TellsTheCountAtExit) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        for (int i = 0; i < 3; ++i) info("a\n");
        std::exit(7);
        return 0;
    });
    EXPECT_EQ(7, child.status);
    EXPECT_EQ(
        "[info] f()@unit(12) {} : a\n"
        "[info] f()@unit(12) {} : repeated 2 times\n",
        child.output);
}

TEST_F(PZDbgOutputRepeatsTest, LeavesTheCountOfAParentToTheParent) {
    info("a\n");
    info("a\n");
    output.Take();
    const pztest::ChildResult child = pztest::run_in_child([] {
        info("a\n");
        std::exit(0);
        return 0;
    });
    EXPECT_EQ("[info] f()@unit(12) {} : a\n", child.output);
    info("b\n");
    EXPECT_EQ(
        "[info] f()@unit(12) {} : repeated 1 time\n"
        "[info] f()@unit(12) {} : b\n",
        output.Take());
}
