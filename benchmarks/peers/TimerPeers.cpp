// A timer that is started and stopped while others are active: a time limit that is rarely reached.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <thread>

#include <benchmark/benchmark.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <uv.h>

#include <Framework/Utility/PZLTimerMng.h>

#include "peers/Checked.h"

namespace {

constexpr unsigned int kNeverMs = 3600000;  // an hour
constexpr unsigned int kSoonMs = 1;

using Count = std::atomic<benchmark::IterationCount>;

/// From any thread to one that serves the timers.
class Framework {
public:
    ~Framework() {
        for (Timer& timer : active_) PZLTimerMng::GetTimerMng()->RemoveTimer(band_, &timer);
    }

    void Add(unsigned int ms) { Start(active_.emplace_back(fired_), ms); }
    void AddAndRemove() {
        Start(timer_, kNeverMs);
        PZLTimerMng::GetTimerMng()->RemoveTimer(band_, &timer_);
    }
    void Serve() {}
    benchmark::IterationCount Fired() const { return fired_; }

private:
    class Timer : public PZLTimerBase {
    public:
        explicit Timer(Count& fired) : fired_(fired) {}
        int OnTimer(PZLTimerSubMng::_TimerInfo*) override {
            ++fired_;
            return 0;  // once
        }

    private:
        Count& fired_;
    };

    void Start(Timer& timer, unsigned int ms) {
        band_ = PZLTimerMng::GetTimerMng()->AddTimer(&timer, ms);
        if (band_ == nullptr) std::abort();
    }

    Count fired_{0};
    std::deque<Timer> active_;
    Timer timer_{fired_};
    PZLTimerMng::TimerSubInfo* band_ = nullptr;
};

/// From any thread to one that serves the timers; who is stopped hears of it there.
class Asio {
public:
    ~Asio() {
        work_.reset();
        context_.stop();
        thread_.join();
    }

    void Add(unsigned int ms) { Start(active_.emplace_back(context_), ms); }
    void AddAndRemove() {
        Start(timer_, kNeverMs);
        timer_.cancel();
    }
    void Serve() {}
    benchmark::IterationCount Fired() const { return fired_; }

private:
    void Start(boost::asio::steady_timer& timer, unsigned int ms) {
        timer.expires_after(std::chrono::milliseconds(ms));
        timer.async_wait([this](const boost::system::error_code& error) {
            if (!error) ++fired_;
        });
    }

    Count fired_{0};
    boost::asio::io_context context_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_{
        context_.get_executor()};
    std::deque<boost::asio::steady_timer> active_;
    boost::asio::steady_timer timer_{context_};
    std::thread thread_{[this] { context_.run(); }};
};

/// On the loop's own thread, no other may start or stop its timers.
class LibUv {
public:
    LibUv() {
        if (uv_loop_init(&loop_) != 0) std::abort();
        uv_timer_init(&loop_, &timer_);
    }
    ~LibUv() {
        for (uv_timer_t& timer : active_) Close(timer);
        Close(timer_);
        uv_run(&loop_, UV_RUN_DEFAULT);
        uv_loop_close(&loop_);
    }
    LibUv(const LibUv&) = delete;
    LibUv& operator=(const LibUv&) = delete;

    void Add(unsigned int ms) {
        uv_timer_t& timer = active_.emplace_back();
        uv_timer_init(&loop_, &timer);
        Start(timer, ms);
    }
    void AddAndRemove() {
        Start(timer_, kNeverMs);
        uv_timer_stop(&timer_);
    }
    void Serve() { uv_run(&loop_, UV_RUN_NOWAIT); }
    benchmark::IterationCount Fired() const { return fired_; }

private:
    void Start(uv_timer_t& timer, unsigned int ms) {
        timer.data = &fired_;
        const auto fire = [](uv_timer_t* fired) { ++*static_cast<Count*>(fired->data); };
        if (uv_timer_start(&timer, fire, ms, 0) != 0) std::abort();
    }
    static void Close(uv_timer_t& timer) {
        uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    }

    Count fired_{0};
    uv_loop_t loop_ = {};
    std::deque<uv_timer_t> active_;
    uv_timer_t timer_ = {};
};

template <typename Peer>
bool fires_within_a_second(Peer& peer) {
    peer.Add(kSoonMs);
    for (int i = 0; i < 1000 && peer.Fired() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        peer.Serve();
    }
    return peer.Fired() == 1;
}

template <typename Peer>
void timer(benchmark::State& state, int active) {
    Peer peer;
    for (int i = 0; i < active; ++i) peer.Add(kNeverMs);
    for (auto _ : state) peer.AddAndRemove();
    peer.Serve();
    pzbench::check(state, peer.Fired() == 0 && fires_within_a_second(peer));
}

template <typename Peer>
void timer_10(benchmark::State& state) {
    timer<Peer>(state, 10);
}

template <typename Peer>
void timer_10000(benchmark::State& state) {
    timer<Peer>(state, 10000);
}

BENCHMARK(timer_10<Framework>)->Name("timer_10/pzframework")->UseRealTime();
BENCHMARK(timer_10<Asio>)->Name("timer_10/Boost.Asio")->UseRealTime();
BENCHMARK(timer_10<LibUv>)->Name("timer_10/libuv")->UseRealTime();
BENCHMARK(timer_10000<Framework>)->Name("timer_10000/pzframework")->UseRealTime();
BENCHMARK(timer_10000<Asio>)->Name("timer_10000/Boost.Asio")->UseRealTime();
BENCHMARK(timer_10000<LibUv>)->Name("timer_10000/libuv")->UseRealTime();

}  // namespace
