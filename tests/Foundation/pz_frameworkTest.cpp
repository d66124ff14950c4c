#include "Framework/Foundation/pz_framework.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZLHeapMng.h>
#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZWatchDog.h>
#include <Framework/Foundation/pz_identity.h>
#include <Framework/SharedMemory/PZSharedMemoryFinalizer.h>
#include <Framework/Utility/PZLTimerMng.h>

#include "support/ChildProcess.h"
#include "support/FakeSyslog.h"
#include "support/OwnProcess.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

// The functions that start and stop call are defined here once more: the library's calls resolve to
// these, which note the step, may answer for the real one, and else run it.

namespace {

struct OpenedLog {
    const char* ident;
    int options;
    int facility;
};

std::vector<std::string> steps;
std::function<void(const std::string&)> onStep;  // runs before the step itself
std::vector<OpenedLog> openedLogs;
std::vector<void (*)()> madeSingletons;  // the functions that destroy them, the first made first
bool timerMngIsMissing = false;
bool watchDogFails = false;
bool answersForThreadMng = false;
int threadMngAnswer = 0;

void note(const std::string& step) {
    steps.push_back(step);
    if (onStep) onStep(step);
}

/// The library's own function behind one that is defined here.
template <typename Function>
Function* real(const char* symbol) {
    auto* function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
    if (function == nullptr) std::abort();
    return function;
}

}  // namespace

extern "C" void openlog(const char* ident, int option, int facility) {
    openedLogs.push_back({ident, option, facility});
    note("openlog");
}
extern "C" void closelog() {
    note("closelog");
}

void InitMemMng() {
    note("InitMemMng");
    real<void()>("_Z10InitMemMngv")();
}
void FinMemMng() {
    note("FinMemMng");
    real<void()>("_Z9FinMemMngv")();
}

int PZThreadMng::initialize() {
    note("PZThreadMng::initialize");
    if (answersForThreadMng) return threadMngAnswer;
    return real<int(PZThreadMng*)>("_ZN11PZThreadMng10initializeEv")(this);
}
void PZThreadMng::finalize() {
    note("PZThreadMng::finalize");
    real<void(PZThreadMng*)>("_ZN11PZThreadMng8finalizeEv")(this);
}

bool PZWatchDog::start() {
    return !watchDogFails && real<bool(PZWatchDog*)>("_ZN10PZWatchDog5startEv")(this);
}

PZLTimerMng* PZLTimerMng::GetTimerMng() {
    note("PZLTimerMng::GetTimerMng");
    if (timerMngIsMissing) return nullptr;
    return real<PZLTimerMng*()>("_ZN11PZLTimerMng11GetTimerMngEv")();
}

void PZSingletonFinalizer::addDestroyFunc(void (*fn)()) {
    madeSingletons.push_back(fn);
    real<void(void (*)())>("_ZN20PZSingletonFinalizer14addDestroyFuncEPFvvE")(fn);
}
void PZSingletonFinalizer::finalize() {
    note("PZSingletonFinalizer::finalize");
    real<void()>("_ZN20PZSingletonFinalizer8finalizeEv")();
}
void PZSharedMemoryFinalizer::finalize() {
    note("PZSharedMemoryFinalizer::finalize");
    real<void()>("_ZN23PZSharedMemoryFinalizer8finalizeEv")();
}

namespace {

using Steps = std::vector<std::string>;

/// Kernel ids of the living timer threads.
std::set<std::string> timer_threads() {
    return pztest::threads_named("ZLTimerSubMng_");
}

/// A joined thread stays visible for a moment.
bool timer_threads_end() {
    return pztest::wait_until([] { return timer_threads().empty(); });
}

class pz_frameworkTest : public testing::Test {
protected:
    void SetUp() override {
        steps.clear();
        openedLogs.clear();
        madeSingletons.clear();
        timerMngIsMissing = false;
        watchDogFails = false;
        answersForThreadMng = false;
    }
    void TearDown() override {
        onStep = nullptr;
        pz_FwFinalize();
        PZSingletonFinalizer::finalize();  // what a failed start leaves
    }

    pztest::FakeSyslog syslogFolder;

    static constexpr unsigned long kHandle = 0x1234;  // of no thread

    /// Leaves a trace in the thread manager that only this one object has.
    static void mark_thread_manager() {
        PZThreadMng::GetInstance()->registerThreadInfo(kHandle, "mark", 251, 0);
    }
    static bool thread_manager_is_marked() {
        char label[256];
        return PZThreadMng::GetInstance()->getLabel(kHandle, label);
    }
};

}  // namespace

TEST_F(pz_frameworkTest, StartsHeapLogTimersAndThreadManagerInThisOrder) {
    EXPECT_EQ(1, pz_FwInitialize("app", 7));
    EXPECT_EQ(
        (Steps{"InitMemMng", "openlog", "PZLTimerMng::GetTimerMng", "PZThreadMng::initialize"}),
        steps);
}

TEST_F(pz_frameworkTest, StopsThreadManagerSingletonsLogAndHeapInThisOrder) {
    pz_FwInitialize("app", 7);
    steps.clear();
    pz_FwFinalize();
    EXPECT_EQ((Steps{"PZThreadMng::finalize", "PZSingletonFinalizer::finalize",
                     "PZSharedMemoryFinalizer::finalize", "closelog", "FinMemMng"}),
              steps);
}

TEST_F(pz_frameworkTest, RecordsNameAndIdBetweenHeapAndLog) {
    std::vector<std::string> names;
    onStep = [&](const std::string&) { names.emplace_back(pz_GetName()); };
    pz_FwInitialize("app", 7);
    ASSERT_LE(2U, names.size());
    EXPECT_EQ("", names[0]);     // InitMemMng
    EXPECT_EQ("app", names[1]);  // openlog
    EXPECT_STREQ("app", pz_GetName());
    EXPECT_EQ(3U, pz_GetNameLen());
    EXPECT_EQ(7, pz_GetId());
}

TEST_F(pz_frameworkTest, MakesTheThreadManagerFirstAndTheTimerManagerLast) {
    size_t madeBeforeTheTimerManager = 0;
    onStep = [&](const std::string& step) {
        if (step == "PZLTimerMng::GetTimerMng") madeBeforeTheTimerManager = madeSingletons.size();
    };
    pz_FwInitialize("app", 7);
    EXPECT_EQ(1U, madeBeforeTheTimerManager);
    ASSERT_FALSE(madeSingletons.empty());
    EXPECT_EQ(&PZSingleton<PZThreadMng>::destroy, madeSingletons.front());
    EXPECT_EQ(&PZSingleton<PZLTimerMng>::destroy, madeSingletons.back());
}

TEST_F(pz_frameworkTest, MakesNoSingletonWhileItStops) {
    pz_FwInitialize("app", 7);
    const size_t made = madeSingletons.size();
    pz_FwFinalize();
    EXPECT_EQ(made, madeSingletons.size());
}

TEST_F(pz_frameworkTest, RunsFiveTimerThreadsFromStartToStop) {
    EXPECT_TRUE(timer_threads().empty());
    pz_FwInitialize("app", 7);
    EXPECT_EQ(5U, timer_threads().size());
    pz_FwFinalize();
    EXPECT_TRUE(timer_threads_end());
}

TEST_F(pz_frameworkTest, TheStartAnswersWhatTheThreadManagerAnswers) {
    answersForThreadMng = true;
    threadMngAnswer = -5;
    EXPECT_EQ(-5, pz_FwInitialize("app", 7));
    EXPECT_EQ(1, pz_FwInitialize("app", 7));  // and is started
}

TEST_F(pz_frameworkTest, DoesNothingWhenItIsStartedAlready) {
    pz_FwInitialize("first", 1);
    mark_thread_manager();
    const std::set<std::string> timers = timer_threads();
    steps.clear();
    EXPECT_EQ(1, pz_FwInitialize("second", 2));
    EXPECT_EQ(Steps(), steps);
    EXPECT_STREQ("first", pz_GetName());
    EXPECT_EQ(1, pz_GetId());
    EXPECT_TRUE(thread_manager_is_marked());
    EXPECT_EQ(timers, timer_threads());
}

TEST_F(pz_frameworkTest, DoesNothingWhenItStopsWithoutAStart) {
    mark_thread_manager();
    pz_FwFinalize();
    EXPECT_EQ(Steps(), steps);
    EXPECT_TRUE(thread_manager_is_marked());
}

TEST_F(pz_frameworkTest, ASecondStopDoesNothing) {
    pz_FwInitialize("app", 7);
    pz_FwFinalize();
    steps.clear();
    pz_FwFinalize();
    EXPECT_EQ(Steps(), steps);
}

TEST_F(pz_frameworkTest, PrintsNothingOfItsOwn) {
    pztest::StdoutCapture output;
    timerMngIsMissing = true;
    pz_FwInitialize("app", 7);
    timerMngIsMissing = false;
    pz_FwInitialize("app", 7);
    pz_FwFinalize();
    EXPECT_EQ("", output.Take());
}

// Identity and system log

TEST_F(pz_frameworkTest, OpensTheSystemLogUnderTheStoredName) {
    std::string name = "app";
    pz_FwInitialize(name.c_str(), 7);
    name = "xxx";
    ASSERT_EQ(1U, openedLogs.size());
    EXPECT_EQ(pz_GetName(), openedLogs[0].ident);  // the log keeps the pointer, not the text
    EXPECT_STREQ("app", openedLogs[0].ident);
    EXPECT_EQ(11, openedLogs[0].options);
    EXPECT_EQ(LOG_PID | LOG_CONS | LOG_NDELAY, openedLogs[0].options);
    EXPECT_EQ(8, openedLogs[0].facility);
    EXPECT_EQ(LOG_USER, openedLogs[0].facility);
}

/// As the C library would open the log's connection.
int log_connection = -1;

TEST_F(pz_frameworkTest, LeavesTheNumbersOfClosedStandardDescriptorsAlone) {
    onStep = [](const std::string& step) {
        if (step == "openlog") log_connection = open("/dev/null", O_WRONLY | O_CLOEXEC);
    };
    for (const std::vector<int>& closed : std::vector<std::vector<int>>{{0, 1, 2}, {0}, {1, 2}}) {
        const pztest::ChildResult child = pztest::run_in_child([&closed] {
            for (const int fd : closed) close(fd);
            if (pz_FwInitialize("daemon", 1) == 0) return 1;
            for (const int fd : closed) {
                if (fcntl(fd, F_GETFD) != -1) return 10 + fd;
            }
            if (log_connection <= STDERR_FILENO) return 2;
            PZThreadMng::GetInstance()->GetPriority(0, 0xFFFFFFFFU);  // reports something
            pz_FwFinalize();
            for (const int fd : closed) {
                if (fcntl(fd, F_GETFD) != -1) return 20 + fd;
            }
            return 0;
        });
        EXPECT_TRUE(child.exited);
        EXPECT_EQ(0, child.status) << closed.size() << " closed";
    }
}

TEST_F(pz_frameworkTest, KeepsNameAndIdAfterTheStop) {
    pz_FwInitialize("app", 7);
    pz_FwFinalize();
    EXPECT_STREQ("app", pz_GetName());
    EXPECT_EQ(7, pz_GetId());
    EXPECT_STREQ("app", openedLogs[0].ident);
}

TEST_F(pz_frameworkTest, KeepsANameOf63Characters) {
    const std::string name(63, 'n');
    pz_FwInitialize(name.c_str(), -7);
    EXPECT_EQ(name, pz_GetName());
    EXPECT_EQ(63U, pz_GetNameLen());
    EXPECT_EQ(-7, pz_GetId());
}

TEST_F(pz_frameworkTest, CutsALongerNameTo63Characters) {
    pz_FwInitialize((std::string(63, 'n') + "m").c_str(), 7);
    EXPECT_EQ(std::string(63, 'n'), pz_GetName());
    EXPECT_EQ(7, pz_GetId());
}

TEST_F(pz_frameworkTest, TakesANullNameAsEmpty) {
    EXPECT_EQ(1, pz_FwInitialize(nullptr, 7));
    EXPECT_STREQ("", pz_GetName());
    ASSERT_EQ(1U, openedLogs.size());
    EXPECT_STREQ("", openedLogs[0].ident);
}

TEST_F(pz_frameworkTest, TakesNameAndIdOfTheNextStart) {
    pz_FwInitialize("a-longer-name", 1);
    pz_FwFinalize();
    EXPECT_EQ(1, pz_FwInitialize("app", 2));
    EXPECT_STREQ("app", pz_GetName());
    EXPECT_EQ(2, pz_GetId());
    ASSERT_EQ(2U, openedLogs.size());
    EXPECT_STREQ("app", openedLogs[1].ident);
}

// Failed starts

TEST_F(pz_frameworkTest, FailsWithoutATimerManager) {
    timerMngIsMissing = true;
    EXPECT_EQ(0, pz_FwInitialize("app", 7));
    EXPECT_EQ((Steps{"InitMemMng", "openlog", "PZLTimerMng::GetTimerMng"}), steps);
}

TEST_F(pz_frameworkTest, FailsWhenTheThreadManagerDoes) {
    answersForThreadMng = true;
    threadMngAnswer = 0;
    EXPECT_EQ(0, pz_FwInitialize("app", 7));
    EXPECT_EQ(
        (Steps{"InitMemMng", "openlog", "PZLTimerMng::GetTimerMng", "PZThreadMng::initialize"}),
        steps);
}

TEST_F(pz_frameworkTest, FailsWhenTheWatchdogDoes) {
    watchDogFails = true;
    EXPECT_EQ(0, pz_FwInitialize("app", 7));
}

TEST_F(pz_frameworkTest, KeepsNameAndIdOfAFailedStart) {
    watchDogFails = true;
    pz_FwInitialize("app", 7);
    EXPECT_STREQ("app", pz_GetName());
    EXPECT_EQ(7, pz_GetId());
}

TEST_F(pz_frameworkTest, LeavesEverythingInPlaceAfterAFailedStart) {
    mark_thread_manager();
    watchDogFails = true;
    pz_FwInitialize("app", 7);
    EXPECT_TRUE(thread_manager_is_marked());
    EXPECT_EQ(5U, timer_threads().size());
    steps.clear();
    pz_FwFinalize();  // not started: nothing to stop
    EXPECT_EQ(Steps(), steps);
    EXPECT_TRUE(thread_manager_is_marked());
    EXPECT_EQ(5U, timer_threads().size());
}

TEST_F(pz_frameworkTest, GoesOnWithWhatAFailedStartLeft) {
    watchDogFails = true;
    pz_FwInitialize("first", 1);
    mark_thread_manager();
    const std::set<std::string> timers = timer_threads();

    watchDogFails = false;
    steps.clear();
    EXPECT_EQ(1, pz_FwInitialize("second", 2));
    EXPECT_EQ(
        (Steps{"InitMemMng", "openlog", "PZLTimerMng::GetTimerMng", "PZThreadMng::initialize"}),
        steps);
    EXPECT_STREQ("second", pz_GetName());
    EXPECT_EQ(2, pz_GetId());
    EXPECT_TRUE(thread_manager_is_marked());
    EXPECT_EQ(timers, timer_threads());

    pz_FwFinalize();
    EXPECT_TRUE(timer_threads_end());
}

// Stop

TEST_F(pz_frameworkTest, MakesFreshManagersAfterAStop) {
    pz_FwInitialize("app", 7);
    mark_thread_manager();
    const std::set<std::string> timers = timer_threads();
    pz_FwFinalize();

    EXPECT_EQ(1, pz_FwInitialize("app", 7));
    EXPECT_FALSE(thread_manager_is_marked());
    ASSERT_TRUE(pztest::wait_until([] { return timer_threads().size() == 5; }));
    for (const std::string& id : timer_threads()) EXPECT_EQ(0U, timers.count(id));
}

TEST_F(pz_frameworkTest, StartsAndStopsAgainAndAgain) {
    for (int round = 0; round < 20; ++round) {
        ASSERT_EQ(1, pz_FwInitialize("app", round));
        pz_FwFinalize();
    }
    EXPECT_TRUE(timer_threads_end());
}

TEST_F(pz_frameworkTest, KeepsTheSingletonsUntilTheThreadManagerIsFinalized) {
    pz_FwInitialize("app", 7);
    mark_thread_manager();
    bool wasMarked = false;
    size_t timers = 0;
    onStep = [&](const std::string& step) {
        if (step != "PZThreadMng::finalize") return;
        wasMarked = thread_manager_is_marked();
        timers = timer_threads().size();
    };
    pz_FwFinalize();
    EXPECT_TRUE(wasMarked);
    EXPECT_EQ(5U, timers);
}

TEST_F(pz_frameworkTest, ClosesTheLogWhenTheTimerThreadsHaveEnded) {
    pz_FwInitialize("app", 7);
    bool ended = false;
    onStep = [&](const std::string& step) {
        if (step == "closelog") ended = timer_threads_end();
    };
    pz_FwFinalize();
    EXPECT_TRUE(ended);
}

TEST_F(pz_frameworkTest, CountsAsStartedUntilTheVeryEndOfTheStop) {
    pz_FwInitialize("app", 7);
    std::vector<int> answers;
    onStep = [&](const std::string& step) {
        if (step == "closelog" || step == "FinMemMng") answers.push_back(pz_FwInitialize("x", 8));
    };
    pz_FwFinalize();
    EXPECT_EQ((std::vector<int>{1, 1}), answers);
    EXPECT_STREQ("app", pz_GetName());
}

TEST_F(pz_frameworkTest, ReportsHeapLeaksAfterEverythingElse) {
    pz_FwInitialize("app", 7);
    void* leak = Malloc(77);
    pztest::StdoutCapture output;
    std::string beforeTheEnd = "not read";
    onStep = [&](const std::string& step) {
        if (step == "closelog") beforeTheEnd = output.Take();
    };
    pz_FwFinalize();
    EXPECT_EQ("", beforeTheEnd);
    const std::string report = output.Take();
    EXPECT_EQ(1U, pztest::count_of(report, "[Memory Leak Info]"));
    EXPECT_EQ(1U, pztest::count_of(report, "   000077    -    "));
    Free(leak);
}

TEST_F(pz_frameworkTest, ReportsNoBlocksFromBeforeTheStart) {
    void* early = Malloc(77);
    pz_FwInitialize("app", 7);
    pztest::StdoutCapture output;
    pz_FwFinalize();
    EXPECT_EQ("", output.Take());
    Free(early);
}

TEST_F(pz_frameworkTest, NamesTheLeaksOfAllThreadsInAFileOfItsOwn) {
    pz_FwInitialize("leaky", 7);
    void* first = Malloc(101);
    void* second = nullptr;
    std::thread([&] { second = Malloc(202); }).join();
    void* third = Malloc(303);
    Free(Malloc(404));
    {
        const pztest::StdoutCapture output;
        pz_FwFinalize();
    }
    const std::set<std::string> names = syslogFolder.Names();
    ASSERT_EQ(1U, names.size());
    const std::string& name = *names.begin();
    std::string shape = name;
    std::replace_if(
        shape.begin(), shape.end(), [](char c) { return c >= '0' && c <= '9'; }, '9');
    EXPECT_EQ("HeapList_leaky999999_9999.txt", shape);
    const std::string file = syslogFolder.Content(name);
    EXPECT_EQ(0U, file.find("[Memory Info Summary]\nCurrent Total Count = 3, Max Total Count = 4, "
                            "Current Total Size = 606, Max Total Size = 1010\n"))
        << file;
    EXPECT_EQ(1U, pztest::count_of(file, "     00002         00003        0000404     0000808\n"));
    EXPECT_EQ(1U, pztest::count_of(file, "     00001         00001        0000202     0000202\n"));
    for (const char* size : {"\t000101\t-", "\t000202\t-", "\t000303\t-"}) {
        EXPECT_EQ(1U, pztest::count_of(file, size));
    }
    EXPECT_EQ(0U, pztest::count_of(file, "\t000404\t"));
    for (void* block : {first, second, third}) Free(block);
}

TEST_F(pz_frameworkTest, ReportsTheLeaksWhileOtherThreadsStillAllocate) {
    constexpr size_t kMaxBlocks = 3000;  // of each thread
    pz_FwInitialize("busy", 7);
    void* leak = Malloc(101);
    std::atomic<bool> isReporting{false};
    std::atomic<bool> isOver{false};
    std::atomic<int> allocating{0};
    std::vector<void*> blocks[2];
    std::vector<std::thread> threads;
    for (auto& own : blocks) {
        threads.emplace_back([&] {
            own.push_back(Malloc(202));
            pztest::wait_until([&] { return isReporting.load(); });
            ++allocating;
            while (!isOver && own.size() < kMaxBlocks) own.push_back(Malloc(303));
        });
    }
    onStep = [&](const std::string& step) {
        if (step != "FinMemMng") return;
        isReporting = true;
        pztest::wait_until([&] { return allocating == 2; });
    };
    pztest::StdoutCapture output;
    pz_FwFinalize();
    isOver = true;
    for (std::thread& thread : threads) thread.join();

    ASSERT_EQ(1U, syslogFolder.Names().size());
    const std::string file = syslogFolder.Content(*syslogFolder.Names().begin());
    const std::string table = output.Take();
    EXPECT_EQ(1U, pztest::count_of(file, "\t000101\t-\t0x"));
    EXPECT_EQ(2U, pztest::count_of(file, "\t000202\t-\t0x"));
    EXPECT_EQ(1U, pztest::count_of(table, "   000101    -    (0x"));
    EXPECT_EQ(2U, pztest::count_of(table, "   000202    -    (0x"));
    // Both tell of the same blocks, each of them whole.
    const unsigned int rows = pztest::count_of(file, "\t-\t0x");
    EXPECT_EQ(rows, pztest::count_of(table, "    -    (0x"));
    EXPECT_EQ(0U, pztest::count_of(file, "\tNG\t"));
    Free(leak);
    for (const auto& own : blocks) {
        for (void* block : own) Free(block);
    }
}

TEST_F(pz_frameworkTest, WritesNoFileWithoutLeaks) {
    pz_FwInitialize("tidy", 7);
    Free(Malloc(1));
    pz_FwFinalize();
    EXPECT_EQ(std::set<std::string>(), syslogFolder.Names());
}
