#include "Framework/Foundation/PZClock.h"

#include <fcntl.h>
#include <linux/rtc.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_child.h>
#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_uncancelled.h>

static_assert(sizeof(PZClock::ST_CLOCK) == 28 && offsetof(PZClock::ST_CLOCK, month) == 4 &&
                  offsetof(PZClock::ST_CLOCK, dayOfWeek) == 8 &&
                  offsetof(PZClock::ST_CLOCK, day) == 12 &&
                  offsetof(PZClock::ST_CLOCK, hour) == 16 &&
                  offsetof(PZClock::ST_CLOCK, minute) == 20 &&
                  offsetof(PZClock::ST_CLOCK, second) == 24,
              "seven fields of 32 bits");

namespace {

constexpr char kActiveZoneFile[] = "/tmp/tzfile";
constexpr char kClockDevice[] = "/dev/rtc0";
constexpr char kDateProgram[] = "/bin/date";

constexpr int kFirstYear = 1900;  // of the C library's calendar

/// The C library's conversion to UTC or to local time; null when it fails. The result need not be
/// the buffer.
using BreakDown = const tm* (*)(const time_t&, tm& buffer);

/// Without the C library's shared buffer: threads name their log files by this time.
const tm* to_utc(const time_t& seconds, tm& buffer) {
    return ::gmtime_r(&seconds, &buffer);
}

/// With it: localtime_r would not notice that TZ has changed.
const tm* to_local(const time_t& seconds, tm& /*buffer*/) {
    return ::localtime(&seconds);
}

/// False when the C library cannot convert the time.
bool break_down(BreakDown convert, time_t seconds, PZClock::ST_CLOCK& clock) {
    tm buffer = {};
    const tm* const time = convert(seconds, buffer);
    if (time == nullptr) return false;
    clock.year = time->tm_year + kFirstYear;
    clock.month = static_cast<unsigned int>(time->tm_mon + 1);
    clock.dayOfWeek = static_cast<unsigned int>(time->tm_wday);
    clock.day = static_cast<unsigned int>(time->tm_mday);
    clock.hour = static_cast<unsigned int>(time->tm_hour);
    clock.minute = static_cast<unsigned int>(time->tm_min);
    clock.second = static_cast<unsigned int>(time->tm_sec);
    return true;
}

/// False, with the reason in errno, when the time cannot be read or converted.
bool read_time(BreakDown convert, PZClock::ST_CLOCK& clock) {
    timeval now = {};
    return ::gettimeofday(&now, nullptr) == 0 && break_down(convert, now.tv_sec, clock);
}

/// Epoch seconds of any width as the 32 bits with a sign that they have on every machine.
std::int32_t narrow_seconds(unsigned long long seconds) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds));
}

/// As the clock device (rtc_time) or the C library (tm) has it, but for the day of the week.
template <typename Time>
Time broken_down(const PZClock::ST_CLOCK& clock) {
    Time time = {};
    time.tm_sec = static_cast<int>(clock.second);
    time.tm_min = static_cast<int>(clock.minute);
    time.tm_hour = static_cast<int>(clock.hour);
    time.tm_mday = static_cast<int>(clock.day);
    time.tm_mon = static_cast<int>(clock.month) - 1;
    time.tm_year = clock.year - kFirstYear;
    return time;
}

/// The time now, for `operation`, in whose name failures are reported.
bool get_now(const char* operation, BreakDown convert, PZClock::ST_CLOCK* clock) {
    if (clock == nullptr) {
        PZ_REPORT_ERROR_OF(operation, "invalid arg\n");
        return false;
    }
    if (!read_time(convert, *clock)) {
        PZ_REPORT_ERROR_OF(operation, "err(%d:%s)\n", pz_get_last_err(), pz_get_last_err_string());
        return false;
    }
    return true;
}

/// Any time, likewise.
bool get_time(const char* operation, BreakDown convert, unsigned long long seconds,
              PZClock::ST_CLOCK* clock) {
    if (clock == nullptr) {
        PZ_REPORT_ERROR_OF(operation, "invalid arg\n");
        return false;
    }
    if (!break_down(convert, narrow_seconds(seconds), *clock)) {
        PZ_REPORT_ERROR_OF(operation, "error\n");
        return false;
    }
    return true;
}

/// Holds back the signals of the calling thread. A handler may neither interrupt the wait for a
/// child, which would be taken for a failed one, nor collect that child first.
class SignalBlock {
public:
    SignalBlock() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalBlock() { Lift(); }

    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

    void Lift() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_;
};

/// Turns a forked child into the date program. Does not return.
[[noreturn]] void execute_date(SignalBlock& signals, const char* argument) {
    signals.Lift();
    ::execl(kDateProgram, kDateProgram, argument, static_cast<char*>(nullptr));
    pz_end_child_without_program(kDateProgram);
}

[[noreturn]] void exit_because_of_waitpid() {
    std::perror("waitpid");
    std::exit(-1);
}

/// A folder below /tmp into which nobody else can put anything, and the path of a file in it. Both
/// are removed with the object.
class PrivateFolder {
public:
    PrivateFolder() : isMade_(Make(folder_)) {
        std::snprintf(file_, sizeof file_, "%s/tzfile", folder_);
    }
    ~PrivateFolder() {
        if (!isMade_) return;
        ::unlink(file_);
        ::rmdir(folder_);
    }

    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    bool IsMade() const { return isMade_; }
    const char* File() const { return file_; }

private:
    /// Not cancelled meanwhile: mkdtemp is declared to throw nothing, and would end the process.
    static bool Make(char* folder) {
        const PZUncancelled whole;
        return ::mkdtemp(folder) != nullptr;
    }

    char folder_[sizeof "/tmp/tzfile.XXXXXX"] = "/tmp/tzfile.XXXXXX";
    char file_[sizeof folder_ + sizeof "/tzfile"] = {};
    const bool isMade_;
};

/// Gives a file a later time than `before`, in whole seconds: by these the C library tells whether
/// a zone file is still the one that it has read, in every process and however soon it changes.
void make_newer(const char* file, const timespec& before) {
    struct stat status = {};
    if (::lstat(file, &status) != 0 || status.st_mtim.tv_sec > before.tv_sec) return;
    if (before.tv_sec == std::numeric_limits<time_t>::max()) return;
    const timespec times[] = {{0, UTIME_OMIT}, {before.tv_sec + 1, 0}};
    ::utimensat(AT_FDCWD, file, times, AT_SYMLINK_NOFOLLOW);
}

/// Puts the new zone file into the place of the active one, whatever that is; of another file it
/// keeps the rights. Processes that read meanwhile see the old one or the new one.
bool replace_active_zone(const char* file, const struct stat* active) {
    if (active != nullptr && S_ISREG(active->st_mode)) {
        // Without the right to do so the file belongs to this process.
        [[maybe_unused]] const int owned = ::chown(file, active->st_uid, active->st_gid);
        ::chmod(file, active->st_mode & 0777U);
        make_newer(file, active->st_mtim);
    }
    return ::rename(file, kActiveZoneFile) == 0;
}

/// For a folder that lets nobody make or replace files. Never through a link or into a pipe, which
/// anybody can have put there.
bool overwrite_active_zone(const char* path, const struct stat* active) {
    if (active != nullptr && !S_ISREG(active->st_mode) && !S_ISDIR(active->st_mode)) {
        PZ_REPORT_ERROR_OF("SetTimeZone", "failed to open [%s]\n", kActiveZoneFile);
        return false;
    }
    if (!PZFileSys::Copy(path, kActiveZoneFile, false, false)) return false;
    if (active != nullptr) make_newer(kActiveZoneFile, active->st_mtim);
    return true;
}

/// Null when no row of the table fits.
template <typename Row, size_t N, typename Fits>
const char* find_path(const Row (&table)[N], const Fits& fits) {
    const Row* const row = std::find_if(std::begin(table), std::end(table), fits);
    return row != std::end(table) ? row->path : nullptr;
}

bool copy_zone_file(const char* path) {
    struct stat status = {};
    const struct stat* const active = ::lstat(kActiveZoneFile, &status) == 0 ? &status : nullptr;
    const PrivateFolder folder;
    if (folder.IsMade()) {
        if (!PZFileSys::Copy(path, folder.File(), false, false)) return false;
        if (replace_active_zone(folder.File(), active)) return true;
    }
    return overwrite_active_zone(path, active);
}

const char* abbreviation(const char* name) {
    return name != nullptr ? name : "tzname null";
}

void print_zone(const char* path) {
    PZDbgOutput::DbgPrint(__FILE__, "SetTimeZone", __LINE__, PZDbgOutput::en_TAG_SYS,
                          "set tzfile [%s] %s : %s\n", path, abbreviation(tzname[0]),
                          abbreviation(tzname[1]));
}

/// Copies a zone file and announces it; false when that fails.
bool use_zone_file(const char* path, void (*announce)()) {
    const bool copied = copy_zone_file(path);
    if (copied) {
        announce();
        print_zone(path);
    }
    return copied;
}

/// Copies and announces the zone file until its rules show, `copied` being the result so far.
/// Answers the result of the last copy.
bool settle(const char* path, bool copied) {
    constexpr int kAttempts = 20;
    constexpr unsigned int kPauseMs = 100;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        // "JST" is taken for the rules of before, even where the new zone has the same name.
        if (tzname[0] != nullptr && std::strcmp(tzname[0], "JST") != 0) break;
        copied = copy_zone_file(path);
        ::sync();
        ::tzset();
        print_zone(path);
        pz_msleep(kPauseMs);
    }
    return copied;
}

}  // namespace

PZClock::~PZClock() = default;

bool PZClock::GetUtc(ST_CLOCK* clock) {
    return get_now("GetUtc", &to_utc, clock);
}

bool PZClock::GetLocal(ST_CLOCK* clock) {
    return get_now("GetLocal", &to_local, clock);
}

bool PZClock::SetUtc(ST_CLOCK* clock) {
    if (clock == nullptr || !checkCalenderTime(*clock)) {
        PZ_REPORT_ERROR("invalid arg\n");
        return false;
    }
    const PZDescriptor device(::open(kClockDevice, O_RDWR | O_CLOEXEC));
    if (!device.IsOpen()) {
        PZ_REPORT_ERROR("open(/dev/rtc0) Failed [%s]\n", pz_get_last_err_string());
        return false;
    }
    const auto time = broken_down<rtc_time>(*clock);
    const bool written = ::ioctl(device.Get(), RTC_SET_TIME, &time) >= 0;
    if (!written) {
        PZ_REPORT_ERROR_ON(PATH, kClockDevice, "ioctl(RTC_SET_TIME) Error [%s]\n",
                           pz_get_last_err_string());
    }
    return written;
}

bool PZClock::SetLocal(ST_CLOCK* clock) {
    if (clock == nullptr || !checkCalenderTime(*clock)) {
        PZ_REPORT_ERROR("invalid arg\n");
        return false;
    }
    char argument[32];
    std::snprintf(argument, sizeof argument, "%02d%02d%02d%02d%04d", static_cast<int>(clock->month),
                  static_cast<int>(clock->day), static_cast<int>(clock->hour),
                  static_cast<int>(clock->minute), clock->year);

    SignalBlock signals;
    const pid_t child = pz_fork_for_program();
    if (child == -1) {
        PZ_REPORT_ERROR_ON(PATH, kDateProgram, "error : fork\n");
        return false;
    }
    if (child == 0) execute_date(signals, argument);
    int status = 0;
    if (::waitpid(child, &status, 0) == -1) {
        signals.Lift();
        exit_because_of_waitpid();
    }
    if (WIFSIGNALED(status)) {
        const PZReportObject named(PZReportObject::en_PATH, kDateProgram);
        PZ_REPORT_ERROR("failed to set time [%04d/%02d/%02d %02d:%02d:%02d]\n", clock->year,
                        static_cast<int>(clock->month), static_cast<int>(clock->day),
                        static_cast<int>(clock->hour), static_cast<int>(clock->minute),
                        static_cast<int>(clock->second));
        PZ_REPORT_LAST_ERROR();
        return false;
    }
    return true;  // whatever the program's exit status: it is not a failure of this operation
}

bool PZClock::SetTimeZone(int minutes) {
    constexpr float kMinutesPerHour = 60.0F;
    const float hours = static_cast<float>(minutes) / kMinutesPerHour;
    const char* const path =
        find_path(timeZoneGmtTbl_, [hours](const auto& zone) { return zone.hours == hours; });
    if (path == nullptr) {
        PZ_REPORT_ERROR("timezone gmt file not found\n");
        return false;
    }
    return settle(path, use_zone_file(path, [] {
                      ::tzset();
                      ::sync();
                  }));
}

bool PZClock::SetTimeZone(TimeZone::Area area) {
    const char* const path =
        find_path(timeZoneTbl_, [area](const auto& zone) { return zone.area == area; });
    if (path == nullptr) {
        PZ_REPORT_ERROR("timezone area file not found\n");
        return false;
    }
    const bool copied = use_zone_file(path, [] {
        ::sync();
        ::tzset();
    });
    // Its abbreviation is "JST", which tells nothing.
    if (area == TimeZone::en_AREA_TOKYO) return copied;
    return settle(path, copied);
}

unsigned long PZClock::GetTime() {
    return PZTickCount::GetInstance()->GetTime();
}

bool PZClock::ToLocaltime(unsigned long long seconds, ST_CLOCK* clock) {
    return get_time("ToLocaltime", &to_local, seconds, clock);
}

bool PZClock::ToUtcTime(unsigned long long seconds, ST_CLOCK* clock) {
    return get_time("ToUtcTime", &to_utc, seconds, clock);
}

long long PZClock::ToCalendarTime(ST_CLOCK* clock) {
    if (clock == nullptr || !checkCalenderTime(*clock)) {
        PZ_REPORT_ERROR("invalid arg\n");
        return 0;
    }
    tm time = broken_down<tm>(*clock);
    time.tm_wday = static_cast<int>(clock->dayOfWeek);
    time.tm_isdst = -1;  // the zone decides
    return narrow_seconds(static_cast<unsigned long long>(std::mktime(&time)));
}

bool PZClock::checkCalenderTime(ST_CLOCK& clock) {
    const bool accepted = clock.year >= kFirstYear && clock.month >= 1 && clock.month <= 12 &&
                          clock.dayOfWeek <= 6 && clock.day >= 1 && clock.day <= 31 &&
                          clock.hour <= 23 && clock.minute <= 59 && clock.second <= 59;
    if (!accepted) {
        PZ_REPORT_ERROR("year[%d] month[%d] day[%d] day of week[%d] h[%d] m[%d] s[%d]\n",
                        clock.year, static_cast<int>(clock.month), static_cast<int>(clock.day),
                        static_cast<int>(clock.dayOfWeek), static_cast<int>(clock.hour),
                        static_cast<int>(clock.minute), static_cast<int>(clock.second));
    }
    return accepted;
}
