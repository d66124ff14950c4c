#include "Framework/Foundation/PZClock.h"

#include <fcntl.h>
#include <linux/rtc.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Foundation/PZFileSys.h>

#include "support/CancelledStack.h"
#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/ManualTick.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"

PZ_INTERPOSE(gettimeofday, 2);
PZ_INTERPOSE(gmtime_r, 2);
PZ_INTERPOSE(localtime, 1);
PZ_INTERPOSE(mktime, 1);
PZ_INTERPOSE(fork, 0);
PZ_INTERPOSE(waitpid, 3);
PZ_INTERPOSE(mkdtemp, 1);

// Nothing here may touch the machine's clocks: the date program and the real-time clock exist only
// as the fakes below, which refuse as long as a test asks for nothing else, and the zone file is
// never copied to its real place.

using pztest::error_messages;
using pztest::has_report;
using pztest::run_in_child;
using pztest::StdoutCapture;

static_assert(std::has_virtual_destructor_v<PZClock>);
static_assert(sizeof(PZClock) == sizeof(void*), "no data");
static_assert(std::is_same_v<TimeZone, PZClock::TimeZone>);
static_assert(std::is_same_v<int, decltype(PZClock::ST_CLOCK::year)>);
static_assert(std::is_same_v<unsigned int, decltype(PZClock::ST_CLOCK::month)>);
static_assert(std::is_same_v<long long, decltype(PZClock::ToCalendarTime(nullptr))>);
static_assert(std::is_same_v<unsigned long, decltype(PZClock::GetTime())>);

namespace {

using Clock = PZClock::ST_CLOCK;

// The C library's clock and calendar.

timeval fake_now = {};
int tell_fake_now(timeval* now, void*) {
    *now = fake_now;
    return 0;
}

tm converted = {};
time_t mktime_result = 0;
time_t remember_converted(tm* time) {
    converted = *time;
    time->tm_year = 0;  // the C library normalises its argument
    return mktime_result;
}

// The real-time clock.

struct RealTimeClock {
    int openError = ENXIO;
    int setError = EPERM;
    int setResult = -1;

    int opened = 0;
    int flags = 0;
    int device = -1;
    int requests = 0;
    int requestDevice = -1;
    rtc_time time = {};
};
RealTimeClock rtc;

int open_rtc(int flags) {
    ++rtc.opened;
    rtc.flags = flags;
    if (rtc.openError != 0) {
        errno = rtc.openError;
        return -1;
    }
    rtc.device = ::dup(STDERR_FILENO);
    return rtc.device;
}

int set_rtc(int device, const rtc_time* time) {
    ++rtc.requests;
    rtc.requestDevice = device;
    rtc.time = *time;
    if (rtc.setResult < 0) errno = rtc.setError;
    return rtc.setResult;
}

// The date program. `date_program` runs in its place, in the forked child.

using DateProgram = int (*)(const std::vector<std::string>& words);
DateProgram date_program = nullptr;

pid_t fork_to_child() {
    return 0;
}

constexpr pid_t kDatePid = 4711;
pid_t fork_to_parent() {
    return kDatePid;
}

pid_t waited_for = -1;
int wait_options = -1;
int date_status = 0;
int error_behind_wait = 0;
pid_t remember_wait(pid_t pid, int* status, int options) {
    waited_for = pid;
    wait_options = options;
    *status = date_status;
    errno = error_behind_wait;
    return pid;
}

int print_words(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += "<" + word + ">";
    if (::write(STDOUT_FILENO, text.data(), text.size()) == -1) ::_exit(99);
    ::_exit(42);
}

int exit_with_1(const std::vector<std::string>&) {
    ::_exit(1);
}

int end_by_signal(const std::vector<std::string>&) {
    std::raise(SIGKILL);
    ::_exit(99);
}

int signal_the_parent(const std::vector<std::string>&) {
    ::kill(::getppid(), SIGUSR1);
    ::poll(nullptr, 0, 50);
    ::_exit(0);
}

int exit_with_the_state_of_sigusr1(const std::vector<std::string>&) {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    const int blocked = sigismember(&mask, SIGUSR1) == 1 ? 1 : 0;
    const int other = sigismember(&mask, SIGUSR2) == 1 ? 2 : 0;
    ::_exit(blocked + other);
}

// The zone file and the zone rules. `steps` is what SetTimeZone did, in order.

std::vector<std::string> steps;
std::deque<bool> copy_results;       // of the next copies; true behind the last
std::deque<const char*> zone_names;  // tzname[0] from the next tzset on; the last one stays
std::string zone_file_source;        // copied for real, when not empty, ...
std::string zone_file_copy;          // ... to here
bool rules_are_real = false;
char daylight_name[] = "XDT";

pztest::Interposed<int(int, const char*, const timespec*, int)> utimensat_call("utimensat");
pztest::Interposed<int(const char*, const char*)> rename_call("rename");
pztest::Interposed<bool(const char*, const char*, bool, bool)> copy_call(
    "_ZN9PZFileSys4CopyEPKcS1_bb");

const char* text_of(bool value) {
    return value ? "true" : "false";
}

constexpr char kActive[] = "/tmp/tzfile";
std::string made_folder;  // the last one in which a zone file was made

/// What the library takes for the active zone file is that of the test, or nothing.
const char* redirected(const char* path) {
    return std::strcmp(path, kActive) == 0 ? zone_file_copy.c_str() : path;
}

bool copy_zone_file(const char* src, const char* dst, bool failIfExists, bool createDirs) {
    const std::string place = dst;
    const bool isNew = place.compare(0, sizeof kActive, std::string(kActive) + ".") == 0;
    if (isNew) made_folder = place.substr(0, place.rfind('/'));
    steps.push_back(std::string("copy ") + src + " " + (isNew ? kActive : dst) + " " +
                    text_of(failIfExists) + " " + text_of(createDirs));
    if (!zone_file_source.empty()) {
        return copy_call.Real(zone_file_source.c_str(), redirected(dst), failIfExists, createDirs);
    }
    if (copy_results.empty()) return true;
    const bool result = copy_results.front();
    copy_results.pop_front();
    return result;
}

void apply_rules() {
    steps.emplace_back("tzset");
    if (rules_are_real) {
        reinterpret_cast<void (*)()>(dlsym(RTLD_NEXT, "tzset"))();
        return;
    }
    if (zone_names.empty()) return;
    tzname[0] = const_cast<char*>(zone_names.front());
    tzname[1] = daylight_name;
    if (zone_names.size() > 1) zone_names.pop_front();
}

int count_sleep(const timespec* time, timespec*) {
    const long long ms = time->tv_sec * 1000LL + time->tv_nsec / 1000000;
    steps.push_back("sleep " + std::to_string(ms) + " ms");
    errno = EINTR;
    return -1;  // interrupted: nobody may depend on it
}

std::string copy_step(const std::string& path) {
    return "copy " + path + " /tmp/tzfile false false";
}

}  // namespace

extern "C" int open(const char* file, int oflag, ...) {
    if (std::strcmp(file, "/dev/rtc0") == 0) return open_rtc(oflag);
    va_list args;
    va_start(args, oflag);
    const unsigned int mode = va_arg(args, unsigned int);
    va_end(args);
    return ::openat(AT_FDCWD, file, oflag, mode);
}
extern "C" int open64(const char* file, int oflag, ...) {
    if (std::strcmp(file, "/dev/rtc0") == 0) return open_rtc(oflag);
    va_list args;
    va_start(args, oflag);
    const unsigned int mode = va_arg(args, unsigned int);
    va_end(args);
    return ::openat64(AT_FDCWD, file, oflag, mode);
}
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list args;
    va_start(args, request);
    void* const argument = va_arg(args, void*);
    va_end(args);
    if (request == RTC_SET_TIME) return set_rtc(fd, static_cast<const rtc_time*>(argument));
    errno = ENOTTY;
    return -1;
}
extern "C" int lstat64(const char* path, struct stat64* status) noexcept {
    return ::fstatat64(AT_FDCWD, redirected(path), status, AT_SYMLINK_NOFOLLOW);
}
extern "C" int utimensat(int fd, const char* path, const timespec* times, int flags) noexcept {
    return utimensat_call(fd, redirected(path), times, flags);
}
extern "C" int rename(const char* from, const char* to) noexcept {
    // As long as nothing is copied for real, there is nothing to rename either.
    return zone_file_copy.empty() ? 0 : rename_call(from, redirected(to));
}
extern "C" int execl(const char* path, const char* arg, ...) noexcept {
    std::vector<std::string> words = {path};
    va_list args;
    va_start(args, arg);
    for (const char* word = arg; word != nullptr; word = va_arg(args, const char*)) {
        words.emplace_back(word);
    }
    va_end(args);
    if (date_program != nullptr) return date_program(words);
    errno = ENOENT;
    return -1;
}
extern "C" int nanosleep(const timespec* requested_time, timespec* remaining) {
    return count_sleep(requested_time, remaining);
}
extern "C" void sync() noexcept {
    steps.emplace_back("sync");
}
extern "C" void tzset() noexcept {
    apply_rules();
}
extern "C" void syslog(int pri, const char*, ...) {
    if (pri == LOG_NOTICE) steps.emplace_back("print");
}
bool PZFileSys::Copy(const char* src, const char* dst, bool failIfExists, bool createDirs) {
    return copy_zone_file(src, dst, failIfExists, createDirs);
}

namespace {

/// 2024-03-05 07:08:09, a Tuesday.
constexpr Clock kMorning = {2024, 3, 2, 5, 7, 8, 9};
constexpr long long kMorningSeconds = 1709622489;

constexpr Clock kUntouched = {-1, 77, 77, 77, 77, 77, 77};

std::array<long long, 7> fields(const Clock& clock) {
    return {clock.year, clock.month,  clock.dayOfWeek, clock.day,
            clock.hour, clock.minute, clock.second};
}

#define EXPECT_CLOCK(expected, actual) EXPECT_EQ(fields(expected), fields(actual))

/// A zone of 5:30 hours ahead of UTC without daylight-saving time.
constexpr char kHalfPastFive[] = "XYZ-5:30";

/// One hour behind UTC, two ahead of it from the last Sunday of March to that of October.
constexpr char kSummerZone[] = "WIN1SUM-2,M3.5.0/2,M10.5.0/3";

class PZClockTest : public testing::Test {
protected:
    void SetUp() override { UseZone("UTC0"); }

    void TearDown() override {
        gettimeofday_call.Reset();
        gmtime_r_call.Reset();
        localtime_call.Reset();
        mktime_call.Reset();
        fork_call.Reset();
        waitpid_call.Reset();
        date_program = nullptr;
        rtc = RealTimeClock();
    }

    /// The C library reads it with its next conversion.
    static void UseZone(const char* zone) { ASSERT_EQ(0, setenv("TZ", zone, 1)); }

    static void SetNow(long long seconds, int microseconds = 0) {
        fake_now.tv_sec = static_cast<time_t>(seconds);
        fake_now.tv_usec = microseconds;
        gettimeofday_call.Replace(&tell_fake_now);
    }

    /// The messages since the last call.
    std::vector<std::string> Errors() { return error_messages(output.Take()); }

    StdoutCapture output;
    Clock clock = kUntouched;
};

std::string error_text(int error) {
    return std::to_string(error) + ":" + std::strerror(error);
}

using Messages = std::vector<std::string>;

}  // namespace

// The current time

TEST_F(PZClockTest, TellsTheCurrentTimeInUtc) {
    UseZone(kHalfPastFive);
    SetNow(kMorningSeconds);
    EXPECT_TRUE(PZClock::GetUtc(&clock));
    EXPECT_CLOCK(kMorning, clock);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, TellsTheCurrentTimeInTheZoneOfTheProcess) {
    UseZone(kHalfPastFive);
    SetNow(kMorningSeconds);
    EXPECT_TRUE(PZClock::GetLocal(&clock));
    EXPECT_CLOCK((Clock{2024, 3, 2, 5, 12, 38, 9}), clock);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, DropsTheMicroseconds) {
    SetNow(kMorningSeconds, 999999);
    EXPECT_TRUE(PZClock::GetUtc(&clock));
    EXPECT_CLOCK(kMorning, clock);
    EXPECT_TRUE(PZClock::GetLocal(&clock));
    EXPECT_CLOCK(kMorning, clock);
}

TEST_F(PZClockTest, ReadsTheRealClock) {
    const time_t before = std::time(nullptr);
    EXPECT_TRUE(PZClock::GetUtc(&clock));
    const long long now = PZClock::ToCalendarTime(&clock);
    EXPECT_LE(before, now + 1);  // time() may read a coarser clock
    EXPECT_LE(now, std::time(nullptr) + 1);
}

TEST_F(PZClockTest, TellsTimesAfter2038WhereTheMachineCountsThem) {
    if constexpr (sizeof(time_t) > sizeof(int)) {
        SetNow(0x100000000LL);
        EXPECT_TRUE(PZClock::GetUtc(&clock));
        EXPECT_CLOCK((Clock{2106, 2, 0, 7, 6, 28, 16}), clock);
    } else {
        SetNow(0x7FFFFFFFLL);
        EXPECT_TRUE(PZClock::GetUtc(&clock));
        EXPECT_CLOCK((Clock{2038, 1, 2, 19, 3, 14, 7}), clock);
    }
}

TEST_F(PZClockTest, ReportsThatTheTimeCannotBeRead) {
    gettimeofday_call.FailNext(EFAULT);
    EXPECT_FALSE(PZClock::GetUtc(&clock));
    std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "GetUtc", "PZClock.cpp", "err(" + error_text(EFAULT) + ")"));
    EXPECT_EQ(1U, error_messages(text).size());

    gettimeofday_call.FailNext(EPERM);
    EXPECT_FALSE(PZClock::GetLocal(&clock));
    text = output.Take();
    EXPECT_TRUE(has_report(text, "GetLocal", "PZClock.cpp", "err(" + error_text(EPERM) + ")"));
    EXPECT_EQ(1U, error_messages(text).size());
    EXPECT_CLOCK(kUntouched, clock);
}

TEST_F(PZClockTest, ReportsThatTheCurrentTimeCannotBeConverted) {
    gmtime_r_call.FailNext(EOVERFLOW);
    EXPECT_FALSE(PZClock::GetUtc(&clock));
    EXPECT_TRUE(
        has_report(output.Take(), "GetUtc", "PZClock.cpp", "err(" + error_text(EOVERFLOW) + ")"));
    localtime_call.FailNext(EOVERFLOW);
    EXPECT_FALSE(PZClock::GetLocal(&clock));
    EXPECT_TRUE(
        has_report(output.Take(), "GetLocal", "PZClock.cpp", "err(" + error_text(EOVERFLOW) + ")"));
    EXPECT_CLOCK(kUntouched, clock);
}

TEST_F(PZClockTest, EveryOperationReportsANullRecord) {
    EXPECT_FALSE(PZClock::GetUtc(nullptr));
    EXPECT_TRUE(has_report(output.Take(), "GetUtc", "PZClock.cpp", "invalid arg"));
    EXPECT_FALSE(PZClock::GetLocal(nullptr));
    EXPECT_TRUE(has_report(output.Take(), "GetLocal", "PZClock.cpp", "invalid arg"));
    EXPECT_FALSE(PZClock::SetUtc(nullptr));
    EXPECT_TRUE(has_report(output.Take(), "SetUtc", "PZClock.cpp", "invalid arg"));
    EXPECT_FALSE(PZClock::SetLocal(nullptr));
    EXPECT_TRUE(has_report(output.Take(), "SetLocal", "PZClock.cpp", "invalid arg"));
    EXPECT_FALSE(PZClock::ToLocaltime(0, nullptr));
    EXPECT_TRUE(has_report(output.Take(), "ToLocaltime", "PZClock.cpp", "invalid arg"));
    EXPECT_FALSE(PZClock::ToUtcTime(0, nullptr));
    EXPECT_TRUE(has_report(output.Take(), "ToUtcTime", "PZClock.cpp", "invalid arg"));
    EXPECT_EQ(0, PZClock::ToCalendarTime(nullptr));
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "ToCalendarTime", "PZClock.cpp", "invalid arg"));
    EXPECT_EQ(Messages{"invalid arg"}, error_messages(text));
    EXPECT_EQ(0, rtc.opened);
    EXPECT_EQ(0, fork_call.Calls());
}

// Epoch seconds to calendar time

TEST_F(PZClockTest, ConvertsTheEpoch) {
    EXPECT_TRUE(PZClock::ToUtcTime(0, &clock));
    EXPECT_CLOCK((Clock{1970, 1, 4, 1, 0, 0, 0}), clock);
}

TEST_F(PZClockTest, ConvertsSecondsToUtcWhateverTheZone) {
    UseZone(kHalfPastFive);
    EXPECT_TRUE(PZClock::ToUtcTime(kMorningSeconds, &clock));
    EXPECT_CLOCK(kMorning, clock);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, LeavesTheCLibrarysSharedBufferAloneInUtc) {
    const time_t epoch = 0;
    const tm* const shared = std::gmtime(&epoch);
    SetNow(kMorningSeconds);
    EXPECT_TRUE(PZClock::GetUtc(&clock));
    EXPECT_TRUE(PZClock::ToUtcTime(kMorningSeconds, &clock));
    EXPECT_CLOCK(kMorning, clock);
    EXPECT_EQ(70, shared->tm_year);
    EXPECT_EQ(0, shared->tm_hour);
}

TEST_F(PZClockTest, ConvertsToUtcOnSeveralThreadsAtOnce) {
    std::atomic<int> wrong{0};
    const auto convert = [&wrong](unsigned long long seconds, const Clock& expected) {
        for (int i = 0; i < 10000; ++i) {
            Clock own = kUntouched;
            if (!PZClock::ToUtcTime(seconds, &own) || fields(own) != fields(expected)) ++wrong;
        }
    };
    std::thread other(convert, 0, Clock{1970, 1, 4, 1, 0, 0, 0});
    convert(kMorningSeconds, kMorning);
    other.join();
    EXPECT_EQ(0, wrong);
}

TEST_F(PZClockTest, ReadsTheZoneAgainForEveryLocalTime) {
    SetNow(kMorningSeconds);
    EXPECT_TRUE(PZClock::GetLocal(&clock));
    EXPECT_CLOCK(kMorning, clock);
    UseZone(kHalfPastFive);
    EXPECT_TRUE(PZClock::GetLocal(&clock));
    EXPECT_CLOCK((Clock{2024, 3, 2, 5, 12, 38, 9}), clock);
    EXPECT_TRUE(PZClock::ToLocaltime(kMorningSeconds, &clock));
    EXPECT_CLOCK((Clock{2024, 3, 2, 5, 12, 38, 9}), clock);
}

TEST_F(PZClockTest, ConvertsSecondsToLocalTime) {
    UseZone(kHalfPastFive);
    EXPECT_TRUE(PZClock::ToLocaltime(kMorningSeconds, &clock));
    EXPECT_CLOCK((Clock{2024, 3, 2, 5, 12, 38, 9}), clock);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, ConvertsSecondsToDaylightSavingTime) {
    UseZone(kSummerZone);  // 2024: from March 31, 03:00 UTC
    EXPECT_TRUE(PZClock::ToLocaltime(1711853999, &clock));
    EXPECT_CLOCK((Clock{2024, 3, 0, 31, 1, 59, 59}), clock);
    EXPECT_TRUE(PZClock::ToLocaltime(1711854000, &clock));
    EXPECT_CLOCK((Clock{2024, 3, 0, 31, 5, 0, 0}), clock);
}

TEST_F(PZClockTest, ConvertsLeapDaysAndTheDaysAfterThem) {
    EXPECT_TRUE(PZClock::ToUtcTime(951782400, &clock));
    EXPECT_CLOCK((Clock{2000, 2, 2, 29, 0, 0, 0}), clock);
    EXPECT_TRUE(PZClock::ToUtcTime(951868800, &clock));
    EXPECT_CLOCK((Clock{2000, 3, 3, 1, 0, 0, 0}), clock);
    EXPECT_TRUE(PZClock::ToUtcTime(1677628800, &clock));
    EXPECT_CLOCK((Clock{2023, 3, 3, 1, 0, 0, 0}), clock);
}

TEST_F(PZClockTest, SecondsBeyond2038AreTimesFrom1901) {
    EXPECT_TRUE(PZClock::ToUtcTime(0x7FFFFFFF, &clock));
    EXPECT_CLOCK((Clock{2038, 1, 2, 19, 3, 14, 7}), clock);
    EXPECT_TRUE(PZClock::ToUtcTime(0x80000000, &clock));
    EXPECT_CLOCK((Clock{1901, 12, 5, 13, 20, 45, 52}), clock);
    EXPECT_TRUE(PZClock::ToLocaltime(0x80000000, &clock));
    EXPECT_CLOCK((Clock{1901, 12, 5, 13, 20, 45, 52}), clock);
}

TEST_F(PZClockTest, ReadsTheSecondsWithASign) {
    EXPECT_TRUE(PZClock::ToUtcTime(0xFFFFFFFF, &clock));
    EXPECT_CLOCK((Clock{1969, 12, 3, 31, 23, 59, 59}), clock);
    EXPECT_TRUE(PZClock::ToLocaltime(~0ULL, &clock));
    EXPECT_CLOCK((Clock{1969, 12, 3, 31, 23, 59, 59}), clock);
}

TEST_F(PZClockTest, UsesOnlyTheLow32BitsOfTheSeconds) {
    EXPECT_TRUE(PZClock::ToUtcTime(0x100000000ULL + kMorningSeconds, &clock));
    EXPECT_CLOCK(kMorning, clock);
    EXPECT_TRUE(PZClock::ToLocaltime(0xABCDEF0100000000ULL + kMorningSeconds, &clock));
    EXPECT_CLOCK(kMorning, clock);
}

namespace {

bool is_leap_year(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

unsigned int days_of(unsigned int month, int year) {
    constexpr unsigned int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && is_leap_year(year) ? 29 : kDays[month - 1];
}

Clock next_day(Clock day) {
    day.dayOfWeek = (day.dayOfWeek + 1) % 7;
    if (++day.day <= days_of(day.month, day.year)) return day;
    day.day = 1;
    if (++day.month <= 12) return day;
    day.month = 1;
    ++day.year;
    return day;
}

constexpr long long kFirstDay = -2147472000;  // 1901-12-14, a Saturday, the first whole day
constexpr long long kLastDay = 2147385600;    // 2038-01-18, the last whole day
constexpr long long kSecondsPerDay = 86400;

}  // namespace

TEST_F(PZClockTest, ConvertsEveryDayOf32BitsForthAndBack) {
    Clock day = {1901, 12, 6, 14, 23, 59, 58};
    for (long long start = kFirstDay; start <= kLastDay; start += kSecondsPerDay) {
        const long long seconds = start + kSecondsPerDay - 2;
        ASSERT_TRUE(PZClock::ToUtcTime(static_cast<unsigned long long>(seconds), &clock));
        ASSERT_EQ(fields(day), fields(clock)) << seconds;
        ASSERT_EQ(seconds, PZClock::ToCalendarTime(&clock));
        day = next_day(day);
    }
    EXPECT_EQ(2038, day.year);
    EXPECT_EQ(19U, day.day);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, ReportsSecondsThatCannotBeConverted) {
    gmtime_r_call.FailNext(EOVERFLOW);
    EXPECT_FALSE(PZClock::ToUtcTime(0, &clock));
    EXPECT_TRUE(has_report(output.Take(), "ToUtcTime", "PZClock.cpp", "error"));
    localtime_call.FailNext(EOVERFLOW);
    EXPECT_FALSE(PZClock::ToLocaltime(0, &clock));
    EXPECT_TRUE(has_report(output.Take(), "ToLocaltime", "PZClock.cpp", "error"));
    EXPECT_CLOCK(kUntouched, clock);
}

// Calendar time to epoch seconds

TEST_F(PZClockTest, ConvertsALocalTimeToSeconds) {
    UseZone(kHalfPastFive);
    clock = {2024, 3, 2, 5, 12, 38, 9};
    EXPECT_EQ(kMorningSeconds, PZClock::ToCalendarTime(&clock));
    EXPECT_CLOCK((Clock{2024, 3, 2, 5, 12, 38, 9}), clock);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, LeavesItToTheZoneWhetherDaylightSavingTimeApplies) {
    UseZone(kSummerZone);
    clock = {2024, 1, 1, 1, 0, 0, 0};
    EXPECT_EQ(1704070800, PZClock::ToCalendarTime(&clock));
    clock = {2024, 7, 1, 1, 0, 0, 0};
    EXPECT_EQ(1719784800, PZClock::ToCalendarTime(&clock));
}

TEST_F(PZClockTest, HandsEveryFieldToTheCLibrary) {
    mktime_call.Replace(&remember_converted);
    mktime_result = 12345;
    clock = {2024, 3, 6, 5, 7, 8, 9};
    const Clock before = clock;
    EXPECT_EQ(12345, PZClock::ToCalendarTime(&clock));
    EXPECT_EQ(124, converted.tm_year);
    EXPECT_EQ(2, converted.tm_mon);
    EXPECT_EQ(6, converted.tm_wday);
    EXPECT_EQ(5, converted.tm_mday);
    EXPECT_EQ(7, converted.tm_hour);
    EXPECT_EQ(8, converted.tm_min);
    EXPECT_EQ(9, converted.tm_sec);
    EXPECT_EQ(0, converted.tm_yday);
    EXPECT_EQ(-1, converted.tm_isdst);
    EXPECT_CLOCK(before, clock);
}

TEST_F(PZClockTest, CountsADayThatTheMonthDoesNotHaveIntoTheNext) {
    clock = {2023, 2, 0, 31, 0, 0, 0};
    const long long seconds = PZClock::ToCalendarTime(&clock);
    clock = {2023, 3, 0, 3, 0, 0, 0};
    EXPECT_EQ(1677801600, seconds);
    EXPECT_EQ(1677801600, PZClock::ToCalendarTime(&clock));
}

TEST_F(PZClockTest, ConvertsTimesBeforeTheEpochToNegativeSeconds) {
    clock = {1969, 12, 3, 31, 23, 59, 59};
    EXPECT_EQ(-1, PZClock::ToCalendarTime(&clock));
    clock = {1901, 12, 5, 13, 20, 45, 52};
    EXPECT_EQ(-2147483648LL, PZClock::ToCalendarTime(&clock));
}

TEST_F(PZClockTest, ExtendsTheSignOf32BitsOfTheResult) {
    mktime_call.Replace(&remember_converted);
    clock = kMorning;
    mktime_result = static_cast<time_t>(0x7FFFFFFF);
    EXPECT_EQ(0x7FFFFFFFLL, PZClock::ToCalendarTime(&clock));
    mktime_result = static_cast<time_t>(-2147483647LL - 1);
    EXPECT_EQ(-2147483648LL, PZClock::ToCalendarTime(&clock));
    if constexpr (sizeof(time_t) > sizeof(int)) {
        mktime_result = static_cast<time_t>(0x80000000LL);
        EXPECT_EQ(-2147483648LL, PZClock::ToCalendarTime(&clock));
        mktime_result = static_cast<time_t>(0x500000007LL);
        EXPECT_EQ(7, PZClock::ToCalendarTime(&clock));
    }
}

TEST_F(PZClockTest, KeepsTheLow32BitsOfTimesBeyondThem) {
    // A C library with seconds of 32 bits fails: -1.
    constexpr bool kWide = sizeof(time_t) > sizeof(int);
    clock = {2038, 1, 2, 19, 3, 14, 8};
    EXPECT_EQ(kWide ? -2147483648LL : -1LL, PZClock::ToCalendarTime(&clock));
    clock = {1900, 1, 1, 1, 0, 0, 0};  // -2208988800
    EXPECT_EQ(kWide ? 2085978496LL : -1LL, PZClock::ToCalendarTime(&clock));
}

TEST_F(PZClockTest, AnswersMinusOneForATimeThatCannotBeConverted) {
    mktime_call.FailNext(EOVERFLOW);
    clock = kMorning;
    EXPECT_EQ(-1, PZClock::ToCalendarTime(&clock));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, ConvertsNoTimeOutOfRange) {
    clock = kMorning;
    clock.month = 13;
    EXPECT_EQ(0, PZClock::ToCalendarTime(&clock));
    EXPECT_EQ(
        (Messages{"year[2024] month[13] day[5] day of week[2] h[7] m[8] s[9]", "invalid arg"}),
        Errors());
    EXPECT_EQ(0, mktime_call.Calls());
}

// The range check

TEST_F(PZClockTest, AcceptsTheBoundsOfEveryField) {
    for (Clock accepted : {
             Clock{1900, 1, 0, 1, 0, 0, 0}, Clock{INT_MAX, 12, 6, 31, 23, 59, 59},
             Clock{2023, 2, 0, 31, 0, 0, 0},  // the day is not checked against the month
         }) {
        EXPECT_TRUE(PZClock::checkCalenderTime(accepted));
    }
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, RejectsAndReportsEveryFieldOutOfRange) {
    const struct {
        Clock rejected;
        const char* message;
    } rows[] = {
        {{1899, 1, 0, 1, 0, 0, 0}, "year[1899] month[1] day[1] day of week[0] h[0] m[0] s[0]"},
        {{-1, 1, 0, 1, 0, 0, 0}, "year[-1] month[1] day[1] day of week[0] h[0] m[0] s[0]"},
        {{2024, 0, 2, 3, 4, 5, 6}, "year[2024] month[0] day[3] day of week[2] h[4] m[5] s[6]"},
        {{2024, 13, 2, 3, 4, 5, 6}, "year[2024] month[13] day[3] day of week[2] h[4] m[5] s[6]"},
        {{2024, 1, 7, 3, 4, 5, 6}, "year[2024] month[1] day[3] day of week[7] h[4] m[5] s[6]"},
        {{2024, 1, 2, 0, 4, 5, 6}, "year[2024] month[1] day[0] day of week[2] h[4] m[5] s[6]"},
        {{2024, 1, 2, 32, 4, 5, 6}, "year[2024] month[1] day[32] day of week[2] h[4] m[5] s[6]"},
        {{2024, 1, 2, 3, 24, 5, 6}, "year[2024] month[1] day[3] day of week[2] h[24] m[5] s[6]"},
        {{2024, 1, 2, 3, 4, 60, 6}, "year[2024] month[1] day[3] day of week[2] h[4] m[60] s[6]"},
        {{2024, 1, 2, 3, 4, 5, 60}, "year[2024] month[1] day[3] day of week[2] h[4] m[5] s[60]"},
        {{2024, 1, 2, 3, 4, 5, UINT_MAX},
         "year[2024] month[1] day[3] day of week[2] h[4] m[5] s[-1]"},
    };
    for (const auto& row : rows) {
        Clock rejected = row.rejected;
        EXPECT_FALSE(PZClock::checkCalenderTime(rejected));
        const std::string text = output.Take();
        EXPECT_TRUE(has_report(text, "checkCalenderTime", "PZClock.cpp", row.message)) << text;
        EXPECT_CLOCK(row.rejected, rejected);
    }
}

// The real-time clock

TEST_F(PZClockTest, WritesUtcToTheRealTimeClock) {
    rtc.openError = 0;
    rtc.setResult = 0;
    clock = kMorning;
    EXPECT_TRUE(PZClock::SetUtc(&clock));
    EXPECT_EQ(1, rtc.opened);
    EXPECT_EQ(O_RDWR, rtc.flags & O_ACCMODE);
    EXPECT_EQ(0, rtc.flags & (O_CREAT | O_TRUNC));
    EXPECT_EQ(1, rtc.requests);
    EXPECT_EQ(rtc.device, rtc.requestDevice);
    EXPECT_EQ(9, rtc.time.tm_sec);
    EXPECT_EQ(8, rtc.time.tm_min);
    EXPECT_EQ(7, rtc.time.tm_hour);
    EXPECT_EQ(5, rtc.time.tm_mday);
    EXPECT_EQ(2, rtc.time.tm_mon);
    EXPECT_EQ(124, rtc.time.tm_year);
    EXPECT_EQ(-1, ::fcntl(rtc.device, F_GETFD)) << "the device is still open";
    EXPECT_CLOCK(kMorning, clock);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, TakesAPositiveAnswerOfTheRealTimeClockForASuccess) {
    rtc.openError = 0;
    rtc.setResult = 1;
    clock = kMorning;
    EXPECT_TRUE(PZClock::SetUtc(&clock));
}

TEST_F(PZClockTest, ReportsARealTimeClockThatCannotBeOpened) {
    rtc.openError = EACCES;
    clock = kMorning;
    EXPECT_FALSE(PZClock::SetUtc(&clock));
    EXPECT_EQ(0, rtc.requests);
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "SetUtc", "PZClock.cpp",
                           std::string("open(/dev/rtc0) Failed [") + std::strerror(EACCES) + "]"));
    EXPECT_EQ(1U, error_messages(text).size());
}

TEST_F(PZClockTest, ReportsARealTimeClockThatRefusesTheTime) {
    rtc.openError = 0;
    rtc.setResult = -1;
    rtc.setError = EINVAL;
    clock = kMorning;
    EXPECT_FALSE(PZClock::SetUtc(&clock));
    const std::string text = output.Take();
    EXPECT_TRUE(
        has_report(text, "SetUtc", "PZClock.cpp",
                   std::string("ioctl(RTC_SET_TIME) Error [") + std::strerror(EINVAL) + "]"));
    EXPECT_EQ(1U, error_messages(text).size());
    EXPECT_EQ(-1, ::fcntl(rtc.device, F_GETFD)) << "the device is still open";
}

TEST_F(PZClockTest, WritesNoTimeOutOfRange) {
    rtc.openError = 0;
    rtc.setResult = 0;
    clock = kMorning;
    clock.hour = 24;
    EXPECT_FALSE(PZClock::SetUtc(&clock));
    EXPECT_EQ(0, rtc.opened);
    EXPECT_EQ(
        (Messages{"year[2024] month[3] day[5] day of week[2] h[24] m[8] s[9]", "invalid arg"}),
        Errors());
}

// The system's time

TEST_F(PZClockTest, SetsTheLocalTimeThroughTheDateProgram) {
    const pztest::ChildResult result = run_in_child([] {
        Clock morning = kMorning;
        date_program = &print_words;
        fork_call.Replace(&fork_to_child);
        PZClock::SetLocal(&morning);
        return 99;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(42, result.status);
    EXPECT_EQ("</bin/date></bin/date><030507082024>", result.output);
}

TEST_F(PZClockTest, HandsLateYearsToTheDateProgramInFull) {
    const pztest::ChildResult result = run_in_child([] {
        Clock late = {INT_MAX, 12, 6, 31, 23, 59, 59};
        date_program = &print_words;
        fork_call.Replace(&fork_to_child);
        PZClock::SetLocal(&late);
        return 99;
    });
    EXPECT_EQ("</bin/date></bin/date><123123592147483647>", result.output);
}

TEST_F(PZClockTest, EndsTheChildWhenTheDateProgramCannotBeStarted) {
    const pztest::ChildResult result = run_in_child([] {
        Clock morning = kMorning;
        std::atexit([] { std::perror("exit handler of the parent"); });
        fork_call.Replace(&fork_to_child);
        PZClock::SetLocal(&morning);
        return 99;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(255, result.status);
    EXPECT_EQ(std::string("/bin/date: ") + std::strerror(ENOENT) + "\n", result.output);
}

TEST_F(PZClockTest, EndsTheChildWhateverLockAnotherThreadHoldsMeanwhile) {
    constexpr int kRounds = 100;
    const pztest::ChildResult result = run_in_child(
        [] {
            // Messages are looked up under a lock that a change of the locale takes.
            std::thread([] {
                for (;;) {
                    std::setlocale(LC_ALL, "C.UTF-8");
                    std::setlocale(LC_ALL, "C");
                }
            }).detach();
            Clock morning = kMorning;
            for (int i = 0; i < kRounds; ++i) {
                if (!PZClock::SetLocal(&morning)) ::_exit(1);
            }
            ::_exit(42);
            return 0;
        },
        /*limitSeconds=*/30);
    EXPECT_EQ(42, result.status) << "a child waits for the lock, and its parent for the child";
    std::string lines;
    for (int i = 0; i < kRounds; ++i) {
        lines += std::string("/bin/date: ") + std::strerror(ENOENT) + "\n";
    }
    EXPECT_EQ(lines, result.output);
}

TEST_F(PZClockTest, WaitsForTheDateProgram) {
    fork_call.Replace(&fork_to_parent);
    waitpid_call.Replace(&remember_wait);
    date_status = 0;
    clock = kMorning;
    EXPECT_TRUE(PZClock::SetLocal(&clock));
    EXPECT_EQ(kDatePid, waited_for);
    EXPECT_EQ(0, wait_options);
    EXPECT_EQ(1, waitpid_call.Calls());
    EXPECT_CLOCK(kMorning, clock);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, IgnoresTheExitStatusOfTheDateProgram) {
    date_program = &exit_with_1;
    clock = kMorning;
    EXPECT_TRUE(PZClock::SetLocal(&clock));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockTest, ReportsADateProgramThatWasEndedByASignal) {
    fork_call.Replace(&fork_to_parent);
    waitpid_call.Replace(&remember_wait);
    date_status = SIGTERM;
    error_behind_wait = ENOTTY;
    clock = kMorning;
    EXPECT_FALSE(PZClock::SetLocal(&clock));
    const std::string text = output.Take();
    EXPECT_EQ((Messages{"failed to set time [2024/03/05 07:08:09]",
                        "std library error [25 : " + std::string(std::strerror(ENOTTY)) + "]"}),
              error_messages(text));
    EXPECT_TRUE(
        has_report(text, "SetLocal", "PZClock.cpp", "failed to set time [2024/03/05 07:08:09]"));
}

TEST_F(PZClockTest, NoticesTheSignalThatEndedARealChild) {
    date_program = &end_by_signal;
    clock = kMorning;
    EXPECT_FALSE(PZClock::SetLocal(&clock));
    const Messages messages = Errors();
    ASSERT_EQ(2U, messages.size());
    EXPECT_EQ("failed to set time [2024/03/05 07:08:09]", messages[0]);
}

TEST_F(PZClockTest, ReportsAFailedFork) {
    fork_call.FailNext(EAGAIN);
    clock = kMorning;
    EXPECT_FALSE(PZClock::SetLocal(&clock));
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "SetLocal", "PZClock.cpp", "error : fork"));
    EXPECT_EQ(1U, error_messages(text).size());
    EXPECT_EQ(0, waitpid_call.Calls());
}

TEST_F(PZClockTest, SetsNoTimeOutOfRange) {
    clock = kMorning;
    clock.minute = 60;
    EXPECT_FALSE(PZClock::SetLocal(&clock));
    EXPECT_EQ(0, fork_call.Calls());
    EXPECT_EQ(
        (Messages{"year[2024] month[3] day[5] day of week[2] h[7] m[60] s[9]", "invalid arg"}),
        Errors());
}

TEST_F(PZClockTest, EndsTheProcessWhenTheDateProgramCannotBeWaitedFor) {
    const pztest::ChildResult result = run_in_child([] {
        Clock morning = kMorning;
        std::atexit([] { std::printf("exit handler"); });
        fork_call.Replace(&fork_to_parent);
        waitpid_call.FailNext(ECHILD);
        PZClock::SetLocal(&morning);
        return 99;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(255, result.status);
    EXPECT_EQ(std::string("waitpid: ") + std::strerror(ECHILD) + "\nexit handler", result.output);
}

TEST_F(PZClockTest, TellsNoSinkWhyTheDateProgramCannotBeWaitedFor) {
    const pztest::ChildResult result = run_in_child([] {
        Clock morning = kMorning;
        PZDbgOutput::SetSink(
            [](const PZDbgOutput::ST_RECORD& record, void*) {
                std::printf("told: %s\n", record.message);
                return true;
            },
            nullptr);
        fork_call.Replace(&fork_to_parent);
        waitpid_call.FailNext(ECHILD);
        PZClock::SetLocal(&morning);
        return 99;
    });
    EXPECT_EQ(255, result.status);
    EXPECT_EQ(std::string("waitpid: ") + std::strerror(ECHILD) + "\n", result.output);
}

namespace {

volatile sig_atomic_t signals_handled = 0;
void count_signal(int) {
    signals_handled = signals_handled + 1;
}

void collect_children(int) {
    while (waitpid_call.Real(-1, nullptr, WNOHANG) > 0) signals_handled = signals_handled + 1;
}

void handle(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;  // no SA_RESTART: system calls are interrupted
    sigaction(signal, &action, nullptr);
}

}  // namespace

TEST_F(PZClockTest, KeepsWaitingWhenASignalArrives) {
    const pztest::ChildResult result = run_in_child([] {
        Clock morning = kMorning;
        handle(SIGUSR1, &count_signal);
        date_program = &signal_the_parent;
        if (!PZClock::SetLocal(&morning)) return 1;
        while (signals_handled == 0) ::poll(nullptr, 0, 1);
        return signals_handled == 1 ? 42 : 2;
    });
    EXPECT_EQ(42, result.status) << result.output;
    EXPECT_EQ("", result.output);
}

TEST_F(PZClockTest, IsNotDeprivedOfItsChildByAHandlerThatCollectsChildren) {
    const pztest::ChildResult result = run_in_child([] {
        Clock morning = kMorning;
        handle(SIGCHLD, &collect_children);
        date_program = &exit_with_1;
        if (!PZClock::SetLocal(&morning)) return 1;
        return signals_handled == 0 ? 42 : 2;
    });
    EXPECT_EQ(42, result.status) << result.output;
}

TEST_F(PZClockTest, GivesTheDateProgramTheSignalMaskOfTheCaller) {
    const pztest::ChildResult result = run_in_child([] {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        pthread_sigmask(SIG_SETMASK, &mask, nullptr);
        Clock morning = kMorning;
        date_program = &exit_with_the_state_of_sigusr1;
        fork_call.Replace(&fork_to_child);
        PZClock::SetLocal(&morning);
        return 99;
    });
    EXPECT_EQ(1, result.status) << "1 for SIGUSR1, 2 for SIGUSR2";
}

TEST_F(PZClockTest, GivesTheCallerItsSignalMaskBack) {
    clock = kMorning;
    sigset_t before;
    sigset_t behind;
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &mask, &before);
    date_program = &exit_with_1;
    PZClock::SetLocal(&clock);
    pthread_sigmask(SIG_SETMASK, &before, &behind);
    EXPECT_EQ(1, sigismember(&behind, SIGUSR1));
    EXPECT_EQ(0, sigismember(&behind, SIGUSR2));
}

// The tick time

TEST_F(PZClockTest, TellsTheTickTimeUnchanged) {
    pztest::ManualTick tick(0x100000000LL + 77);
    EXPECT_EQ(77UL, PZClock::GetTime());
    tick.Set(0xFFFFFFFFLL);
    EXPECT_EQ(0xFFFFFFFFUL, PZClock::GetTime());
}

// Time zones

namespace {

class PZClockZoneTest : public PZClockTest {
protected:
    void SetUp() override {
        PZClockTest::SetUp();
        namesBefore[0] = tzname[0];
        namesBefore[1] = tzname[1];
        steps.clear();
        copy_results.clear();
        zone_names = {"XST"};
    }

    void TearDown() override {
        tzname[0] = namesBefore[0];
        tzname[1] = namesBefore[1];
        zone_file_source.clear();
        zone_file_copy.clear();
        PZClockTest::TearDown();
    }

    static void StartFrom(const char* abbreviation) {
        tzname[0] = const_cast<char*>(abbreviation);
        tzname[1] = daylight_name;
    }

    /// What SetTimeZone does in one round of waiting for the zone.
    static void AddRound(std::vector<std::string>& expected, const std::string& path) {
        for (const std::string& step : {copy_step(path), std::string("sync"), std::string("tzset"),
                                        std::string("print"), std::string("sleep 100 ms")}) {
            expected.push_back(step);
        }
    }

    char* namesBefore[2] = {};
};

using Steps = std::vector<std::string>;

constexpr char kGmt1[] = "/usr/share/zoneinfo/Etc/GMT-1";
constexpr char kTokyo[] = "/usr/share/zoneinfo/Asia/Tokyo";
constexpr char kBerlin[] = "/usr/share/zoneinfo/Europe/Berlin";

// The areas once more, apart from the library's table.
#define AREA(name) #name, TimeZone::en_AREA_##name

struct AreaRow {
    const char* name;
    TimeZone::Area area;
    int value;
    float hours;
    const char* path;
};

// clang-format off
constexpr AreaRow kAreaRows[] = {
    { AREA(MIDWAY),            0,  -11.0F, "/usr/share/zoneinfo/Pacific/Midway" },
    { AREA(HONOLULU),          1,  -10.0F, "/usr/share/zoneinfo/Pacific/Honolulu" },
    { AREA(ANCHORAGE),         2,   -9.0F, "/usr/share/zoneinfo/America/Anchorage" },
    { AREA(LOS_ANGELES),       3,   -8.0F, "/usr/share/zoneinfo/America/Los_Angeles" },
    { AREA(TIJUANA),           4,   -8.0F, "/usr/share/zoneinfo/America/Tijuana" },
    { AREA(PHOENIX),           5,   -7.0F, "/usr/share/zoneinfo/America/Phoenix" },
    { AREA(CHIHUAHUA),         6,   -7.0F, "/usr/share/zoneinfo/America/Chihuahua" },
    { AREA(DENVER),            7,   -7.0F, "/usr/share/zoneinfo/America/Denver" },
    { AREA(CHICAGO),           8,   -6.0F, "/usr/share/zoneinfo/America/Chicago" },
    { AREA(CENTRAL_AMERICA),   9,   -6.0F, "/usr/share/zoneinfo/America/Chicago" },
    { AREA(MEXICO_CITY),      10,   -6.0F, "/usr/share/zoneinfo/America/Mexico_City" },
    { AREA(REGINA),           11,   -6.0F, "/usr/share/zoneinfo/America/Regina" },
    { AREA(BOGOTA),           12,   -5.0F, "/usr/share/zoneinfo/America/Bogota" },
    { AREA(NEW_YORK),         13,   -5.0F, "/usr/share/zoneinfo/America/New_York" },
    { AREA(CARACAS),          14,   -4.5F, "/usr/share/zoneinfo/America/Caracas" },
    { AREA(BARBADOS),         15,   -4.0F, "/usr/share/zoneinfo/America/Barbados" },
    { AREA(HALIFAX),          16,   -4.0F, "/usr/share/zoneinfo/America/Halifax" },
    { AREA(MANAUS),           17,   -4.0F, "/usr/share/zoneinfo/America/Manaus" },
    { AREA(ST_JOHNS),         18,   -3.5F, "/usr/share/zoneinfo/America/St_Johns" },
    { AREA(SANTIAGO),         19,   -3.0F, "/usr/share/zoneinfo/America/Santiago" },
    { AREA(BUENOS_AIRES),     20,   -3.0F, "/usr/share/zoneinfo/America/Argentina/Buenos_Aires" },
    { AREA(GODTHAB),          21,   -3.0F, "/usr/share/zoneinfo/America/Godthab" },
    { AREA(SAO_PAULO),        22,   -2.0F, "/usr/share/zoneinfo/America/Sao_Paulo" },
    { AREA(MONTEVIDEO),       23,   -2.0F, "/usr/share/zoneinfo/America/Montevideo" },
    { AREA(SOUTH_GEORGIA),    24,   -2.0F, "/usr/share/zoneinfo/Atlantic/South_Georgia" },
    { AREA(AZORES),           25,   -1.0F, "/usr/share/zoneinfo/Atlantic/Azores" },
    { AREA(CAPE_VERDE),       26,   -1.0F, "/usr/share/zoneinfo/Atlantic/Cape_Verde" },
    { AREA(CASABLANCA),       27,    0.0F, "/usr/share/zoneinfo/Africa/Casablanca" },
    { AREA(LONDON),           28,    0.0F, "/usr/share/zoneinfo/Europe/London" },
    { AREA(BERLIN),           29,    1.0F, "/usr/share/zoneinfo/Europe/Berlin" },
    { AREA(BELGRADE),         30,    1.0F, "/usr/share/zoneinfo/Europe/Belgrade" },
    { AREA(BRUSSELS),         31,    1.0F, "/usr/share/zoneinfo/Europe/Brussels" },
    { AREA(SARAJEVO),         32,    1.0F, "/usr/share/zoneinfo/Europe/Sarajevo" },
    { AREA(BRAZZAVILLE),      33,    1.0F, "/usr/share/zoneinfo/Africa/Brazzaville" },
    { AREA(WINDHOEK),         34,    2.0F, "/usr/share/zoneinfo/Africa/Windhoek" },
    { AREA(AMMAN),            35,    2.0F, "/usr/share/zoneinfo/Asia/Amman" },
    { AREA(ATHENS),           36,    2.0F, "/usr/share/zoneinfo/Europe/Athens" },
    { AREA(BEIRUT),           37,    2.0F, "/usr/share/zoneinfo/Asia/Beirut" },
    { AREA(CAIRO),            38,    2.0F, "/usr/share/zoneinfo/Africa/Cairo" },
    { AREA(HELSINKI),         39,    2.0F, "/usr/share/zoneinfo/Europe/Helsinki" },
    { AREA(JERUSALEM),        40,    2.0F, "/usr/share/zoneinfo/Asia/Jerusalem" },
    { AREA(HARARE),           41,    2.0F, "/usr/share/zoneinfo/Africa/Harare" },
    { AREA(MINSK),            42,    3.0F, "/usr/share/zoneinfo/Europe/Minsk" },
    { AREA(BAGHDAD),          43,    3.0F, "/usr/share/zoneinfo/Asia/Baghdad" },
    { AREA(MOSCOW),           44,    3.0F, "/usr/share/zoneinfo/Europe/Moscow" },
    { AREA(KUWAIT),           45,    3.0F, "/usr/share/zoneinfo/Asia/Kuwait" },
    { AREA(NAIROBI),          46,    3.0F, "/usr/share/zoneinfo/Africa/Nairobi" },
    { AREA(TEHRAN),           47,    3.5F, "/usr/share/zoneinfo/Asia/Tehran" },
    { AREA(BAKU),             48,    4.0F, "/usr/share/zoneinfo/Asia/Baku" },
    { AREA(TBILISI),          49,    4.0F, "/usr/share/zoneinfo/Asia/Tbilisi" },
    { AREA(YEREVAN),          50,    4.0F, "/usr/share/zoneinfo/Asia/Yerevan" },
    { AREA(DUBAI),            51,    4.0F, "/usr/share/zoneinfo/Asia/Dubai" },
    { AREA(KABUL),            52,    4.5F, "/usr/share/zoneinfo/Asia/Kabul" },
    { AREA(KARACHI),          53,    5.0F, "/usr/share/zoneinfo/Asia/Karachi" },
    { AREA(ORAL),             54,    5.0F, "/usr/share/zoneinfo/Asia/Oral" },
    { AREA(YEKATERINBURG),    55,    5.0F, "/usr/share/zoneinfo/Asia/Yekaterinburg" },
    { AREA(KOLKATA),          56,    5.5F, "/usr/share/zoneinfo/Asia/Kolkata" },
    { AREA(COLOMBO),          57,    5.5F, "/usr/share/zoneinfo/Asia/Colombo" },
    { AREA(KATHMANDU),        58,   5.75F, "/usr/share/zoneinfo/Asia/Kathmandu" },
    { AREA(ALMATY),           59,    6.0F, "/usr/share/zoneinfo/Asia/Almaty" },
    { AREA(RANGOON),          60,    6.5F, "/usr/share/zoneinfo/Asia/Rangoon" },
    { AREA(KRASNOYARSK),      61,    7.0F, "/usr/share/zoneinfo/Asia/Krasnoyarsk" },
    { AREA(BANGKOK),          62,    7.0F, "/usr/share/zoneinfo/Asia/Bangkok" },
    { AREA(SHANGHAI),         63,    8.0F, "/usr/share/zoneinfo/Asia/Shanghai" },
    { AREA(HONG_KONG),        64,    8.0F, "/usr/share/zoneinfo/Asia/Hong_Kong" },
    { AREA(IRKUTSK),          65,    8.0F, "/usr/share/zoneinfo/Asia/Irkutsk" },
    { AREA(KUALA_LUMPUR),     66,    8.0F, "/usr/share/zoneinfo/Asia/Kuala_Lumpur" },
    { AREA(PERTH),            67,    8.0F, "/usr/share/zoneinfo/Australia/Perth" },
    { AREA(TAIPEI),           68,    8.0F, "/usr/share/zoneinfo/Asia/Taipei" },
    { AREA(SEOUL),            69,    9.0F, "/usr/share/zoneinfo/Asia/Seoul" },
    { AREA(TOKYO),            70,    9.0F, "/usr/share/zoneinfo/Asia/Tokyo" },
    { AREA(DARWIN),           71,    9.5F, "/usr/share/zoneinfo/Australia/Darwin" },
    { AREA(YAKUTSK),          72,   10.0F, "/usr/share/zoneinfo/Asia/Yakutsk" },
    { AREA(BRISBANE),         73,   10.0F, "/usr/share/zoneinfo/Australia/Brisbane" },
    { AREA(VLADIVOSTOK),      74,   10.0F, "/usr/share/zoneinfo/Asia/Vladivostok" },
    { AREA(GUAM),             75,   10.0F, "/usr/share/zoneinfo/Pacific/Guam" },
    { AREA(MAGADAN),          76,   10.0F, "/usr/share/zoneinfo/Asia/Magadan" },
    { AREA(ADELAIDE),         77,   10.5F, "/usr/share/zoneinfo/Australia/Adelaide" },
    { AREA(HOBART),           78,   11.0F, "/usr/share/zoneinfo/Australia/Hobart" },
    { AREA(SYDNEY),           79,   11.0F, "/usr/share/zoneinfo/Australia/Sydney" },
    { AREA(MAJURO),           80,   12.0F, "/usr/share/zoneinfo/Pacific/Majuro" },
    { AREA(FIJI),             81,   12.0F, "/usr/share/zoneinfo/Pacific/Fiji" },
    { AREA(AUCKLAND),         82,   13.0F, "/usr/share/zoneinfo/Pacific/Auckland" },
    { AREA(TONGATAPU),        83,   13.0F, "/usr/share/zoneinfo/Pacific/Tongatapu" },
};
// clang-format on

#undef AREA

constexpr unsigned int kAreaCount = sizeof kAreaRows / sizeof *kAreaRows;

/// "LOS_ANGELES" for a zone file of Los Angeles.
std::string city_of(const std::string& path) {
    std::string city = path.substr(path.rfind('/') + 1);
    std::transform(city.begin(), city.end(), city.begin(),
                   [](char c) { return static_cast<char>(std::toupper(c)); });
    return city;
}

// The rows of the offsets follow a rule, in quarters of an hour: from 59 down to -51.
constexpr int kFirstQuarter = 59;
constexpr int kLastQuarter = -51;

std::string gmt_file(int quarter) {
    const std::string file = "/usr/share/zoneinfo/Etc/GMT";
    if (quarter == -46) return file + "+130";
    if (quarter == -47) return file + "+145";
    if (quarter == -51) return file + "+1345";
    if (quarter == 0) return file;
    const std::string sign = quarter > 0 ? "-" : "+";
    const int quarters = std::abs(quarter);
    const int hours = quarters / 4;
    if (quarters % 4 == 0) return file + sign + std::to_string(hours);
    constexpr const char* kMinutes[] = {"00", "15", "30", "45"};
    return file + sign + (hours < 10 ? "0" : "") + std::to_string(hours) + kMinutes[quarters % 4];
}

}  // namespace

TEST_F(PZClockZoneTest, ItsTableHasHoursAndFileOfEveryArea) {
    ASSERT_EQ(84U, kAreaCount);
    ASSERT_EQ(84U, sizeof PZClock::timeZoneTbl_ / sizeof *PZClock::timeZoneTbl_);
    for (unsigned int i = 0; i < kAreaCount; ++i) {
        EXPECT_EQ(static_cast<int>(i), kAreaRows[i].value);
        EXPECT_EQ(kAreaRows[i].value, static_cast<int>(PZClock::timeZoneTbl_[i].area));
        EXPECT_EQ(kAreaRows[i].hours, PZClock::timeZoneTbl_[i].hours) << i;
        EXPECT_STREQ(kAreaRows[i].path, PZClock::timeZoneTbl_[i].path);
    }
}

TEST_F(PZClockZoneTest, NamesTheAreasAfterTheirCities) {
    for (const AreaRow& row : kAreaRows) {
        EXPECT_EQ(row.value, static_cast<int>(row.area)) << row.name;
        if (row.value != 9) {
            EXPECT_EQ(city_of(row.path), row.name);
        }
    }
    EXPECT_EQ(9, static_cast<int>(TimeZone::en_AREA_CENTRAL_AMERICA));
}

TEST_F(PZClockZoneTest, ItsTableHasTheFileOfEveryQuarterHourOffset) {
    ASSERT_EQ(111U, sizeof PZClock::timeZoneGmtTbl_ / sizeof *PZClock::timeZoneGmtTbl_);
    for (int row = 0; row < 111; ++row) {
        const int quarter = kFirstQuarter - row;
        EXPECT_EQ(86U + static_cast<unsigned int>(row), PZClock::timeZoneGmtTbl_[row].id);
        EXPECT_EQ(static_cast<float>(quarter) / 4.0F, PZClock::timeZoneGmtTbl_[row].hours);
        EXPECT_EQ(gmt_file(quarter), PZClock::timeZoneGmtTbl_[row].path);
    }
    EXPECT_EQ(kLastQuarter, kFirstQuarter - 110);
}

TEST_F(PZClockZoneTest, SelectsTheZoneOfEveryArea) {
    for (const AreaRow& row : kAreaRows) {
        steps.clear();
        StartFrom("XST");
        EXPECT_TRUE(PZClock::SetTimeZone(row.area));
        EXPECT_EQ((Steps{copy_step(row.path), "sync", "tzset", "print"}), steps);
    }
}

TEST_F(PZClockZoneTest, SelectsTheZoneOfEveryOffset) {
    for (int quarter = kFirstQuarter; quarter >= kLastQuarter; --quarter) {
        steps.clear();
        StartFrom("XST");
        EXPECT_TRUE(PZClock::SetTimeZone(quarter * 15));
        EXPECT_EQ((Steps{copy_step(gmt_file(quarter)), "tzset", "sync", "print"}), steps);
    }
}

TEST_F(PZClockZoneTest, SelectsTheZonesOfWellKnownOffsets) {
    const struct {
        int minutes;
        const char* path;
    } rows[] = {
        {540, "/usr/share/zoneinfo/Etc/GMT-9"},    {885, "/usr/share/zoneinfo/Etc/GMT-1445"},
        {0, "/usr/share/zoneinfo/Etc/GMT"},        {-30, "/usr/share/zoneinfo/Etc/GMT+0030"},
        {-720, "/usr/share/zoneinfo/Etc/GMT+12"},  {-690, "/usr/share/zoneinfo/Etc/GMT+130"},
        {-705, "/usr/share/zoneinfo/Etc/GMT+145"}, {-765, "/usr/share/zoneinfo/Etc/GMT+1345"},
        {345, "/usr/share/zoneinfo/Etc/GMT-0545"},
    };
    for (const auto& row : rows) {
        steps.clear();
        EXPECT_TRUE(PZClock::SetTimeZone(row.minutes));
        ASSERT_FALSE(steps.empty());
        EXPECT_EQ(copy_step(row.path), steps[0]);
    }
}

TEST_F(PZClockZoneTest, RefusesEveryOtherOffset) {
    unsigned int refused = 0;
    for (int minutes = -1600; minutes <= 1600; ++minutes) {
        if (minutes % 15 == 0 && minutes >= -765 && minutes <= 885) continue;
        EXPECT_FALSE(PZClock::SetTimeZone(minutes));
        ++refused;
    }
    for (const int minutes : {INT_MIN, INT_MAX, 1 << 24}) {
        EXPECT_FALSE(PZClock::SetTimeZone(minutes));
        ++refused;
    }
    EXPECT_EQ(Messages(refused, "timezone gmt file not found"), Errors());
    EXPECT_EQ(Steps{}, steps);
}

TEST_F(PZClockZoneTest, ReportsAnOffsetWithoutAZone) {
    EXPECT_FALSE(PZClock::SetTimeZone(10));
    EXPECT_TRUE(
        has_report(output.Take(), "SetTimeZone", "PZClock.cpp", "timezone gmt file not found"));
}

TEST_F(PZClockZoneTest, ReportsAnUnknownArea) {
    for (const int value : {84, 85, -1, INT_MAX, INT_MIN}) {
        EXPECT_FALSE(PZClock::SetTimeZone(static_cast<TimeZone::Area>(value)));
        EXPECT_TRUE(has_report(output.Take(), "SetTimeZone", "PZClock.cpp",
                               "timezone area file not found"));
    }
    EXPECT_EQ(Steps{}, steps);
}

namespace {

/// The part of a line behind the source line's number.
std::string behind_line_number(const std::string& line) {
    const size_t number = line.find("@PZClock.cpp(");
    const size_t end = line.find(')', number);
    return number == std::string::npos ? line : line.substr(0, number) + line.substr(end + 1);
}

}  // namespace

TEST_F(PZClockZoneTest, AnnouncesTheZoneInTheSystemsName) {
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    const std::string gmt = behind_line_number(output.Take());
    EXPECT_EQ("\033[49m[sys] SetTimeZone() {} : set tzfile [" + std::string(kGmt1) +
                  "] XST : XDT\n\033[0m",
              gmt);
    EXPECT_TRUE(PZClock::SetTimeZone(TimeZone::en_AREA_BERLIN));
    const std::string area = behind_line_number(output.Take());
    EXPECT_EQ("\033[49m[sys] SetTimeZone() {} : set tzfile [" + std::string(kBerlin) +
                  "] XST : XDT\n\033[0m",
              area);
}

TEST_F(PZClockZoneTest, AnnouncesAbsentAbbreviations) {
    zone_names = {};  // the rules change nothing: both stay absent
    tzname[0] = nullptr;
    tzname[1] = nullptr;
    EXPECT_TRUE(PZClock::SetTimeZone(TimeZone::en_AREA_TOKYO));
    const std::string text = output.Take();
    EXPECT_NE(std::string::npos,
              text.find("set tzfile [" + std::string(kTokyo) + "] tzname null : tzname null\n"))
        << text;
}

TEST_F(PZClockZoneTest, TriesTwentyTimesWhileTheOldZoneShows) {
    StartFrom("JST");
    zone_names = {"JST"};
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    Steps expected = {copy_step(kGmt1), "tzset", "sync", "print"};
    for (int round = 0; round < 20; ++round) AddRound(expected, kGmt1);
    EXPECT_EQ(expected, steps);
    EXPECT_EQ(21U, pztest::count_of(output.Take(),
                                    "set tzfile [" + std::string(kGmt1) + "] JST : XDT\n"));
}

TEST_F(PZClockZoneTest, TriesTwentyTimesForAnArea) {
    zone_names = {"JST"};
    EXPECT_TRUE(PZClock::SetTimeZone(TimeZone::en_AREA_BERLIN));
    Steps expected = {copy_step(kBerlin), "sync", "tzset", "print"};
    for (int round = 0; round < 20; ++round) AddRound(expected, kBerlin);
    EXPECT_EQ(expected, steps);
}

TEST_F(PZClockZoneTest, StopsTryingOnceTheNewZoneShows) {
    zone_names = {"JST", "JST", "JST", "XST"};
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    Steps expected = {copy_step(kGmt1), "tzset", "sync", "print"};
    for (int round = 0; round < 3; ++round) AddRound(expected, kGmt1);
    EXPECT_EQ(expected, steps);
}

TEST_F(PZClockZoneTest, TakesAnAbsentAbbreviationForTheOldZone) {
    zone_names = {nullptr, "XST"};
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    Steps expected = {copy_step(kGmt1), "tzset", "sync", "print"};
    AddRound(expected, kGmt1);
    EXPECT_EQ(expected, steps);
    EXPECT_NE(std::string::npos, output.Take().find("] tzname null : XDT\n"));
}

TEST_F(PZClockZoneTest, ComparesTheWholeAbbreviation) {
    for (const char* name : {"JS", "JSTX", "jst", ""}) {
        steps.clear();
        zone_names = {name};
        EXPECT_TRUE(PZClock::SetTimeZone(60));
        EXPECT_EQ(4U, steps.size()) << name;
    }
}

TEST_F(PZClockZoneTest, LooksAtTheStandardTimeAbbreviationOnly) {
    std::strcpy(daylight_name, "JST");
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ(4U, steps.size());
    std::strcpy(daylight_name, "XDT");
}

TEST_F(PZClockZoneTest, TriesTwentyTimesForAnOffsetOfNineHours) {
    zone_names = {"JST"};
    EXPECT_TRUE(PZClock::SetTimeZone(540));
    EXPECT_EQ(4U + 20U * 5U, steps.size());
}

TEST_F(PZClockZoneTest, CopiesOnlyOnceForTokyo) {
    zone_names = {"JST"};
    EXPECT_TRUE(PZClock::SetTimeZone(TimeZone::en_AREA_TOKYO));
    EXPECT_EQ((Steps{copy_step(kTokyo), "sync", "tzset", "print"}), steps);
}

TEST_F(PZClockZoneTest, FailsForTokyoWhenItsOnlyCopyFails) {
    StartFrom("JST");
    copy_results = {false};
    EXPECT_FALSE(PZClock::SetTimeZone(TimeZone::en_AREA_TOKYO));
    EXPECT_EQ(Steps{copy_step(kTokyo)}, steps);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockZoneTest, WaitsForTheAreaThatSharesTokyosHours) {
    zone_names = {"JST"};
    EXPECT_TRUE(PZClock::SetTimeZone(TimeZone::en_AREA_SEOUL));
    EXPECT_EQ(4U + 20U * 5U, steps.size());
}

TEST_F(PZClockZoneTest, FailsAtOnceWhenTheFirstCopyFailsInASettledZone) {
    StartFrom("XST");
    copy_results = {false};
    EXPECT_FALSE(PZClock::SetTimeZone(60));
    EXPECT_EQ(Steps{copy_step(kGmt1)}, steps);
    steps.clear();
    copy_results = {false};
    EXPECT_FALSE(PZClock::SetTimeZone(TimeZone::en_AREA_BERLIN));
    EXPECT_EQ(Steps{copy_step(kBerlin)}, steps);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZClockZoneTest, TriesAgainWhenTheFirstCopyFailsInAnUnsettledZone) {
    StartFrom("JST");
    copy_results = {false, true};
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    Steps expected = {copy_step(kGmt1)};
    AddRound(expected, kGmt1);
    EXPECT_EQ(expected, steps);
}

TEST_F(PZClockZoneTest, ReadsTheRulesInALaterTryEvenAfterAFailedCopy) {
    StartFrom("JST");
    copy_results = {false, false, true};
    EXPECT_FALSE(PZClock::SetTimeZone(TimeZone::en_AREA_BERLIN));
    Steps expected = {copy_step(kBerlin)};
    AddRound(expected, kBerlin);
    EXPECT_EQ(expected, steps);
}

TEST_F(PZClockZoneTest, AnswersTheResultOfTheLastCopy) {
    zone_names = {"JST"};
    copy_results = std::deque<bool>(20, true);
    copy_results.push_back(false);
    EXPECT_FALSE(PZClock::SetTimeZone(60));
    copy_results = std::deque<bool>(20, false);
    copy_results.push_back(true);
    StartFrom("JST");
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    zone_names = {"JST", "XST"};
    copy_results = {true, false};
    EXPECT_FALSE(PZClock::SetTimeZone(TimeZone::en_AREA_BERLIN));
}

namespace {

void append_number(std::string& text, unsigned int value) {
    for (int shift = 24; shift >= 0; shift -= 8) {
        text += static_cast<char>((value >> static_cast<unsigned int>(shift)) & 0xFFU);
    }
}

/// A compiled zone file: always `seconds` ahead of UTC.
std::string compiled_zone(unsigned int seconds, const std::string& abbreviation) {
    std::string zone = "TZif" + std::string(16, '\0');
    for (const unsigned int count : {0U, 0U, 0U, 0U, 1U}) append_number(zone, count);
    append_number(zone, static_cast<unsigned int>(abbreviation.size()) + 1);
    append_number(zone, seconds);
    zone += std::string(2, '\0');  // not daylight-saving time; the first abbreviation
    return zone + abbreviation + '\0';
}

}  // namespace

TEST_F(PZClockZoneTest, SwitchesTheProcessToTheCopiedZoneFile) {
    const pztest::TempDir dir;
    zone_file_source = dir.File("zone");
    zone_file_copy = dir.File("tzfile");
    pztest::write_file(zone_file_source, compiled_zone(3600, "ABC"));
    const pztest::ChildResult result = run_in_child([] {
        StartFrom("JST");
        setenv("TZ", (":" + zone_file_copy).c_str(), 1);
        rules_are_real = true;
        if (!PZClock::SetTimeZone(60)) return 1;
        if (std::strcmp(tzname[0], "ABC") != 0) return 2;
        SetNow(kMorningSeconds);
        Clock local = kUntouched;
        if (!PZClock::GetLocal(&local)) return 3;
        return fields(local) == fields(Clock{2024, 3, 2, 5, 8, 8, 9}) ? 42 : 4;
    });
    EXPECT_EQ(42, result.status) << result.output;
    EXPECT_EQ(compiled_zone(3600, "ABC"), pztest::read_file(zone_file_copy));
    EXPECT_NE(std::string::npos, result.output.find("] ABC : "));
}

TEST_F(PZClockZoneTest, FailsWithoutAZoneFile) {
    const pztest::TempDir dir;
    zone_file_source = dir.File("absent");
    zone_file_copy = dir.File("tzfile");
    pztest::write_file(zone_file_copy, "of before");
    EXPECT_FALSE(PZClock::SetTimeZone(60));
    EXPECT_EQ(Steps{copy_step(kGmt1)}, steps);
    EXPECT_EQ("of before", pztest::read_file(zone_file_copy));
    EXPECT_EQ(-1, ::access(made_folder.c_str(), F_OK)) << "nothing is left in /tmp";
}

// The active zone file

namespace {

/// The zone file, and what takes the place of /tmp/tzfile, are files of the test.
class PZClockZoneFileTest : public PZClockZoneTest {
protected:
    void SetUp() override {
        PZClockZoneTest::SetUp();
        zone_file_source = dir.File("zone");
        zone_file_copy = dir.File("tzfile");
        Install("ABC");
        umaskBefore = ::umask(022);
    }
    void TearDown() override {
        ::umask(umaskBefore);
        rename_call.Reset();
        mkdtemp_call.Reset();
        utimensat_call.Reset();
        PZClockZoneTest::TearDown();
    }

    /// The zone file becomes one of this abbreviation.
    static void Install(const std::string& abbreviation) {
        pztest::write_file(zone_file_source, compiled_zone(3600, abbreviation));
    }
    struct stat Status() const {
        struct stat status = {};
        EXPECT_EQ(0, ::lstat(zone_file_copy.c_str(), &status));
        return status;
    }
    /// The mode of a regular file; 0 for everything else.
    mode_t Mode() const { return S_ISREG(Status().st_mode) ? Status().st_mode & 07777 : 0; }
    std::string Active() const { return pztest::read_file(zone_file_copy); }

    pztest::TempDir dir;
    mode_t umaskBefore = 0;
};

}  // namespace

TEST_F(PZClockZoneFileTest, TakesEffectHoweverSoonItFollowsAnother) {
    const pztest::ChildResult result = run_in_child([this] {
        rules_are_real = true;
        // The C library reads a named file only when its name changes; here it does, and the file
        // stays the same. The processes of a device read it again with every tzset.
        std::string name = ":" + dir.Path() + "/";
        for (const char* abbreviation : {"AAA", "BBB", "CCC", "AAA", "BBB", "CCC"}) {
            Install(abbreviation);
            name += "./";
            setenv("TZ", (name + "tzfile").c_str(), 1);
            if (!PZClock::SetTimeZone(60)) return 1;
            if (std::strcmp(tzname[0], abbreviation) != 0) return 2;
        }
        return 42;
    });
    EXPECT_EQ(42, result.status) << result.output;
}

TEST_F(PZClockZoneFileTest, IsAtLeastOneSecondLaterThanTheOneBefore) {
    ASSERT_TRUE(PZClock::SetTimeZone(60));
    for (int i = 0; i < 5; ++i) {
        const time_t before = Status().st_mtim.tv_sec;
        ASSERT_TRUE(PZClock::SetTimeZone(60));
        EXPECT_LT(before, Status().st_mtim.tv_sec);
    }
    // Also when the clock has been set back since.
    const timespec later[] = {{0, UTIME_OMIT}, {Status().st_mtim.tv_sec + 1000000, 0}};
    ASSERT_EQ(0, utimensat_call.Real(AT_FDCWD, zone_file_copy.c_str(), later, 0));
    ASSERT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ(later[1].tv_sec + 1, Status().st_mtim.tv_sec);
}

TEST_F(PZClockZoneFileTest, ReplacesAPipeAtOnce) {
    ASSERT_EQ(0, ::mkfifo(zone_file_copy.c_str(), 0666));
    const pztest::ChildResult result =
        run_in_child([] { return PZClock::SetTimeZone(60) ? 42 : 1; }, /*limitSeconds=*/20);
    EXPECT_EQ(42, result.status) << "waits for a reader";
    EXPECT_EQ(0644U, Mode());
    EXPECT_EQ(compiled_zone(3600, "ABC"), Active());
}

TEST_F(PZClockZoneFileTest, ReplacesALinkAndLeavesWhatItLeadsTo) {
    const std::string secret = dir.File("secret");
    pztest::write_file(secret, "secret");
    ASSERT_EQ(0, ::chmod(secret.c_str(), 0600));
    ASSERT_EQ(0, ::symlink(secret.c_str(), zone_file_copy.c_str()));
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ("secret", pztest::read_file(secret));
    EXPECT_EQ(0644U, Mode());
    EXPECT_EQ(compiled_zone(3600, "ABC"), Active());
}

TEST_F(PZClockZoneFileTest, HasTheRightsOfANewFileAndKeepsThoseItHas) {
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ(0644U, Mode());
    ASSERT_EQ(0, ::chmod(zone_file_copy.c_str(), 0660));
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ(0660U, Mode());
    if (::geteuid() != 0) return;
    ASSERT_EQ(0, ::chown(zone_file_copy.c_str(), 1234, 5678));
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ(1234U, Status().st_uid);
    EXPECT_EQ(5678U, Status().st_gid);
}

TEST_F(PZClockZoneFileTest, AReaderSeesTheWholeOldFileWhileItIsReplaced) {
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    FILE* const reader = std::fopen(zone_file_copy.c_str(), "rb");
    ASSERT_NE(nullptr, reader);
    Install("DEF");
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    char bytes[1000] = {};
    const size_t got = std::fread(bytes, 1, sizeof bytes, reader);
    std::fclose(reader);
    EXPECT_EQ(compiled_zone(3600, "ABC"), std::string(bytes, got)) << "the whole file of before";
    EXPECT_EQ(compiled_zone(3600, "DEF"), Active());
}

TEST_F(PZClockZoneFileTest, LeavesNoOtherFileInItsFolder) {
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_NE("", made_folder);
    EXPECT_EQ(-1, ::access(made_folder.c_str(), F_OK));
}

TEST_F(PZClockZoneFileTest, LetsItsThreadBeCancelledAndLeavesNothingBehind) {
    const pztest::ChildResult result = run_in_child([] {
        // As the C library's does for one name in twenty.
        mkdtemp_call.Replace([](char* path) {
            pthread_testcancel();
            return mkdtemp_call.Real(path);
        });
        pthread_t thread = {};
        const auto body = [](void*) -> void* {
            const pztest::CancelledStack stack;
            pthread_cancel(pthread_self());  // takes effect at the first call that may wait
            PZClock::SetTimeZone(60);
            return nullptr;
        };
        if (pthread_create(&thread, nullptr, body, nullptr) != 0) return 1;
        void* end = nullptr;
        pthread_join(thread, &end);
        if (end != PTHREAD_CANCELED || made_folder.empty()) return 2;
        return ::access(made_folder.c_str(), F_OK) == -1 ? 42 : 3;
    });
    EXPECT_EQ(42, result.status) << result.output;
}

TEST_F(PZClockZoneFileTest, IsOverwrittenWhereNothingCanBeReplaced) {
    pztest::write_file(zone_file_copy, "of before, and longer than what comes now, much longer");
    const ino_t file = Status().st_ino;
    const time_t before = Status().st_mtim.tv_sec;
    rename_call.FailNext(EPERM);
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ(compiled_zone(3600, "ABC"), Active());
    EXPECT_EQ(file, Status().st_ino);
    EXPECT_LT(before, Status().st_mtim.tv_sec);
    EXPECT_EQ(-1, ::access(made_folder.c_str(), F_OK));

    Install("DEF");
    mkdtemp_call.FailNext(EROFS);
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ(compiled_zone(3600, "DEF"), Active());
    EXPECT_EQ(file, Status().st_ino);
    EXPECT_EQ(0U, pztest::count_of(output.Take(), "[error]"));
}

TEST_F(PZClockZoneFileTest, IsNotWrittenThroughALinkOrAPipeThatCannotBeReplaced) {
    const std::string secret = dir.File("secret");
    pztest::write_file(secret, "secret");
    ASSERT_EQ(0, ::symlink(secret.c_str(), zone_file_copy.c_str()));
    StartFrom("XST");
    rename_call.FailNext(EPERM);
    EXPECT_FALSE(PZClock::SetTimeZone(60));
    EXPECT_EQ("secret", pztest::read_file(secret));
    EXPECT_TRUE(
        has_report(output.Take(), "SetTimeZone", "PZClock.cpp", "failed to open [/tmp/tzfile]"));

    ASSERT_EQ(0, ::unlink(zone_file_copy.c_str()));
    ASSERT_EQ(0, ::mkfifo(zone_file_copy.c_str(), 0666));
    mkdtemp_call.FailNext(EROFS);
    const pztest::ChildResult result =
        run_in_child([] { return PZClock::SetTimeZone(60) ? 1 : 42; }, /*limitSeconds=*/20);
    EXPECT_EQ(42, result.status);
    mkdtemp_call.Reset();
}

TEST_F(PZClockZoneFileTest, IsReadFromAPipeOnceThatHasAWriter) {
    const std::string zone = pztest::read_file(zone_file_source);
    ASSERT_EQ(0, ::unlink(zone_file_source.c_str()));
    ASSERT_EQ(0, ::mkfifo(zone_file_source.c_str(), 0600));
    StartFrom("XST");
    const std::string reader = "/proc/" + std::to_string(getpid()) + "/stat";
    pztest::ChildProcess writer([&] {
        // Without a nap, which these tests keep to themselves.
        while (pztest::count_of(pztest::read_file(reader), ") S ") == 0) sched_yield();
        const int fifo = ::open(zone_file_source.c_str(), O_WRONLY | O_NONBLOCK);
        const auto written = ::write(fifo, zone.data(), zone.size());
        return written == static_cast<ssize_t>(zone.size()) ? 0 : 2;
    });
    EXPECT_TRUE(PZClock::SetTimeZone(60));
    EXPECT_EQ(0, writer.Wait());
    EXPECT_EQ(zone, Active());
}

TEST_F(PZClockZoneFileTest, LeavesADirectoryInItsPlaceAndReportsIt) {
    ASSERT_EQ(0, ::mkdir(zone_file_copy.c_str(), 0755));
    StartFrom("XST");
    EXPECT_FALSE(PZClock::SetTimeZone(60));
    EXPECT_TRUE(S_ISDIR(Status().st_mode));
    EXPECT_TRUE(has_report(output.Take(), "copyFile", "PZFileSys.cpp",
                           "failed to open [" + zone_file_copy + "]"));
}
