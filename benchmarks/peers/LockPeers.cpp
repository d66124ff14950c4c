// The recursive lock, free and with a second thread at it; an event that is set and waited for.

#include <cstdint>
#include <cstdlib>

#include <Poco/Event.h>
#include <Poco/Mutex.h>
#include <QMutex>
#include <benchmark/benchmark.h>
#include <uv.h>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZSync.h>

#include "peers/Checked.h"

namespace {

constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

class Framework {
public:
    void Lock() PZ_NO_THREAD_SAFETY_ANALYSIS { sync_.Lock(kNoLimit); }
    void Unlock() PZ_NO_THREAD_SAFETY_ANALYSIS { sync_.Unlock(); }

private:
    PZSync sync_;
};

class PocoMutex {
public:
    void Lock() { mutex_.lock(); }
    void Unlock() { mutex_.unlock(); }

private:
    Poco::Mutex mutex_;
};

class QtMutex {
public:
    void Lock() { mutex_.lock(); }
    void Unlock() { mutex_.unlock(); }

private:
    QRecursiveMutex mutex_;
};

/// One lock and what it guards, for all threads of a row.
template <typename Peer>
struct Shared {
    Peer lock;
    std::uint64_t counter = 0;
};

template <typename Peer>
void lock(benchmark::State& state) {
    static Shared<Peer> shared;
    if (state.thread_index() == 0) shared.counter = 0;
    for (auto _ : state) {
        shared.lock.Lock();
        ++shared.counter;
        shared.lock.Unlock();
    }
    if (state.thread_index() != 0) return;  // all threads have left the loop
    const auto threads = static_cast<std::uint64_t>(state.threads());
    pzbench::check(state,
                   shared.counter == threads * static_cast<std::uint64_t>(state.iterations()));
}

class FrameworkEvent {
public:
    void Set() { event_.SetEvent(); }
    bool Wait() { return event_.WaitEvent(kNoLimit) == 0; }

private:
    PZEvent event_;
};

class PocoEvent {
public:
    void Set() { event_.set(); }
    bool Wait() {
        event_.wait();
        return true;
    }

private:
    Poco::Event event_;
};

class UvEvent {
public:
    UvEvent() {
        if (uv_loop_init(&loop_) != 0) std::abort();
        uv_async_init(&loop_, &async_,
                      [](uv_async_t* async) { *static_cast<bool*>(async->data) = true; });
        async_.data = &isSet_;
    }
    ~UvEvent() {
        uv_close(reinterpret_cast<uv_handle_t*>(&async_), nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    UvEvent(const UvEvent&) = delete;
    UvEvent& operator=(const UvEvent&) = delete;

    void Set() { uv_async_send(&async_); }
    bool Wait() {
        isSet_ = false;
        uv_run(&loop_, UV_RUN_ONCE);
        return isSet_;
    }

private:
    bool isSet_ = false;
    uv_loop_t loop_ = {};
    uv_async_t async_ = {};
};

template <typename Peer>
void event(benchmark::State& state) {
    Peer peer;
    bool isRight = true;
    for (auto _ : state) {
        peer.Set();
        isRight = peer.Wait() && isRight;
    }
    pzbench::check(state, isRight);
}

BENCHMARK(event<FrameworkEvent>)->Name("event/pzframework");
BENCHMARK(event<PocoEvent>)->Name("event/POCO");
BENCHMARK(event<UvEvent>)->Name("event/libuv");
BENCHMARK(lock<Framework>)->Name("lock/pzframework");
BENCHMARK(lock<PocoMutex>)->Name("lock/POCO");
BENCHMARK(lock<QtMutex>)->Name("lock/Qt");
BENCHMARK(lock<Framework>)->Name("lock_contended/pzframework")->Threads(2)->UseRealTime();
BENCHMARK(lock<PocoMutex>)->Name("lock_contended/POCO")->Threads(2)->UseRealTime();
BENCHMARK(lock<QtMutex>)->Name("lock_contended/Qt")->Threads(2)->UseRealTime();

}  // namespace
