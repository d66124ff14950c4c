// Locks and events, beside the system calls they stand on.

#include <pthread.h>
#include <semaphore.h>

#include <atomic>

#include <benchmark/benchmark.h>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZSync.h>

#include "support/RawEvent.h"

namespace {

constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

/// A semaphore of value 1.
struct RawSemaphore {
    RawSemaphore() { sem_init(&sem, 0, 1); }
    ~RawSemaphore() { sem_destroy(&sem); }
    RawSemaphore(const RawSemaphore&) = delete;
    RawSemaphore& operator=(const RawSemaphore&) = delete;
    sem_t sem = {};
};

PZSync& shared_sync() {
    static PZSync sync;
    return sync;
}

sem_t* shared_semaphore() {
    static RawSemaphore semaphore;
    return &semaphore.sem;
}

void lock_free(benchmark::State& state) PZ_NO_THREAD_SAFETY_ANALYSIS {
    PZSync& sync = shared_sync();
    for (auto _ : state) {
        sync.Lock(kNoLimit);
        sync.Unlock();
    }
}

void lock_free_raw(benchmark::State& state) {
    sem_t* const sem = shared_semaphore();
    for (auto _ : state) {
        sem_wait(sem);
        sem_post(sem);
    }
}

void lock_nested(benchmark::State& state) PZ_NO_THREAD_SAFETY_ANALYSIS {
    PZSync sync;
    sync.Lock(kNoLimit);
    for (auto _ : state) {
        sync.Lock(kNoLimit);
        sync.Unlock();
    }
    sync.Unlock();
}

/// An owner test as any recursive lock needs it: behind a call, as the lock's own.
struct RawOwner {
    std::atomic<pthread_t> owner{0};
    unsigned int nest = 0;
    __attribute__((noinline)) bool Enter() {
        if (owner.load(std::memory_order_relaxed) != pthread_self()) return false;
        ++nest;
        return true;
    }
    __attribute__((noinline)) bool Leave() {
        if (nest == 0) return false;
        --nest;
        return true;
    }
};

void lock_nested_raw(benchmark::State& state) {
    RawOwner raw;
    raw.owner = pthread_self();
    for (auto _ : state) {
        benchmark::DoNotOptimize(raw.Enter());
        benchmark::DoNotOptimize(raw.Leave());
    }
}

void event_set_wait(benchmark::State& state) {
    PZEvent event;
    for (auto _ : state) {
        event.SetEvent();
        event.WaitEvent(kNoLimit);
    }
}

void event_set_wait_raw(benchmark::State& state) {
    const pzbench::RawEvent event;
    for (auto _ : state) {
        event.Set();
        event.Wait();
    }
}

void event_any_of_two(benchmark::State& state) {
    PZEvent idle;
    PZEvent event;
    PZEvent* events[] = {&idle, &event};
    for (auto _ : state) {
        event.SetEvent();
        PZEvent::WaitMultipleEvent(2, events, kNoLimit, false);
    }
}

void event_any_of_two_raw(benchmark::State& state) {
    const pzbench::RawEvent idle;
    const pzbench::RawEvent event;
    const pzbench::RawEvent* const events[] = {&idle, &event};
    for (auto _ : state) {
        event.Set();
        pzbench::RawEvent::WaitAny(events, 2);
    }
}

BENCHMARK(lock_free)->Name("lock/free");
BENCHMARK(lock_free_raw)->Name("lock/free:raw");
BENCHMARK(lock_nested)->Name("lock/nested");
BENCHMARK(lock_nested_raw)->Name("lock/nested:raw");
BENCHMARK(lock_free)->Name("lock/contended")->Threads(2)->UseRealTime();
BENCHMARK(lock_free_raw)->Name("lock/contended:raw")->Threads(2)->UseRealTime();
BENCHMARK(event_set_wait)->Name("event/set+wait");
BENCHMARK(event_set_wait_raw)->Name("event/set+wait:raw");
BENCHMARK(event_any_of_two)->Name("event/any_of_two");
BENCHMARK(event_any_of_two_raw)->Name("event/any_of_two:raw");

}  // namespace
