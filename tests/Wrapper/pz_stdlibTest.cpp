#include "Framework/Wrapper/pz_stdlib.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <locale>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZReport.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/StdoutCapture.h"
#include "support/StuckStdout.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(nanosleep, 2);
PZ_INTERPOSE(fork, 0);

namespace {

using pztest::ChildProcess;

std::atomic<int> syncs{0};

timespec slept;
const timespec* sleptRest;

int record_sleep(const timespec* time, timespec* rest) {
    slept = *time;
    sleptRest = rest;
    return 0;
}

/// What a child hands to execlp, when the test asks to see it.
bool execlpIsFake = false;
const char* firstUnnamedArgument = nullptr;

/// The first argument of the variadic area at `area`: the address of that argument, or of the
/// va_list where such a list is a record.
const char* read_area(const char* area) {
    void* const address = const_cast<char*>(area);
    if (sizeof(va_list) == sizeof area) return *static_cast<const char**>(address);
    // The analyzer cannot see that the library has started the list.
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    return va_arg(*static_cast<va_list*>(address), const char*);
}

/// Runs in the child: the result of its checks is its exit status.
int fake_execlp(const char* file, const char* arg, const char* area, const char* end) {
    if (std::strcmp(file, "program") != 0) _exit(1);
    if (std::strcmp(arg, "program") != 0) _exit(2);
    if (read_area(area) != firstUnnamedArgument) _exit(3);
    if (end != nullptr) _exit(4);
    _exit(42);
}

/// Starts `program` in a process of its own and waits for it; the output is that of both.
pztest::ChildResult start_and_wait(const char* program) {
    return pztest::run_in_child([program] {
        pid_t pid = -1;
        if (!pz_create_process(program, &pid, nullptr)) return 254;
        return ChildProcess(pid).Wait();
    });
}

class pz_stdlibTest : public testing::Test {
protected:
    void TearDown() override {
        nanosleep_call.Reset();
        fork_call.Reset();
        syncs = 0;
        execlpIsFake = false;
    }
};

}  // namespace

extern "C" void sync() noexcept {
    ++syncs;
}
extern "C" int execlp(const char* file, const char* arg, ...) noexcept {
    va_list args;
    va_start(args, arg);
    const char* const area = va_arg(args, const char*);
    const char* const end = va_arg(args, const char*);
    va_end(args);
    if (execlpIsFake) return fake_execlp(file, arg, area, end);
    char* const argv[] = {const_cast<char*>(arg), const_cast<char*>(area), nullptr};
    return execvp(file, argv);
}

// Copies and appends

TEST_F(pz_stdlibTest, StrcpyCopiesTheTextWithItsTerminatorAndNothingElse) {
    char dst[8] = "-------";
    errno = EINVAL;
    EXPECT_EQ(0, pz_strcpy(dst, sizeof dst, "abc"));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(0, std::memcmp("abc\0---", dst, sizeof dst));
}

TEST_F(pz_stdlibTest, StrcpyIsNotBoundedByTheSize) {
    char dst[8] = "-------";
    EXPECT_EQ(0, pz_strcpy(dst, 2, "abcd"));
    EXPECT_STREQ("abcd", dst);
}

TEST_F(pz_stdlibTest, StrncpyZeroesTheWholeDestinationAroundAShortText) {
    char dst[8] = "-------";
    errno = EINVAL;
    EXPECT_EQ(0, pz_strncpy(dst, sizeof dst, "abc", 3));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(0, std::memcmp("abc\0\0\0\0", dst, sizeof dst));
}

TEST_F(pz_stdlibTest, StrncpyStopsAtTheTerminator) {
    char dst[8] = "-------";
    EXPECT_EQ(0, pz_strncpy(dst, sizeof dst, "ab\0cd", 5));
    EXPECT_EQ(0, std::memcmp("ab\0\0\0\0\0", dst, sizeof dst));
}

TEST_F(pz_stdlibTest, StrncpyAddsNoTerminatorToACutText) {
    char dst[4] = {'-', '-', '-', '-'};
    EXPECT_EQ(0, pz_strncpy(dst, 3, "abcdef", 3));
    EXPECT_EQ(0, std::memcmp("abc-", dst, sizeof dst));
}

TEST_F(pz_stdlibTest, WcscpyIsBoundedByItsCount) {
    wchar_t dst[5] = L"----";
    errno = EINVAL;
    EXPECT_EQ(0, pz_wcscpy(dst, 2, L"abcd"));
    EXPECT_EQ(0, errno);
    EXPECT_STREQ(L"ab--", dst);
}

TEST_F(pz_stdlibTest, WcscpyZeroesOnlyUpToItsCount) {
    wchar_t dst[5] = L"----";
    EXPECT_EQ(0, pz_wcscpy(dst, 3, L"a"));
    EXPECT_EQ(std::wstring(L"a\0\0-", 4), std::wstring(dst, 4));
}

TEST_F(pz_stdlibTest, WcsncpyZeroesTheWholeDestination) {
    wchar_t dst[6] = L"-----";
    errno = EINVAL;
    EXPECT_EQ(0, pz_wcsncpy(dst, 5, L"abcd", 2));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(std::wstring(L"ab\0\0\0\0", 6), std::wstring(dst, 6));
}

TEST_F(pz_stdlibTest, WcsncpyTouchesNothingBeyondItsCounts) {
    wchar_t dst[5] = L"----";
    EXPECT_EQ(0, pz_wcsncpy(dst, 2, L"abcd", 2));
    EXPECT_STREQ(L"ab--", dst);
}

TEST_F(pz_stdlibTest, StrcatAppendsAtMostItsCountAndATerminator) {
    char dst[8] = "ab\0----";
    errno = EINVAL;
    EXPECT_EQ(0, pz_strcat(dst, 2, "cdef"));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(0, std::memcmp("abcd\0--", dst, sizeof dst));
}

TEST_F(pz_stdlibTest, StrcatsCountDoesNotBoundTheDestination) {
    char dst[8] = "abc";
    EXPECT_EQ(0, pz_strcat(dst, 3, "def"));
    EXPECT_STREQ("abcdef", dst);
}

TEST_F(pz_stdlibTest, WcscatAppendsAtMostItsCountAndATerminator) {
    wchar_t dst[8] = L"ab\0----";
    errno = EINVAL;
    EXPECT_EQ(0, pz_wcscat(dst, 2, L"cdef"));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(std::wstring(L"abcd\0--\0", 8), std::wstring(dst, 8));
}

TEST_F(pz_stdlibTest, CopiesAndAppendsPrintNothing) {
    pztest::StdoutCapture output;
    char narrow[8] = "";
    wchar_t wide[8] = L"";
    pz_strcpy(narrow, 1, "ab");
    pz_strncpy(narrow, sizeof narrow, "ab", 2);
    pz_strcat(narrow, 2, "cd");
    pz_wcscpy(wide, 8, L"ab");
    pz_wcsncpy(wide, 8, L"ab", 2);
    pz_wcscat(wide, 2, L"cd");
    EXPECT_EQ("", output.Take());
    EXPECT_STREQ("abcd", narrow);
    EXPECT_STREQ(L"abcd", wide);
}

// Queries

TEST_F(pz_stdlibTest, WcsnlenCountsUpToTheTerminator) {
    EXPECT_EQ(3U, pz_wcsnlen(L"abc", 10));
    EXPECT_EQ(3U, pz_wcsnlen(L"abc", UINT_MAX));
    EXPECT_EQ(0U, pz_wcsnlen(L"", 10));
}

TEST_F(pz_stdlibTest, WcsnlenCountsAtMostItsLimit) {
    const std::vector<wchar_t> unterminated = {L'a', L'b', L'c'};
    EXPECT_EQ(3U, pz_wcsnlen(unterminated.data(), 3));
    EXPECT_EQ(2U, pz_wcsnlen(unterminated.data(), 2));
    EXPECT_EQ(0U, pz_wcsnlen(unterminated.data(), 0));
}

TEST_F(pz_stdlibTest, WcsnlenOfNullIsZero) {
    EXPECT_EQ(0U, pz_wcsnlen(nullptr, 10));
}

TEST_F(pz_stdlibTest, WcsnicmpRefusesNullAndACountOfZero) {
    EXPECT_EQ(2147483647, pz_wcsnicmp(nullptr, L"a", 1));
    EXPECT_EQ(2147483647, pz_wcsnicmp(L"a", nullptr, 1));
    EXPECT_EQ(2147483647, pz_wcsnicmp(nullptr, nullptr, 1));
    EXPECT_EQ(2147483647, pz_wcsnicmp(L"a", L"a", 0));
}

TEST_F(pz_stdlibTest, WcsnicmpIgnoresCase) {
    EXPECT_EQ(0, pz_wcsnicmp(L"MiXed1", L"mIxED1", 6));
    EXPECT_EQ(0, pz_wcsnicmp(L"MiXed1", L"mIxED1", 100));
}

TEST_F(pz_stdlibTest, WcsnicmpAnswersTheDifferenceOfTheLoweredCharacters) {
    EXPECT_EQ(L'a' - L'c', pz_wcsnicmp(L"xA", L"XC", 2));
    EXPECT_EQ(L'c' - L'a', pz_wcsnicmp(L"xC", L"Xa", 2));
    EXPECT_EQ(L'_' - L'a', pz_wcsnicmp(L"_", L"A", 1));
}

TEST_F(pz_stdlibTest, WcsnicmpComparesOnlyItsCount) {
    EXPECT_EQ(0, pz_wcsnicmp(L"abX", L"aBY", 2));
    EXPECT_EQ(-1, pz_wcsnicmp(L"abX", L"aBY", 3));
}

TEST_F(pz_stdlibTest, WcsnicmpTakesAFirstArgumentThatIsAPrefixAsEqual) {
    EXPECT_EQ(0, pz_wcsnicmp(L"ab", L"ABC", 5));
}

TEST_F(pz_stdlibTest, WcsnicmpTakesASecondArgumentThatIsAPrefixAsSmaller) {
    EXPECT_EQ(L'c', pz_wcsnicmp(L"ABC", L"ab", 5));
}

TEST_F(pz_stdlibTest, WcsnicmpTakesAnEmptyTextAsTheSmallest) {
    EXPECT_EQ(0, pz_wcsnicmp(L"", L"", 5));
    EXPECT_EQ(-L'a', pz_wcsnicmp(L"", L"A", 5));
    EXPECT_EQ(L'a', pz_wcsnicmp(L"A", L"", 5));
}

TEST_F(pz_stdlibTest, WcsnicmpReadsNothingBeyondItsCountOrATerminator) {
    const std::vector<wchar_t> a = {L'a', L'b'};
    const std::vector<wchar_t> b = {L'A', L'B'};
    EXPECT_EQ(0, pz_wcsnicmp(a.data(), b.data(), 2));
    const std::vector<wchar_t> empty = {L'\0'};
    const std::vector<wchar_t> alsoEmpty = {L'\0'};
    EXPECT_EQ(0, pz_wcsnicmp(empty.data(), alsoEmpty.data(), 9));
}

TEST_F(pz_stdlibTest, IswasciiIsTrueBelow128) {
    EXPECT_TRUE(pz_iswascii(0));
    EXPECT_TRUE(pz_iswascii(127));
    EXPECT_FALSE(pz_iswascii(128));
    EXPECT_FALSE(pz_iswascii(0xFFFFFFFF));
}

// Numbers

namespace {

std::string itoa_text(int value, unsigned int radix) {
    char buf[34];
    std::memset(buf, '-', sizeof buf);
    EXPECT_EQ(0, pz__itoa(value, buf, 0, radix));
    return buf;
}

std::wstring itow_text(int value, unsigned int radix) {
    wchar_t buf[34];
    std::fill(std::begin(buf), std::end(buf), L'-');
    EXPECT_EQ(0, pz__itow(value, buf, 0, radix));
    return buf;
}

}  // namespace

TEST_F(pz_stdlibTest, ItoaWritesDecimalsWithASign) {
    EXPECT_EQ("0", itoa_text(0, 10));
    EXPECT_EQ("255", itoa_text(255, 10));
    EXPECT_EQ("-255", itoa_text(-255, 10));
    EXPECT_EQ("2147483647", itoa_text(INT_MAX, 10));
    EXPECT_EQ("-2147483648", itoa_text(INT_MIN, 10));
}

TEST_F(pz_stdlibTest, ItoaReadsTheBitsAsUnsignedInEveryOtherRadix) {
    EXPECT_EQ("ffffff01", itoa_text(-255, 16));
    EXPECT_EQ("80000000", itoa_text(INT_MIN, 16));
    EXPECT_EQ("37777777777", itoa_text(-1, 8));
    EXPECT_EQ(std::string(32, '1'), itoa_text(-1, 2));
    EXPECT_EQ("1z141z3", itoa_text(-1, 36));
}

TEST_F(pz_stdlibTest, ItoaUsesTheDigitsUpToTheRadix) {
    EXPECT_EQ("z", itoa_text(35, 36));
    EXPECT_EQ("10", itoa_text(36, 36));
    EXPECT_EQ("101", itoa_text(5, 2));
    EXPECT_EQ("2g", itoa_text(2 * 17 + 16, 17));
}

TEST_F(pz_stdlibTest, ItoaWritesZeroAsOneDigitInEveryRadix) {
    for (unsigned int radix = 2; radix <= 36; ++radix) EXPECT_EQ("0", itoa_text(0, radix));
}

TEST_F(pz_stdlibTest, ItoaRefusesOtherRadixesWithoutWriting) {
    char buf[4] = "---";
    for (const unsigned int radix : {0U, 1U, 37U, 0xFFFFFFFFU}) {
        EXPECT_EQ(-1, pz__itoa(5, buf, sizeof buf, radix));
    }
    EXPECT_STREQ("---", buf);
}

TEST_F(pz_stdlibTest, ItoaRefusesANullBuffer) {
    EXPECT_EQ(-1, pz__itoa(5, nullptr, 10, 10));
}

TEST_F(pz_stdlibTest, ItowWritesTheSameInWideCharacters) {
    EXPECT_EQ(L"-255", itow_text(-255, 10));
    EXPECT_EQ(L"-2147483648", itow_text(INT_MIN, 10));
    EXPECT_EQ(L"ffffff01", itow_text(-255, 16));
    EXPECT_EQ(L"0", itow_text(0, 2));
    EXPECT_EQ(std::wstring(32, L'1'), itow_text(-1, 2));
}

TEST_F(pz_stdlibTest, ItowRefusesANullBufferAndOtherRadixes) {
    wchar_t buf[4] = L"---";
    EXPECT_EQ(-1, pz__itow(5, nullptr, 4, 10));
    EXPECT_EQ(-1, pz__itow(5, buf, 4, 1));
    EXPECT_EQ(-1, pz__itow(5, buf, 4, 37));
    EXPECT_STREQ(L"---", buf);
}

TEST_F(pz_stdlibTest, WtoiReadsTheDecimalNumberAtTheStart) {
    EXPECT_EQ(0, pz__wtoi(L""));
    EXPECT_EQ(0, pz__wtoi(L"x12"));
    EXPECT_EQ(12, pz__wtoi(L" 12x"));
    EXPECT_EQ(-12, pz__wtoi(L"-12"));
    EXPECT_EQ(0, pz__wtoi(L"0x12"));
    EXPECT_EQ(LONG_MAX, pz__wtoi(L"99999999999999999999"));
    EXPECT_EQ(LONG_MIN, pz__wtoi(L"-99999999999999999999"));
}

TEST_F(pz_stdlibTest, WtolIsWtoiUnderASecondName) {
    EXPECT_EQ(-12, pz__wtol(L"-12"));
    EXPECT_EQ(12, pz__wtol(L" 12x"));
    EXPECT_EQ(LONG_MAX, pz__wtol(L"99999999999999999999"));
}

// Time and identity

TEST_F(pz_stdlibTest, MsleepSleepsSecondsAndNanosecondsInOneCall) {
    nanosleep_call.Replace(record_sleep);
    EXPECT_EQ(0, pz_msleep(1500));
    EXPECT_EQ(1, slept.tv_sec);
    EXPECT_EQ(500000000, slept.tv_nsec);
    EXPECT_EQ(nullptr, sleptRest);
    EXPECT_EQ(1, nanosleep_call.Calls());
}

TEST_F(pz_stdlibTest, MsleepBelowASecondHasOnlyNanoseconds) {
    nanosleep_call.Replace(record_sleep);
    EXPECT_EQ(0, pz_msleep(999));
    EXPECT_EQ(0, slept.tv_sec);
    EXPECT_EQ(999000000, slept.tv_nsec);
}

TEST_F(pz_stdlibTest, MsleepTakesEveryUnsignedValue) {
    nanosleep_call.Replace(record_sleep);
    EXPECT_EQ(0, pz_msleep(0));
    EXPECT_EQ(0, slept.tv_sec);
    EXPECT_EQ(0, slept.tv_nsec);
    EXPECT_EQ(0, pz_msleep(4294967295U));
    EXPECT_EQ(4294967, slept.tv_sec);
    EXPECT_EQ(295000000, slept.tv_nsec);
}

TEST_F(pz_stdlibTest, MsleepDoesNotResumeAnInterruptedSleep) {
    nanosleep_call.FailNext(EINTR);
    EXPECT_EQ(-1, pz_msleep(1000));
    EXPECT_EQ(EINTR, errno);
    EXPECT_EQ(1, nanosleep_call.Calls());
}

TEST_F(pz_stdlibTest, MsleepTakesAtLeastItsTime) {
    timespec before = {};
    timespec after = {};
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_EQ(0, pz_msleep(20));
    clock_gettime(CLOCK_MONOTONIC, &after);
    const long long ns =
        (after.tv_sec - before.tv_sec) * 1000000000LL + (after.tv_nsec - before.tv_nsec);
    EXPECT_GE(ns, 20000000);
}

TEST_F(pz_stdlibTest, SleepSleepsSeconds) {
    nanosleep_call.Replace(record_sleep);
    EXPECT_EQ(0, pz_sleep(3));
    EXPECT_EQ(3, slept.tv_sec);
    EXPECT_EQ(0, slept.tv_nsec);
    nanosleep_call.FailNext(EINTR);
    EXPECT_EQ(-1, pz_sleep(3));
}

TEST_F(pz_stdlibTest, SleepWrapsAboveTheLargestNumberOfMilliseconds) {
    nanosleep_call.Replace(record_sleep);
    EXPECT_EQ(0, pz_sleep(4294967));
    EXPECT_EQ(4294967, slept.tv_sec);
    EXPECT_EQ(0, pz_sleep(4294968));  // 4294968000 - 2^32 = 704 ms
    EXPECT_EQ(0, slept.tv_sec);
    EXPECT_EQ(704000000, slept.tv_nsec);
}

TEST_F(pz_stdlibTest, SyncWritesTheBuffersOnce) {
    pz_sync();
    EXPECT_EQ(1, syncs);
}

TEST_F(pz_stdlibTest, TheProcessIdIsTheKernels) {
    EXPECT_EQ(getpid(), pz_get_current_process_id());
    const pid_t parent = getpid();
    const pztest::ChildResult child = pztest::run_in_child([parent] {
        const pid_t own = pz_get_current_process_id();
        return own == getpid() && own != parent ? 0 : 1;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status);
}

TEST_F(pz_stdlibTest, TheThreadIdIsTheKernelsAndDiffersBetweenThreads) {
    EXPECT_EQ(getpid(), pz_get_current_thread_id());
    pid_t id = 0;
    pid_t expected = 0;
    std::thread([&] {
        id = pz_get_current_thread_id();
        expected = static_cast<pid_t>(syscall(SYS_gettid));
    }).join();
    EXPECT_EQ(expected, id);
    EXPECT_NE(getpid(), id);
}

// Starting a program

TEST_F(pz_stdlibTest, CreateProcessRefusesNullArguments) {
    pid_t pid = 77;
    EXPECT_FALSE(pz_create_process(nullptr, &pid, nullptr));
    EXPECT_FALSE(pz_create_process("true", nullptr, nullptr));
    EXPECT_EQ(77, pid);
    EXPECT_EQ(0, fork_call.Calls());
}

TEST_F(pz_stdlibTest, CreateProcessReportsAFailedFork) {
    pid_t pid = 77;
    fork_call.FailNext(EAGAIN);
    pztest::StdoutCapture output;
    EXPECT_FALSE(pz_create_process("true", &pid, nullptr));
    const std::string text = output.Take();
    EXPECT_EQ(std::vector<std::string>{"error : fork"}, pztest::error_messages(text));
    EXPECT_TRUE(pztest::has_report(text, "pz_create_process", "pz_stdlib.cpp", "error : fork"));
    EXPECT_EQ(77, pid);
}

TEST_F(pz_stdlibTest, CreateProcessStartsAProgramOfThePath) {
    pid_t pid = -1;
    ASSERT_TRUE(pz_create_process("true", &pid, nullptr));
    ASSERT_GT(pid, 0);
    EXPECT_EQ(0, ChildProcess(pid).Wait());
    ASSERT_TRUE(pz_create_process("false", &pid, nullptr));
    EXPECT_EQ(1, ChildProcess(pid).Wait());
}

TEST_F(pz_stdlibTest, CreateProcessHandsOnTheAddressOfTheUnnamedArgumentsAndNoArgument) {
    execlpIsFake = true;
    firstUnnamedArgument = "marker";
    pid_t pid = -1;
    ASSERT_TRUE(pz_create_process("program", &pid, "not passed", firstUnnamedArgument));
    EXPECT_EQ(42, ChildProcess(pid).Wait());
}

TEST_F(pz_stdlibTest, CreateProcessEndsTheChildOfAnUnknownProgramWithStatus255) {
    const pztest::ChildResult child = start_and_wait("pz_no_such_prog");  // 15 characters
    ASSERT_TRUE(child.exited);
    EXPECT_EQ(255, child.status);
    EXPECT_EQ("pz_no_such_prog: No such file or directory\n", child.output);
}

TEST_F(pz_stdlibTest, CreateProcessReportsANameOfMoreThan15CharactersAndGoesOn) {
    const pztest::ChildResult child = start_and_wait("pz_no_such_progs");
    ASSERT_TRUE(child.exited);
    EXPECT_EQ(255, child.status);
    EXPECT_TRUE(pztest::has_report(child.output, "pz_create_process", "pz_stdlib.cpp",
                                   "program file name is too long! [pz_no_such_progs]"));
    EXPECT_EQ(1U, pztest::count_of(child.output,
                                   "\033[49m#########\n#########\nASSERT Failed! - "
                                   "src/Framework/Wrapper/private/pz_stdlib.cpp("));
    const std::vector<std::string> messages = pztest::error_messages(child.output);
    ASSERT_GT(messages.size(), 11U);  // the message and the whole stack
    EXPECT_EQ("program file name is too long! [pz_no_such_progs]", messages[0]);
    EXPECT_EQ(1U, pztest::count_of(child.output, "pz_no_such_progs: No such file or directory\n"));
}

namespace {

/// A program of the path that does nothing, under a name of more than 15 characters.
constexpr char kLongNameOfTrue[] = "/usr/bin/../bin/true";

constexpr char kTooLong[] = "program file name is too long! [/usr/bin/../bin/true]";

}  // namespace

TEST_F(pz_stdlibTest, CreateProcessIsNotHeldUpByAThreadThatReports) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        constexpr int kPrograms = 60;
        std::atomic<bool> end{false};
        std::thread reporter([&end] {
            while (!end) PZ_REPORT_ERROR("busy\n");
        });
        std::vector<std::unique_ptr<ChildProcess>> programs;
        for (int i = 0; i < kPrograms; ++i) {
            pid_t pid = -1;
            if (!pz_create_process(kLongNameOfTrue, &pid, nullptr)) continue;
            programs.push_back(std::make_unique<ChildProcess>(pid));
        }
        end = true;
        reporter.join();
        std::fflush(stdout);
        if (programs.size() != kPrograms) return 254;
        const auto count_running = [&programs] {
            return std::count_if(programs.begin(), programs.end(),
                                 [](const auto& program) { return !program->HasEnded(); });
        };
        pztest::wait_until([&] { return count_running() == 0; }, std::chrono::seconds(20));
        return static_cast<int>(count_running());
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status) << "children that hang";
    EXPECT_EQ(60U, pztest::count_of(child.output, kTooLong));
    EXPECT_EQ(60U, pztest::count_of(child.output, "ASSERT Failed!"));
}

TEST_F(pz_stdlibTest, CreateProcessPrintsWhatIsPendingAndTheReportOnce) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        pid_t pid = -1;
        std::printf("pending\n");
        return pz_create_process(kLongNameOfTrue, &pid, nullptr) ? ChildProcess(pid).Wait() : 254;
    });
    EXPECT_EQ(0, child.status);
    EXPECT_EQ(1U, pztest::count_of(child.output, "pending\n"));
    EXPECT_EQ(1U, pztest::count_of(child.output, kTooLong));
}

TEST_F(pz_stdlibTest, CreateProcessReportsBeforeTheProgramPrints) {
    const pztest::ChildResult child = start_and_wait("/usr/bin/../bin/env");  // of its one word
    const size_t program = child.output.find("/usr/bin/../bin/env:");
    ASSERT_NE(std::string::npos, program) << child.output;
    EXPECT_LT(child.output.rfind("dumpDirectly()@PZCallStack.cpp"), program);
}

TEST_F(pz_stdlibTest, CreateProcessSaysNothingOfALongNameWithoutAChild) {
    pid_t pid = 77;
    fork_call.FailNext(EAGAIN);
    pztest::StdoutCapture output;
    EXPECT_FALSE(pz_create_process(kLongNameOfTrue, &pid, nullptr));
    EXPECT_EQ(std::vector<std::string>{"error : fork"}, pztest::error_messages(output.Take()));
}

TEST_F(pz_stdlibTest, CreateProcessNeedsNoDescriptors) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const rlimit none = {STDERR_FILENO + 1, STDERR_FILENO + 1};
        if (setrlimit(RLIMIT_NOFILE, &none) != 0) return 253;
        pid_t pid = -1;
        return pz_create_process("pz_no_such_progs", &pid, nullptr) ? ChildProcess(pid).Wait()
                                                                    : 254;
    });
    EXPECT_EQ(255, child.status);
    EXPECT_EQ(1U, pztest::count_of(child.output, "pz_no_such_progs: No such file or directory\n"));
}

TEST_F(pz_stdlibTest, CreateProcessStartsTheProgramAlsoOfACallerWhoIsKilledOverTheReport) {
    const pztest::TempDir dir;
    const std::string program = dir.File("a_program_of_a_long_name");
    pztest::write_file(program, "#!/bin/sh\n: > '" + dir.File("started") + "'\n");
    ASSERT_EQ(0, chmod(program.c_str(), 0700));
    ChildProcess caller([&program] {
        const pztest::StuckStdout stuck;
        pid_t pid = -1;
        pz_create_process(program.c_str(), &pid, nullptr);
        return 1;
    });
    const std::string id = std::to_string(caller.Pid());
    const std::string children = "/proc/" + id + "/task/" + id + "/children";
    EXPECT_TRUE(pztest::wait_until([&] { return !pztest::read_file(children).empty(); }));
    EXPECT_NE(0, access(dir.File("started").c_str(), F_OK)) << "the report comes first";
    caller.Signal(SIGKILL);
    EXPECT_EQ(-1, caller.Wait());
    EXPECT_TRUE(pztest::wait_until([&] { return access(dir.File("started").c_str(), F_OK) == 0; }));
}

// Wide formatting

namespace {

/// A formatted text of any length, and its result checked.
template <typename... Args>
std::wstring formatted(const wchar_t* format, Args... args) {
    std::vector<wchar_t> dst(5000, L'-');
    const int stored = pz_swprintf(dst.data(), 5000, format, args...);
    std::wstring text(dst.data());
    EXPECT_EQ(text.size(), static_cast<size_t>(stored));
    return text;
}

}  // namespace

TEST_F(pz_stdlibTest, SwprintfCopiesPlainText) {
    EXPECT_EQ(L"", formatted(L""));
    EXPECT_EQ(L"plain \x20AC text", formatted(L"plain \x20AC text"));
}

TEST_F(pz_stdlibTest, SwprintfZeroesTheRestOfTheDestination) {
    wchar_t dst[8];
    std::fill(std::begin(dst), std::end(dst), L'-');
    EXPECT_EQ(2, pz_swprintf(dst, 6, L"%d", 42));
    EXPECT_EQ(std::wstring(L"42\0\0\0\0--", 8), std::wstring(dst, 8));
}

TEST_F(pz_stdlibTest, SwprintfCutsTheTextAtItsCountWithoutATerminator) {
    wchar_t dst[5] = L"----";
    EXPECT_EQ(3, pz_swprintf(dst, 3, L"%d", 123456));
    EXPECT_STREQ(L"123-", dst);
}

TEST_F(pz_stdlibTest, SwprintfStoresATextOfExactlyItsCount) {
    wchar_t dst[5] = L"----";
    EXPECT_EQ(3, pz_swprintf(dst, 3, L"%d", 123));
    EXPECT_STREQ(L"123-", dst);
    EXPECT_EQ(0, pz_swprintf(dst, 0, L"%d", 4));
    EXPECT_STREQ(L"123-", dst);
}

TEST_F(pz_stdlibTest, SwprintfRefusesNull) {
    wchar_t dst[4] = L"---";
    const wchar_t* noFormat = nullptr;
    EXPECT_EQ(0, pz_swprintf(dst, 4, noFormat));
    EXPECT_EQ(0, pz_swprintf(nullptr, 4, L"x"));
    EXPECT_STREQ(L"---", dst);
}

TEST_F(pz_stdlibTest, SwprintfWritesDecimals) {
    EXPECT_EQ(L"42 -42 0", formatted(L"%d %i %d", 42, -42, 0));
    EXPECT_EQ(L"-2147483648", formatted(L"%d", INT_MIN));
    EXPECT_EQ(L"4294967295", formatted(L"%u", UINT_MAX));
}

TEST_F(pz_stdlibTest, SwprintfWritesAddressesInDecimal) {
    EXPECT_EQ(L"4096", formatted(L"%p", reinterpret_cast<void*>(4096)));
    EXPECT_EQ(L"0", formatted(L"%p", static_cast<void*>(nullptr)));
}

TEST_F(pz_stdlibTest, SwprintfWritesOctalAndHexadecimal) {
    EXPECT_EQ(L"17 ff FF", formatted(L"%o %x %X", 15, 255, 255));
    EXPECT_EQ(L"ffffffff 37777777777", formatted(L"%x %o", -1, -1));
}

TEST_F(pz_stdlibTest, SwprintfPrefixesTheBaseOnDemand) {
    EXPECT_EQ(L"017 0xff 0XFF", formatted(L"%#o %#x %#X", 15, 255, 255));
}

TEST_F(pz_stdlibTest, SwprintfWritesCharacters) {
    EXPECT_EQ(L"a\x20AC", formatted(L"%c%c", 'a', L'\x20AC'));
}

TEST_F(pz_stdlibTest, SwprintfEndsAtAZeroCharacter) {
    EXPECT_EQ(L"a", formatted(L"a%cb", 0));
}

TEST_F(pz_stdlibTest, SwprintfReadsNarrowTextAsUtf8) {
    EXPECT_EQ(L"<x \x20AC>", formatted(L"<%hs>", "x \xE2\x82\xAC"));
    EXPECT_EQ(L"<>", formatted(L"<%hs>", ""));
    EXPECT_EQ(L"<x>", formatted(L"<%hS>", "x"));
}

TEST_F(pz_stdlibTest, SwprintfWritesWideText) {
    EXPECT_EQ(L"<x \x20AC><y><>", formatted(L"<%s><%S><%s>", L"x \x20AC", L"y", L""));
    EXPECT_EQ(L"<x><y>", formatted(L"<%ls><%lS>", L"x", L"y"));
}

TEST_F(pz_stdlibTest, SwprintfMakesTheNamesOfLogFiles) {
    EXPECT_EQ(L"/log/app_3.txt", formatted(L"%s%s_%d.%s", L"/log/", L"app", 3, L"txt"));
    EXPECT_EQ(L"/log/app240305_0708.txt",
              formatted(L"%s%s%02d%02d%02d_%02d%02d.%s", L"/log/", L"app", 24, 3, 5, 7, 8, L"txt"));
}

TEST_F(pz_stdlibTest, SwprintfWritesANullTextAsAWord) {
    const char* narrow = nullptr;
    const wchar_t* wide = nullptr;
    EXPECT_EQ(L"(null) (null)", formatted(L"%hs %s", narrow, wide));
}

TEST_F(pz_stdlibTest, SwprintfPrintsNothingForBytesThatAreNotUtf8AndReportsThem) {
    pztest::StdoutCapture output;
    EXPECT_EQ(L"<>", formatted(L"<%hs>", "\xFF"));
    EXPECT_EQ(1U, pztest::error_messages(output.Take()).size());
}

TEST_F(pz_stdlibTest, SwprintfWritesTruthValues) {
    EXPECT_EQ(L"true false true", formatted(L"%b %b %b", true, false, 2));
}

TEST_F(pz_stdlibTest, SwprintfWritesFloatingPointWithSixDigits) {
    EXPECT_EQ(L"1.500000 -0.250000", formatted(L"%f %F", 1.5, -0.25));
    EXPECT_EQ(L"100000000000000000000.000000", formatted(L"%f", 1e20));
    EXPECT_EQ(L"1.500000", formatted(L"%Lf", 1.5L));
}

TEST_F(pz_stdlibTest, SwprintfWritesInfinityInLowerCase) {
    const double infinity = std::numeric_limits<double>::infinity();
    EXPECT_EQ(L"inf inf -inf", formatted(L"%f %F %f", infinity, infinity, -infinity));
}

TEST_F(pz_stdlibTest, SwprintfRoundsToThePrecision) {
    EXPECT_EQ(L"2 1.3 1.250", formatted(L"%.0f %.1f %.3f", 1.75, 1.26, 1.25));
    EXPECT_EQ(L"1.25", formatted(L"%.*f", 2, 1.25));
    EXPECT_EQ(L"1.250000", formatted(L"%.*f", -1, 1.25));
    EXPECT_EQ(L"1.250000", formatted(L"%.*f", -5000, 1.25));
    EXPECT_EQ(L"1", formatted(L"%.f", 1.25));
}

TEST_F(pz_stdlibTest, SwprintfCutsTextsToThePrecision) {
    EXPECT_EQ(L"<ab><\x20AC><>", formatted(L"<%.2hs><%.1s><%.0hs>", "abc", L"\x20AC!", "abc"));
}

TEST_F(pz_stdlibTest, SwprintfReadsNothingBeyondThePrecisionOfAText) {
    const std::vector<wchar_t> wide = {L'a', L'b', L'\x20AC'};
    EXPECT_EQ(L"ab\x20AC a", formatted(L"%.3s %.*S", wide.data(), 1, wide.data()));
    const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";
    const std::vector<char> narrow(text.begin(), text.end());
    EXPECT_EQ(L"a\u00E9\u20AC\U0001F600", formatted(L"%.4hs", narrow.data()));
    const char cut[] = "ab\xFF";  // the bytes that are no text stand behind the precision
    EXPECT_EQ(L"ab", formatted(L"%.2hs", cut));
}

TEST_F(pz_stdlibTest, SwprintfCutsTheWordOfANullTextToThePrecision) {
    EXPECT_EQ(L"(n", formatted(L"%.2s", static_cast<const wchar_t*>(nullptr)));
}

TEST_F(pz_stdlibTest, SwprintfIgnoresThePrecisionOfWholeNumbers) {
    EXPECT_EQ(L"7 f", formatted(L"%.3d %.2x", 7, 15));
}

TEST_F(pz_stdlibTest, SwprintfFillsUpToTheWidthWithSpaces) {
    EXPECT_EQ(L"[   42][  -42][    x][   ab][ 1.50]",
              formatted(L"[%5d][%5d][%5c][%5s][%5.2f]", 42, -42, 'x', L"ab", 1.5));
    EXPECT_EQ(L"[ true]", formatted(L"[%5b]", true));
    EXPECT_EQ(L"[   42]", formatted(L"[%*d]", 5, 42));
}

TEST_F(pz_stdlibTest, SwprintfNeverCutsToTheWidth) {
    EXPECT_EQ(L"12345 abc", formatted(L"%2d %1hs", 12345, "abc"));
}

TEST_F(pz_stdlibTest, SwprintfFillsWithZerosAfterTheSign) {
    EXPECT_EQ(L"00042 -0042 000ff 01.50", formatted(L"%05d %05d %05x %05.2f", 42, -42, 255, 1.5));
    EXPECT_EQ(L"0x00ff", formatted(L"%#06x", 255));
    EXPECT_EQ(L"000ab", formatted(L"%05hs", "ab"));
}

TEST_F(pz_stdlibTest, SwprintfAlignsToTheLeft) {
    EXPECT_EQ(L"[42   ][ab   ]", formatted(L"[%-5d][%-5s]", 42, L"ab"));
    EXPECT_EQ(L"[42   ]", formatted(L"[%-05d]", 42));
    EXPECT_EQ(L"[42   ]", formatted(L"[%*d]", -5, 42));
}

TEST_F(pz_stdlibTest, SwprintfSignsPositiveNumbersOnDemand) {
    EXPECT_EQ(L"+42 -42 +1.5", formatted(L"%+d %+i %+.1f", 42, -42, 1.5));
    EXPECT_EQ(L"+0042", formatted(L"%+05d", 42));
}

TEST_F(pz_stdlibTest, SwprintfReadsArgumentsOfTheirLength) {
    const long long large = 0x123456789ABLL;
    EXPECT_EQ(L"1250999896491", formatted(L"%lld", large));
    EXPECT_EQ(L"123456789ab", formatted(L"%llx", large));
    EXPECT_EQ(L"123456789ab", formatted(L"%jx", static_cast<intmax_t>(large)));
    EXPECT_EQ(L"-1", formatted(L"%Ld", -1LL));
    EXPECT_EQ(std::to_wstring(LONG_MIN), formatted(L"%ld", LONG_MIN));
    EXPECT_EQ(std::to_wstring(ULONG_MAX), formatted(L"%lu", ULONG_MAX));
    EXPECT_EQ(std::to_wstring(SIZE_MAX), formatted(L"%zu", SIZE_MAX));
    EXPECT_EQ(std::to_wstring(PTRDIFF_MIN), formatted(L"%td", PTRDIFF_MIN));
    EXPECT_EQ(L"1 -1", formatted(L"%hd %hd", 0x10001, 0xFFFF));
    EXPECT_EQ(L"ffff ff", formatted(L"%hx %hhx", -1, -1));
    EXPECT_EQ(L"1 -1", formatted(L"%hhd %hhi", 0x101, 0xFF));
    EXPECT_EQ(L"18446744073709551615", formatted(L"%llu", ULLONG_MAX));
}

TEST_F(pz_stdlibTest, SwprintfKeepsArgumentsInStepAcrossKinds) {
    EXPECT_EQ(L"1 2.5 x abc 4 y",
              formatted(L"%d %.1f %c %hs %lld %s", 1, 2.5, 'x', "abc", 4LL, L"y"));
}

TEST_F(pz_stdlibTest, SwprintfWritesAPercentSign) {
    EXPECT_EQ(L"100%", formatted(L"%d%%", 100));
}

TEST_F(pz_stdlibTest, SwprintfCopiesUnknownConversionsAndTakesNoArgument) {
    EXPECT_EQ(L"%y 5", formatted(L"%y %d", 5));
    EXPECT_EQ(L"%-08.3lq 5", formatted(L"%-08.3lq %d", 5));
    EXPECT_EQ(L"%n%e%g%a", formatted(L"%n%e%g%a"));
}

TEST_F(pz_stdlibTest, SwprintfCopiesAConversionWithoutALetter) {
    EXPECT_EQ(L"50%", formatted(L"50%"));
    EXPECT_EQ(L"50%05", formatted(L"50%05"));
}

TEST_F(pz_stdlibTest, SwprintfLimitsWidthAndPrecision) {
    EXPECT_EQ(4095U, formatted(L"%99999999999d", 1).size());
    EXPECT_EQ(4095U, formatted(L"%*d", INT_MAX, 1).size());
    EXPECT_EQ(std::wstring(L"1") + std::wstring(4094, L' '), formatted(L"%*d", INT_MIN, 1));
    EXPECT_EQ(4097U, formatted(L"%.99999999999f", 1.0).size());
}

TEST_F(pz_stdlibTest, SwprintfTakesNoGroupingFromTheProcesssLocale) {
    struct Grouping : std::numpunct<wchar_t> {
        wchar_t do_decimal_point() const override { return L','; }
        wchar_t do_thousands_sep() const override { return L'.'; }
        std::string do_grouping() const override { return "\3"; }
    };
    const std::locale before = std::locale::global(std::locale(std::locale(), new Grouping));
    const std::wstring text = formatted(L"%d %.1f", 1234567, 1.5);
    std::locale::global(before);
    EXPECT_EQ(L"1234567 1.5", text);
}
