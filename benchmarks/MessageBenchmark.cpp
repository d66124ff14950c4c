// Messages between two threads, on one processor and on two, beside the system calls they stand on.

#include <atomic>
#include <cstdlib>
#include <thread>

#include <benchmark/benchmark.h>

#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>

#include "support/Acknowledge.h"
#include "support/FrameworkRun.h"
#include "support/Processors.h"
#include "support/RawEvent.h"

namespace {

constexpr unsigned int kPosterProcessor = 0;
constexpr unsigned int kWatchMs = 4000;

using pzbench::Acknowledge;

class Unit : public PZUnitFrame, public PZIDispatcher {
public:
    enum EN_MSG : unsigned int { en_MSG_MOVE, en_MSG_WORK };

    explicit Unit(Acknowledge& acknowledge) : acknowledge_(acknowledge) {}

    void OnReceiveMsg(unsigned int MsgID, const void*, unsigned int BuffSize) override {
        if (MsgID == en_MSG_MOVE) pzbench::stay_on_processor(BuffSize);
        acknowledge_.Handled();
    }
    void OnReceiveEvent(unsigned int) override {}

private:
    Acknowledge& acknowledge_;
};

/// range(0): payload bytes; range(1): messages in a batch; range(2): 1 or 2 processors.
void post_to_handle(benchmark::State& state) {
    const char payload[256] = {};
    const auto size = static_cast<unsigned int>(state.range(0));
    const auto batch = static_cast<unsigned int>(state.range(1));
    const auto workerProcessor = static_cast<unsigned int>(state.range(2) - 1);
    const void* const buff = size == 0 ? nullptr : payload;

    Acknowledge acknowledge;
    PZWorker worker(1, kWatchMs, 1);
    if (worker.Start("bench") != 0) std::abort();
    Unit unit(acknowledge);
    unit.RegistMsgBox(worker.GetMsgBox(), &unit);

    pzbench::stay_on_processor(kPosterProcessor);
    acknowledge.Expect(1);
    unit.SendMsgSelf(Unit::en_MSG_MOVE, en_MSG_NORMAL, nullptr, workerProcessor);
    acknowledge.Wait();

    for (auto _ : state) {
        acknowledge.Expect(batch);
        for (unsigned int i = 0; i < batch; ++i) {
            unit.SendMsgSelf(Unit::en_MSG_WORK, en_MSG_NORMAL, buff, size);
        }
        acknowledge.Wait();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    worker.End(0);
    pzbench::roam();
}

/// The same hand-over by pipe and epoll alone: one signal for each message, one wait for each.
void post_to_handle_raw(benchmark::State& state) {
    const auto batch = static_cast<unsigned int>(state.range(1));
    const auto workerProcessor = static_cast<unsigned int>(state.range(2) - 1);

    Acknowledge acknowledge;
    const pzbench::RawEvent exit;
    const pzbench::RawEvent event;
    std::atomic<bool> ending{false};
    pzbench::stay_on_processor(kPosterProcessor);
    std::thread worker([&] {
        pzbench::stay_on_processor(workerProcessor);
        const pzbench::RawEvent* const events[] = {&exit, &event};
        for (;;) {
            pzbench::RawEvent::WaitAny(events, 2);
            if (ending) return;
            acknowledge.Handled();
        }
    });

    for (auto _ : state) {
        acknowledge.Expect(batch);
        for (unsigned int i = 0; i < batch; ++i) event.Set();
        acknowledge.Wait();
    }
    state.SetItemsProcessed(state.iterations() * batch);
    ending = true;
    event.Set();
    worker.join();
    pzbench::roam();
}

void all_ways(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgNames({"bytes", "batch", "processors"})->UseRealTime();
    for (const int processors : {1, 2}) {
        for (const int batch : {1, 200}) {
            for (const int bytes : {0, 64}) benchmark->Args({bytes, batch, processors});
        }
    }
}

BENCHMARK(post_to_handle)->Name("message/post_to_handle")->Apply(all_ways);
BENCHMARK(post_to_handle_raw)->Name("message/post_to_handle:raw")->Apply(all_ways);

}  // namespace

int main(int argc, char** argv) {
    return pzbench::run_in_framework(argc, argv);
}
