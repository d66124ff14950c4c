#include <algorithm>
#include <string>
#include <utility>

#include "Checks.h"
#include "ProcSelf.h"

namespace {

constexpr int kCapSysNice = 23;
constexpr int kCapSysTime = 25;

// The limit of nice is 20 minus the lowest nice value that a process may take.
constexpr int kNiceOfLimit0 = 20;
constexpr int kLowestNice = -20;       // workers of the highest priority
constexpr int kLowestTimerNice = -10;  // the most urgent of the timer threads
constexpr int kHighestNice = 4;        // the end of the framework's scale

// Measured: the standard streams, the system log and the waits of five timer threads, and those of
// one worker.
constexpr unsigned long long kDescriptorsOfFramework = 19;
constexpr unsigned long long kDescriptorsOfWorker = 3;
constexpr unsigned long long kFewDescriptors = 256;
constexpr unsigned long long kEnoughDescriptors = 1024;

// All processes of a user count together.
constexpr unsigned long long kFewThreads = 64;
constexpr unsigned long long kEnoughThreads = 256;

constexpr unsigned long long kRaisedLimit = 1024;  // by the repairs of both

constexpr char kNoLimitRow[] = "uname -r  # this kernel's /proc has no such row";

/// Whether the user may raise the row's soft limit to `wanted` himself.
bool may_raise(const Machine& machine, const char* row, unsigned long long wanted) {
    const auto limit = hard_limit(machine, row);
    return limit && *limit >= wanted;
}

std::string limit_text(unsigned long long limit) {
    return limit == kUnlimited ? "unlimited" : std::to_string(limit);
}

/// What a limit deserves; `repair` raises it, for the user himself when he may.
Finding judged(const Machine& machine, const char* row, unsigned long long limit,
               unsigned long long few, unsigned long long enough, std::string found,
               std::string repair) {
    const bool can = may_raise(machine, row, kRaisedLimit);
    if (limit < few) return by_this_user_if(can, red(std::move(found), std::move(repair)));
    if (limit < enough) return by_this_user_if(can, yellow(std::move(found), std::move(repair)));
    return green(std::move(found));
}

}  // namespace

Finding check_nice_limit(const Machine& machine) {
    if (has_capability(machine, kCapSysNice)) return green("CAP_SYS_NICE: every nice value");
    const auto limit = soft_limit(machine, "Max nice priority");
    if (!limit) return unreadable(machine, kLimitsPath, kNoLimitRow);
    const std::string repair = "prlimit --pid $$ --nice=40:40  # in a unit: LimitNICE=-20";
    if (*limit == 0) return red("nice values may not be lowered", repair);
    const int lowest =
        kNiceOfLimit0 - static_cast<int>(std::min<unsigned long long>(
                            *limit, static_cast<unsigned long long>(kNiceOfLimit0 - kLowestNice)));
    const std::string found = "nice values from " + std::to_string(lowest);
    if (lowest > kLowestTimerNice) return red(found, repair);
    if (lowest > kLowestNice) return yellow(found, repair);
    return green(found);
}

Finding check_own_nice(const Machine& machine) {
    const auto nice = own_nice(machine);
    if (!nice) return unreadable(machine, kStatPath, "mount -o remount,hidepid=0 /proc");
    const std::string found = "nice value " + std::to_string(*nice);
    if (*nice > kHighestNice) return red(found, "renice -n 0 -p $$");
    return green(found);
}

Finding check_descriptors(const Machine& machine) {
    const auto limit = soft_limit(machine, "Max open files");
    if (!limit) return unreadable(machine, kLimitsPath, kNoLimitRow);
    const unsigned long long workers =
        (std::max(*limit, kDescriptorsOfFramework) - kDescriptorsOfFramework) /
        kDescriptorsOfWorker;
    std::string found = limit_text(*limit) + " open files";
    if (*limit != kUnlimited) found += ", room for " + std::to_string(workers) + " workers";
    return judged(machine, "Max open files", *limit, kFewDescriptors, kEnoughDescriptors, found,
                  "ulimit -S -n 1024 || ulimit -n 1024  # in a unit: LimitNOFILE=1024");
}

Finding check_threads(const Machine& machine) {
    const auto limit = soft_limit(machine, "Max processes");
    if (!limit) return unreadable(machine, kLimitsPath, kNoLimitRow);
    return judged(machine, "Max processes", *limit, kFewThreads, kEnoughThreads,
                  limit_text(*limit) + " threads of one user",
                  "ulimit -S -u 1024 || ulimit -u 1024  # in a unit: LimitNPROC=1024");
}

Finding check_clock_rights(const Machine& machine) {
    if (!machine.HasProc()) return skipped("needs /proc");
    if (has_capability(machine, kCapSysTime)) return green("CAP_SYS_TIME");
    return yellow("no CAP_SYS_TIME", "setcap cap_sys_time+ep PROGRAM");
}
