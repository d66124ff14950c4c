#include "Framework/Foundation/PZThreadMng.h"

#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <future>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZSingleton.h>

#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OwnProcess.h"
#include "support/OwnStreams.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(sem_init, 3);
PZ_INTERPOSE(getpriority, 2);
PZ_INTERPOSE(setpriority, 3);
PZ_INTERPOSE(pthread_getcpuclockid, 2, ESRCH);
PZ_INTERPOSE(clock_gettime, 2);

namespace {

using pztest::fdopen_call;
using pztest::has_report;
using pztest::open_call;
using pztest::StdoutCapture;

constexpr char kDumpPath[] = "/temp/ThreadInfo";

/// One kernel thread whose nice value is the test's, and whose changes are recorded.
struct FakeThread {
    id_t who;
    int nice;
    __priority_which_t which;
};
FakeThread fake_thread;

int fake_getpriority(__priority_which_t which, id_t who) {
    fake_thread.which = which;
    fake_thread.who = who;
    return fake_thread.nice;
}

int fake_setpriority(__priority_which_t which, id_t who, int nice) {
    fake_thread = {who, nice, which};
    return 0;
}

unsigned int kernel_id() {
    return static_cast<unsigned int>(syscall(SYS_gettid));
}

/// Where the dump goes instead of "/temp/ThreadInfo".
std::string dump_target;
int dump_flags;

int open_dump_target(const char* path, int flags, mode_t mode) {
    if (std::string(path) != kDumpPath) return open_call.Real(path, flags, mode);
    dump_flags = flags;
    return open_call.Real(dump_target.c_str(), flags, mode);
}

class PZThreadMngTest : public testing::Test {
protected:
    PZThreadMngTest() {
        getpriority_call.Reset();
        setpriority_call.Reset();
        pthread_getcpuclockid_call.Reset();
        open_call.Reset();
        fdopen_call.Reset();
        clock_gettime_call.Reset();
    }

    ~PZThreadMngTest() override { PZSingletonFinalizer::finalize(); }

    void RegisterSelfAndOther(int status) {
        const PZThreadMng::ThreadInfo self = {pthread_self(), 251, "self", 5, 6, 7, status};
        const PZThreadMng::ThreadInfo other = {1, 251, "other", 8, 9, 10, status};
        manager.registerThreadInfo(self);
        manager.registerThreadInfo(other);
    }

    std::string Label(unsigned long handle) {
        char label[256];
        std::memset(label, '?', sizeof label);
        if (!manager.getLabel(handle, label)) return "(unknown)";
        return label;
    }

    std::vector<unsigned long> Active() {
        std::vector<unsigned long> handles;
        EXPECT_TRUE(manager.getActiveThreadList(handles));
        return handles;
    }

    /// What dumpThreadStatus writes.
    std::string Dump() {
        dump_target = dir.File("ThreadInfo");
        open_call.Replace(&open_dump_target);
        manager.dumpThreadStatus();
        open_call.Replace(nullptr);
        return pztest::read_file(dump_target);
    }

    pztest::TempDir dir;
    PZThreadMng& manager = *PZThreadMng::GetInstance();
};

using Handles = std::vector<unsigned long>;

// The priority scale.

struct NiceGroup {
    int firstWide;
    int lastWide;
    int nice;
};

// clang-format off
constexpr NiceGroup kGroups[] = {
    {177, 177, -20}, {178, 178, -19}, {179, 180, -18}, {181, 182, -17}, {183, 184, -16},
    {185, 186, -15}, {187, 188, -14}, {189, 190, -13}, {191, 192, -12}, {193, 194, -11},
    {195, 196, -10}, {197, 197,  -9}, {198, 198,  -8}, {199, 199,  -7}, {200, 200,  -6},
    {201, 210,  -5}, {211, 220,  -4}, {221, 230,  -3}, {231, 240,  -2}, {241, 250,  -1},
    {251, 251,   0}, {252, 252,   1}, {253, 253,   2}, {254, 254,   3}, {255, 255,   4},
};
// clang-format on

TEST_F(PZThreadMngTest, AnswersTheFirstWidePriorityOfEachNiceValue) {
    for (const NiceGroup& group : kGroups) {
        EXPECT_EQ(group.firstWide, manager.get_wide_priority(group.nice)) << group.nice;
    }
}

TEST_F(PZThreadMngTest, HasNoWidePriorityForNiceValuesOffTheScale) {
    for (const int nice : {5, 7, 19, 20, -21, 1000, -1000}) {
        EXPECT_EQ(-1, manager.get_wide_priority(nice)) << nice;
    }
}

TEST_F(PZThreadMngTest, AnswersTheNiceValueOfEachWidePriority) {
    int wide = 177;
    for (const NiceGroup& group : kGroups) {
        for (; wide <= group.lastWide; ++wide) {
            EXPECT_EQ(group.nice, manager.get_narrow_priority(wide)) << wide;
        }
    }
    EXPECT_EQ(256, wide);
}

TEST_F(PZThreadMngTest, WidePrioritiesBelowTheScaleAreNiceMinus20) {
    for (const int wide : {176, 100, 0, -1, -2147483647 - 1}) {
        EXPECT_EQ(-20, manager.get_narrow_priority(wide)) << wide;
    }
}

TEST_F(PZThreadMngTest, WidePrioritiesAboveTheScaleAreNiceMinus1) {
    for (const int wide : {256, 300, 2147483647}) {
        EXPECT_EQ(-1, manager.get_narrow_priority(wide)) << wide;
    }
}

// Reading and setting priorities.

TEST_F(PZThreadMngTest, ReadsTheWidePriorityOfAKernelThread) {
    fake_thread.nice = -18;
    getpriority_call.Replace(&fake_getpriority);
    EXPECT_EQ(179, manager.GetPriority(1, 4711));
    EXPECT_EQ(4711U, fake_thread.who);
    EXPECT_EQ(PRIO_PROCESS, fake_thread.which);
}

TEST_F(PZThreadMngTest, ReadsThePriorityOfAThreadThatNobodyRegistered) {
    EXPECT_EQ(manager.get_wide_priority(getpriority(PRIO_PROCESS, kernel_id())),
              manager.GetPriority(0, kernel_id()));
}

TEST_F(PZThreadMngTest, TellsNiceMinus1FromAFailure) {
    fake_thread.nice = -1;
    getpriority_call.Replace(&fake_getpriority);
    StdoutCapture out;
    errno = EPERM;  // of an earlier call
    EXPECT_EQ(241, manager.GetPriority(1, 2));
    errno = EPERM;
    EXPECT_EQ(241, manager.GetCurrentThreadPriority());
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadMngTest, ANiceValueOffTheScaleReadsAsMinus1WithoutAReport) {
    fake_thread.nice = 7;
    getpriority_call.Replace(&fake_getpriority);
    StdoutCapture out;
    EXPECT_EQ(-1, manager.GetPriority(1, 2));
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadMngTest, AnUnreadablePriorityIsReportedAndAnsweredWithZero) {
    getpriority_call.FailNext(ESRCH);
    StdoutCapture out;
    EXPECT_EQ(0, manager.GetPriority(1, 2));
    EXPECT_TRUE(has_report(out.Take(), "GetPriority", "PZThreadMng.cpp",
                           "error : errno[3 : No such process]"));
}

TEST_F(PZThreadMngTest, ReadsTheWidePriorityOfTheCallingThread) {
    fake_thread.nice = -5;
    getpriority_call.Replace(&fake_getpriority);
    StdoutCapture out;
    EXPECT_EQ(201, manager.GetCurrentThreadPriority());
    EXPECT_EQ(0U, fake_thread.who);  // the calling thread
    EXPECT_EQ(PRIO_PROCESS, fake_thread.which);
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadMngTest, ReportsTheCallingThreadsNiceValueOffTheScale) {
    fake_thread.nice = 5;
    getpriority_call.Replace(&fake_getpriority);
    StdoutCapture out;
    EXPECT_EQ(-1, manager.GetCurrentThreadPriority());
    EXPECT_TRUE(
        has_report(out.Take(), "GetCurrentThreadPriority", "PZThreadMng.cpp", "error : nice[5]"));
}

TEST_F(PZThreadMngTest, ReportsThatTheCallingThreadsPriorityIsUnreadable) {
    getpriority_call.FailNext(EPERM);
    StdoutCapture out;
    EXPECT_EQ(0, manager.GetCurrentThreadPriority());
    const std::string printed = out.Take();
    EXPECT_TRUE(has_report(printed, "GetCurrentThreadPriority", "PZThreadMng.cpp",
                           "error : errno[1 : Operation not permitted]"));
    EXPECT_EQ(1U, pztest::error_messages(printed).size());
}

TEST_F(PZThreadMngTest, SetsTheNiceValueOfAKernelThread) {
    manager.registerThreadInfo(10, "ten", 251, 0);
    setpriority_call.Replace(&fake_setpriority);
    EXPECT_TRUE(manager.SetPriority(10, 196, 4711));
    EXPECT_EQ(4711U, fake_thread.who);
    EXPECT_EQ(-10, fake_thread.nice);
    EXPECT_EQ(PRIO_PROCESS, fake_thread.which);
}

TEST_F(PZThreadMngTest, SetsPrioritiesOffTheScaleAsTheTableLookUpAnswersThem) {
    manager.registerThreadInfo(10, "ten", 251, 0);
    setpriority_call.Replace(&fake_setpriority);
    EXPECT_TRUE(manager.SetPriority(10, 300, 1));
    EXPECT_EQ(-1, fake_thread.nice);
    EXPECT_TRUE(manager.SetPriority(10, 100, 1));
    EXPECT_EQ(-20, fake_thread.nice);
}

TEST_F(PZThreadMngTest, SetsTheNiceValueButAnswersFalseForAnUnknownHandle) {
    setpriority_call.Replace(&fake_setpriority);
    StdoutCapture out;
    EXPECT_FALSE(manager.SetPriority(99, 253, 12));
    EXPECT_EQ(12U, fake_thread.who);
    EXPECT_EQ(2, fake_thread.nice);
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadMngTest, ReportsARefusedPriority) {
    manager.registerThreadInfo(10, "ten", 251, 0);
    setpriority_call.FailNext(EACCES);
    StdoutCapture out;
    EXPECT_FALSE(manager.SetPriority(10, 177, kernel_id()));
    EXPECT_TRUE(has_report(out.Take(), "SetPriority", "PZThreadMng.cpp",
                           "error : errno[13 : Permission denied]"));
}

TEST_F(PZThreadMngTest, ReadsBackThePriorityThatAThreadGaveItself) {
    // Everyone may raise a nice value; the thread ends with it.
    if (getpriority(PRIO_PROCESS, kernel_id()) > 4) GTEST_SKIP() << "runs at a nice value above 4";
    std::thread([this] {
        manager.registerThreadInfo(pthread_self(), "self", 251, 0);
        EXPECT_TRUE(manager.SetPriority(pthread_self(), 255, kernel_id()));
        EXPECT_EQ(255, manager.GetPriority(pthread_self(), kernel_id()));
        EXPECT_EQ(255, manager.GetCurrentThreadPriority());
    }).join();
}

// The registry.

TEST_F(PZThreadMngTest, RegistersAThreadAsRunning) {
    EXPECT_TRUE(manager.registerThreadInfo(10, "ten", 251, 4000));
    EXPECT_EQ("ten", Label(10));
    EXPECT_EQ(4000U, manager.getWatchTime(10));
    EXPECT_EQ(Handles{10}, Active());
    EXPECT_EQ("name     : ten\nstarttime: 0\nruntime  : 0\nwatchdog : 4000\nstatus   : 1\n\n",
              Dump());
}

TEST_F(PZThreadMngTest, RegistersANullNameAsAnEmptyLabel) {
    EXPECT_TRUE(manager.registerThreadInfo(10, nullptr, -1, 0));
    EXPECT_EQ("", Label(10));
}

TEST_F(PZThreadMngTest, CutsANameTo255Characters) {
    manager.registerThreadInfo(10, std::string(255, 'a').c_str(), 251, 7);
    manager.registerThreadInfo(11, std::string(256, 'b').c_str(), 251, 7);
    EXPECT_EQ(std::string(255, 'a'), Label(10));
    EXPECT_EQ(std::string(255, 'b'), Label(11));
    EXPECT_EQ(7U, manager.getWatchTime(11));
}

TEST_F(PZThreadMngTest, RegistersACopyOfARecord) {
    PZThreadMng::ThreadInfo info = {20, 200, "twenty", 1, 2, 3, 0};
    EXPECT_TRUE(manager.registerThreadInfo(info));
    std::memset(&info, 0xFF, sizeof info);
    EXPECT_EQ(Handles{}, Active());
    EXPECT_EQ("name     : twenty\nstarttime: 1\nruntime  : 2\nwatchdog : 3\nstatus   : 0\n\n",
              Dump());
}

TEST_F(PZThreadMngTest, TerminatesTheNameOfACopiedRecord) {
    PZThreadMng::ThreadInfo info = {20, 200, "", 0, 0, 0, 1};
    std::memset(info.name, 'x', sizeof info.name);
    manager.registerThreadInfo(info);
    EXPECT_EQ(std::string(255, 'x'), Label(20));
}

TEST_F(PZThreadMngTest, RegisteringAHandleTwiceKeepsTheFirstRecord) {
    const PZThreadMng::ThreadInfo third = {10, 200, "third", 1, 2, 3, 0};
    EXPECT_TRUE(manager.registerThreadInfo(10, "first", 251, 100));
    EXPECT_TRUE(manager.registerThreadInfo(10, "second", 252, 200));
    EXPECT_TRUE(manager.registerThreadInfo(third));
    EXPECT_EQ("first", Label(10));
    EXPECT_EQ(100U, manager.getWatchTime(10));
    EXPECT_EQ(Handles{10}, Active());
}

TEST_F(PZThreadMngTest, AThreadTakesTheRecordOfAnEndedOneWhoseHandleItHas) {
    pthread_t first = 0;
    std::thread([&] {
        first = pthread_self();
        EXPECT_TRUE(manager.registerThreadInfo(first, "first", 251, 100));
        EXPECT_TRUE(manager.registerThreadInfo(first, "twice", 251, 200));
        EXPECT_EQ("first", Label(first));
    }).join();
    pthread_t second = 0;
    std::thread([&] {
        second = pthread_self();
        EXPECT_TRUE(manager.registerThreadInfo(second, "second", 251, 300));
    }).join();
    ASSERT_EQ(first, second) << "the system gives the last handle that became free";
    EXPECT_EQ("second", Label(second));
    EXPECT_EQ(300U, manager.getWatchTime(second));
}

TEST_F(PZThreadMngTest, RefusesARecordForWhichThereIsNoMemory) {
    const PZThreadMng::ThreadInfo info = {11, 200, "eleven", 0, 0, 0, 1};
    manager.registerThreadInfo(12, "twelve", 251, 0);
    StdoutCapture out;
    bool byName = true;
    bool byRecord = true;
    bool present = false;
    {
        const pztest::MemoryShortage shortage;
        byName = manager.registerThreadInfo(10, "ten", 251, 0);
        byRecord = manager.registerThreadInfo(info);
        present = manager.unregisterThreadInfo(12);
    }
    const std::string printed = out.Take();
    EXPECT_FALSE(byName);
    EXPECT_FALSE(byRecord);
    EXPECT_TRUE(present);
    EXPECT_TRUE(
        has_report(printed, "registerThreadInfo", "PZThreadMng.cpp", "failed to allocate memory"));
    EXPECT_EQ(2U, pztest::error_messages(printed).size());
    EXPECT_EQ(Handles{}, Active());
    std::thread([this] { EXPECT_TRUE(manager.registerThreadInfo(10, "ten", 251, 0)); }).join();
    EXPECT_EQ("ten", Label(10));
}

TEST_F(PZThreadMngTest, UnregistersAThreadOnce) {
    manager.registerThreadInfo(10, "ten", 251, 0);
    EXPECT_FALSE(manager.unregisterThreadInfo(11));
    EXPECT_TRUE(manager.unregisterThreadInfo(10));
    EXPECT_EQ("(unknown)", Label(10));
    EXPECT_FALSE(manager.unregisterThreadInfo(10));
}

TEST_F(PZThreadMngTest, SetLabelReplacesTheWholeName) {
    manager.registerThreadInfo(10, "a long first name", 251, 0);
    EXPECT_TRUE(manager.setLabel(10, "ten"));
    char label[256];
    ASSERT_TRUE(manager.getLabel(10, label));
    EXPECT_EQ(std::string("ten") + std::string(253, '\0'), std::string(label, sizeof label));
}

TEST_F(PZThreadMngTest, SetLabelCutsTo255Characters) {
    manager.registerThreadInfo(10, "ten", 251, 8);
    EXPECT_TRUE(manager.setLabel(10, std::string(300, 'c').c_str()));
    EXPECT_EQ(std::string(255, 'c'), Label(10));
    EXPECT_EQ(8U, manager.getWatchTime(10));
}

TEST_F(PZThreadMngTest, SetLabelRefusesNullAndUnknownHandlesQuietly) {
    manager.registerThreadInfo(10, "ten", 251, 0);
    StdoutCapture out;
    EXPECT_FALSE(manager.setLabel(10, nullptr));
    EXPECT_FALSE(manager.setLabel(11, "eleven"));
    EXPECT_EQ("ten", Label(10));
    EXPECT_EQ("(unknown)", Label(11));
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadMngTest, GetLabelRefusesNullAndLeavesTheBufferAloneForUnknownHandles) {
    manager.registerThreadInfo(10, "ten", 251, 0);
    char label[256];
    std::memset(label, '#', sizeof label);
    StdoutCapture out;
    EXPECT_FALSE(manager.getLabel(10, nullptr));
    EXPECT_FALSE(manager.getLabel(11, label));
    EXPECT_EQ(std::string(256, '#'), std::string(label, sizeof label));
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadMngTest, SetsAndReadsTheWatchTime) {
    manager.registerThreadInfo(10, "ten", 251, 100);
    EXPECT_TRUE(manager.setWatchTime(10, 0xFFFFFFFFU));
    EXPECT_EQ(0xFFFFFFFFU, manager.getWatchTime(10));
}

TEST_F(PZThreadMngTest, AnswersWatchTimesOfUnknownHandlesQuietly) {
    StdoutCapture out;
    EXPECT_FALSE(manager.setWatchTime(10, 5));
    EXPECT_EQ(0U, manager.getWatchTime(10));
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadMngTest, ListsTheRunningThreadsInAscendingOrder) {
    const PZThreadMng::ThreadInfo waiting = {20, 251, "waiting", 0, 0, 0, 0};
    const PZThreadMng::ThreadInfo odd = {25, 251, "odd", 0, 0, 0, 2};
    manager.registerThreadInfo(30, "c", 251, 0);
    manager.registerThreadInfo(10, "a", 251, 0);
    manager.registerThreadInfo(waiting);
    manager.registerThreadInfo(odd);
    std::vector<unsigned long> handles = {1, 2, 3};
    EXPECT_TRUE(manager.getActiveThreadList(handles));
    EXPECT_EQ((Handles{10, 30}), handles);
}

TEST_F(PZThreadMngTest, ClearsTheListWhenNoThreadRuns) {
    std::vector<unsigned long> handles = {1, 2, 3};
    EXPECT_TRUE(manager.getActiveThreadList(handles));
    EXPECT_TRUE(handles.empty());
}

TEST_F(PZThreadMngTest, ThrowsWithoutMemoryForTheListAndReleasesTheLock) {
    manager.registerThreadInfo(10, "a", 251, 0);
    std::vector<unsigned long> handles;
    {
        const pztest::MemoryShortage shortage;
        EXPECT_THROW(manager.getActiveThreadList(handles), std::bad_alloc);
    }
    EXPECT_TRUE(handles.empty());
    std::thread([this] { EXPECT_TRUE(manager.unregisterThreadInfo(10)); }).join();
}

// Waiting and running.

TEST_F(PZThreadMngTest, NotifyToWaitingMarksTheCallingThreadAndClearsItsTimes) {
    RegisterSelfAndOther(/*status=*/1);
    manager.notifyToWaiting();
    EXPECT_EQ(Handles{1}, Active());
    EXPECT_EQ(
        "name     : other\nstarttime: 8\nruntime  : 9\nwatchdog : 10\nstatus   : 1\n\n"
        "name     : self\nstarttime: 0\nruntime  : 0\nwatchdog : 7\nstatus   : 0\n\n",
        Dump());
}

TEST_F(PZThreadMngTest, NotifyToRunningMarksTheCallingThreadAndKeepsItsTimes) {
    RegisterSelfAndOther(/*status=*/0);
    manager.notifyToRunning();
    EXPECT_EQ(Handles{pthread_self()}, Active());
    EXPECT_EQ(
        "name     : other\nstarttime: 8\nruntime  : 9\nwatchdog : 10\nstatus   : 0\n\n"
        "name     : self\nstarttime: 5\nruntime  : 6\nwatchdog : 7\nstatus   : 1\n\n",
        Dump());
}

TEST_F(PZThreadMngTest, NotificationsOfUnregisteredThreadsChangeNothing) {
    manager.registerThreadInfo(1, "other", 251, 0);
    StdoutCapture out;
    manager.notifyToWaiting();
    manager.notifyToRunning();
    EXPECT_EQ(Handles{1}, Active());
    EXPECT_EQ("", out.Take());
}

// Run times.

constexpr clockid_t kFakeClock = 12345;
std::vector<unsigned long> asked_handles;
int fake_clock_result = 0;

int fake_getcpuclockid(pthread_t thread, clockid_t* clock) {
    asked_handles.push_back(thread);
    *clock = kFakeClock;
    return 0;
}

/// A processor-time clock at 2.345999 s, whose result is the test's.
int fake_cpu_clock(clockid_t clock, timespec* now) {
    if (clock != kFakeClock) return clock_gettime_call.Real(clock, now);
    now->tv_sec = 2;
    now->tv_nsec = 345999999;
    return fake_clock_result;
}

/// A processor-time clock that cannot be read at all.
int broken_cpu_clock(clockid_t clock, timespec* now) {
    if (clock != kFakeClock) return clock_gettime_call.Real(clock, now);
    errno = EINVAL;
    return -1;
}

class PZThreadMngRunTimeTest : public PZThreadMngTest {
protected:
    PZThreadMngRunTimeTest() {
        asked_handles.clear();
        pthread_getcpuclockid_call.Replace(&fake_getcpuclockid);
        manager.registerThreadInfo(thread);
    }

    std::string RunTime() {
        const std::string dump = Dump();
        const size_t start = dump.find("runtime  : ") + 11;
        return dump.substr(start, dump.find('\n', start) - start);
    }

    const PZThreadMng::ThreadInfo thread = {10, 251, "ten", 0, 77, 0, 1};
};

TEST_F(PZThreadMngRunTimeTest, IsKeptWhenTheProcessorTimeCanBeRead) {
    fake_clock_result = 0;
    clock_gettime_call.Replace(&fake_cpu_clock);
    manager.checkThreadStatus();
    EXPECT_EQ(Handles{10}, asked_handles);
    EXPECT_EQ("77", RunTime());
}

TEST_F(PZThreadMngRunTimeTest, IsTakenInMillisecondsWhenReadingReportsAFailure) {
    fake_clock_result = -1;
    clock_gettime_call.Replace(&fake_cpu_clock);
    manager.checkThreadStatus();
    EXPECT_EQ("2345", RunTime());
}

TEST_F(PZThreadMngRunTimeTest, IsZeroWhenAFailedReadLeavesTheTimeAlone) {
    clock_gettime_call.Replace(&broken_cpu_clock);
    StdoutCapture out;
    manager.checkThreadStatus();
    EXPECT_EQ("0", RunTime());
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadMngRunTimeTest, IsKeptWhenTheThreadHasNoClock) {
    clock_gettime_call.Replace(&broken_cpu_clock);
    pthread_getcpuclockid_call.FailNext(ESRCH);
    manager.checkThreadStatus();
    EXPECT_EQ("77", RunTime());
}

TEST_F(PZThreadMngRunTimeTest, IsRefreshedForRunningThreadsOnlyInAscendingOrder) {
    const PZThreadMng::ThreadInfo waiting = {20, 251, "waiting", 0, 1, 0, 0};
    manager.registerThreadInfo(waiting);
    manager.registerThreadInfo(30, "thirty", 251, 0);
    manager.registerThreadInfo(5, "five", 251, 0);
    manager.checkThreadStatus();
    EXPECT_EQ((Handles{5, 10, 30}), asked_handles);
}

TEST_F(PZThreadMngTest, TheRunTimeOfARealThreadStaysZero) {
    manager.registerThreadInfo(pthread_self(), "self", 251, 0);
    manager.checkThreadStatus();
    EXPECT_NE(std::string::npos, Dump().find("runtime  : 0\n"));
}

std::promise<void>* dump_is_open = nullptr;
std::shared_future<void>* dump_may_go_on = nullptr;

/// Stops the dump, that holds the manager's lock, until the test lets it go on.
int open_slowly(const char* /*path*/, int /*flags*/, mode_t /*mode*/) {
    dump_is_open->set_value();
    dump_may_go_on->wait();
    return -1;
}

TEST_F(PZThreadMngRunTimeTest, IsRefreshedWithoutTheLock) {
    std::promise<void> isOpen;
    std::promise<void> goOn;
    std::shared_future<void> mayGoOn = goOn.get_future().share();
    dump_is_open = &isOpen;
    dump_may_go_on = &mayGoOn;
    open_call.Replace(&open_slowly);
    std::thread dumper([this] { manager.dumpThreadStatus(); });
    isOpen.get_future().wait();
    manager.checkThreadStatus();  // would wait for the dump for ever
    EXPECT_EQ(Handles{10}, asked_handles);
    open_call.Replace(nullptr);
    goOn.set_value();
    dumper.join();
}

// The status file.

TEST_F(PZThreadMngTest, DumpsAllRecordsInAscendingOrder) {
    manager.registerThreadInfo(2, "second", 251, 0xFFFFFFFFU);
    manager.registerThreadInfo(1, "first", 251, 4000);
    EXPECT_EQ(
        "name     : first\n"
        "starttime: 0\n"
        "runtime  : 0\n"
        "watchdog : 4000\n"
        "status   : 1\n"
        "\n"
        "name     : second\n"
        "starttime: 0\n"
        "runtime  : 0\n"
        "watchdog : -1\n"
        "status   : 1\n"
        "\n",
        Dump());
    EXPECT_NE(0, dump_flags & O_CLOEXEC) << "from birth";
}

TEST_F(PZThreadMngTest, DumpsAnEmptyRegistryAsAnEmptyFile) {
    pztest::write_file(dir.File("ThreadInfo"), "something longer from before\n");
    EXPECT_EQ("", Dump());
    struct stat status = {};
    EXPECT_EQ(0, stat(dir.File("ThreadInfo").c_str(), &status));
}

TEST_F(PZThreadMngTest, DoesNotFollowALinkInThePlaceOfTheStatusFile) {
    const std::string victim = dir.File("victim");
    pztest::write_file(victim, "precious");
    ASSERT_EQ(0, symlink(victim.c_str(), dir.File("ThreadInfo").c_str()));
    manager.registerThreadInfo(1, "first", 251, 0);
    StdoutCapture out;
    Dump();
    EXPECT_EQ("", out.Take());
    EXPECT_EQ("precious", pztest::read_file(victim));
}

TEST_F(PZThreadMngTest, AFailedDumpIsSilentAndReleasesTheLock) {
    manager.registerThreadInfo(1, "first", 251, 0);
    StdoutCapture out;
    open_call.FailNext(ENOENT);
    manager.dumpThreadStatus();
    EXPECT_EQ("", out.Take());
    std::thread([this] { EXPECT_TRUE(manager.unregisterThreadInfo(1)); }).join();
}

/// Opens the write end of `fullPipe` instead of "/temp/ThreadInfo".
int full_pipe_end = -1;

int open_full_pipe(const char* path, int flags, mode_t mode) {
    return std::string(path) == kDumpPath ? full_pipe_end : open_call.Real(path, flags, mode);
}

FILE* open_to_write(int fd, const char* /*mode*/) {
    return fdopen_call.Real(fd, "w");
}

/// The status file is the end of a full pipe: a dump waits until somebody reads.
class PZThreadMngFullFileTest : public PZThreadMngTest {
protected:
    PZThreadMngFullFileTest() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC | O_NONBLOCK));
        const std::string block(4096, 'x');
        while (write(ends[1], block.data(), block.size()) > 0) {
        }
        EXPECT_EQ(0, fcntl(ends[1], F_SETFL, 0));  // blocks from now on
        readEnd_ = ends[0];
        full_pipe_end = ends[1];
        manager.registerThreadInfo(1, "first", 251, 0);
        open_call.Replace(&open_full_pipe);
        fdopen_call.Replace(&open_to_write);
    }

    ~PZThreadMngFullFileTest() override { close(readEnd_); }

    void ReadAll() const {
        char bytes[4096];
        while (read(readEnd_, bytes, sizeof bytes) > 0) {
        }
    }

    /// Makes the dump on a thread of its own, which waits then.
    pthread_t StartToDump() {
        dumper_id = 0;
        const auto dump = [](void*) -> void* {
            dumper_id = gettid();
            PZThreadMng::GetInstance()->dumpThreadStatus();
            return nullptr;
        };
        pthread_t dumper = 0;
        EXPECT_EQ(0, pthread_create(&dumper, nullptr, dump, nullptr));
        EXPECT_TRUE(Sleeps(dumper_id));
        return dumper;
    }

    /// Waits until the thread that stores its id there sleeps.
    static bool Sleeps(const std::atomic<pid_t>& id) {
        return pztest::wait_until([&id] {
            return id != 0 &&
                   pztest::thread_status(std::to_string(id), "State").substr(0, 1) == "S";
        });
    }

    static std::atomic<pid_t> dumper_id;

private:
    int readEnd_ = -1;
};
std::atomic<pid_t> PZThreadMngFullFileTest::dumper_id;

TEST_F(PZThreadMngFullFileTest, AThreadMayBeCancelledWhileItWaitsForTheStatusFile) {
    const pthread_t dumper = StartToDump();
    ASSERT_EQ(0, pthread_cancel(dumper));
    void* result = nullptr;
    ASSERT_EQ(0, pthread_join(dumper, &result));
    open_call.Replace(nullptr);
    fdopen_call.Replace(nullptr);
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_TRUE(manager.unregisterThreadInfo(1));  // the lock is free
    EXPECT_EQ(-1, fcntl(full_pipe_end, F_GETFD)) << "the file stays open";
}

TEST_F(PZThreadMngFullFileTest, WhatNeedsTheRegistryWaitsWhileADumpDoes) {
    const pthread_t dumper = StartToDump();
    std::atomic<pid_t> registererId{0};
    std::atomic<bool> isRegistered{false};
    std::thread registerer([&] {
        registererId = gettid();
        manager.registerThreadInfo(2, "second", 251, 0);
        isRegistered = true;
    });
    EXPECT_TRUE(Sleeps(registererId));
    EXPECT_FALSE(isRegistered);
    ReadAll();
    EXPECT_EQ(0, pthread_join(dumper, nullptr));
    registerer.join();
    EXPECT_TRUE(manager.unregisterThreadInfo(2));
}

TEST_F(PZThreadMngTest, DumpsToTempThreadInfo) {
    if (mkdir("/temp", 0777) != 0 && errno != EEXIST) GTEST_SKIP() << "cannot make /temp";
    if (access("/temp", W_OK) != 0) GTEST_SKIP() << "cannot write to /temp";
    manager.registerThreadInfo(1, "first", 251, 4000);
    manager.dumpThreadStatus();
    EXPECT_EQ("name     : first\nstarttime: 0\nruntime  : 0\nwatchdog : 4000\nstatus   : 1\n\n",
              pztest::read_file(kDumpPath));
    EXPECT_EQ(0, unlink(kDumpPath));

    const std::string victim = dir.File("victim");
    pztest::write_file(victim, "precious");
    ASSERT_EQ(0, symlink(victim.c_str(), kDumpPath));
    manager.dumpThreadStatus();
    EXPECT_EQ(0, unlink(kDumpPath));
    EXPECT_EQ("precious", pztest::read_file(victim)) << "a link was followed";
}

// The manager itself.

TEST_F(PZThreadMngTest, IsOneForAllThreadsUntilTheFinalizerDestroysIt) {
    manager.registerThreadInfo(1, "first", 251, 0);
    std::thread([this] { EXPECT_EQ(&manager, PZThreadMng::GetInstance()); }).join();
    PZSingletonFinalizer::finalize();
    char label[256];
    EXPECT_FALSE(PZThreadMng::GetInstance()->getLabel(1, label));
}

TEST_F(PZThreadMngTest, IsNotMadeWithoutMemoryForItsLock) {
    PZSingletonFinalizer::finalize();
    const StdoutCapture output;
    sem_init_call.FailNext(ENOMEM, 1, 1);  // the first is the subject's
    EXPECT_THROW(PZThreadMng::GetInstance(), std::bad_alloc);
    EXPECT_NE(nullptr, PZThreadMng::GetInstance());
}

TEST_F(PZThreadMngTest, DelInstanceDoesNothing) {
    manager.registerThreadInfo(1, "first", 251, 0);
    PZThreadMng::DelInstance();
    EXPECT_EQ(&manager, PZThreadMng::GetInstance());
    EXPECT_EQ("first", Label(1));
}

TEST_F(PZThreadMngTest, InitializeAnswersThatTheWatchdogStartedAndFinalizeKeepsTheRegistry) {
    manager.registerThreadInfo(1, "first", 251, 0);
    EXPECT_NE(0, manager.initialize());
    manager.finalize();
    EXPECT_EQ("first", Label(1));
}

class CountingObserver : public PZObserver_ {
public:
    unsigned int OnNotify(unsigned int /*id*/, void* /*data*/, unsigned int /*size*/) override {
        return 9;
    }
};

TEST_F(PZThreadMngTest, AddsNotifiesAndRemovesObserversAsASubject) {
    CountingObserver observer;
    EXPECT_EQ(1, manager.AddObserver(&observer));
    EXPECT_EQ(9U, manager.NotifyObserver(1, nullptr, 0, en_NTF_ALL));
    EXPECT_EQ(1, manager.RemoveObserver(&observer));
    EXPECT_EQ(static_cast<void*>(&manager),
              static_cast<void*>(static_cast<PZSingleton<PZThreadMng>*>(&manager)));
}

TEST_F(PZThreadMngTest, KeepsItsRegistryTogetherUnderSeveralThreads) {
    constexpr unsigned long kThreads = 4;
    constexpr int kRounds = 100;
    std::vector<std::thread> threads;
    for (unsigned long i = 1; i <= kThreads; ++i) {
        threads.emplace_back([this, i] {
            for (int round = 0; round < kRounds; ++round) {
                EXPECT_TRUE(manager.registerThreadInfo(i, "one", 251, 1));
                EXPECT_TRUE(manager.setLabel(i, "two"));
                EXPECT_TRUE(manager.setWatchTime(i, 2));
                EXPECT_EQ("two", Label(i));
                EXPECT_EQ(2U, manager.getWatchTime(i));
                EXPECT_TRUE(manager.registerThreadInfo(pthread_self(), "self", 251, 1));
                manager.notifyToWaiting();
                manager.notifyToRunning();
                EXPECT_TRUE(manager.unregisterThreadInfo(pthread_self()));
                EXPECT_TRUE(manager.unregisterThreadInfo(i));
            }
        });
    }
    for (int round = 0; round < kRounds; ++round) {
        EXPECT_LE(Active().size(), 2 * kThreads);
        Dump();
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ("", Dump());
}

}  // namespace
