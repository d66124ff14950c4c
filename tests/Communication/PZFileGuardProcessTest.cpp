#include <signal.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZFileGuard.h>

#include "support/ChildProcess.h"
#include "support/GuardFiles.h"
#include "support/OwnSegments.h"
#include "support/StdoutCapture.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

// The file guard between processes, in each order of starting and ending.

namespace {

using pztest::ChildProcess;
using pztest::GuardFiles;
using pztest::GuardSegment;
using pztest::wait_until;

using Texts = std::vector<std::string>;

constexpr int kDone = 0;
constexpr int kFailed = 1;

int status_of(bool good) {
    return good ? kDone : kFailed;
}

/// Memory that parent and children share: a step counter with which they wait for each other.
class Steps : private pztest::Uncopyable {
public:
    Steps() {
        void* const memory = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE,
                                  MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) std::abort();
        step_ = new (memory) std::atomic<int>(0);
    }
    ~Steps() { munmap(step_, sizeof *step_); }

    void Reach(int step) const { *step_ = step; }
    void Count() const { ++*step_; }
    int Get() const { return *step_; }

    /// False when the step is not reached in a time that no loaded machine needs.
    bool WaitFor(int step) const {
        return wait_until([this, step] { return *step_ >= step; });
    }

private:
    std::atomic<int>* step_;
};

class PZFileGuardProcessTest : public testing::Test {
protected:
    /// The messages of the error lines since the last call, those of the children included.
    Texts Messages() { return pztest::error_messages(output_.Take()); }

    std::unique_ptr<PZFileGuard> MakeGuard() const {
        return std::make_unique<PZFileGuard>(files_.Dir(), files_.Name());
    }
    std::unique_ptr<PZFileGuard> MakeSystem() const {
        auto guard = MakeGuard();
        EXPECT_TRUE(guard->initForSystem());
        return guard;
    }
    std::unique_ptr<PZFileGuard> MakeApp() const {
        auto guard = MakeGuard();
        EXPECT_TRUE(guard->initForApp());
        return guard;
    }

    /// The body of a system side that reaches step 1 when it serves, and ends at step 2.
    std::function<int()> SystemBetweenSteps1And2() const {
        return [this] {
            PZFileGuard guard(files_.Dir(), files_.Name());
            if (!guard.initForSystem()) return kFailed;
            steps_.Reach(1);
            return status_of(steps_.WaitFor(2) && guard.destroyMutex());
        };
    }

    /// The body of a side that reaches step 1 when it has locked, and does not end.
    std::function<int()> LockedForEver(bool (PZFileGuard::*init)()) const {
        return [this, init]() -> int {
            PZFileGuard guard(files_.Dir(), files_.Name());
            if (!(guard.*init)() || !guard.lock()) return kFailed;
            steps_.Reach(1);
            for (;;) pause();
        };
    }

    const GuardFiles files_;
    const Steps steps_;
    pztest::StdoutCapture output_;
};

TEST_F(PZFileGuardProcessTest, ServesAnApplicationThatStartsAfterTheSystemSide) {
    const auto system = MakeSystem();
    ChildProcess app([this] {
        PZFileGuard guard(files_.Dir(), files_.Name());
        return status_of(guard.initForApp() && guard.canLock() && guard.lock() && guard.lock() &&
                         guard.unlock() && guard.unlock());
    });
    EXPECT_EQ(kDone, app.Wait());
    EXPECT_TRUE(system->lock());
    EXPECT_TRUE(system->unlock());
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZFileGuardProcessTest, ServesAnApplicationThatStartsBeforeTheSystemSide) {
    files_.Make();
    const auto app = MakeApp();
    EXPECT_FALSE(app->lock());
    EXPECT_EQ(Texts{"error not initialized"}, Messages());

    ChildProcess system(SystemBetweenSteps1And2());
    EXPECT_TRUE(wait_until([&app] { return app->canLock(); }));
    EXPECT_TRUE(steps_.WaitFor(1));
    EXPECT_TRUE(app->lock());
    EXPECT_TRUE(app->unlock());
    steps_.Reach(2);
    EXPECT_EQ(kDone, system.Wait());
    EXPECT_FALSE(app->canLock());
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZFileGuardProcessTest, ServesAnApplicationThatStartsBeforeThereAreKeyFiles) {
    const auto app = MakeGuard();
    EXPECT_FALSE(app->initForApp());
    ChildProcess system(SystemBetweenSteps1And2());
    EXPECT_TRUE(steps_.WaitFor(1));
    Messages();
    EXPECT_TRUE(app->lock());
    EXPECT_TRUE(app->unlock());
    EXPECT_EQ(Texts{}, Messages());
    steps_.Reach(2);
    EXPECT_EQ(kDone, system.Wait());
}

TEST_F(PZFileGuardProcessTest, ShowsTheStatesOfTheInitFlagToOtherProcesses) {
    files_.Make();
    const auto app = MakeApp();
    const GuardSegment flag(files_.FlagFile());
    EXPECT_EQ(0, flag.Byte());
    ChildProcess system(SystemBetweenSteps1And2());
    ASSERT_TRUE(steps_.WaitFor(1));
    EXPECT_EQ(0xA5, flag.Byte());
    steps_.Reach(2);
    EXPECT_EQ(kDone, system.Wait());
    EXPECT_EQ(0xFF, flag.Byte());
    EXPECT_TRUE(flag.IsRemoved());
    EXPECT_FALSE(app->lock());
    EXPECT_EQ(Texts{"error not initialized"}, Messages());
}

TEST_F(PZFileGuardProcessTest, RefusesATryWhileAnotherProcessHoldsTheMutex) {
    const auto system = MakeSystem();
    ChildProcess app([this] {
        PZFileGuard guard(files_.Dir(), files_.Name());
        if (!guard.initForApp() || !guard.lock()) return kFailed;
        steps_.Reach(1);
        return status_of(steps_.WaitFor(2) && guard.unlock());
    });
    ASSERT_TRUE(steps_.WaitFor(1));
    EXPECT_FALSE(system->tryLock());
    EXPECT_EQ(Texts{"error"}, Messages());
    steps_.Reach(2);
    EXPECT_EQ(kDone, app.Wait());
    EXPECT_TRUE(system->tryLock());
    EXPECT_TRUE(system->unlock());
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZFileGuardProcessTest, LocksOnlyWhenTheOtherProcessHasUnlocked) {
    const auto system = MakeSystem();
    ASSERT_TRUE(system->lock());
    ChildProcess app([this] {
        PZFileGuard guard(files_.Dir(), files_.Name());
        if (!guard.initForApp()) return kFailed;
        steps_.Reach(1);
        const bool locked = guard.lock();
        const bool inTurn = steps_.Get() == 2;
        return status_of(locked && inTurn && guard.unlock());
    });
    EXPECT_TRUE(steps_.WaitFor(1));
    steps_.Reach(2);
    EXPECT_TRUE(system->unlock());
    EXPECT_EQ(kDone, app.Wait());
}

TEST_F(PZFileGuardProcessTest, LosesItsSystemSideWhileAnApplicationHoldsTheMutex) {
    const auto app = MakeGuard();
    ChildProcess system([this] {
        PZFileGuard guard(files_.Dir(), files_.Name());
        if (!guard.initForSystem()) return kFailed;
        steps_.Reach(1);
        if (!steps_.WaitFor(2) || guard.destroyMutex()) return kFailed;
        steps_.Reach(3);
        if (!steps_.WaitFor(4)) return kFailed;
        return status_of(guard.initForSystem() && guard.destroyMutex());
    });
    ASSERT_TRUE(steps_.WaitFor(1));
    ASSERT_TRUE(app->initForApp());
    EXPECT_TRUE(app->lock());
    steps_.Reach(2);
    ASSERT_TRUE(steps_.WaitFor(3));
    EXPECT_EQ((Texts{"PZFileGuard::destroyMutexForSystem() pthread_mutexattr_destroy() Failed. "
                     "[Device or resource busy]."}),
              Messages());
    EXPECT_TRUE(GuardSegment(files_.MutexFile()).Exists());

    EXPECT_FALSE(app->lock());
    EXPECT_EQ(Texts{"error not initialized"}, Messages());
    EXPECT_TRUE(app->unlock());
    steps_.Reach(4);
    EXPECT_EQ(kDone, system.Wait());
    EXPECT_FALSE(GuardSegment(files_.MutexFile()).Exists());
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZFileGuardProcessTest, KeepsTheSegmentsUntilTheLastApplicationDetaches) {
    const auto app = MakeGuard();
    ChildProcess system(SystemBetweenSteps1And2());
    ASSERT_TRUE(steps_.WaitFor(1));
    ASSERT_TRUE(app->initForApp());
    const int id = GuardSegment(files_.MutexFile()).Id();
    steps_.Reach(2);
    ASSERT_EQ(kDone, system.Wait());
    shmid_ds status = {};
    EXPECT_EQ(0, shmctl(id, IPC_STAT, &status));
    EXPECT_EQ(1U, status.shm_nattch);
    EXPECT_TRUE(app->destroyMutex());
    EXPECT_EQ(-1, shmctl(id, IPC_STAT, &status));
}

TEST_F(PZFileGuardProcessTest, LetsTheApplicationsInAgainWhenTheSystemSideStartsAgain) {
    {
        const auto first = MakeSystem();
        ChildProcess app([this] {
            PZFileGuard guard(files_.Dir(), files_.Name());
            return status_of(guard.initForApp() && guard.lock() && guard.unlock() &&
                             guard.destroyMutex());
        });
        EXPECT_EQ(kDone, app.Wait());
        EXPECT_TRUE(first->destroyMutex());
    }
    const auto second = MakeSystem();
    ChildProcess app([this] {
        PZFileGuard guard(files_.Dir(), files_.Name());
        return status_of(guard.initForApp() && guard.lock() && guard.unlock());
    });
    EXPECT_EQ(kDone, app.Wait());
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZFileGuardProcessTest, StaysLockedWhenItsOwnerDiesUntilTheSystemSideStartsAgain) {
    const auto system = MakeSystem();
    {
        const ChildProcess app(LockedForEver(&PZFileGuard::initForApp));
        ASSERT_TRUE(steps_.WaitFor(1));
    }
    EXPECT_FALSE(system->tryLock());
    EXPECT_EQ(Texts{"error"}, Messages());

    ChildProcess restarted([this] {
        PZFileGuard guard(files_.Dir(), files_.Name());
        if (!guard.initForSystem()) return kFailed;
        const bool locked = guard.tryLock() && guard.unlock();
        std::fflush(stdout);
        _exit(status_of(locked));  // the segments stay: the guard is not destroyed
    });
    EXPECT_EQ(kDone, restarted.Wait());
    EXPECT_TRUE(system->tryLock());
    EXPECT_TRUE(system->unlock());
    EXPECT_EQ(Texts{}, Messages());
}

constexpr std::chrono::seconds kPatience(20);

/// Whether the kernel shows the process as sleeping.
bool sleeps(pid_t pid) {
    const std::string status = pztest::read_file("/proc/" + std::to_string(pid) + "/stat");
    const size_t name = status.rfind(") ");
    return name != std::string::npos && status[name + 2] == 'S';
}

TEST_F(PZFileGuardProcessTest, FreesThoseWhoWaitWhenItsSystemSideIsKilledAndStartsAgain) {
    std::unique_ptr<ChildProcess> waiting[3];
    {
        const ChildProcess system(LockedForEver(&PZFileGuard::initForSystem));
        ASSERT_TRUE(steps_.WaitFor(1));
        for (auto& app : waiting) {
            app = std::make_unique<ChildProcess>([this] {
                PZFileGuard guard(files_.Dir(), files_.Name());
                return status_of(guard.initForApp() && guard.lock() && guard.unlock());
            });
        }
        const GuardSegment mutex(files_.MutexFile());
        ASSERT_TRUE(wait_until([&mutex] { return mutex.MutexWord() == 2; }));
        for (const auto& app : waiting) {
            ASSERT_TRUE(wait_until([&app] { return sleeps(app->Pid()); }));
        }
    }
    ChildProcess restarted([this] {
        PZFileGuard guard(files_.Dir(), files_.Name());
        if (!guard.initForSystem()) return kFailed;
        steps_.Reach(2);
        return status_of(steps_.WaitFor(3) && guard.lock() && guard.unlock());
    });
    EXPECT_TRUE(steps_.WaitFor(2));
    for (const auto& app : waiting) {
        EXPECT_EQ(kDone, app->Wait(kPatience));
    }
    steps_.Reach(3);
    EXPECT_EQ(kDone, restarted.Wait());
}

// --- Forked children ---

TEST_F(PZFileGuardProcessTest, AForkedChildThatEndsLeavesTheSystemSideOfItsParent) {
    const auto system = MakeSystem();
    const auto app = MakeApp();
    ChildProcess child([&system, &app] {
        const_cast<std::unique_ptr<PZFileGuard>&>(app).reset();
        const_cast<std::unique_ptr<PZFileGuard>&>(system).reset();  // as its exit does
        return kDone;
    });
    EXPECT_EQ(kDone, child.Wait());
    EXPECT_TRUE(app->lock());
    EXPECT_TRUE(app->unlock());
    EXPECT_TRUE(GuardSegment(files_.MutexFile()).Exists());
    EXPECT_FALSE(GuardSegment(files_.MutexFile()).IsRemoved());
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZFileGuardProcessTest, AForkedChildMayEndTheSystemSideInItsParentsPlace) {
    ChildProcess parent([this] {
        PZFileGuard guard(files_.Dir(), files_.Name());
        if (!guard.initForSystem()) return kFailed;
        const pid_t daemon = fork();  // outlives the process that made it
        if (daemon != 0) _exit(kDone);
        steps_.Reach(guard.lock() && guard.unlock() && guard.destroyMutex() ? 1 : 2);
        _exit(kDone);
    });
    EXPECT_EQ(kDone, parent.Wait());
    EXPECT_TRUE(steps_.WaitFor(1));
    EXPECT_EQ(1, steps_.Get());
    EXPECT_FALSE(GuardSegment(files_.MutexFile()).Exists());
}

// --- Other programs that write over the segments ---

TEST_F(PZFileGuardProcessTest, DoesNotEndTheProcessWhateverStandsInItsMutex) {
    constexpr unsigned int kSeeds = 200;
    std::vector<unsigned int> ended;
    for (unsigned int seed = 0; seed < kSeeds; ++seed) {
        const pztest::ChildResult child = pztest::run_in_child([this, seed] {
            PZFileGuard guard(files_.Dir(), files_.Name());
            if (!guard.initForSystem()) return kFailed;
            GuardSegment segment(files_.MutexFile());
            pthread_mutex_t* const mutex = segment.Mutex();
            const pthread_mutex_t fresh = *mutex;
            std::mt19937 random(seed);
            for (size_t i = 0; i < sizeof *mutex; ++i) {
                reinterpret_cast<unsigned char*>(mutex)[i] = static_cast<unsigned char>(random());
            }
            if (seed % 2 == 1) mutex->__data.__kind = fresh.__data.__kind;
            if (seed % 4 == 3) mutex->__data.__lock = 0;
            const itimerval limit = {{}, {0, 20000}};  // nobody gives back what is held
            setitimer(ITIMER_REAL, &limit, nullptr);
            if (guard.lock()) guard.unlock();
            if (guard.tryLock()) guard.unlock();
            guard.unlock();
            guard.destroyMutex();
            return kDone;
        });
        const bool isHeld = !child.exited && child.status == SIGALRM;
        if (!isHeld && (!child.exited || child.status != kDone)) ended.push_back(seed);
    }
    EXPECT_EQ(std::vector<unsigned int>{}, ended);
}

// --- Many processes, one file ---

constexpr int kProcesses = 100;

/// The contended file: a number, and the same number once more. A process that adds one reads both
/// numbers, and writes them one after the other: two at once would lose a count or leave two
/// different numbers behind.
class CounterFile {
public:
    explicit CounterFile(std::string path) : path_(std::move(path)) { Write(0); }

    /// The number; -1 when the two differ.
    long Read() const {
        std::ifstream file(path_);
        long first = -1;
        long second = -2;
        file >> first >> second;
        return first == second ? first : -1;
    }

    void Write(long number) const {
        std::ofstream file(path_, std::ios::trunc);
        file << number << '\n' << std::flush;
        file << number << '\n';
    }

private:
    const std::string path_;
};

class PZFileGuardContentionTest : public PZFileGuardProcessTest {
protected:
    /// One of the contending processes: adds one to the file while `wantsMore` says so, and adds
    /// its rounds to the total at the end.
    int Contend(const CounterFile& file, const std::function<bool(int round)>& wantsMore) const {
        PZFileGuard guard(files_.Dir(), files_.Name());
        if (!guard.initForApp()) return kFailed;
        ready_.Count();
        if (!start_.WaitFor(1)) return kFailed;
        for (int round = 0; wantsMore(round); ++round) {
            if (!guard.lock()) return kFailed;
            const long number = file.Read();
            if (number != -1) file.Write(number + 1);
            if (!guard.unlock() || number == -1) return kFailed;
            total_.Count();
        }
        return status_of(guard.destroyMutex());
    }

    /// Lets a hundred processes contend; the content of the file must be the sum of their rounds.
    void RunContention(const std::function<bool(int round)>& wantsMore) {
        const auto system = MakeSystem();
        const pztest::TempDir dir;
        const CounterFile file(dir.File("counter"));
        std::vector<std::unique_ptr<ChildProcess>> children;
        for (int i = 0; i < kProcesses; ++i) {
            children.push_back(std::make_unique<ChildProcess>(
                [this, &file, &wantsMore] { return Contend(file, wantsMore); }));
        }
        EXPECT_TRUE(ready_.WaitFor(kProcesses));
        start_.Reach(1);
        for (const auto& child : children) EXPECT_EQ(kDone, child->Wait());
        EXPECT_EQ(total_.Get(), file.Read());
        EXPECT_TRUE(system->destroyMutex());
        EXPECT_EQ(Texts{}, Messages());
    }

    const Steps ready_;  // processes that are attached
    const Steps start_;
    const Steps total_;  // rounds of all processes
};

TEST_F(PZFileGuardContentionTest, KeepsAFileConsistentUnderAHundredProcesses) {
    constexpr int kRounds = 20;
    RunContention([](int round) { return round < kRounds; });
    EXPECT_EQ(kProcesses * kRounds, total_.Get());
}

// A long run: PZ_GUARD_SECONDS=10 PZFileGuardProcessTest --gtest_filter='*Seconds*'
TEST_F(PZFileGuardContentionTest, KeepsAFileConsistentForSecondsOnDemand) {
    const char* const text = std::getenv("PZ_GUARD_SECONDS");
    const std::chrono::seconds seconds(text != nullptr ? std::strtol(text, nullptr, 10) : 1);
    ASSERT_LT(0, seconds.count());
    using Clock = std::chrono::steady_clock;
    RunContention([seconds, end = Clock::time_point()](int round) mutable {
        if (round == 0) end = Clock::now() + seconds;
        return Clock::now() < end;
    });
    EXPECT_LE(kProcesses, total_.Get());
    RecordProperty("rounds", total_.Get());
}

}  // namespace
