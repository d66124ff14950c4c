// The file guard, beside the process-shared mutex and the byte that it stands on.

#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include <Framework/Communication/PZFileGuard.h>

#include "support/TempFolder.h"

namespace {

constexpr unsigned char kUsable = 0xA5;

/// A guard whose segments vanish with it.
class SystemGuard {
public:
    SystemGuard() : guard_(folder_.Path(), "bench") {
        if (!guard_.initForSystem()) std::abort();
    }
    PZFileGuard& Get() { return guard_; }

private:
    pzbench::TempFolder folder_;  // of the key files; outlives the guard
    PZFileGuard guard_;
};

/// A shared-memory segment of its own, removed with the process.
template <typename T>
class Segment {
public:
    Segment() {
        const int id = shmget(IPC_PRIVATE, sizeof(T), IPC_CREAT | 0600);
        void* const address = shmat(id, nullptr, 0);
        shmctl(id, IPC_RMID, nullptr);
        content_ = static_cast<T*>(address);
    }
    ~Segment() { shmdt(content_); }
    Segment(const Segment&) = delete;
    Segment& operator=(const Segment&) = delete;

    T* Get() const { return content_; }

private:
    T* content_;
};

/// The same mutex and byte, used directly.
class RawGuard {
public:
    RawGuard() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutex_init(mutex_.Get(), &attributes);
        pthread_mutexattr_destroy(&attributes);
        *flag_.Get() = kUsable;
    }

    pthread_mutex_t* Mutex() const { return mutex_.Get(); }

    bool IsUsable() const { return __atomic_load_n(flag_.Get(), __ATOMIC_ACQUIRE) == kUsable; }

private:
    Segment<pthread_mutex_t> mutex_;
    Segment<unsigned char> flag_;
};

void lock_free(benchmark::State& state) {
    SystemGuard system;
    PZFileGuard& guard = system.Get();
    for (auto _ : state) {
        benchmark::DoNotOptimize(guard.lock());
        benchmark::DoNotOptimize(guard.unlock());
    }
}

void lock_free_raw(benchmark::State& state) {
    const RawGuard raw;
    for (auto _ : state) {
        benchmark::DoNotOptimize(raw.IsUsable() && pthread_mutex_lock(raw.Mutex()) == 0);
        benchmark::DoNotOptimize(pthread_mutex_unlock(raw.Mutex()));
    }
}

void lock_nested(benchmark::State& state) {
    SystemGuard system;
    system.Get().lock();
    PZFileGuard& guard = system.Get();
    for (auto _ : state) {
        benchmark::DoNotOptimize(guard.lock());
        benchmark::DoNotOptimize(guard.unlock());
    }
    guard.unlock();
}

void lock_nested_raw(benchmark::State& state) {
    const RawGuard raw;
    pthread_mutex_lock(raw.Mutex());
    for (auto _ : state) {
        benchmark::DoNotOptimize(raw.IsUsable() && pthread_mutex_lock(raw.Mutex()) == 0);
        benchmark::DoNotOptimize(pthread_mutex_unlock(raw.Mutex()));
    }
    pthread_mutex_unlock(raw.Mutex());
}

void try_lock_free(benchmark::State& state) {
    SystemGuard system;
    PZFileGuard& guard = system.Get();
    for (auto _ : state) {
        benchmark::DoNotOptimize(guard.tryLock());
        benchmark::DoNotOptimize(guard.unlock());
    }
}

void try_lock_free_raw(benchmark::State& state) {
    const RawGuard raw;
    for (auto _ : state) {
        benchmark::DoNotOptimize(raw.IsUsable() && pthread_mutex_trylock(raw.Mutex()) == 0);
        benchmark::DoNotOptimize(pthread_mutex_unlock(raw.Mutex()));
    }
}

BENCHMARK(lock_free)->Name("guard/lock");
BENCHMARK(lock_free_raw)->Name("guard/lock:raw");
BENCHMARK(lock_nested)->Name("guard/lock_nested");
BENCHMARK(lock_nested_raw)->Name("guard/lock_nested:raw");
BENCHMARK(try_lock_free)->Name("guard/tryLock");
BENCHMARK(try_lock_free_raw)->Name("guard/tryLock:raw");

}  // namespace
