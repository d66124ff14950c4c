#include "Framework/Diagnostics/PZCallStack.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <syslog.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZDbgOutput.h>

#include "support/Interposed.h"
#include "support/StdoutCapture.h"

PZ_INTERPOSE(backtrace_symbols, 2);

namespace {

pztest::Interposed<char*(const char*, char*, size_t*, int*)> demangle_call("__cxa_demangle");

int translated_frames = 0;  // of the latest call of the fakes below

/// One block, as backtrace_symbols answers it. Line i reads "frame i", `padding` characters more.
char** numbered_lines(int count, size_t padding) {
    constexpr size_t kNumber = 16;
    const size_t lineSize = kNumber + padding;
    const auto lines = static_cast<size_t>(count);
    auto* block = static_cast<char*>(std::malloc(lines * (sizeof(char*) + lineSize)));
    auto** table = reinterpret_cast<char**>(block);
    for (size_t i = 0; i < lines; ++i) {
        table[i] = block + lines * sizeof(char*) + i * lineSize;
        const std::string text = "frame " + std::to_string(i) + std::string(padding, '.');
        std::memcpy(table[i], text.c_str(), text.size() + 1);
    }
    return table;
}

const char* shown_symbol = "";  // what the next fake says of every frame

/// As backtrace_symbols answers it.
char** shown_lines(void* const* /*addresses*/, int count) {
    const size_t size = std::strlen(shown_symbol) + 1;
    const auto lines = static_cast<size_t>(count);
    auto* block = static_cast<char*>(std::malloc(lines * (sizeof(char*) + size)));
    auto** table = reinterpret_cast<char**>(block);
    for (size_t i = 0; i < lines; ++i) {
        table[i] = block + lines * sizeof(char*) + i * size;
        std::memcpy(table[i], shown_symbol, size);
    }
    return table;
}

char** short_lines(void* const* /*addresses*/, int count) {
    translated_frames = count;
    errno = ENOMEM;
    return numbered_lines(count, 0);
}

/// "frame 0" and dots: `Length` characters in the first line.
template <size_t Length>
char** lines_of_length(void* const* /*addresses*/, int count) {
    return numbered_lines(count, Length - std::strlen("frame 0"));
}

std::vector<std::string> frames_up_to(int count) {
    std::vector<std::string> frames(static_cast<size_t>(count));
    for (size_t i = 0; i < frames.size(); ++i) frames[i] = "frame " + std::to_string(i);
    return frames;
}

/// Runs `body` at least `depth` frames above the caller.
[[gnu::noinline]] int at_depth(int depth, const std::function<int()>& body) {
    const volatile int below = depth <= 0 ? body() : at_depth(depth - 1, body);
    return below;  // read again after the call: no jump takes the frame's place
}

constexpr int kDeep = 300;  // more frames than anything here captures

/// Frames that a sanitizer puts before the function that calls backtrace.
int foreign_frames() {
    void* addresses[2];
    Dl_info innermost;
    Dl_info here;
    if (backtrace(addresses, 2) != 2 || dladdr(addresses[0], &innermost) == 0 ||
        dladdr(&translated_frames, &here) == 0) {
        std::abort();
    }
    return innermost.dli_fbase == here.dli_fbase ? 0 : 1;
}

std::string symbol_of(void* address) {
    Dl_info info;
    return dladdr(address, &info) != 0 && info.dli_sname != nullptr ? info.dli_sname : "";
}

class PZCallStackTest : public testing::Test {
protected:
    void TearDown() override { backtrace_symbols_call.Reset(); }
};

}  // namespace

extern "C" char* __cxa_demangle(const char* name, char* buffer, size_t* length, int* status) {
    return demangle_call(name, buffer, length, status);
}
// The tests' own system log is not the machine's.
extern "C" void syslog(int /*pri*/, const char* /*fmt*/, ...) {}

TEST_F(PZCallStackTest, IsEmptyAtFirst) {
    const PZCallStack stack;
    EXPECT_EQ(0, stack.size());
    EXPECT_EQ(nullptr, stack.getAddress(0));
    for (int i = 0; i < 32; ++i) EXPECT_STREQ("", stack.getSymbol(i)) << i;
}

TEST_F(PZCallStackTest, TakesAllFramesOfAShallowStack) {
    void* addresses[64];
    const int depth = backtrace(addresses, 64);
    ASSERT_LT(depth, 32);
    PZCallStack stack;
    EXPECT_EQ(depth + 1, stack.take(-1, false));  // and take itself
    EXPECT_EQ(depth + 1, stack.size());
}

TEST_F(PZCallStackTest, TakesThirtyTwoFramesOfADeepStack) {
    PZCallStack stack;
    EXPECT_EQ(32, at_depth(kDeep, [&stack] { return stack.take(-1, false); }));
    EXPECT_EQ(32, stack.size());
    for (int i = 0; i < 32; ++i) EXPECT_NE(nullptr, stack.getAddress(i)) << i;
}

TEST_F(PZCallStackTest, TakesAsManyFramesAsAsked) {
    PZCallStack stack;
    for (const int depth : {1, 2, 5, 31, 32}) {
        EXPECT_EQ(depth, at_depth(kDeep, [&stack, depth] { return stack.take(depth, false); }));
        EXPECT_EQ(depth, stack.size());
    }
}

TEST_F(PZCallStackTest, TakesThirtyTwoFramesAtMost) {
    backtrace_symbols_call.Replace(short_lines);
    PZCallStack stack;
    for (const int depth : {33, 256, 1000, INT_MAX}) {
        EXPECT_EQ(32, at_depth(kDeep, [&stack, depth] { return stack.take(depth, true); }));
        EXPECT_EQ(32, stack.size());
        EXPECT_EQ(32, translated_frames);
    }
}

TEST_F(PZCallStackTest, RefusesADepthOfZeroOrBelowAndKeepsTheEarlierSnapshot) {
    backtrace_symbols_call.Replace(short_lines);
    PZCallStack stack;
    ASSERT_EQ(3, stack.take(3, true));
    void* const innermost = stack.getAddress(0);
    backtrace_symbols_call.Reset();
    for (const int depth : {0, -2, -32, INT_MIN}) {
        EXPECT_EQ(0, stack.take(depth, true)) << depth;
        EXPECT_EQ(3, stack.size());
        EXPECT_EQ(innermost, stack.getAddress(0));
        EXPECT_STREQ("frame 0", stack.getSymbol(0));
        EXPECT_STREQ("frame 2", stack.getSymbol(2));
    }
    EXPECT_EQ(0, backtrace_symbols_call.Calls());
}

TEST_F(PZCallStackTest, BeginsWithTheCapturingOperation) {
    PZCallStack stack;
    ASSERT_GT(stack.take(-1, false), foreign_frames());
    EXPECT_EQ("_ZN11PZCallStack4takeEib", symbol_of(stack.getAddress(foreign_frames())));
}

TEST_F(PZCallStackTest, AnswersAddressesBelowTheCountOnly) {
    PZCallStack stack;
    ASSERT_EQ(3, stack.take(3, false));
    EXPECT_NE(nullptr, stack.getAddress(0));
    EXPECT_NE(nullptr, stack.getAddress(2));
    EXPECT_EQ(nullptr, stack.getAddress(stack.size()));
    EXPECT_EQ(nullptr, stack.getAddress(32));
    EXPECT_EQ(nullptr, stack.getAddress(INT_MAX));
    EXPECT_EQ(nullptr, stack.getAddress(-1));
    EXPECT_EQ(nullptr, stack.getAddress(INT_MIN));
}

TEST_F(PZCallStackTest, AnswersSymbolsOfAllThirtyTwoSlots) {
    PZCallStack stack;
    ASSERT_EQ(2, stack.take(2, true));
    EXPECT_STREQ("", stack.getSymbol(2));
    EXPECT_STREQ("", stack.getSymbol(31));
    EXPECT_EQ(nullptr, stack.getSymbol(32));
    EXPECT_EQ(nullptr, stack.getSymbol(INT_MAX));
    EXPECT_EQ(nullptr, stack.getSymbol(-1));
    EXPECT_EQ(nullptr, stack.getSymbol(INT_MIN));
}

TEST_F(PZCallStackTest, KeepsOneSymbolLinePerFrame) {
    backtrace_symbols_call.Replace(short_lines);
    PZCallStack stack;
    ASSERT_EQ(32, at_depth(kDeep, [&stack] { return stack.take(-1, true); }));
    for (int i = 0; i < 32; ++i) {
        EXPECT_EQ("frame " + std::to_string(i), stack.getSymbol(i));
    }
}

TEST_F(PZCallStackTest, TranslatesTheCapturedAddresses) {
    PZCallStack stack;
    ASSERT_GT(stack.take(-1, true), 0);
    void* addresses[32];
    for (int i = 0; i < stack.size(); ++i) addresses[i] = stack.getAddress(i);
    char** lines = backtrace_symbols(addresses, stack.size());
    ASSERT_NE(nullptr, lines);
    for (int i = 0; i < stack.size(); ++i) {
        EXPECT_EQ(std::string(lines[i]).substr(0, 255), stack.getSymbol(i));
    }
    std::free(lines);
}

TEST_F(PZCallStackTest, LeavesSymbolsAloneWhenNoneAreWanted) {
    PZCallStack stack;
    stack.take(-1, false);
    EXPECT_EQ(0, backtrace_symbols_call.Calls());
    for (int i = 0; i < 32; ++i) EXPECT_STREQ("", stack.getSymbol(i)) << i;
}

TEST_F(PZCallStackTest, KeepsOlderSymbolLinesBeyondAShorterSnapshot) {
    backtrace_symbols_call.Replace(short_lines);
    PZCallStack stack;
    ASSERT_EQ(3, stack.take(3, true));
    ASSERT_EQ(1, stack.take(1, true));
    EXPECT_STREQ("frame 2", stack.getSymbol(2));
}

TEST_F(PZCallStackTest, KeepsASymbolLineOf255CharactersWhole) {
    backtrace_symbols_call.Replace(lines_of_length<255>);
    PZCallStack stack;
    ASSERT_EQ(2, stack.take(2, true));
    EXPECT_EQ("frame 0" + std::string(248, '.'), stack.getSymbol(0));
}

TEST_F(PZCallStackTest, CutsALongerSymbolLineTo255Characters) {
    backtrace_symbols_call.Replace(lines_of_length<256>);
    PZCallStack stack;
    ASSERT_EQ(2, stack.take(2, true));
    EXPECT_EQ("frame 0" + std::string(248, '.'), stack.getSymbol(0));
    backtrace_symbols_call.Replace(lines_of_length<5000>);
    ASSERT_EQ(2, stack.take(2, true));
    EXPECT_EQ("frame 0" + std::string(248, '.'), stack.getSymbol(0));
    EXPECT_EQ("frame 1" + std::string(248, '.'), stack.getSymbol(1));
    EXPECT_STREQ("", stack.getSymbol(2));
}

TEST_F(PZCallStackTest, KeepsTheFramesWhenThereIsNoMemoryForTheirSymbols) {
    backtrace_symbols_call.Replace(short_lines);
    PZCallStack stack;
    ASSERT_EQ(3, stack.take(3, true));
    backtrace_symbols_call.FailNext(ENOMEM);
    EXPECT_EQ(2, stack.take(2, true));
    EXPECT_EQ(2, stack.size());
    EXPECT_NE(nullptr, stack.getAddress(1));
    EXPECT_STREQ("", stack.getSymbol(0));
    EXPECT_STREQ("", stack.getSymbol(1));
}

TEST_F(PZCallStackTest, KeepsErrno) {
    backtrace_symbols_call.Replace(short_lines);
    const pztest::StdoutCapture output;
    PZCallStack stack;
    errno = EBUSY;
    stack.take(-1, true);
    EXPECT_EQ(EBUSY, errno);
    stack.dump();
    EXPECT_EQ(EBUSY, errno);
    PZCallStack::dumpDirectly(-1);
    EXPECT_EQ(EBUSY, errno);
}

TEST_F(PZCallStackTest, PrintsTheSymbolLinesOfItsFrames) {
    backtrace_symbols_call.Replace(short_lines);
    PZCallStack stack;
    ASSERT_EQ(3, stack.take(3, true));
    pztest::StdoutCapture output;
    stack.dump();
    const std::string text = output.Take();
    EXPECT_EQ(frames_up_to(3), pztest::error_messages(text));
    EXPECT_EQ(3U, pztest::count_of(text, "\n"));
    EXPECT_TRUE(pztest::has_report(text, "dump", "PZCallStack.cpp", "frame 0"));
}

TEST_F(PZCallStackTest, PrintsEmptyLinesForFramesWithoutSymbols) {
    PZCallStack stack;
    ASSERT_EQ(2, stack.take(2, false));
    pztest::StdoutCapture output;
    stack.dump();
    EXPECT_EQ(std::vector<std::string>({"", ""}), pztest::error_messages(output.Take()));
}

TEST_F(PZCallStackTest, PrintsNothingWhileItIsEmpty) {
    const PZCallStack stack;
    pztest::StdoutCapture output;
    stack.dump();
    EXPECT_EQ("", output.Take());
}

TEST_F(PZCallStackTest, DumpsTheWholeStackForADepthBelowOne) {
    backtrace_symbols_call.Replace(short_lines);
    for (const int depth : {0, -1, -2, INT_MIN}) {
        pztest::StdoutCapture output;
        PZCallStack::dumpDirectly(depth);
        EXPECT_GT(translated_frames, 2);
        EXPECT_EQ(frames_up_to(translated_frames), pztest::error_messages(output.Take())) << depth;
    }
}

TEST_F(PZCallStackTest, DumpsTheInnermostFramesForASmallDepth) {
    backtrace_symbols_call.Replace(short_lines);
    for (const int depth : {1, 2, 10}) {
        pztest::StdoutCapture output;
        at_depth(kDeep, [depth] {
            PZCallStack::dumpDirectly(depth);
            return 0;
        });
        const std::string text = output.Take();
        EXPECT_EQ(frames_up_to(depth), pztest::error_messages(text));
        EXPECT_TRUE(pztest::has_report(text, "dumpDirectly", "PZCallStack.cpp", "frame 0"));
        EXPECT_EQ(256, translated_frames);  // the translation is always the whole one
    }
}

TEST_F(PZCallStackTest, DumpsTheWholeStackForADepthAboveTheNumberOfFrames) {
    backtrace_symbols_call.Replace(short_lines);
    pztest::StdoutCapture output;
    PZCallStack::dumpDirectly(-1);
    const int frames = translated_frames;
    output.Take();
    for (const int depth : {frames, frames + 1, INT_MAX}) {
        PZCallStack::dumpDirectly(depth);
        ASSERT_EQ(frames, translated_frames);
        EXPECT_EQ(frames_up_to(frames), pztest::error_messages(output.Take())) << depth;
    }
    PZCallStack::dumpDirectly(frames - 1);
    EXPECT_EQ(frames_up_to(frames - 1), pztest::error_messages(output.Take()));
}

TEST_F(PZCallStackTest, DumpsAtMost256Frames) {
    backtrace_symbols_call.Replace(short_lines);
    for (const int depth : {-1, 256, 257, 1000}) {
        pztest::StdoutCapture output;
        at_depth(kDeep, [depth] {
            PZCallStack::dumpDirectly(depth);
            return 0;
        });
        EXPECT_EQ(frames_up_to(256), pztest::error_messages(output.Take())) << depth;
    }
}

TEST_F(PZCallStackTest, BeginsADumpWithTheFrameOfTheDump) {
    pztest::StdoutCapture output;
    PZCallStack::dumpDirectly(-1);
    const std::vector<std::string> frames = pztest::error_messages(output.Take());
    const auto first = static_cast<size_t>(foreign_frames());
    ASSERT_GT(frames.size(), first);
    EXPECT_NE(std::string::npos, frames[first].find("(_ZN11PZCallStack12dumpDirectlyEi+0x"))
        << frames[first];
}

TEST_F(PZCallStackTest, DumpsLongSymbolLinesUncut) {
    backtrace_symbols_call.Replace(lines_of_length<400>);
    pztest::StdoutCapture output;
    PZCallStack::dumpDirectly(1);
    EXPECT_EQ(std::vector<std::string>({"frame 0" + std::string(393, '.')}),
              pztest::error_messages(output.Take()));
}

TEST_F(PZCallStackTest, DumpsNothingWithoutMemoryForTheSymbols) {
    backtrace_symbols_call.FailNext(ENOMEM);
    pztest::StdoutCapture output;
    PZCallStack::dumpDirectly(-1);
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(1, backtrace_symbols_call.Calls());
}

TEST_F(PZCallStackTest, DumpsFromSeveralThreadsAtOnce) {
    constexpr unsigned int kThreads = 4;
    constexpr unsigned int kDumps = 25;
    pztest::StdoutCapture output;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < kThreads; ++i) {
        threads.emplace_back([] {
            for (unsigned int n = 0; n < kDumps; ++n) PZCallStack::dumpDirectly(1);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kThreads * kDumps, pztest::error_messages(output.Take()).size());
}

// ---- demangled frames ----

namespace {

class PZCallStackDemangledTest : public testing::Test {
protected:
    PZCallStackDemangledTest() {
        PZDbgOutput::SetStyle(PZDbgOutput::en_STYLE_DEMANGLED);
        backtrace_symbols_call.Replace(shown_lines);
    }
    ~PZCallStackDemangledTest() override {
        PZDbgOutput::SetStyle(PZDbgOutput::en_STYLE_DEFAULT);
        backtrace_symbols_call.Reset();
        demangle_call.Reset();
    }

    /// What is printed for the first frame when the C library describes it so.
    static std::string Shown(const char* symbol) {
        shown_symbol = symbol;
        pztest::StdoutCapture output;
        PZCallStack::dumpDirectly(1);
        const std::vector<std::string> lines = pztest::error_messages(output.Take());
        return lines.size() == 1 ? lines[0] : "not one line";
    }
};

}  // namespace

TEST_F(PZCallStackDemangledTest, ShowsFunctionOffsetAndFile) {
    EXPECT_EQ("#0 tune(int)+0x1f radio", Shown("/usr/bin/radio(_Z4tunei+0x1f) [0x4012ab]"));
    EXPECT_EQ("#0 tune(int)+0x1f radio", Shown("radio(_Z4tunei+0x1f) [0x4012ab]"));
}

TEST_F(PZCallStackDemangledTest, ShowsAFunctionOfCAsItIs) {
    EXPECT_EQ("#0 main+0x1f radio", Shown("/usr/bin/radio(main+0x1f) [0x4012ab]"));
}

TEST_F(PZCallStackDemangledTest, ShowsThePlaceInTheFileOfAFunctionWithoutAName) {
    EXPECT_EQ("#0 radio+0x12ab", Shown("/usr/bin/radio(+0x12ab) [0x4012ab]"));
}

TEST_F(PZCallStackDemangledTest, ShowsASymbolLineOfAnotherFormAsItIs) {
    for (const char* const symbol : {"", "[0x4012ab]", "radio", "radio(", "radio(main",
                                     "radio(main+", "a)+b(", "radio() [0x1]"}) {
        EXPECT_EQ(std::string("#0 ") + symbol, Shown(symbol));
    }
}

TEST_F(PZCallStackDemangledTest, CutsANameThatIsTooLong) {
    const std::string name(161, 'x');
    EXPECT_EQ("#0 " + std::string(160, 'x') + "...+0x1 radio",
              Shown(("radio(" + name + "+0x1) [0x1]").c_str()));
    EXPECT_EQ("#0 " + std::string(160, 'x') + "+0x1 radio",
              Shown(("radio(" + name.substr(1) + "+0x1) [0x1]").c_str()));
}

TEST_F(PZCallStackDemangledTest, ShowsTheNameAsItIsWithoutMemoryForItsTranslation) {
    demangle_call.FailNext(ENOMEM);
    EXPECT_EQ("#0 _Z4tunei+0x1f radio", Shown("/usr/bin/radio(_Z4tunei+0x1f) [0x4012ab]"));
}

TEST_F(PZCallStackDemangledTest, NumbersTheFramesOfASnapshot) {
    shown_symbol = "/usr/bin/radio(_Z4tunei+0x1f) [0x4012ab]";
    PZCallStack stack;
    ASSERT_EQ(2, stack.take(2, true));
    pztest::StdoutCapture output;
    stack.dump();
    EXPECT_EQ((std::vector<std::string>{"#0 tune(int)+0x1f radio", "#1 tune(int)+0x1f radio"}),
              pztest::error_messages(output.Take()));
    EXPECT_STREQ(shown_symbol, stack.getSymbol(0));
}

TEST_F(PZCallStackDemangledTest, KeepsErrno) {
    errno = EDOM;
    Shown("/usr/bin/radio(_Z4tunei+0x1f) [0x4012ab]");
    EXPECT_EQ(EDOM, errno);
}

TEST_F(PZCallStackTest, TakesAddressesFromElsewhereWithTheirSymbolLines) {
    backtrace_symbols_call.Replace(&short_lines);
    PZCallStack stack;
    int marks[40];
    void* addresses[40];
    for (int i = 0; i < 40; ++i) addresses[i] = &marks[i];
    stack.assign(addresses, 2);
    EXPECT_EQ(2, stack.size());
    EXPECT_EQ(&marks[1], stack.getAddress(1));
    EXPECT_EQ(nullptr, stack.getAddress(2));
    EXPECT_STREQ("frame 1", stack.getSymbol(1));
    stack.assign(addresses, 40);
    EXPECT_EQ(32, stack.size());
    EXPECT_EQ(&marks[31], stack.getAddress(31));
    EXPECT_STREQ("frame 31", stack.getSymbol(31));
    for (const int count : {0, -1}) {
        stack.assign(addresses, 3);
        stack.assign(addresses, count);
        EXPECT_EQ(0, stack.size());
    }
    stack.assign(nullptr, 3);
    EXPECT_EQ(0, stack.size());
}
