#include "Framework/Foundation/PZSync.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/CancelledStack.h"
#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/ProcessSignal.h"
#include "support/StdoutCapture.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(sem_wait, 1);
PZ_INTERPOSE(sem_timedwait, 2);
PZ_INTERPOSE(sem_post, 1);
PZ_INTERPOSE(sem_destroy, 1);
PZ_INTERPOSE(sem_close, 1);
PZ_INTERPOSE(sem_unlink, 1);
PZ_INTERPOSE(clock_gettime, 2);

// Clang's analysis follows neither recursion nor locks that other threads give back.
#if defined(__clang__)
#pragma clang diagnostic ignored "-Wthread-safety-analysis"
#endif

namespace {

using pztest::StdoutCapture;

constexpr unsigned int kNoTimeLimit = 0xFFFFFFFFU;
constexpr PZSync::EN_TYPE kNamed = PZSync::en_TYPE_NAMED;
constexpr PZSync::EN_TYPE kUnnamed = PZSync::en_TYPE_UNNAMED;
constexpr auto kUnknownType = static_cast<PZSync::EN_TYPE>(2);

pztest::Interposed<int(sem_t*, int, unsigned int)> sem_init_call("sem_init");

/// What the last sem_init, and the last sem_open, were asked for.
struct {
    sem_t* semaphore;
    int shared;
    unsigned int value;
} initialised;

struct {
    int calls;
    int error;  // not 0: every call fails with it
    std::string name;
    int flags;
    mode_t mode;
    unsigned int value;
} opened;

// Memory. Once armed, this thread's next request of exactly a semaphore's size fails.
thread_local bool no_memory_for_semaphore = false;
thread_local const void* watched_memory = nullptr;
thread_local int watched_frees = 0;

}  // namespace

extern "C" {

// The C library's own functions behind those that this program replaces: the sanitizer's, if any.
void* __libc_malloc(size_t size);
void __libc_free(void* memory);
void* __interceptor_malloc(size_t size) __attribute__((weak));
void __interceptor_free(void* memory) __attribute__((weak));
void __lsan_disable() __attribute__((weak));
void __lsan_enable() __attribute__((weak));

// Called before the sanitizer is ready, too.
__attribute__((no_sanitize("address", "thread", "undefined"))) void* malloc(size_t size) noexcept {
    if (no_memory_for_semaphore && size == sizeof(sem_t)) {
        no_memory_for_semaphore = false;
        errno = ENOMEM;
        return nullptr;
    }
    return __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
}

__attribute__((no_sanitize("address", "thread", "undefined"))) void free(void* ptr) noexcept {
    if (ptr != nullptr && ptr == watched_memory) ++watched_frees;
    if (__interceptor_free != nullptr) {
        __interceptor_free(ptr);
    } else {
        __libc_free(ptr);
    }
}

int sem_init(sem_t* sem, int pshared, unsigned int value) noexcept {
    initialised = {sem, pshared, value};
    return sem_init_call(sem, pshared, value);
}

sem_t* sem_open(const char* name, int oflag, ...) noexcept {
    using Function = sem_t* (*)(const char*, int, ...);
    static const auto real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "sem_open"));
    if ((oflag & O_CREAT) == 0) return real(name, oflag);  // the tests' own

    va_list args;
    va_start(args, oflag);
    // The analyzer does not see what va_start does.
    const auto mode = va_arg(args, mode_t);  // NOLINT(clang-analyzer-valist.Uninitialized)
    const auto value = va_arg(args, unsigned int);
    va_end(args);
    opened = {opened.calls + 1, opened.error, name, oflag, mode, value};
    if (opened.error != 0) {
        errno = opened.error;
        return SEM_FAILED;
    }
    return real(name, oflag, mode, value);
}

}  // extern "C"

namespace {

timespec clock_answer;
std::vector<clockid_t> clocks_read;
std::vector<timespec> deadlines;

/// A name for the system's semaphores that no other process uses; removed at the end.
class SemaphoreName : private pztest::Uncopyable {
public:
    explicit SemaphoreName(size_t length = 24) : name_("pz_sync_" + std::to_string(getpid())) {
        name_.resize(length, 'x');
    }
    ~SemaphoreName() { sem_unlink_call.Real(Path().c_str()); }

    const char* Get() const { return name_.c_str(); }
    std::string Path() const { return "/" + name_; }

    /// Makes the system's semaphore of this name, as another process would.
    void Make(unsigned int value) const {
        sem_t* const semaphore = sem_open(Path().c_str(), O_CREAT, 0777, value);
        ASSERT_NE(SEM_FAILED, semaphore);
        sem_close(semaphore);
    }

    bool Exists() const {
        sem_t* const semaphore = sem_open(Path().c_str(), 0);
        if (semaphore == SEM_FAILED) return false;
        sem_close(semaphore);
        return true;
    }

private:
    std::string name_;
};

template <typename Body>
auto in_other_thread(Body body) {
    std::invoke_result_t<Body> result{};
    std::thread([&result, &body] { result = body(); }).join();
    return result;
}

/// What another thread's single attempt answers; what it got, it gives back.
unsigned int try_elsewhere(PZSync& sync) {
    return in_other_thread([&sync] {
        const unsigned int result = sync.Lock(0);
        if (result == 0) sync.Unlock();
        return result;
    });
}

std::string stored_name(const PZSync& sync) {
    const char* const record = reinterpret_cast<const char*>(&sync);
    return std::string(record + sizeof(sem_t*) + sizeof(PZSync::EN_TYPE), 32);
}

std::string zero_filled(const std::string& name) {
    std::string field = name;
    field.resize(32, '\0');
    return field;
}

std::string error_text(const char* what, int error) {
    return std::string(what) + " : errno[" + std::to_string(error) + " : " + std::strerror(error) +
           "]";
}

class PZSyncTest : public testing::Test {
protected:
    // The first call stack of a process loads the unwinder, for good. The leak sanitizer tells the
    // loader's memory by the caller of malloc, which is this program's own one here.
    static void SetUpTestSuite() {
        if (__lsan_disable != nullptr) __lsan_disable();
        void* frame = nullptr;
        backtrace(&frame, 1);
        if (__lsan_enable != nullptr) __lsan_enable();
    }

    PZSyncTest() {
        sem_init_call.Reset();  // the library's own locks were made before
        sem_wait_call.Reset();
        sem_timedwait_call.Reset();
        sem_post_call.Reset();
        sem_destroy_call.Reset();
        sem_close_call.Reset();
        sem_unlink_call.Reset();
        clock_gettime_call.Reset();
        initialised = {};
        opened = {};
        clocks_read.clear();
        deadlines.clear();
    }

    /// The messages of the error lines since the last call.
    std::vector<std::string> Messages() { return pztest::error_messages(output_.Take()); }

    /// Locks in vain: a wait without a limit fails with `error` at the system call of that number.
    void ExpectLockFails(PZSync& sync, int calls, int error) {
        EXPECT_EQ(2U, sync.Lock(kNoTimeLimit));
        EXPECT_EQ(calls, sem_wait_call.Calls());
        EXPECT_EQ(error_text("create error", error), ReportOf("Lock"));
    }

    /// Like Messages, for a single report of `function` about which the place is checked, too.
    std::string ReportOf(const char* function) {
        const std::string text = output_.Take();
        const std::vector<std::string> messages = pztest::error_messages(text);
        if (messages.size() != 1) return std::to_string(messages.size()) + " reports";
        EXPECT_TRUE(pztest::has_report(text, function, "PZSync.cpp", messages[0])) << text;
        return messages[0];
    }

    StdoutCapture output_;
};

using Texts = std::vector<std::string>;

// --- Construction ---

TEST_F(PZSyncTest, IsPrivateToTheProcessAndFreeByDefault) {
    PZSync sync;
    EXPECT_EQ(1, sem_init_call.Calls());
    EXPECT_EQ(0, initialised.shared);
    EXPECT_EQ(1U, initialised.value);
    EXPECT_EQ(0, opened.calls);
    EXPECT_EQ(zero_filled(""), stored_name(sync));
    EXPECT_EQ(0U, try_elsewhere(sync));
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZSyncTest, OnlyStoresTheNameOfAPrivateLock) {
    PZSync first("box", kUnnamed);
    PZSync second("box", kUnnamed);
    EXPECT_EQ(2, sem_init_call.Calls());
    EXPECT_EQ(0, initialised.shared);
    EXPECT_EQ(1U, initialised.value);
    EXPECT_EQ(0, opened.calls);
    EXPECT_EQ(zero_filled("box"), stored_name(first));
    EXPECT_EQ(0U, first.Lock(0));
    EXPECT_EQ(0U, try_elsewhere(second));
}

TEST_F(PZSyncTest, OpensTheSystemsSemaphoreOfANamedLock) {
    const SemaphoreName name;
    PZSync sync(name.Get(), kNamed);
    EXPECT_EQ(1, opened.calls);
    EXPECT_EQ(name.Path(), opened.name);
    EXPECT_EQ(O_CREAT, opened.flags);
    EXPECT_EQ(0777U, opened.mode);
    EXPECT_EQ(1U, opened.value);
    EXPECT_EQ(0, sem_init_call.Calls());
    EXPECT_EQ(0U, try_elsewhere(sync));
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZSyncTest, OpensALongNameWholeAndStoresItsFirst32Characters) {
    for (const size_t length : {31U, 32U, 33U, 200U}) {
        SCOPED_TRACE(length);
        const SemaphoreName name(length);
        PZSync sync(name.Get(), kNamed);
        EXPECT_EQ(name.Path(), opened.name);
        EXPECT_EQ(zero_filled(name.Get()), stored_name(sync));
        EXPECT_EQ(0U, try_elsewhere(sync));  // the owner beside the name is still "free"
    }
}

TEST_F(PZSyncTest, IsNotCreatedWithANameThatTheSystemRefuses) {
    const std::string name(300, 'n');
    PZSync sync(name.c_str(), kNamed);
    EXPECT_EQ(1U, pztest::count_of(ReportOf("PZSync"), "create error : errno["));
    EXPECT_EQ(2U, sync.Lock(0));
}

TEST_F(PZSyncTest, ReportsWhatTheSystemSaysOfAnyLongNameAsAWhole) {
    for (const size_t length : {255U, 256U, 300U, 5000U}) {
        const std::string name(length, 'n');
        ASSERT_EQ(SEM_FAILED, sem_open(("/" + name).c_str(), O_CREAT, 0777, 1));
        const int error = errno;
        const PZSync sync(name.c_str(), kNamed);
        EXPECT_EQ(error_text("create error", error), ReportOf("PZSync")) << length;
    }
}

TEST_F(PZSyncTest, OpensAnExistingSemaphoreAsItIs) {
    const SemaphoreName name;
    name.Make(0);
    PZSync sync(name.Get(), kNamed);
    EXPECT_EQ(1U, sync.Lock(0));
    sync.Unlock();
    EXPECT_EQ(0U, sync.Lock(0));
}

TEST_F(PZSyncTest, IsNotCreatedWithoutAName) {
    for (const PZSync::EN_TYPE type : {kNamed, kUnnamed, kUnknownType}) {
        SCOPED_TRACE(type);
        PZSync sync(nullptr, type);
        EXPECT_EQ("invalid arg : name is null", ReportOf("PZSync"));
        EXPECT_EQ(2U, sync.Lock(0));
        Messages();
    }
    EXPECT_EQ(0, opened.calls);
    EXPECT_EQ(0, sem_init_call.Calls());
}

TEST_F(PZSyncTest, IsNotCreatedWithAnUnknownType) {
    PZSync sync("name", kUnknownType);
    EXPECT_EQ("invalid arg", ReportOf("PZSync"));
    EXPECT_EQ(2U, sync.Lock(0));
    EXPECT_EQ(0, opened.calls);
    EXPECT_EQ(0, sem_init_call.Calls());
}

TEST_F(PZSyncTest, IsNotCreatedWhenTheSystemDoesNotOpenTheSemaphore) {
    opened.error = EACCES;
    {
        PZSync sync("refused", kNamed);
        EXPECT_EQ(error_text("create error", EACCES), ReportOf("PZSync"));
        EXPECT_EQ(2U, sync.Lock(0));
    }
    EXPECT_EQ(0, sem_close_call.Calls());
    EXPECT_EQ(0, sem_destroy_call.Calls());
}

TEST_F(PZSyncTest, IsNotCreatedWithoutMemory) {
    no_memory_for_semaphore = true;
    PZSync plain;
    EXPECT_EQ(error_text("create error", ENOMEM), ReportOf("PZSync"));
    no_memory_for_semaphore = true;
    PZSync named("box", kUnnamed);
    EXPECT_EQ(error_text("create error", ENOMEM), ReportOf("PZSync"));
    EXPECT_EQ(2U, plain.Lock(0));
    EXPECT_EQ(2U, named.Lock(0));
    EXPECT_EQ(0, sem_init_call.Calls());
}

// The failing sem_init has seen the memory: it must be given back at once, and only once.
int refuse_and_watch(sem_t* semaphore, int, unsigned int) {
    watched_memory = semaphore;
    watched_frees = 0;
    errno = ENOSPC;
    return -1;
}

TEST_F(PZSyncTest, IsNotCreatedWhenTheSemaphoreCannotBeInitialised) {
    sem_init_call.Replace(refuse_and_watch);
    {
        PZSync sync;
        const int frees = watched_frees;
        watched_memory = nullptr;
        EXPECT_EQ(1, frees);
        EXPECT_EQ(error_text("sem_init", ENOSPC), ReportOf("PZSync"));
        EXPECT_EQ(2U, sync.Lock(0));
        Messages();
    }
    {
        PZSync sync("box", kUnnamed);
        const int frees = watched_frees;
        watched_memory = nullptr;
        EXPECT_EQ(1, frees);
        EXPECT_EQ(error_text("sem_init", ENOSPC), ReportOf("PZSync"));
        EXPECT_EQ(2U, sync.Lock(0));
    }
    EXPECT_EQ(0, sem_destroy_call.Calls());
}

TEST_F(PZSyncTest, CannotBeCopied) {
    EXPECT_FALSE(std::is_copy_constructible_v<PZSync>);
    EXPECT_FALSE(std::is_copy_assignable_v<PZSync>);
    EXPECT_FALSE(std::is_polymorphic_v<PZSync>);
}

TEST_F(PZSyncTest, TypeNamedIs0AndTypeUnnamedIs1) {
    EXPECT_EQ(0, PZSync::en_TYPE_NAMED);
    EXPECT_EQ(1, PZSync::en_TYPE_UNNAMED);
    EXPECT_EQ(4U, sizeof(PZSync::EN_TYPE));
}

// --- Destruction ---

int frees_before_destroy = -1;

int note_frees(sem_t* semaphore) {
    frees_before_destroy = watched_frees;
    return sem_destroy_call.Real(semaphore);
}

TEST_F(PZSyncTest, DestroysThenFreesAPrivateSemaphore) {
    sem_destroy_call.Replace(note_frees);
    {
        PZSync sync;
        watched_memory = initialised.semaphore;
        watched_frees = 0;
    }
    watched_memory = nullptr;
    EXPECT_EQ(1, sem_destroy_call.Calls());
    EXPECT_EQ(0, frees_before_destroy);
    EXPECT_EQ(1, watched_frees);
    EXPECT_EQ(0, sem_close_call.Calls());
}

TEST_F(PZSyncTest, ClosesANamedSemaphoreAndLeavesItInTheSystem) {
    const SemaphoreName name;
    { PZSync sync(name.Get(), kNamed); }
    EXPECT_EQ(1, sem_close_call.Calls());
    EXPECT_EQ(0, sem_destroy_call.Calls());
    EXPECT_EQ(0, sem_unlink_call.Calls());
    EXPECT_TRUE(name.Exists());
}

TEST_F(PZSyncTest, LeavesANamedSemaphoreLockedWhenItIsDestroyedLocked) {
    const SemaphoreName name;
    {
        PZSync sync(name.Get(), kNamed);
        EXPECT_EQ(0U, sync.Lock(0));
    }
    PZSync next(name.Get(), kNamed);
    EXPECT_EQ(1U, next.Lock(0));
}

TEST_F(PZSyncTest, DestroysNothingWhenItWasNotCreated) {
    { PZSync sync("name", kUnknownType); }
    { PZSync sync(nullptr, kNamed); }
    EXPECT_EQ(0, sem_close_call.Calls());
    EXPECT_EQ(0, sem_destroy_call.Calls());
}

// --- Lock and Unlock ---

TEST_F(PZSyncTest, ExcludesOtherThreadsUntilTheLastUnlock) {
    PZSync sync;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(0U, sync.Lock(kNoTimeLimit));
    EXPECT_EQ(1U, try_elsewhere(sync));
    sync.Unlock();
    EXPECT_EQ(1U, try_elsewhere(sync));
    sync.Unlock();
    EXPECT_EQ(1U, try_elsewhere(sync));
    EXPECT_EQ(0, sem_post_call.Calls());
    sync.Unlock();
    EXPECT_EQ(1, sem_post_call.Calls());
    EXPECT_EQ(0U, try_elsewhere(sync));
}

TEST_F(PZSyncTest, RecognisesItsOwnerWithAnyTimeoutAndWithoutTheSemaphore) {
    PZSync sync;
    EXPECT_EQ(0U, sync.Lock(kNoTimeLimit));
    EXPECT_EQ(0U, sync.Lock(0));
    EXPECT_EQ(0U, sync.Lock(1));
    EXPECT_EQ(0U, sync.Lock(kNoTimeLimit));
    EXPECT_EQ(1, sem_wait_call.Calls());
    EXPECT_EQ(0, sem_timedwait_call.Calls());
    for (int i = 0; i < 4; ++i) sync.Unlock();
    EXPECT_EQ(1, sem_post_call.Calls());
    EXPECT_EQ(0U, try_elsewhere(sync));
}

TEST_F(PZSyncTest, CanBeLockedAgainAfterTheLastUnlock) {
    PZSync sync;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0U, sync.Lock(kNoTimeLimit));
        EXPECT_EQ(1U, try_elsewhere(sync));
        sync.Unlock();
        EXPECT_EQ(0U, try_elsewhere(sync));
    }
    EXPECT_EQ(3, sem_wait_call.Calls());
}

TEST_F(PZSyncTest, LetsAWaitingThreadInAtTheUnlock) {
    PZSync sync;
    ASSERT_EQ(0U, sync.Lock(kNoTimeLimit));
    std::atomic<bool> acquired{false};
    std::thread waiter([&] {
        EXPECT_EQ(0U, sync.Lock(kNoTimeLimit));
        acquired = true;
        sync.Unlock();
    });
    EXPECT_TRUE(pztest::wait_until([] { return sem_wait_call.Calls() == 2; }));
    EXPECT_FALSE(acquired);
    sync.Unlock();
    waiter.join();
    EXPECT_TRUE(acquired);
}

TEST_F(PZSyncTest, LetsAThreadWithATimeLimitInAtTheUnlock) {
    PZSync sync;
    ASSERT_EQ(0U, sync.Lock(kNoTimeLimit));
    unsigned int result = 99;
    std::thread waiter([&] {
        result = sync.Lock(600000);
        sync.Unlock();
    });
    EXPECT_TRUE(pztest::wait_until([] { return sem_timedwait_call.Calls() == 1; }));
    sync.Unlock();
    waiter.join();
    EXPECT_EQ(0U, result);
}

TEST_F(PZSyncTest, TriesOnceWithATimeoutOfZero) {
    PZSync sync;
    EXPECT_EQ(0U, sync.Lock(0));
    EXPECT_EQ(1, sem_timedwait_call.Calls());
    EXPECT_EQ(1U, in_other_thread([&sync] { return sync.Lock(0); }));
    EXPECT_EQ(2, sem_timedwait_call.Calls());
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZSyncTest, TimesOutOnTheWallClockWithoutAReport) {
    PZSync sync;
    ASSERT_EQ(0U, sync.Lock(kNoTimeLimit));
    const long long elapsedNs = in_other_thread([&sync] {
        timespec begin = {};
        timespec end = {};
        clock_gettime(CLOCK_REALTIME, &begin);
        EXPECT_EQ(1U, sync.Lock(1500));
        clock_gettime(CLOCK_REALTIME, &end);
        return (end.tv_sec - begin.tv_sec) * 1000000000LL + (end.tv_nsec - begin.tv_nsec);
    });
    EXPECT_GE(elapsedNs, 1500000000LL);
    EXPECT_LT(elapsedNs, 60000000000LL);
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZSyncTest, IsNotHeldAfterATimeOut) {
    PZSync sync;
    ASSERT_EQ(0U, sync.Lock(kNoTimeLimit));
    in_other_thread([&sync] {
        EXPECT_EQ(1U, sync.Lock(0));
        EXPECT_EQ(1U, sync.Lock(0));  // not mistaken for a recursion
        return 0;
    });
    sync.Unlock();
    EXPECT_EQ(0U, try_elsewhere(sync));
}

TEST_F(PZSyncTest, KeepsAPlainCounterExactUnderEightThreads) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 5000;
    PZSync sync;
    int counter = 0;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&sync, &counter, i] {
            for (int round = 0; round < kRounds; ++round) {
                const bool limited = (i + round) % 2 == 0;
                ASSERT_EQ(0U, sync.Lock(limited ? 600000 : kNoTimeLimit));
                ASSERT_EQ(0U, sync.Lock(0));
                ++counter;
                sync.Unlock();
                sync.Unlock();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kThreads * kRounds, counter);
}

// --- Limited waits ---

int answer_clock(clockid_t clock, timespec* now) {
    clocks_read.push_back(clock);
    *now = clock_answer;
    return 0;
}

int note_deadline(sem_t*, const timespec* deadline) {
    deadlines.push_back(*deadline);
    return 0;
}

int interrupt_three_times(sem_t*, const timespec* deadline) {
    deadlines.push_back(*deadline);
    if (deadlines.size() > 3) return 0;
    errno = EINTR;
    return -1;
}

TEST_F(PZSyncTest, WaitsUntilTheExactDeadline) {
    constexpr struct {
        timespec now;
        unsigned int timeout;
        timespec deadline;
    } kRows[] = {
        // now               timeout       deadline
        {{100, 0}, 0, {100, 0}},
        {{100, 999999999}, 0, {100, 999999999}},
        {{100, 0}, 1, {100, 1000000}},
        {{100, 998999999}, 1, {100, 999999999}},
        {{100, 999000000}, 1, {101, 0}},
        {{100, 999999999}, 1, {101, 999999}},
        {{100, 0}, 999, {100, 999000000}},
        {{100, 999999999}, 999, {101, 998999999}},
        {{100, 999999999}, 1000, {101, 999999999}},
        {{100, 500000000}, 1500, {102, 0}},
        {{100, 250000000}, 5000, {105, 250000000}},
        {{100, 0}, 0xFFFFFFFEU, {4295067, 294000000}},
        {{100, 999999999}, 0xFFFFFFFEU, {4295068, 293999999}},
    };
    PZSync sync;
    clock_gettime_call.Replace(answer_clock);
    sem_timedwait_call.Replace(note_deadline);
    for (const auto& row : kRows) {
        clock_answer = row.now;
        ASSERT_EQ(0U, sync.Lock(row.timeout));
        sync.Unlock();
    }
    clock_gettime_call.Reset();
    ASSERT_EQ(std::size(kRows), deadlines.size());
    for (size_t i = 0; i < deadlines.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(kRows[i].deadline.tv_sec, deadlines[i].tv_sec);
        EXPECT_EQ(kRows[i].deadline.tv_nsec, deadlines[i].tv_nsec);
        EXPECT_EQ(CLOCK_REALTIME, clocks_read[i]);
    }
}

TEST_F(PZSyncTest, KeepsItsDeadlineThroughInterruptions) {
    PZSync sync;
    sem_timedwait_call.Replace(interrupt_three_times);
    EXPECT_EQ(0U, sync.Lock(700));
    ASSERT_EQ(4U, deadlines.size());
    for (const timespec& deadline : deadlines) {
        EXPECT_EQ(deadlines[0].tv_sec, deadline.tv_sec);
        EXPECT_EQ(deadlines[0].tv_nsec, deadline.tv_nsec);
    }
    EXPECT_EQ(Texts{}, Messages());
}

// --- Failing waits ---

TEST_F(PZSyncTest, WaitsOnThroughInterruptions) {
    PZSync sync;
    sem_wait_call.FailNext(EINTR, 3);
    EXPECT_EQ(0U, sync.Lock(kNoTimeLimit));
    EXPECT_EQ(4, sem_wait_call.Calls());
    EXPECT_EQ(1U, try_elsewhere(sync));
    EXPECT_EQ(Texts{}, Messages());
}

TEST_F(PZSyncTest, ReportsAFailedWait) {
    PZSync sync;
    sem_wait_call.FailNext(EINVAL);
    ExpectLockFails(sync, 1, EINVAL);
    EXPECT_EQ(0U, try_elsewhere(sync));
}

int interrupt_then_fail(sem_t*) {
    errno = sem_wait_call.Calls() <= 2 ? EINTR : EINVAL;
    return -1;
}

TEST_F(PZSyncTest, ReportsAWaitThatFailsAfterInterruptions) {
    PZSync sync;
    sem_wait_call.Replace(interrupt_then_fail);
    ExpectLockFails(sync, 3, EINVAL);
}

TEST_F(PZSyncTest, ReportsATimeOutOfAWaitWithoutALimit) {
    PZSync sync;
    sem_wait_call.FailNext(ETIMEDOUT);
    ExpectLockFails(sync, 1, ETIMEDOUT);
}

TEST_F(PZSyncTest, ReportsAFailedLimitedWait) {
    PZSync sync;
    sem_timedwait_call.FailNext(EINVAL);
    EXPECT_EQ(2U, sync.Lock(100));
    EXPECT_EQ(1, sem_timedwait_call.Calls());
    EXPECT_EQ(error_text("create error", EINVAL), ReportOf("Lock"));
    EXPECT_EQ(0U, try_elsewhere(sync));
}

/// As the wall clock of a 32-bit program from 2038 on.
int overflow_on_the_wall_clock(clockid_t clock, timespec* now) {
    if (clock != CLOCK_REALTIME) return clock_gettime_call.Real(clock, now);
    errno = EOVERFLOW;
    return -1;
}

/// Near the last second that the clock can tell.
int end_of_the_wall_clock(clockid_t clock, timespec* now) {
    const int result = clock_gettime_call.Real(clock, now);
    if (clock == CLOCK_REALTIME) now->tv_sec = std::numeric_limits<time_t>::max();
    return result;
}

TEST_F(PZSyncTest, WaitsItsTimeWhereTheWallClockHasNoRoomForTheDeadline) {
    for (const auto clock : {overflow_on_the_wall_clock, end_of_the_wall_clock}) {
        PZSync sync;
        ASSERT_EQ(0U, sync.Lock(kNoTimeLimit));
        clock_gettime_call.Replace(clock);
        std::atomic<unsigned int> result{99};
        std::atomic<long long> waitedMs{0};
        std::thread waiter([&] {
            timespec start = {};
            timespec end = {};
            clock_gettime_call.Real(CLOCK_MONOTONIC, &start);
            result = sync.Lock(1100);
            clock_gettime_call.Real(CLOCK_MONOTONIC, &end);
            waitedMs =
                (end.tv_sec - start.tv_sec) * 1000LL + (end.tv_nsec - start.tv_nsec) / 1000000;
        });
        waiter.join();
        EXPECT_EQ(1U, result);
        EXPECT_GE(waitedMs, 1099);
        sync.Unlock();
        EXPECT_EQ(0U, sync.Lock(1100));
        sync.Unlock();
        clock_gettime_call.Reset();
    }
}

TEST_F(PZSyncTest, TheTimeOutOfALimitedWaitIsNotReported) {
    PZSync sync;
    sem_timedwait_call.FailNext(ETIMEDOUT);
    EXPECT_EQ(1U, sync.Lock(100));
    EXPECT_EQ(Texts{}, Messages());
}

// --- A lock that was not created ---

void expect_report_and_ten_frames(const std::string& output, const char* operation) {
    EXPECT_TRUE(pztest::has_report(output, operation, "PZSync.cpp", "handle is not created"));
    const Texts messages = pztest::error_messages(output);
    ASSERT_EQ(11U, messages.size()) << output;
    EXPECT_EQ("handle is not created", messages[0]);
    EXPECT_TRUE(pztest::has_report(output, "dumpDirectly", "PZCallStack.cpp", messages[1]));
}

TEST_F(PZSyncTest, AnswersEveryLockWithAReportAndTheCallStackWhenItWasNotCreated) {
    PZSync sync(nullptr, kNamed);
    Messages();
    for (const unsigned int timeout : {0U, 100U, kNoTimeLimit}) {
        SCOPED_TRACE(timeout);
        EXPECT_EQ(2U, sync.Lock(timeout));
        expect_report_and_ten_frames(output_.Take(), "Lock");
    }
    EXPECT_EQ(0, sem_wait_call.Calls());
    EXPECT_EQ(0, sem_timedwait_call.Calls());
}

TEST_F(PZSyncTest, ReportsAnUnlockWithTheCallStackWhenItWasNotCreated) {
    PZSync sync(nullptr, kUnnamed);
    Messages();
    sync.Unlock();
    expect_report_and_ten_frames(output_.Take(), "Unlock");
    EXPECT_EQ(0, sem_post_call.Calls());
}

// --- Unlock does not ask who calls it ---

TEST_F(PZSyncTest, IsGivenBackByAnotherThread) {
    PZSync sync;
    ASSERT_EQ(0U, sync.Lock(kNoTimeLimit));
    ASSERT_EQ(0U, sync.Lock(kNoTimeLimit));
    std::thread([&sync] { sync.Unlock(); }).join();
    EXPECT_EQ(1U, try_elsewhere(sync));
    std::thread([&sync] { sync.Unlock(); }).join();
    EXPECT_EQ(0U, try_elsewhere(sync));

    in_other_thread([&sync] { return sync.Lock(kNoTimeLimit); });
    EXPECT_EQ(1U, sync.Lock(0));  // the first owner is a stranger now
    sync.Unlock();
    EXPECT_EQ(0U, sync.Lock(0));
    EXPECT_EQ(Texts{}, Messages());
}

#if !PZ_THREAD_SANITIZER  // which reports a thread that ends with a lock
TEST_F(PZSyncTest, AThreadThatEndsWithItLeavesItToLaterThreadsOfTheSameIdentity) {
    PZSync sync;
    const pthread_t owner = in_other_thread([&sync] {
        sync.Lock(kNoTimeLimit);
        return pthread_self();
    });
    EXPECT_EQ(1U, sync.Lock(0));  // this thread's identity is another one
    bool isReused = false;
    for (int i = 0; i < 1000 && !isReused; ++i) {
        in_other_thread([&] {
            isReused = pthread_equal(owner, pthread_self()) != 0;
            EXPECT_EQ(isReused ? 0U : 1U, sync.Lock(0));
            return 0;
        });
    }
    EXPECT_TRUE(isReused);
}
#endif

TEST_F(PZSyncTest, AnUnlockWithoutALockLetsOneMoreThreadIn) {
    PZSync sync;
    sync.Unlock();
    EXPECT_EQ(1, sem_post_call.Calls());
    EXPECT_EQ(0U, sync.Lock(0));
    in_other_thread([&sync] {
        EXPECT_EQ(0U, sync.Lock(0));
        EXPECT_EQ(1U, try_elsewhere(sync));
        return 0;
    });
    EXPECT_EQ(Texts{}, Messages());
}

// --- Named locks ---

TEST_F(PZSyncTest, KnowsItsOwnerOnlyInItsOwnObject) {
    const SemaphoreName name;
    PZSync first(name.Get(), kNamed);
    PZSync second(name.Get(), kNamed);
    EXPECT_EQ(0U, first.Lock(0));
    EXPECT_EQ(0U, first.Lock(0));
    EXPECT_EQ(1U, second.Lock(0));
    first.Unlock();
    EXPECT_EQ(1U, second.Lock(0));
    first.Unlock();
    EXPECT_EQ(0U, second.Lock(0));
}

TEST_F(PZSyncTest, ExcludesAnotherProcessByName) {
    const SemaphoreName name;
    const pztest::ProcessSignal locked;
    const pztest::ProcessSignal release;
    pztest::ChildProcess child([&] {
        PZSync sync(name.Get(), kNamed);
        if (sync.Lock(kNoTimeLimit) != 0) return 1;
        if (!locked.Give() || !release.Wait()) return 2;
        sync.Unlock();
        return 0;
    });
    ASSERT_TRUE(locked.Wait());
    PZSync sync(name.Get(), kNamed);
    EXPECT_EQ(1U, sync.Lock(0));
    EXPECT_TRUE(release.Give());
    EXPECT_EQ(0U, sync.Lock(kNoTimeLimit));
    sync.Unlock();
    EXPECT_EQ(0, child.Wait());
}

TEST_F(PZSyncTest, StaysLockedWhenTheProcessThatHoldsItEnds) {
    const SemaphoreName name;
    pztest::ChildProcess child([&name] {
        PZSync sync(name.Get(), kNamed);
        return static_cast<int>(sync.Lock(kNoTimeLimit));
    });
    EXPECT_EQ(0, child.Wait());
    PZSync sync(name.Get(), kNamed);
    EXPECT_EQ(1U, sync.Lock(0));
}

// --- Under the thread sanitizer ---

#if PZ_THREAD_SANITIZER

void lock_both(PZSync& first, PZSync& second) {
    std::thread([&first, &second] {
        first.Lock(kNoTimeLimit);
        second.Lock(kNoTimeLimit);
        second.Unlock();
        first.Unlock();
    }).join();
}

/// How a process ends that locks two objects twice.
pztest::ChildResult end_of_locking_twice(bool inOppositeOrders) {
    return pztest::run_in_child([inOppositeOrders] {
        PZSync first;
        PZSync second;
        lock_both(first, second);
        lock_both(inOppositeOrders ? second : first, inOppositeOrders ? first : second);
        return 0;
    });
}

TEST_F(PZSyncTest, TellsTheThreadSanitizerOfLocksTakenInOppositeOrders) {
    const pztest::ChildResult child = end_of_locking_twice(/*inOppositeOrders=*/true);
    EXPECT_EQ(1U, pztest::count_of(child.output, "WARNING: ThreadSanitizer: lock-order-inversion"))
        << child.output;
}

TEST_F(PZSyncTest, TellsTheThreadSanitizerOfLocksTakenInOneOrder) {
    const pztest::ChildResult child = end_of_locking_twice(/*inOppositeOrders=*/false);
    EXPECT_EQ("", child.output);
    EXPECT_EQ(0, child.status);
}

TEST_F(PZSyncTest, TellsTheThreadSanitizerOfLocksGivenBackByAnotherThread) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        PZSync sync;
        for (int i = 0; i < 2; ++i) {
            sync.Lock(kNoTimeLimit);
            std::thread([&sync] { sync.Unlock(); }).join();
            std::thread([&sync] {
                sync.Lock(0);
                sync.Unlock();
            }).join();
        }
        return 0;
    });
    EXPECT_EQ("", child.output);
    EXPECT_EQ(0, child.status);
}

#endif

// Cancellation

// The thread sanitizer is told of a wait, and not of its end.
#ifndef __SANITIZE_THREAD__

/// Waits for a lock that the test holds.
struct Waiter {
    PZSync sync;
    unsigned int timeout;
};

void* wait_for_the_lock(void* argument) {
    const pztest::CancelledStack stack;
    auto* const waiter = static_cast<Waiter*>(argument);
    if (waiter->sync.Lock(waiter->timeout) == 0) waiter->sync.Unlock();
    return nullptr;
}

TEST_F(PZSyncTest, AThreadMayBeCancelledWhileItWaits) {
    for (const unsigned int timeout : {kNoTimeLimit, 600000U}) {
        Waiter waiter = {{}, timeout};
        ASSERT_EQ(0U, waiter.sync.Lock(kNoTimeLimit));
        pthread_t thread = {};
        ASSERT_EQ(0, pthread_create(&thread, nullptr, wait_for_the_lock, &waiter));
        ASSERT_EQ(0, pthread_cancel(thread));  // takes effect in the wait, begun or not
        void* result = nullptr;
        ASSERT_EQ(0, pthread_join(thread, &result));
        EXPECT_EQ(PTHREAD_CANCELED, result);
        waiter.sync.Unlock();
        std::thread([&] {
            EXPECT_EQ(0U, waiter.sync.Lock(0)) << "the cancelled thread took it along";
            waiter.sync.Unlock();
        }).join();
    }
}

#endif

}  // namespace
