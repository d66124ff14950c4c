#include "Framework/Foundation/PZThread.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZThreadMng.h>

#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/WaitUntil.h"

// The threads' functions answer an error number; errno is set apart from it.
PZ_INTERPOSE(pthread_create, 4, EAGAIN);
PZ_INTERPOSE(pthread_join, 2, EDEADLK);
PZ_INTERPOSE(pthread_setname_np, 2, ERANGE);
PZ_INTERPOSE(getpriority, 2);
PZ_INTERPOSE(setpriority, 3);
PZ_INTERPOSE(nanosleep, 2);

// The registry has no way to read a record's priority: the registration is watched on its way in.

namespace {

using ThreadEntry = void* (*)(void*);
std::atomic<int> registered_priority{0};
}  // namespace

bool PZThreadMng::registerThreadInfo(unsigned long handle, const char* name, int priority,
                                     unsigned int watchTime) {
    using Function = bool (*)(PZThreadMng*, unsigned long, const char*, int, unsigned int);
    registered_priority = priority;
    const auto real =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZN11PZThreadMng18registerThreadInfoEmPKcij"));
    if (real == nullptr) std::abort();
    return real(this, handle, name, priority, watchTime);
}

namespace {

using pztest::has_report;
using pztest::StdoutCapture;

/// An object with the three phases; each does what the test wants and is written into the log.
class Owner {
public:
    int Initialize() {
        handle = pthread_self();
        tid = static_cast<int>(gettid());
        Log("Initialize");
        if (onInitialize) onInitialize();
        return initializeResult;
    }
    void MainProc() {
        Log("MainProc");
        if (onMainProc) onMainProc();
    }
    void Finalize() {
        Log("Finalize");
        if (onFinalize) onFinalize();
    }

    int initializeResult = 0;
    std::function<void()> onInitialize;
    std::function<void()> onMainProc;
    std::function<void()> onFinalize;

    // Written by the thread, read by the test after its end.
    std::string log;
    bool isOneThread = true;
    pthread_t handle = 0;
    int tid = 0;

private:
    void Log(const char* phase) {
        log += std::string(log.empty() ? "" : " ") + phase;
        isOneThread = isOneThread && pthread_equal(handle, pthread_self()) != 0;
    }
};

using Thread = PZThread<Owner>;

/// Keeps a thread in a phase: the test knows that it is there, and lets it go on.
class Gate {
public:
    /// On the thread: reports its arrival and waits.
    void Pass() {
        arrived_.set_value();
        opened_.get_future().wait();
    }
    void WaitForArrival() { arrived_.get_future().wait(); }
    void Open() { opened_.set_value(); }

private:
    std::promise<void> arrived_;
    std::promise<void> opened_;
};

std::string label_of(pthread_t handle) {
    char label[256];
    return PZThreadMng::GetInstance()->getLabel(handle, label) ? label : "(unknown)";
}

/// The name that the kernel shows for the calling thread.
std::string kernel_name() {
    char name[16] = "";
    EXPECT_EQ(0, pthread_getname_np(pthread_self(), name, sizeof name));
    return name;
}

void reset_calls() {
    pthread_create_call.Reset();
    pthread_join_call.Reset();
    pthread_setname_np_call.Reset();
    getpriority_call.Reset();
    setpriority_call.Reset();
    nanosleep_call.Reset();
}

class PZThreadTest : public testing::Test {
protected:
    PZThreadTest() { reset_calls(); }

    ~PZThreadTest() override {
        EXPECT_EQ(0, thread.WaitExit());
        PZSingletonFinalizer::finalize();
    }

    /// Starts the thread and returns when it stands in MainProc.
    void StartUpToTheGate(const char* name = "tested") {
        owner.onMainProc = [this] { gate.Pass(); };
        ASSERT_TRUE(thread.Start(name));
        gate.WaitForArrival();
    }

    void OpenTheGateAndJoin() {
        gate.Open();
        ASSERT_EQ(0, thread.WaitExit());
    }

    Gate gate;
    Owner owner;
    Thread thread{&owner, 4321};
};

// Construction.

TEST_F(PZThreadTest, HasNoThreadAndNoNameAtFirst) {
    EXPECT_FALSE(thread.isStarted());
    EXPECT_EQ(std::string(128, '\0'), std::string(thread.getName(), 128));
    EXPECT_EQ(0, pthread_create_call.Calls());
}

TEST_F(PZThreadTest, IsNotCopiedAndIsDestroyedThroughItsBase) {
    EXPECT_FALSE(std::is_copy_constructible_v<Thread>);
    EXPECT_FALSE(std::is_copy_assignable_v<Thread>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Thread>);
#if __SIZEOF_POINTER__ == 4
    EXPECT_EQ(156U, sizeof(Thread));
#endif
}

// Start.

TEST_F(PZThreadTest, RunsThePhasesInOrderOnOneNewThread) {
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_TRUE(thread.isStarted());
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ("Initialize MainProc Finalize", owner.log);
    EXPECT_TRUE(owner.isOneThread);
    EXPECT_EQ(0, pthread_equal(owner.handle, pthread_self()));
}

struct CreateArguments {
    const pthread_attr_t* attributes;
    ThreadEntry entry;
    void* arg;
};
CreateArguments create_arguments;

int create_and_keep_arguments(pthread_t* handle, const pthread_attr_t* attributes,
                              ThreadEntry entry, void* arg) {
    create_arguments = {attributes, entry, arg};
    return pthread_create_call.Real(handle, attributes, entry, arg);
}

TEST_F(PZThreadTest, CreatesItsThreadWithDefaultAttributesAndTheAddressOfItsSelfField) {
    pthread_create_call.Replace(&create_and_keep_arguments);
    ASSERT_TRUE(thread.Start("tested"));
    pthread_create_call.Replace(nullptr);
    EXPECT_EQ(nullptr, create_arguments.attributes);
    EXPECT_EQ(&Thread::WrappedEntry, create_arguments.entry);
    EXPECT_EQ(&thread, *static_cast<Thread**>(create_arguments.arg));
    const char* const field = static_cast<const char*>(create_arguments.arg);
    const char* const object = reinterpret_cast<const char*>(&thread);
    EXPECT_EQ(static_cast<std::ptrdiff_t>(sizeof(void*)), field - object);
}

TEST_F(PZThreadTest, ANullNameIsNoName) {
    StartUpToTheGate(nullptr);
    EXPECT_STREQ("no_name", thread.getName());
    EXPECT_EQ("no_name", label_of(owner.handle));
    OpenTheGateAndJoin();
}

TEST_F(PZThreadTest, ALongNameIsStoredAndRegisteredWholeAndShownByTheKernelCut) {
    const std::string name = "a_name_of_forty_characters_0123456789_xyz";
    std::string shown;
    owner.onFinalize = [&shown] { shown = kernel_name(); };
    StartUpToTheGate(name.substr(0, 40).c_str());
    EXPECT_EQ(name.substr(0, 40), thread.getName());
    EXPECT_EQ(name.substr(0, 40), label_of(owner.handle));
    OpenTheGateAndJoin();
    EXPECT_EQ("a_name_of_forty", shown);
}

TEST_F(PZThreadTest, AShortNameIsShownByTheKernelWhole) {
    std::string shown;
    owner.onFinalize = [&shown] { shown = kernel_name(); };
    StartUpToTheGate("short");
    OpenTheGateAndJoin();
    EXPECT_EQ("short", shown);
}

TEST_F(PZThreadTest, ANameIsCutTo127Characters) {
    for (const size_t length : {127U, 128U, 400U}) {
        ASSERT_TRUE(thread.Start(std::string(length, 'n').c_str()));
        EXPECT_EQ(std::string(127, 'n'), thread.getName()) << length;
        EXPECT_EQ(0, thread.WaitExit()) << length;
    }
}

TEST_F(PZThreadTest, AShorterNameLeavesNothingOfTheOneBefore) {
    ASSERT_TRUE(thread.Start(std::string(127, 'n').c_str()));
    EXPECT_EQ(0, thread.WaitExit());
    ASSERT_TRUE(thread.Start("x"));
    EXPECT_EQ("x" + std::string(127, '\0'), std::string(thread.getName(), 128));
}

TEST_F(PZThreadTest, KeepsItsNameWhenItIsStartedAgainUnderIt) {
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    StartUpToTheGate(thread.getName());
    EXPECT_STREQ("tested", thread.getName());
    EXPECT_EQ("tested", label_of(owner.handle));
    OpenTheGateAndJoin();
}

TEST_F(PZThreadTest, ASecondStartFailsAndLeavesTheRunningThreadAlone) {
    StartUpToTheGate("first");
    StdoutCapture out;
    EXPECT_FALSE(thread.Start("second"));
    EXPECT_TRUE(has_report(out.Take(), "Start", "PZThread.h", "error [second]"));
    EXPECT_FALSE(thread.Start(nullptr));
    EXPECT_TRUE(has_report(out.Take(), "Start", "PZThread.h", "error [(null)]"));
    EXPECT_STREQ("first", thread.getName());
    EXPECT_EQ("first", label_of(owner.handle));
    EXPECT_EQ(1, pthread_create_call.Calls());
    OpenTheGateAndJoin();
    EXPECT_EQ("Initialize MainProc Finalize", owner.log);
}

TEST_F(PZThreadTest, ASecondStartFailsAlsoAfterTheThreadHasEnded) {
    std::promise<void> ended;
    owner.onFinalize = [&ended] { ended.set_value(); };
    ASSERT_TRUE(thread.Start("first"));
    ended.get_future().wait();
    StdoutCapture out;
    EXPECT_FALSE(thread.Start("second"));
    EXPECT_TRUE(has_report(out.Take(), "Start", "PZThread.h", "error [second]"));
}

TEST_F(PZThreadTest, DoesNotStartWithoutAnOwner) {
    Thread orphan(nullptr, 0);
    StdoutCapture out;
    EXPECT_FALSE(orphan.Start("orphan"));
    EXPECT_TRUE(has_report(out.Take(), "Start", "PZThread.h", "error [orphan]"));
    EXPECT_FALSE(orphan.isStarted());
    EXPECT_STREQ("", orphan.getName());
    EXPECT_EQ(0, pthread_create_call.Calls());
}

int fail_and_spoil_the_handle(pthread_t* handle, const pthread_attr_t* /*attributes*/,
                              ThreadEntry /*entry*/, void* /*arg*/) {
    *handle = 0x1234;
    return EAGAIN;
}

TEST_F(PZThreadTest, ReportsARefusedThreadAndCanBeStartedAgain) {
    pthread_create_call.Replace(&fail_and_spoil_the_handle);
    StdoutCapture out;
    EXPECT_FALSE(thread.Start("refused"));
    const std::string printed = out.Take();
    EXPECT_TRUE(
        has_report(printed, "Start", "PZThread.h", "PZThread::Start() failed !! [refused]\r"));
    EXPECT_NE(std::string::npos, printed.find("[refused]\r\n\033[0m"));
    EXPECT_FALSE(thread.isStarted());
    EXPECT_EQ(0, pthread_setname_np_call.Calls());
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ(0, pthread_join_call.Calls());
    pthread_create_call.Replace(nullptr);

    EXPECT_TRUE(thread.Start("again"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ("Initialize MainProc Finalize", owner.log);
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadTest, ReportsARefusedThreadUnderTheNameThatWasAskedFor) {
    StdoutCapture out;
    pthread_create_call.FailNext(EAGAIN, 2);
    EXPECT_FALSE(thread.Start(nullptr));
    EXPECT_TRUE(
        has_report(out.Take(), "Start", "PZThread.h", "PZThread::Start() failed !! [(null)]\r"));
    EXPECT_STREQ("no_name", thread.getName());
    const std::string longName(200, 'n');
    EXPECT_FALSE(thread.Start(longName.c_str()));
    EXPECT_TRUE(has_report(out.Take(), "Start", "PZThread.h",
                           "PZThread::Start() failed !! [" + longName + "]\r"));
}

TEST_F(PZThreadTest, StartsAlsoWhenTheKernelRefusesTheName) {
    pthread_setname_np_call.FailNext(EPERM);
    StdoutCapture out;
    EXPECT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ(1, pthread_setname_np_call.Calls());
    EXPECT_EQ("", out.Take());
}

// The thread.

TEST_F(PZThreadTest, WrappedEntryOfNullReturnsNullAtOnce) {
    EXPECT_EQ(nullptr, Thread::WrappedEntry(nullptr));
    EXPECT_EQ("(unknown)", label_of(pthread_self()));
}

TEST_F(PZThreadTest, IsRegisteredBeforeInitialize) {
    std::string label;
    unsigned int watchTime = 0;
    std::vector<unsigned long> running;
    owner.onInitialize = [&] {
        label = label_of(pthread_self());
        watchTime = PZThreadMng::GetInstance()->getWatchTime(pthread_self());
        PZThreadMng::GetInstance()->getActiveThreadList(running);
    };
    ASSERT_TRUE(thread.Start("tested"));
    ASSERT_EQ(0, thread.WaitExit());
    EXPECT_EQ("tested", label);
    EXPECT_EQ(4321U, watchTime);
    EXPECT_EQ(std::vector<unsigned long>{owner.handle}, running);
}

std::atomic<id_t> priority_read_of{0};

int getpriority_of(__priority_which_t which, id_t who) {
    priority_read_of = who;
    return getpriority_call.Real(which, who);
}

TEST_F(PZThreadTest, ReadsItsOwnPriorityForTheRegistration) {
    int readsBeforeInitialize = 0;
    owner.onInitialize = [&] { readsBeforeInitialize = getpriority_call.Calls(); };
    getpriority_call.Replace(&getpriority_of);
    ASSERT_TRUE(thread.Start("tested"));
    ASSERT_EQ(0, thread.WaitExit());
    EXPECT_EQ(1, readsBeforeInitialize);
    EXPECT_EQ(static_cast<id_t>(owner.tid), priority_read_of);
}

TEST_F(PZThreadTest, IsRegisteredWithItsWidePriority) {
    getpriority_call.Replace([](__priority_which_t, id_t) { return -10; });
    ASSERT_TRUE(thread.Start("tested"));
    ASSERT_EQ(0, thread.WaitExit());
    EXPECT_EQ(195, registered_priority);
}

TEST_F(PZThreadTest, IsRegisteredWithPriorityZeroWhenItsOwnIsUnreadable) {
    getpriority_call.FailNext(ESRCH);
    registered_priority = -2;
    StdoutCapture out;
    ASSERT_TRUE(thread.Start("tested"));
    ASSERT_EQ(0, thread.WaitExit());
    EXPECT_EQ(0, registered_priority);
    EXPECT_TRUE(has_report(out.Take(), "GetPriority", "PZThreadMng.cpp",
                           "error : errno[3 : No such process]"));
}

TEST_F(PZThreadTest, AFailedInitializeEndsTheThreadAtOnce) {
    for (const int result : {1, -1}) {
        owner.log.clear();
        owner.initializeResult = result;
        ASSERT_TRUE(thread.Start("tested"));
        ASSERT_EQ(0, thread.WaitExit());
        EXPECT_EQ("Initialize", owner.log) << result;
    }
}

void* joined_result = nullptr;

int join_for_the_result(pthread_t handle, void** /*result*/) {
    return pthread_join_call.Real(handle, &joined_result);
}

TEST_F(PZThreadTest, EndsWithANullResult) {
    joined_result = this;
    pthread_join_call.Replace(&join_for_the_result);
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ(nullptr, joined_result);
}

TEST_F(PZThreadTest, AFailedInitializeEndsWithANullResult) {
    joined_result = this;
    pthread_join_call.Replace(&join_for_the_result);
    owner.initializeResult = 1;
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ(nullptr, joined_result);
}

TEST_F(PZThreadTest, AnExceptionOfAPhaseEndsTheThreadQuietly) {
    const auto fail = [] { throw std::runtime_error("of a phase"); };
    joined_result = this;
    pthread_join_call.Replace(&join_for_the_result);
    StdoutCapture out;

    owner.onFinalize = fail;
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ("Initialize MainProc Finalize", owner.log);
    EXPECT_EQ(nullptr, joined_result);

    owner.log.clear();
    owner.onMainProc = fail;
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ("Initialize MainProc", owner.log);

    owner.log.clear();
    owner.onInitialize = [] { throw 1; };
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ("Initialize", owner.log);
    EXPECT_EQ("", out.Take());
}

TEST_F(PZThreadTest, PthreadExitOfAPhaseEndsTheThreadWithItsResult) {
    int result = 0;
    owner.onMainProc = [&result] { pthread_exit(&result); };
    pthread_join_call.Replace(&join_for_the_result);
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ(&result, joined_result);
    EXPECT_EQ("Initialize MainProc", owner.log);
}

TEST_F(PZThreadTest, ACancelledThreadEndsAndIsJoined) {
    std::promise<void> isUp;
    owner.onMainProc = [&isUp] {
        isUp.set_value();
        while (true) pause();
    };
    pthread_join_call.Replace(&join_for_the_result);
    ASSERT_TRUE(thread.Start("tested"));
    isUp.get_future().wait();
    ASSERT_EQ(0, pthread_cancel(owner.handle));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ(PTHREAD_CANCELED, joined_result);
    EXPECT_EQ("Initialize MainProc", owner.log);
}

// WaitExit.

TEST_F(PZThreadTest, WaitExitWithoutAThreadDoesNothing) {
    StdoutCapture out;
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ(0, pthread_join_call.Calls());
    EXPECT_EQ("", out.Take());
}

std::string label_after_the_end;

int join_and_read_the_label(pthread_t handle, void** result) {
    const int joined = pthread_join_call.Real(handle, result);
    label_after_the_end = label_of(handle);
    return joined;
}

TEST_F(PZThreadTest, StaysRegisteredAfterItsEndUntilWaitExit) {
    pthread_join_call.Replace(&join_and_read_the_label);
    owner.initializeResult = 1;
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ("tested", label_after_the_end);
    EXPECT_EQ("(unknown)", label_of(owner.handle));
}

TEST_F(PZThreadTest, WaitExitForgetsTheThreadAndItCanBeStartedAgain) {
    ASSERT_TRUE(thread.Start("first"));
    ASSERT_EQ(0, thread.WaitExit());
    EXPECT_FALSE(thread.isStarted());
    StdoutCapture out;
    EXPECT_EQ(-1, thread.GetPriority());
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ(1, pthread_join_call.Calls());

    StartUpToTheGate("second");
    EXPECT_EQ("second", label_of(owner.handle));
    EXPECT_STREQ("second", thread.getName());
    OpenTheGateAndJoin();
    EXPECT_EQ("Initialize MainProc Finalize Initialize MainProc Finalize", owner.log);
}

TEST_F(PZThreadTest, ReportsAFailedJoinAndForgetsTheThread) {
    StartUpToTheGate();
    pthread_join_call.FailNext(EINVAL);
    StdoutCapture out;
    EXPECT_EQ(EDEADLK, thread.WaitExit());
    EXPECT_TRUE(has_report(out.Take(), "WaitExit", "PZThread.h",
                           "pthread_join failed !! ret[35] errno[22 : Invalid argument]"));
    EXPECT_EQ("(unknown)", label_of(owner.handle));
    EXPECT_FALSE(thread.isStarted());
    EXPECT_EQ(-1, thread.GetPriority());
    gate.Open();
    EXPECT_EQ(0, pthread_join_call.Real(owner.handle, nullptr));
}

TEST_F(PZThreadTest, JoinReportsNothingAndLeavesTheErrorOfTheJoin) {
    StartUpToTheGate();
    pthread_join_call.FailNext(EINVAL);
    StdoutCapture out;
    errno = 0;
    EXPECT_EQ(EDEADLK, thread.Join());
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("", out.Take());
    EXPECT_FALSE(thread.isStarted());
    EXPECT_EQ(0, thread.Join()) << "there is none";
    gate.Open();
    EXPECT_EQ(0, pthread_join_call.Real(owner.handle, nullptr));
}

TEST_F(PZThreadTest, OnlyItsConstructorThrowsWithoutMemory) {
    bool hasThrown = false;
    {
        const pztest::MemoryShortage shortage;
        try {
            const Thread another(&owner, 0);
        } catch (const std::bad_alloc&) {
            hasThrown = true;
        }
    }
    EXPECT_TRUE(hasThrown);
}

// The handle of a thread that has just been joined goes to the next one that is made, before the
// joiner has come to the registry.

PZThread<Owner>* next_thread = nullptr;
Gate* next_gate = nullptr;

int join_and_start_the_next(pthread_t handle, void** result) {
    pthread_join_call.Replace(nullptr);
    const int joined = pthread_join_call.Real(handle, result);
    EXPECT_TRUE(next_thread->Start("next"));
    next_gate->WaitForArrival();
    return joined;
}

TEST_F(PZThreadTest, WaitExitLeavesTheNextThreadOfTheSameHandleRegistered) {
    Owner nextOwner;
    Gate nextGate;
    Thread next(&nextOwner, 1234);
    nextOwner.onMainProc = [&nextGate] { nextGate.Pass(); };
    next_thread = &next;
    next_gate = &nextGate;
    pthread_join_call.Replace(&join_and_start_the_next);
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    ASSERT_EQ(owner.handle, nextOwner.handle) << "the system gives the last handle that is free";
    EXPECT_EQ("next", label_of(nextOwner.handle));
    EXPECT_EQ(1234U, PZThreadMng::GetInstance()->getWatchTime(nextOwner.handle));
    nextGate.Open();
    EXPECT_EQ(0, next.WaitExit());
    EXPECT_EQ("(unknown)", label_of(nextOwner.handle));
}

std::thread next_plain_thread;
pthread_t next_plain_handle = 0;
Gate* next_plain_gate = nullptr;

int join_and_register_another(pthread_t handle, void** result) {
    pthread_join_call.Replace(nullptr);
    const int joined = pthread_join_call.Real(handle, result);
    next_plain_thread = std::thread([] {
        next_plain_handle = pthread_self();
        PZThreadMng::GetInstance()->registerThreadInfo(next_plain_handle, "plain", 251, 0);
        next_plain_gate->Pass();
    });
    next_plain_gate->WaitForArrival();
    return joined;
}

TEST_F(PZThreadTest, WaitExitLeavesTheNextThreadOfTheApplicationRegistered) {
    Gate plainGate;
    next_plain_gate = &plainGate;
    pthread_join_call.Replace(&join_and_register_another);
    ASSERT_TRUE(thread.Start("tested"));
    EXPECT_EQ(0, thread.WaitExit());
    ASSERT_EQ(owner.handle, next_plain_handle) << "the system gives the last handle that is free";
    EXPECT_EQ("plain", label_of(next_plain_handle));
    plainGate.Open();
    next_plain_thread.join();
    EXPECT_TRUE(PZThreadMng::GetInstance()->unregisterThreadInfo(next_plain_handle));
}

std::atomic<int> ended_tid{0};

bool has_ended() {
    return ended_tid != 0 && tgkill(getpid(), ended_tid, 0) == -1;
}

TEST_F(PZThreadTest, KeepsItsRecordWhenItIsRegisteredOnceMoreAfterItsEnd) {
    ended_tid = 0;
    owner.onFinalize = [this] { ended_tid = owner.tid; };
    ASSERT_TRUE(thread.Start("tested"));
    ASSERT_TRUE(pztest::wait_until(&has_ended));
    EXPECT_TRUE(PZThreadMng::GetInstance()->registerThreadInfo(owner.handle, "afresh", 251, 0));
    EXPECT_EQ("tested", label_of(owner.handle));
    EXPECT_EQ(0, thread.WaitExit());
    EXPECT_EQ("(unknown)", label_of(owner.handle));
}

TEST_F(PZThreadTest, WaitExitUnregistersAThreadThatWasRegisteredAgain) {
    for (const bool byItself : {true, false}) {
        owner.onInitialize = [] {
            PZThreadMng::GetInstance()->unregisterThreadInfo(pthread_self());
        };
        Gate registered;
        owner.onMainProc = [&registered, byItself] {
            if (byItself) {
                PZThreadMng::GetInstance()->registerThreadInfo(pthread_self(), "afresh", 251, 0);
            }
            registered.Pass();
        };
        ASSERT_TRUE(thread.Start("tested"));
        registered.WaitForArrival();
        if (!byItself) {
            PZThreadMng::GetInstance()->registerThreadInfo(owner.handle, "afresh", 251, 0);
        }
        EXPECT_EQ("afresh", label_of(owner.handle));
        registered.Open();
        EXPECT_EQ(0, thread.WaitExit());
        EXPECT_EQ("(unknown)", label_of(owner.handle));
    }
}

// Memory that runs out.

TEST(PZThreadMemoryTest, AThreadThatStartsWithoutMemoryRunsAllTheSame) {
    class Plain {
    public:
        int Initialize() {
            ++phases;
            return 0;
        }
        void MainProc() { ++phases; }
        void Finalize() { ++phases; }
        std::atomic<int> phases{0};
    };
    for (const bool withRegistry : {true, false}) {
        reset_calls();
        if (withRegistry) PZThreadMng::GetInstance();
        Plain plain;
        PZThread<Plain> thread(&plain, 0);
        StdoutCapture out;
        bool started = false;
        int exited = -1;
        {
            const pztest::GeneralMemoryShortage shortage;
            started = thread.Start("tested");
            exited = thread.WaitExit();
        }
        const std::string printed = out.Take();
        EXPECT_TRUE(started);
        EXPECT_EQ(0, exited);
        EXPECT_EQ(3, plain.phases);
        EXPECT_EQ(std::vector<std::string>{"failed to allocate memory"},
                  pztest::error_messages(printed));
        PZSingletonFinalizer::finalize();
    }
}

TEST(PZThreadDestructionTest, NeitherStopsNorJoinsNorUnregistersTheThread) {
    reset_calls();
    Owner owner;
    Gate gate;
    owner.onFinalize = [&gate] { gate.Pass(); };
    auto thread = std::make_unique<Thread>(&owner, 0U);
    ASSERT_TRUE(thread->Start("tested"));
    gate.WaitForArrival();
    thread.reset();  // the thread is past its last use of the object
    EXPECT_EQ(0, pthread_join_call.Calls());
    EXPECT_EQ("tested", label_of(owner.handle));
    gate.Open();
    EXPECT_EQ(0, pthread_join_call.Real(owner.handle, nullptr));
    PZThreadMng::GetInstance()->unregisterThreadInfo(owner.handle);
}

// Priorities.

/// The nice value of one kernel thread, in the hand of the test.
std::atomic<id_t> nice_of{0};
std::atomic<int> fake_nice{0};

int fake_getpriority(__priority_which_t which, id_t who) {
    return who == nice_of ? fake_nice.load() : getpriority_call.Real(which, who);
}

int fake_setpriority(__priority_which_t /*which*/, id_t who, int nice) {
    nice_of = who;
    fake_nice = nice;
    return 0;
}

TEST_F(PZThreadTest, SetsAndReadsItsThreadsPriority) {
    StartUpToTheGate();
    getpriority_call.Replace(&fake_getpriority);
    setpriority_call.Replace(&fake_setpriority);
    StdoutCapture out;
    EXPECT_TRUE(thread.SetPriority(196));
    EXPECT_EQ(static_cast<id_t>(owner.tid), nice_of);
    EXPECT_EQ(-10, fake_nice);
    EXPECT_EQ(195, thread.GetPriority());  // the first with this nice value
    EXPECT_EQ("", out.Take());
    OpenTheGateAndJoin();
}

TEST_F(PZThreadTest, AnswersFalseWhenThePriorityIsRefused) {
    StartUpToTheGate();
    setpriority_call.FailNext(EACCES);
    StdoutCapture out;
    EXPECT_FALSE(thread.SetPriority(177));
    EXPECT_TRUE(has_report(out.Take(), "SetPriority", "PZThreadMng.cpp",
                           "error : errno[13 : Permission denied]"));
    OpenTheGateAndJoin();
}

TEST_F(PZThreadTest, ReportsThatThereIsNoPriorityWithoutAThread) {
    StdoutCapture out;
    EXPECT_EQ(-1, thread.GetPriority());
    EXPECT_TRUE(has_report(out.Take(), "GetPriority", "PZThread.h", "invalid thread id"));
    EXPECT_EQ(0, getpriority_call.Calls());
}

/// The polls of SetPriority, that is sleeps of 10 ms.
int polls = 0;
int polls_before_the_entry = 0;  // the new thread comes up during this poll
std::promise<void>* entry_may_run = nullptr;
std::promise<void>* entry_has_run = nullptr;

int count_polls(const timespec* time, timespec* rest) {
    if (time->tv_sec != 0 || time->tv_nsec != 10000000) return nanosleep_call.Real(time, rest);
    ++polls;
    if (polls == polls_before_the_entry) {
        entry_may_run->set_value();
        entry_has_run->get_future().wait();
    }
    return 0;
}

ThreadEntry late_entry = nullptr;

void* run_late(void* arg) {
    entry_may_run->get_future().wait();
    return late_entry(arg);
}

int create_late(pthread_t* handle, const pthread_attr_t* attributes, ThreadEntry entry, void* arg) {
    late_entry = entry;
    return pthread_create_call.Real(handle, attributes, &run_late, arg);
}

class PZThreadLateTest : public PZThreadTest {
protected:
    PZThreadLateTest() {
        polls = 0;
        polls_before_the_entry = 0;
        entry_may_run = &mayRun;
        entry_has_run = &hasRun;
        owner.onInitialize = [this] { hasRun.set_value(); };
        nanosleep_call.Replace(&count_polls);
        setpriority_call.Replace(&fake_setpriority);
        pthread_create_call.Replace(&create_late);
    }

    ~PZThreadLateTest() override {
        EXPECT_EQ(0, thread.WaitExit());  // before what its entry waits for
        reset_calls();
    }

    std::promise<void> mayRun;
    std::promise<void> hasRun;
};

TEST_F(PZThreadLateTest, SetPriorityWaitsUntilTheThreadIsUp) {
    for (const int needed : {1, 5}) {
        polls = 0;
        polls_before_the_entry = needed;
        mayRun = {};
        hasRun = {};
        StdoutCapture out;
        ASSERT_TRUE(thread.Start("late"));
        EXPECT_TRUE(thread.SetPriority(253));
        EXPECT_EQ(needed, polls);
        EXPECT_EQ("", out.Take());
        EXPECT_EQ(0, thread.WaitExit());
        EXPECT_EQ(static_cast<id_t>(owner.tid), nice_of);
    }
}

TEST_F(PZThreadLateTest, SetPriorityDoesNotWaitForAThreadThatIsUp) {
    mayRun.set_value();
    ASSERT_TRUE(thread.Start("early"));
    hasRun.get_future().wait();
    EXPECT_TRUE(thread.SetPriority(253));
    EXPECT_EQ(0, polls);
}

TEST_F(PZThreadLateTest, SetPriorityReportsAThreadThatDoesNotComeUpAndGoesOnRegardless) {
    StdoutCapture out;
    ASSERT_TRUE(thread.Start("late"));
    setpriority_call.FailNext(ESRCH);
    EXPECT_FALSE(thread.SetPriority(253));
    EXPECT_EQ(5, polls);
    EXPECT_EQ(1, setpriority_call.Calls());
    const std::string printed = out.Take();
    EXPECT_TRUE(has_report(printed, "SetPriority", "PZThread.h", "invalid thread id"));
    EXPECT_TRUE(has_report(printed, "SetPriority", "PZThreadMng.cpp",
                           "error : errno[3 : No such process]"));
    EXPECT_EQ(-1, thread.GetPriority());
    mayRun.set_value();
}

TEST_F(PZThreadLateTest, SetPriorityAsksTheKernelForThreadMinus1WithoutAThread) {
    StdoutCapture out;
    EXPECT_FALSE(thread.SetPriority(251));
    EXPECT_EQ(static_cast<id_t>(-1), nice_of);
    EXPECT_EQ(std::vector<std::string>{"invalid thread id"}, pztest::error_messages(out.Take()));
}

TEST_F(PZThreadTest, SetPriorityWithoutAThreadIsRefusedByTheKernel) {
    StdoutCapture out;
    EXPECT_FALSE(thread.SetPriority(251));
    EXPECT_EQ((std::vector<std::string>{"invalid thread id", "error : errno[3 : No such process]"}),
              pztest::error_messages(out.Take()));
}

}  // namespace
