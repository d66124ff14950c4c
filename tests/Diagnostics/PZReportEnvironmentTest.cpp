#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZDbgOutput.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(secure_getenv, 1);

// What PZ_REPORT asks for. It is read once in a process: each test has a child of its own, and this
// process reports nothing.

namespace {

using Output = PZDbgOutput;

constexpr char kUnknownWords[] =
    " : plain, colour, auto, time, thread, nopad, stderr, demangled, repeats\n";

void info(const char* message) {
    Output::DbgPrint("../x/unit", "f", 12, Output::en_TAG_INFO, "%s", message);
}

/// What a child prints whose environment asks for `words`.
std::string printed_with(
    const char* words, const std::function<void()>& print = [] { info("hi\n"); }) {
    return pztest::run_in_child([&] {
               setenv("PZ_REPORT", words, 1);
               print();
               return 0;
           })
        .output;
}

}  // namespace

// The tests' own system log is not the machine's.
extern "C" void syslog(int /*pri*/, const char* /*fmt*/, ...) {}

TEST(PZReportEnvironmentTest, LeavesTheDefaultStyleWhenItIsEmptyOrNotSet) {
    const std::string line = pztest::padded_line("\033[49m", "[info] f()@unit(12) {} : hi\n");
    EXPECT_EQ(line, printed_with(""));
    EXPECT_EQ(line, pztest::run_in_child([] {
                        unsetenv("PZ_REPORT");
                        info("hi\n");
                        return 0;
                    }).output);
}

TEST(PZReportEnvironmentTest, SeparatesWordsByCommasAndIgnoresEmptyOnes) {
    EXPECT_EQ("[info] f()@unit(12) {} : hi\n", printed_with("plain,nopad"));
    EXPECT_EQ("[info] f()@unit(12) {} : hi\n", printed_with(",nopad,,plain,"));
}

TEST(PZReportEnvironmentTest, GivesEachWordItsStyle) {
    const struct {
        const char* words;
        unsigned int style;
    } kRows[] = {
        {"plain", Output::en_STYLE_PLAIN},     {"colour", Output::en_STYLE_DEFAULT},
        {"auto", Output::en_STYLE_AUTO},       {"time", Output::en_STYLE_TIME},
        {"thread", Output::en_STYLE_THREAD},   {"nopad", Output::en_STYLE_NOPAD},
        {"stderr", Output::en_STYLE_STDERR},   {"demangled", Output::en_STYLE_DEMANGLED},
        {"repeats", Output::en_STYLE_REPEATS}, {"time,thread", 4 + 8},
    };
    for (const auto& row : kRows) {
        EXPECT_EQ(std::to_string(row.style),
                  printed_with(row.words, [] { std::printf("%u", Output::GetStyle()); }))
            << row.words;
    }
}

TEST(PZReportEnvironmentTest, TakesTheLastOfSeveralWordsOnColours) {
    const auto style = [](const char* words) {
        return printed_with(words, [] { std::printf("%u", Output::GetStyle()); });
    };
    EXPECT_EQ("0", style("plain,auto,colour"));
    EXPECT_EQ("2", style("plain,auto"));
    EXPECT_EQ("17", style("auto,nopad,plain"));
}

TEST(PZReportEnvironmentTest, SaysWhichWordsItDoesNotKnowInOneLineAndKeepsToTheRest) {
    const std::string printed = printed_with("plain,colourful,nopad,42", [] {
        info("hi\n");
        info("ho\n");
    });
    EXPECT_EQ(0U, printed.find("[error] PZ_REPORT()@pz_report_way.cpp("));
    EXPECT_NE(std::string::npos,
              printed.find(std::string("unknown words [colourful,42]") + kUnknownWords +
                           "[info] f()@unit(12) {} : hi\n[info] f()@unit(12) {} : ho\n"))
        << printed;
    EXPECT_EQ(3U, pztest::count_of(printed, "\n"));
}

TEST(PZReportEnvironmentTest, IsReadAtTheFirstReportOnly) {
    EXPECT_EQ("[info] f()@unit(12) {} : hi\n[info] f()@unit(12) {} : ho\n",
              printed_with("plain,nopad", [] {
                  info("hi\n");
                  setenv("PZ_REPORT", "", 1);
                  info("ho\n");
              }));
}

TEST(PZReportEnvironmentTest, IsReplacedByAStyleThatTheProgramSets) {
    EXPECT_EQ("[info] f()@unit(12) {} : hi\n", printed_with("time,thread,wrong", [] {
                  Output::SetStyle(Output::en_STYLE_PLAIN | Output::en_STYLE_NOPAD);
                  info("hi\n");
              }));
}

TEST(PZReportEnvironmentTest, LetsTheProgramAddToItsStyle) {
    EXPECT_EQ("[info] f()@unit(12) {} : hi\n", printed_with("plain", [] {
                  Output::SetStyle(Output::GetStyle() | Output::en_STYLE_NOPAD);
                  info("hi\n");
              }));
}

TEST(PZReportEnvironmentTest, HoldsAlsoWhenTheProgramSetsASinkFirst) {
    EXPECT_EQ("[info] f()@unit(12) {} : hi\n", printed_with("plain,nopad", [] {
                  Output::SetSink([](const Output::ST_RECORD&, void*) { return true; }, nullptr);
                  info("hi\n");
              }));
}

TEST(PZReportEnvironmentTest, IsNotReadByAProgramWithMoreRightsThanItsUser) {
    EXPECT_EQ(pztest::padded_line("\033[49m", "[info] f()@unit(12) {} : hi\n"),
              printed_with("plain,nopad,wrong", [] {
                  // What the C library answers in such a program.
                  secure_getenv_call.Replace([](const char*) -> char* { return nullptr; });
                  info("hi\n");
              }));
}

TEST(PZReportEnvironmentTest, IsReadOnceByTheFirstOfSeveralThreads) {
    const std::string printed = printed_with("plain,nopad,wrong", [] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; ++i) threads.emplace_back([] { info("hi\n"); });
        for (std::thread& thread : threads) thread.join();
    });
    EXPECT_EQ(1U, pztest::count_of(printed, "unknown words [wrong]")) << printed;
    EXPECT_EQ(8U, pztest::count_of(printed, "[info] f()@unit(12) {} : hi\n")) << printed;
    EXPECT_EQ(0U, pztest::count_of(printed, "\033")) << printed;
}
