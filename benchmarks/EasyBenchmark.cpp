// The easy layer beside what each of its types stands on.

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <benchmark/benchmark.h>

#include <Framework/Communication/PZFileGuard.h>
#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Easy.h>
#include <Framework/Foundation/PZIDispatcher.h>
#include <Framework/Foundation/PZIMsgBox.h>
#include <Framework/Foundation/PZStorage.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Utility/PZLSysFileOut.h>
#include <Framework/Utility/PZLTimerMng.h>

#include "support/Acknowledge.h"
#include "support/Processors.h"
#include "support/RatioReporter.h"
#include "support/TempFolder.h"

namespace {

using namespace std::chrono_literals;
using pzbench::Acknowledge;

constexpr unsigned int kPosterProcessor = 0;

/// The framework of all benchmarks but those of its start.
std::optional<pz::Framework> framework;
constexpr std::size_t kBytes = 200;  // of a function, and of a payload

/// As large as the largest function that is stored in the worker.
struct Function {
    void operator()() { acknowledge->Handled(); }
    Acknowledge* acknowledge;
    std::array<char, kBytes - sizeof(Acknowledge*)> bytes;
};
static_assert(sizeof(Function) == kBytes);

/// The same, but not plain bytes: it has to be moved and destroyed.
struct OwningFunction : Function {
    explicit OwningFunction(const Function& function) : Function(function) {}
    OwningFunction(const OwningFunction& other) = default;
    OwningFunction& operator=(const OwningFunction&) = delete;
    ~OwningFunction() { benchmark::ClobberMemory(); }
};

class Dispatcher : public PZIDispatcher {
public:
    explicit Dispatcher(Acknowledge& acknowledge) : acknowledge_(acknowledge) {}
    void OnReceiveMsg(unsigned int, const void*, unsigned int) override { acknowledge_.Handled(); }
    void OnReceiveEvent(unsigned int) override {}

private:
    Acknowledge& acknowledge_;
};

void move_to(pz::Worker& worker, benchmark::State& state) {
    const auto processor = static_cast<unsigned int>(state.range(1) - 1);
    pzbench::stay_on_processor(kPosterProcessor);
    if (!worker.call([processor] { pzbench::stay_on_processor(processor); })) std::abort();
}

/// range(0): posts in a batch; range(1): 1 or 2 processors.
template <typename Posted>
void post(benchmark::State& state) {
    const auto batch = static_cast<unsigned int>(state.range(0));
    Acknowledge acknowledge;
    pz::Worker worker("bench");
    move_to(worker, state);
    const Posted function(Function{&acknowledge, {}});
    for (auto _ : state) {
        acknowledge.Expect(batch);
        for (unsigned int i = 0; i < batch; ++i) worker.post(function);
        acknowledge.Wait();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    pzbench::roam();
}

void post_raw(benchmark::State& state) {
    const auto batch = static_cast<unsigned int>(state.range(0));
    Acknowledge acknowledge;
    pz::Worker worker("bench");
    move_to(worker, state);
    Dispatcher dispatcher(acknowledge);
    const unsigned long id = worker.box()->Registory(&dispatcher);
    char payload[kBytes] = {};
    for (auto _ : state) {
        acknowledge.Expect(batch);
        for (unsigned int i = 0; i < batch; ++i) {
            PZIMsgBox::ST_PUSH_MSG_DATA message = {id, 1, 128, payload, kBytes};
            worker.box()->PushMsg(message);
        }
        acknowledge.Wait();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    if (!worker.stop()) std::abort();
    pzbench::roam();
}

void batches(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"batch", "processors"})->UseRealTime();
    for (const int processors : {1, 2}) {
        for (const int batch : {1, 200}) benchmark->Args({batch, processors});
    }
}

/// A timer that is started and stopped before it fires.
void timer(benchmark::State& state) {
    pz::Worker worker("bench");
    for (auto _ : state) {
        pz::Timer started = worker.every(1h, [] {});
        if (!started.stop()) std::abort();
    }
}

void timer_raw(benchmark::State& state) {
    class Timer : public PZLTimerBase {
        int OnTimer(PZLTimerSubMng::_TimerInfo*) override { return 0; }
    };
    constexpr unsigned int kHourMs = 3600000;
    Timer timer;
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    for (auto _ : state) timers->RemoveTimer(timers->AddTimer(&timer, kHourMs), &timer);
}

constexpr unsigned int kValues = 32;  // sent at once; a queue holds 64

struct Value {
    char bytes[kBytes];
};

void send(benchmark::State& state) {
    Acknowledge acknowledge;
    pz::Worker worker("bench");
    pz::Receiver<Value> in(worker, "pz_bench_easy", [&](const Value&) { acknowledge.Handled(); });
    pz::Sender<Value> out("pz_bench_easy");
    if (!in || !out) std::abort();
    const Value value = {};
    for (auto _ : state) {
        acknowledge.Expect(kValues);
        for (unsigned int i = 0; i < kValues; ++i) out.send(value);
        acknowledge.Wait();
    }
    state.SetItemsProcessed(state.iterations() * kValues);
}

/// The queue alone, with its receiving thread; a channel hands each value on to a worker.
void send_raw(benchmark::State& state) {
    class Receiver : public PZObserver_ {
    public:
        explicit Receiver(Acknowledge& acknowledge) : acknowledge_(acknowledge) {}
        unsigned int OnNotify(unsigned int, void*, unsigned int) override {
            acknowledge_.Handled();
            return 0;
        }

    private:
        Acknowledge& acknowledge_;
    };
    Acknowledge acknowledge;
    Receiver receiver(acknowledge);
    PZMsgQ::PZMessageQueue<1> in;
    PZMsgQ::PZMessageQueue<0> out;
    if (!in.open({"pz_bench_queue", &receiver}) || !out.open({"pz_bench_queue"})) std::abort();
    const Value value = {};
    for (auto _ : state) {
        acknowledge.Expect(kValues);
        for (unsigned int i = 0; i < kValues; ++i) out.send(&value, sizeof value, 128);
        acknowledge.Wait();
    }
    state.SetItemsProcessed(state.iterations() * kValues);
    in.close();
}

constexpr char kMemory[] = "/dev/shm";  // no disk is measured
constexpr std::size_t kLogSize = std::size_t{50} * 1024 * 1024;
constexpr benchmark::IterationCount kLines = 200000;

void log_line(benchmark::State& state) {
    const pzbench::TempFolder folder(kMemory);
    pz::RotatingLogOptions options;
    options.buffer = BUFSIZ;  // as that of the stream below
    pz::RotatingLog log(folder.Path().c_str(), "app", kLogSize, 1, options);
    unsigned int number = 0;
    for (auto _ : state) log.line("tuned to %u kHz", ++number);
}

void log_line_raw(benchmark::State& state) {
    const pzbench::TempFolder folder(kMemory);
    const std::string& path = folder.Path();
    PZLSysFileOut log(std::wstring(path.begin(), path.end()).c_str(), L"app", L"log", false,
                      kLogSize, 1);
    if (!log.Open()) std::abort();
    unsigned int number = 0;
    for (auto _ : state) log.FWrite("tuned to %u kHz\n", ++number);
    log.Close();
}

/// Adds one to the number in a file.
void file_update(benchmark::State& state) {
    const pzbench::TempFolder folder(kMemory);
    pz::GuardedFile file(folder.Path().c_str(), "number");
    for (auto _ : state) {
        const bool isUpdated = file.update([](std::string& bytes) {
            bytes = std::to_string(std::strtol(bytes.c_str(), nullptr, 10) + 1);
        });
        if (!isUpdated) std::abort();
    }
}

/// The same with guard and file, which is written where it lies: not whole when the power goes.
void file_update_raw(benchmark::State& state) {
    const pzbench::TempFolder folder(kMemory);
    PZFileGuard guard(folder.Path(), "number");
    if (!guard.initForSystem()) std::abort();
    const std::string path = folder.File("number");
    for (auto _ : state) {
        if (!guard.lock()) std::abort();
        char bytes[32] = {};
        if (PZStorage::GetSize(path.c_str()) > 0) {
            PZStorage(path.c_str(), "rb").Read(bytes, sizeof bytes - 1);
        }
        const std::string next = std::to_string(std::strtol(bytes, nullptr, 10) + 1);
        PZStorage file(path.c_str(), "wb");
        file.Write(next.data(), static_cast<long long>(next.size()));
        file.Close();
        guard.unlock();
    }
    guard.destroyMutex();
}

constexpr char kText[] = "\xd2\xc1\xc4\xc9\xcf";  // five Cyrillic letters

void text(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(pz::to_utf8(kText, XCP_KOI8_R));
}

void text_raw(benchmark::State& state) {
    char converted[64];
    for (auto _ : state) {
        const int length =
            pz_cp_conv(converted, sizeof converted, XCP_UTF8, kText, sizeof kText - 1, XCP_KOI8_R);
        benchmark::DoNotOptimize(length);
    }
}

void wait(benchmark::State& state) {
    pz::Event first;
    pz::Event second;
    for (auto _ : state) {
        second.set();
        if (pz::wait_any({&first, &second}, 1s) != 1) std::abort();
    }
}

void wait_raw(benchmark::State& state) {
    PZEvent first;
    PZEvent second;
    PZEvent* events[] = {&first, &second};
    for (auto _ : state) {
        second.SetEvent();
        if (PZEvent::timedMultiWait(2, events, false, 1000) != 1) std::abort();
    }
}

/// Start and end of the framework.
void start(benchmark::State& state) {
    framework.reset();
    for (auto _ : state) {
        const pz::Framework fw("bench", 1);
        if (!fw) std::abort();
    }
    framework.emplace("bench", 1);
}

void start_raw(benchmark::State& state) {
    framework.reset();
    for (auto _ : state) {
        if (pz_FwInitialize("bench", 1) == 0) std::abort();
        pz_FwFinalize();
    }
    framework.emplace("bench", 1);
}

constexpr std::chrono::microseconds kUntilIdle(200);  // of a worker after its start

/// Start and stop of a worker that runs one function.
void worker(benchmark::State& state) {
    for (auto _ : state) {
        pz::Worker started("bench");
        started.post([] {});
        if (!started.stop()) std::abort();
    }
}

void worker_raw(benchmark::State& state) {
    Acknowledge acknowledge;
    for (auto _ : state) {
        PZWorker started(1, 4000, 1);
        if (started.Start("bench") != 0) std::abort();
        Dispatcher dispatcher(acknowledge);
        const unsigned long id = started.GetMsgBox()->Registory(&dispatcher);
        PZIMsgBox::ST_PUSH_MSG_DATA message = {id, 1, 128, nullptr, 0};
        acknowledge.Expect(1);
        started.GetMsgBox()->PushMsg(message);
        acknowledge.Wait();
        started.End(0);
    }
}

/// Measures one call in an iteration, and nothing of what surrounds it.
template <typename F>
void measure(benchmark::State& state, F&& call) {
    const auto begin = std::chrono::steady_clock::now();
    call();
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
    state.SetIterationTime(time.count());
}

/// The stop of a worker that waits for posts.
void stop(benchmark::State& state) {
    for (auto _ : state) {
        pz::Worker idle("bench");
        std::this_thread::sleep_for(kUntilIdle);
        measure(state, [&idle] {
            if (!idle.stop()) std::abort();
        });
    }
}

void stop_raw(benchmark::State& state) {
    for (auto _ : state) {
        PZWorker idle(1, 4000, 1);
        if (idle.Start("bench") != 0) std::abort();
        std::this_thread::sleep_for(kUntilIdle);
        measure(state, [&idle] { idle.End(0); });
    }
}

void stop_signal(benchmark::State& state) {
    for (auto _ : state) {
        const pz::StopSignal stop;
        if (!stop) std::abort();
    }
}

/// The event and the two handlers, set and put back.
void stop_signal_raw(benchmark::State& state) {
    for (auto _ : state) {
        const PZEvent event;
        struct sigaction before[2] = {};
        struct sigaction ignoring = {};
        ignoring.sa_handler = SIG_IGN;
        sigaction(SIGINT, &ignoring, &before[0]);
        sigaction(SIGTERM, &ignoring, &before[1]);
        sigaction(SIGINT, &before[0], nullptr);
        sigaction(SIGTERM, &before[1], nullptr);
    }
}

/// A post that the test itself serves.
void sync_post(benchmark::State& state) {
    pz::test::ManualClock clock;
    pz::test::SyncWorker served(clock);
    unsigned int runs = 0;
    for (auto _ : state) {
        served.post([&runs] { ++runs; });
        served.run_one();
    }
    if (runs != state.iterations()) std::abort();
}

/// A queue of functions, under a mutex.
void sync_post_raw(benchmark::State& state) {
    std::mutex mutex;
    std::deque<std::function<void()>> queue;
    unsigned int runs = 0;
    for (auto _ : state) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            queue.emplace_back([&runs] { ++runs; });
        }
        std::function<void()> next;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            next = std::move(queue.front());
            queue.pop_front();
        }
        next();
    }
    if (runs != state.iterations()) std::abort();
}

BENCHMARK(start)->Name("easy/start")->UseRealTime();
BENCHMARK(start_raw)->Name("easy/start:raw")->UseRealTime();
BENCHMARK(worker)->Name("easy/worker")->UseRealTime();
BENCHMARK(worker_raw)->Name("easy/worker:raw")->UseRealTime();
BENCHMARK(stop)->Name("easy/stop")->UseManualTime();
BENCHMARK(stop_raw)->Name("easy/stop:raw")->UseManualTime();
BENCHMARK(stop_signal)->Name("easy/stop_signal");
BENCHMARK(stop_signal_raw)->Name("easy/stop_signal:raw");
BENCHMARK(sync_post)->Name("easy/sync_post");
BENCHMARK(sync_post_raw)->Name("easy/sync_post:raw");
BENCHMARK(post<Function>)->Name("easy/post:200_bytes")->Apply(batches);
BENCHMARK(post<OwningFunction>)->Name("easy/post:200_bytes_owned")->Apply(batches);
BENCHMARK(post_raw)->Name("easy/post:200_bytes:raw")->Apply(batches);
BENCHMARK(timer)->Name("easy/timer");
BENCHMARK(timer_raw)->Name("easy/timer:raw");
BENCHMARK(send)->Name("easy/send")->UseRealTime();
BENCHMARK(send_raw)->Name("easy/send:raw")->UseRealTime();
BENCHMARK(log_line)->Name("easy/log_line")->Iterations(kLines);
BENCHMARK(log_line_raw)->Name("easy/log_line:raw")->Iterations(kLines);
BENCHMARK(file_update)->Name("easy/file_update");
BENCHMARK(file_update_raw)->Name("easy/file_update:raw");
BENCHMARK(text)->Name("easy/text");
BENCHMARK(text_raw)->Name("easy/text:raw");
BENCHMARK(wait)->Name("easy/wait_any");
BENCHMARK(wait_raw)->Name("easy/wait_any:raw");

}  // namespace

int main(int argc, char** argv) {
    framework.emplace("bench", 1);
    if (!*framework) return 1;
    const int result = pzbench::run(argc, argv);
    framework.reset();
    return result;
}
