#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZFileGuard.h>
#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Diagnostics/PZSupervisor.h>
#include <Framework/Easy/Framework.h>
#include <Framework/Easy/RotatingLog.h>
#include <Framework/Easy/StopSignal.h>
#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZIDispatcher.h>
#include <Framework/Foundation/PZIMsgBox.h>
#include <Framework/Foundation/PZStorage.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Utility/PZLSysFileOut.h>
#include <Framework/Utility/PZLTimerMng.h>
#include <Framework/Wrapper/pz_stdlib.h>

#include "support/ChildProcess.h"
#include "support/CountingObserver.h"
#include "support/FakeSyslog.h"
#include "support/FewDescriptors.h"
#include "support/GuardFiles.h"
#include "support/MemoryShortage.h"
#include "support/OpenDescriptors.h"
#include "support/OwnProcess.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"
#include "support/TestQueue.h"
#include "support/WaitUntil.h"

// The rows of docs/process.md that no test of a class covers. What a process keeps can be seen only
// in a process that has nothing of it yet: every test runs in a child.

// The tests' own system log is not the machine's.
extern "C" void syslog(int /*priority*/, const char* /*format*/, ...) {}

namespace {

using pztest::added;
using pztest::Descriptors;

constexpr char kTimerThreads[] = "ZLTimerSubMng_";

/// Waits and the like say what they found, so that a failure can be read.
bool holds(bool condition, const char* what) {
    if (!condition) std::printf("FAILED: %s\n", what);
    return condition;
}
#define HOLDS(condition) holds(condition, #condition)

/// Runs the body in a child; its checks are the words behind "FAILED" in the child's output.
void in_child(const std::function<bool()>& body) {
    const pztest::ChildResult child = pztest::run_in_child([&body] { return body() ? 0 : 1; });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status) << child.output;
}

bool start() {
    return HOLDS(pz_FwInitialize("process", 7) != 0);
}

Descriptors open_now() {
    return pztest::open_descriptors_by_kind();
}

Descriptors inherited_now() {
    return pztest::open_descriptors_by_kind(/*onlyInherited=*/true);
}

/// The system log's own connection, which is there only where a log daemon runs.
Descriptors without_sockets(Descriptors descriptors) {
    descriptors.erase("socket");
    return descriptors;
}

/// Everything else that belongs to the process and can be asked for.
std::string settings() {
    std::string text = setlocale(LC_ALL, nullptr);
    for (char** variable = environ; *variable != nullptr; ++variable) {
        text += "\n" + std::string(*variable);
    }
    const std::unique_ptr<char, void (*)(void*)> folder(getcwd(nullptr, 0), &std::free);
    text += "\ncwd " + std::string(folder.get());
    text += "\nlimits " + pztest::read_file("/proc/self/limits");
    const std::string main = std::to_string(getpid());
    for (const char* const key : {"Umask", "Uid", "Gid", "SigBlk"}) {
        text += "\n" + std::string(key) + " " + pztest::thread_status(main, key);
    }
    text += "\nname " + pztest::read_file("/proc/self/task/" + main + "/comm");
    text += "\nnice " + std::to_string(getpriority(PRIO_PROCESS, 0));
    text += "\npolicy " + std::to_string(sched_getscheduler(0));
    return text;
}

class Nothing : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override { return 0; }
};

/// Something of everything but the queues.
bool use_the_framework() {
    const pztest::FakeSyslog noSync;
    if (!start()) return false;
    PZWorker worker(1, 4000, 1);
    if (!HOLDS(worker.Start("worker") == 0)) return false;
    Nothing timer;
    auto* const handle = PZLTimerMng::GetTimerMng()->AddTimer(&timer, 60000);
    PZLTimerMng::GetTimerMng()->RemoveTimer(handle, &timer);
    const pztest::TempDir dir;
    PZLSysFileOut log(std::wstring(dir.Path().begin(), dir.Path().end()).c_str(), L"app", L"txt",
                      false, 0, 0);
    if (!HOLDS(log.Open())) return false;
    log.Close();
    const pztest::GuardFiles files;
    PZFileGuard guard(files.Dir(), files.Name());
    if (!HOLDS(guard.initForSystem() && guard.lock() && guard.unlock())) return false;
    guard.destroyMutex();
    worker.End(0);
    pz_FwFinalize();
    return true;
}

/// The handling of every signal of the process; 0 stands for signals that have none.
std::vector<void (*)(int)> signal_handling() {
    std::vector<void (*)(int)> handlers;
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action = {};
        handlers.push_back(sigaction(number, nullptr, &action) == 0 ? action.sa_handler : nullptr);
    }
    return handlers;
}

/// A thread that was joined is listed a moment longer.
bool timer_threads_end() {
    return HOLDS(pztest::wait_until([] { return pztest::threads_named(kTimerThreads).empty(); }));
}

}  // namespace

TEST(processTest, LoadingStartsNothingAndLeavesSigpipe) {
    in_child([] {
        return HOLDS(pztest::threads_named(kTimerThreads).empty()) &&
               HOLDS(signal_handling()[SIGPIPE - 1] == SIG_DFL);
    });
}

TEST(processTest, TheLibraryStaysLoaded) {
    const auto flags = pztest::run_command("readelf -dW '" PZ_LIBRARY "' | grep FLAGS_1");
    EXPECT_NE(std::string::npos, flags.output.find("NODELETE")) << flags.output;
}

TEST(processTest, TheFrameworkChangesTheHandlingOfSigpipeOnly) {
    in_child([] {
        auto expected = signal_handling();
        expected[SIGPIPE - 1] = SIG_IGN;
        return use_the_framework() && HOLDS(signal_handling() == expected);
    });
}

TEST(processTest, TheFrameworkLeavesTheSettingsOfTheProcessAlone) {
    in_child([] {
        umask(027);
        const std::string before = settings();
        return use_the_framework() && HOLDS(settings() == before);
    });
}

TEST(processTest, ThreadsHaveTheSignalMaskOfTheThreadThatStartedThem) {
    in_child([] {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGUSR1);
        sigaddset(&mask, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &mask, nullptr);
        if (!start()) return false;
        const auto threads = pztest::threads_named(kTimerThreads);
        if (!HOLDS(threads.size() == 5)) return false;
        const std::string own = pztest::thread_status(std::to_string(getpid()), "SigBlk");
        for (const std::string& thread : threads) {
            if (!HOLDS(pztest::thread_status(thread, "SigBlk") == own)) return false;
        }
        pz_FwFinalize();
        return true;
    });
}

TEST(processTest, AQueueClearsTheFileCreationMask) {
    in_child([] {
        umask(027);
        const pztest::QueueName name;
        PZMsgQ::PZMessageQueue<0> queue;
        return HOLDS(queue.open({name.Get()})) && HOLDS(umask(0) == 0);
    });
}

TEST(processTest, TheStartTakes15DescriptorsThatAreNotInherited) {
    in_child([] {
        const Descriptors before = open_now();
        const Descriptors inherited = inherited_now();
        if (!start()) return false;
        const Descriptors expected = {{"anon_inode:[eventfd]", 10}, {"anon_inode:[eventpoll]", 5}};
        if (!HOLDS(without_sockets(added(before, open_now())) == expected)) return false;
        if (!HOLDS(added(inherited, inherited_now()).empty())) return false;
        pz_FwFinalize();
        return HOLDS(open_now() == before);
    });
}

/// Fires once.
class Once : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override {
        hasFired = true;
        return 0;
    }
    std::atomic<bool> hasFired{false};
};

bool a_timer_fires() {
    Once timer;
    if (!HOLDS(PZLTimerMng::GetTimerMng()->AddTimer(&timer, 1) != nullptr)) return false;
    return HOLDS(pztest::wait_until([&timer] { return timer.hasFired.load(); }));
}

TEST(processTest, AStartWithoutMemoryFailsAndCanBeRepeated) {
    in_child([] {
        for (int skip = 0;; ++skip) {
            int result = -1;
            bool refused = false;
            {
                const pztest::MemoryShortage shortage(skip);
                result = pz_FwInitialize("process", 7);
                refused = shortage.Refused() != 0;
            }
            if (!refused) break;
            if (result == 0) continue;  // the next one goes on
            if (!a_timer_fires()) return false;
            pz_FwFinalize();
        }
        const bool fires = a_timer_fires();
        pz_FwFinalize();
        return fires && timer_threads_end();
    });
}

#ifndef __SANITIZE_ADDRESS__  // its checks of types need a pipe of their own
TEST(processTest, AStartWithFewDescriptorsHasFewerTimerThreadsAndStops) {
    in_child([] {
        rlimit before = {};
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit few = {12, before.rlim_max};
        if (!HOLDS(setrlimit(RLIMIT_NOFILE, &few) == 0) || !start()) return false;
        setrlimit(RLIMIT_NOFILE, &before);
        const size_t threads = pztest::threads_named(kTimerThreads).size();
        if (!HOLDS(threads < 5)) return false;
        Once timer;
        auto* const bands = PZLTimerMng::GetTimerMng();
        if (!HOLDS(bands->Find(255)->sub->addTimer(&timer, 0) == 0)) return false;
        pz_FwFinalize();
        return timer_threads_end();
    });
}
#endif

TEST(processTest, AWorkerTakes3DescriptorsThatAreNotInherited) {
    in_child([] {
        if (!start()) return false;
        const Descriptors before = open_now();
        const Descriptors inherited = inherited_now();
        const Descriptors made = {{"pipe", 2}, {"anon_inode:[eventfd]", 1}};
        {
            PZWorker worker(1, 4000, 1);
            if (!HOLDS(added(before, open_now()) == made)) return false;
            if (!HOLDS(worker.Start("worker") == 0)) return false;
            if (!HOLDS(added(before, open_now()) == made)) return false;
            if (!HOLDS(added(inherited, inherited_now()).empty())) {
                return false;
            }
            worker.End(0);
            if (!HOLDS(added(before, open_now()) == made)) return false;
        }
        const bool done = HOLDS(open_now() == before);
        pz_FwFinalize();
        return done;
    });
}

TEST(processTest, AQueueAndALogTakeOneDescriptorThatIsNotInherited) {
    in_child([] {
        const pztest::FakeSyslog noSync;
        const pztest::TempDir dir;
        const pztest::QueueName name;
        const Descriptors before = open_now();
        const Descriptors inherited = inherited_now();
        PZMsgQ::PZMessageQueue<0> queue;
        PZLSysFileOut log(std::wstring(dir.Path().begin(), dir.Path().end()).c_str(), L"app",
                          L"txt", false, 0, 0);
        if (!HOLDS(queue.open({name.Get()})) || !HOLDS(log.Open())) return false;
        const Descriptors expected = {{name.System(), 1}, {dir.File("app.txt"), 1}};
        const bool areOpen = HOLDS(added(before, open_now()) == expected);
        const bool stay = HOLDS(inherited_now() == inherited);
        queue.close();
        log.Close();
        return areOpen && stay && HOLDS(open_now() == before);
    });
}

TEST(processTest, AGuardAndANamedLockTakeNoDescriptor) {
    in_child([] {
        const pztest::GuardFiles files;
        const Descriptors before = open_now();
        PZFileGuard guard(files.Dir(), files.Name());
        const std::string name = "pzt" + std::to_string(getpid());
        PZSync lock(name.c_str(), PZSync::en_TYPE_NAMED);
        const bool isThere = HOLDS(access(("/dev/shm/sem." + name).c_str(), F_OK) == 0);
        const bool done = isThere && HOLDS(guard.initForSystem()) && HOLDS(open_now() == before);
        sem_unlink(("/" + name).c_str());
        guard.destroyMutex();
        return done;
    });
}

TEST(processTest, ObjectsTakeAsManyDescriptorsAsThePageTells) {
    in_child([] {
        const pztest::FakeSyslog noSync;
        const pztest::TempDir dir;
        const Descriptors before = open_now();
        const Descriptors inherited = inherited_now();
        {
            const pz::StopSignal stop;
            if (!HOLDS((added(before, open_now()) == Descriptors{{"pipe", 2}}))) return false;
        }
        {
            PZFileSys search;
            PZFileSys::ST_FIND_DATA found = {};
            pztest::write_file(dir.File("file"), "x");
            if (!HOLDS(search.FindFirst(dir.Path().c_str(), found))) return false;
            if (!HOLDS((added(before, open_now()) == Descriptors{{dir.Path(), 1}}))) return false;
        }
        {
            const PZStorage storage(dir.File("file").c_str(), "rb");
            pz::RotatingLog log(dir.Path().c_str(), "log", 1000, 1);
            if (!HOLDS(log.line("x")) || !HOLDS(inherited_now() == inherited)) return false;
            if (!HOLDS(added(before, open_now()).size() == 2)) return false;
        }
        return HOLDS(open_now() == before);
    });
}

TEST(processTest, AFileTakesTwoDescriptorsWhileItIsCopied) {
    in_child([] {
        const pztest::FakeSyslog noSync;
        const pztest::TempDir dir;
        const std::string fifo = dir.File("fifo");
        if (!HOLDS(mkfifo(fifo.c_str(), 0600) == 0)) return false;
        const int writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
        const Descriptors before = open_now();
        const Descriptors inherited = inherited_now();
        std::thread copier(
            [&] { PZFileSys::Copy(fifo.c_str(), dir.File("copy").c_str(), false, false); });
        const Descriptors expected = {{fifo, 1}, {dir.File("copy"), 1}};
        const bool areTwo =
            HOLDS(pztest::wait_until([&] { return added(before, open_now()) == expected; }));
        const bool stay = HOLDS(inherited_now() == inherited);
        close(writer);
        copier.join();
        return areTwo && stay;
    });
}

TEST(processTest, AFrameworkObjectAndASupervisorTake3DescriptorsMoreAndAThreadEach) {
    in_child([] {
        const auto areThere = [](const char* name, size_t count) {
            return HOLDS(
                pztest::wait_until([&] { return pztest::threads_named(name).size() == count; }));
        };
        // One of the three is there while the thread waits.
        const auto areOpen = [](const Descriptors& before, int expected) {
            return HOLDS(pztest::wait_until([&] {
                int count = 0;
                for (const auto& [kind, more] : without_sockets(added(before, open_now()))) {
                    count += more;
                }
                return count == expected;
            }));
        };
        const Descriptors before = open_now();
        const Descriptors inherited = inherited_now();
        {
            const pz::Framework framework("process", 7);
            if (!areThere("pz_tick", 1) || !areOpen(before, 15 + 3)) return false;

            const Descriptors started = open_now();
            const auto ignore = [](const PZSupervisor::ST_FINDING&, void*) {};
            if (!HOLDS(PZSupervisor::Start(ignore, nullptr, 1000))) return false;
            if (!areThere("pz_supervisor", 1) || !areOpen(started, 3)) return false;
            if (!HOLDS(without_sockets(added(inherited, inherited_now())).empty())) return false;
            if (!HOLDS(PZSupervisor::Stop()) || !areThere("pz_supervisor", 0)) return false;
        }
        return areThere("pz_tick", 0);
    });
}

TEST(processTest, SigpipeStaysIgnoredInAProgramThatIsStarted) {
    in_child([] {
        const pztest::TempDir dir;
        const auto ignored = [&dir] {
            const std::string script = dir.File("s");
            pztest::write_file(script, "#!/bin/sh\ngrep SigIgn /proc/self/status >out\n");
            pid_t child = -1;
            if (chmod(script.c_str(), 0700) != 0 || chdir(dir.Path().c_str()) != 0) return 0ULL;
            if (!pz_create_process("./s", &child, nullptr)) return 0ULL;
            if (pztest::ChildProcess(child).Wait() != 0) return 0ULL;
            const std::string line = pztest::read_file("out");
            return std::stoull(line.substr(line.find_last_of(" \t") + 1), nullptr, 16) |
                   (1ULL << 63U);  // it ran
        };
        constexpr unsigned long long kRan = 1ULL << 63U;
        constexpr unsigned long long kSigpipe = 1ULL << (SIGPIPE - 1U);
        signal(SIGPIPE, SIG_DFL);
        if (!HOLDS((ignored() & (kRan | kSigpipe)) == kRan)) return false;
        PZEvent().WaitEvent(0);
        return HOLDS((ignored() & (kRan | kSigpipe)) == (kRan | kSigpipe));
    });
}

TEST(processTest, ThreadsHaveTheDefaultStackSizeOfTheProcess) {
    in_child([] {
        constexpr size_t kStack = 1U << 20U;
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, kStack);
        if (!HOLDS(pthread_setattr_default_np(&attributes) == 0) || !start()) return false;
        std::vector<unsigned long> threads;
        PZThreadMng::GetInstance()->getActiveThreadList(threads);
        if (!HOLDS(threads.size() == 5)) return false;
        for (const unsigned long thread : threads) {
            pthread_attr_t own;
            size_t size = 0;
            if (!HOLDS(pthread_getattr_np(thread, &own) == 0)) return false;
            pthread_attr_getstacksize(&own, &size);
            pthread_attr_destroy(&own);
            if (!HOLDS(size == kStack)) return false;
        }
        pz_FwFinalize();
        return true;
    });
}

namespace {

int exit_handlers_of_the_library = 0;

/// True for an address inside the library.
bool is_of_the_library(const void* address) {
    Dl_info asked = {};
    Dl_info library = {};
    return dladdr(address, &asked) != 0 &&
           dladdr(reinterpret_cast<const void*>(&pz_FwInitialize), &library) != 0 &&
           asked.dli_fbase == library.dli_fbase;
}

}  // namespace

// What atexit and the destructors of static objects are registered with.
extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* library) {
    static const auto real =
        reinterpret_cast<decltype(&__cxa_atexit)>(dlsym(RTLD_NEXT, "__cxa_atexit"));
    if (is_of_the_library(library)) ++exit_handlers_of_the_library;
    return real(function, argument, library);
}

TEST(processTest, TheLibraryRegistersNoExitHandlersWhateverIsUsed) {
    in_child([] { return use_the_framework() && HOLDS(exit_handlers_of_the_library == 0); });
}

TEST(processTest, EndsWithItsThreadsRunningAndWithoutALeakReport) {
    const pztest::ChildResult child = pztest::run_in_child([]() -> int {
        if (!start()) return 1;
        std::fflush(stdout);
        std::exit(3);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(3, child.status);
    EXPECT_EQ(std::string::npos, child.output.find("[Memory Leak Info]"));
}

namespace {

/// Everything of the framework that runs or stays open, for the tests of what others see of it.
/// Function-local statics, as an application has them: they are destroyed by exit only.
class Everything {
public:
    bool Start() {
        return HOLDS(pz_FwInitialize("process", 7) != 0) && HOLDS(worker_.Start("worker") == 0) &&
               HOLDS(queue_.open({name_.Get(), &received_})) &&
               HOLDS(sender_.open({name_.Get()})) && HOLDS(guard_.initForSystem()) &&
               HOLDS(storage_.Open(dir_.File("storage").c_str(), "wb") == 0) &&
               HOLDS(log_.Open()) && Works();
    }

    void Stop() {
        queue_.close();
        worker_.End(0);
        guard_.destroyMutex();
        pz_FwFinalize();
    }

    /// A message comes through the queue, one through the worker's box, a timer fires, and the
    /// guard locks.
    bool Works() {
        const int before = received_.calls;
        if (!HOLDS(sender_.send("x", 1, 1) == 0)) return false;
        if (!HOLDS(comes([&] { return received_.calls > before; }))) return false;
        const int fired = timer_.calls;
        auto* const handle = PZLTimerMng::GetTimerMng()->AddTimer(&timer_, 1);
        if (!HOLDS(comes([&] { return timer_.calls > fired; }))) return false;
        PZLTimerMng::GetTimerMng()->RemoveTimer(handle, &timer_);
        return HOLDS(posted_.IsServed(worker_)) && HOLDS(guard_.lock()) && HOLDS(guard_.unlock());
    }

private:
    template <typename Condition>
    static bool comes(Condition condition) {
        return pztest::wait_until(condition, std::chrono::seconds(20));
    }

    class Fired : public PZLTimerBase {
    public:
        int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override {
            ++calls;
            return 0;
        }
        std::atomic<int> calls{0};
    };

    class Posted : public PZIDispatcher {
    public:
        bool IsServed(PZWorker& worker) {
            PZIMsgBox* const box = worker.GetMsgBox();
            if (id_ == 0) id_ = box->Registory(this);
            const int before = calls_;
            PZIMsgBox::ST_PUSH_MSG_DATA message = {};
            message.SID = id_;
            message.Priority = en_MSG_NORMAL;
            return box->PushMsg(message) == 0 && comes([&] { return calls_ > before; });
        }
        void OnReceiveMsg(unsigned int /*id*/, const void* /*buff*/,
                          unsigned int /*size*/) override {
            ++calls_;
        }
        void OnReceiveEvent(unsigned int /*bits*/) override {}

    private:
        unsigned long id_ = 0;
        std::atomic<int> calls_{0};
    };

    const pztest::FakeSyslog noSync_;
    const pztest::TempDir dir_;
    const pztest::QueueName name_;
    const pztest::GuardFiles files_;
    pztest::CountingObserver received_;
    Fired timer_;
    Posted posted_;
    PZWorker worker_{1, 4000, 1};
    PZMsgQ::PZMessageQueue<1> queue_;
    PZMsgQ::PZMessageQueue<0> sender_;
    PZFileGuard guard_{files_.Dir(), files_.Name()};
    PZStorage storage_;
    PZLSysFileOut log_{
        std::wstring(dir_.Path().begin(), dir_.Path().end()).c_str(), L"app", L"txt", false, 0, 0};
};

}  // namespace

TEST(processTest, AProgramThatIsStartedGetsNoneOfTheDescriptors) {
    in_child([] {
        const std::string count = "ls /proc/self/fd | wc -l";
        const std::string before = pztest::run_command(count).output;
        Everything all;
        const bool isSame = all.Start() && HOLDS(pztest::run_command(count).output == before);
        all.Stop();
        return isSame;
    });
}

TEST(processTest, NothingIsOpenedInThePlaceOfClosedStandardDescriptors) {
    pztest::ChildProcess child([] {
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(standard);
        Everything all;
        int result = all.Start() ? 0 : 1;
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            if (fcntl(standard, F_GETFD) != -1) result = 2 + standard;
        }
        all.Stop();
        return result;
    });
    EXPECT_EQ(0, child.Wait());
}

TEST(processTest, TheExitOfAForkedChildLeavesItsParentAlone) {
    in_child([] {
        static Everything all;
        if (!all.Start()) return false;
        pztest::ChildProcess child([]() -> int { std::exit(0); });
        return HOLDS(child.Wait(std::chrono::seconds(20)) == 0) && all.Works();
    });
}

TEST(processTest, AForkedChildHasNoneOfTheThreads) {
    in_child([] {
        if (!start() || !HOLDS(pztest::threads_named(kTimerThreads).size() == 5)) return false;
        pztest::ChildProcess child(
            [] { return pztest::threads_named(kTimerThreads).empty() ? 0 : 1; });
        const bool done = HOLDS(child.Wait() == 0);
        pz_FwFinalize();
        return done;
    });
}

#ifndef __SANITIZE_ADDRESS__  // its checks of types need a pipe of their own
TEST(processTest, WhatRunsContinuesWithoutAFreeDescriptorAndWhatNeedsOneFails) {
    in_child([] {
        static Everything all;
        if (!all.Start()) return false;
        const pztest::QueueName name;
        bool continues = false;
        bool fails = false;
        {
            const pztest::FewDescriptors none(0);
            // The second time everything has waited without one.
            continues = all.Works() && all.Works();
            PZWorker worker(1, 4000, 1);
            PZLTimerSubMng timers(30, 251);
            PZMsgQ::PZMessageQueue<0> queue;
            PZLSysFileOut log(L"/tmp", L"pz_none", L"txt", false, 0, 0);
            fails = HOLDS(worker.Start("worker") == -1) && HOLDS(timers.start("timers") == 0) &&
                    HOLDS(!queue.open({name.Get()})) && HOLDS(!log.Open());
        }
        all.Stop();
        return continues && fails;
    });
}
#endif
