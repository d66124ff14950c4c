// Notifying observers, beside plain lists of virtual calls.

#include <vector>

#include <benchmark/benchmark.h>

#include <Framework/Pattern/PZSubject.h>

#include "support/RawSubject.h"

namespace {

class Counter : public PZObserver_ {
public:
    unsigned int OnNotify(unsigned int id, void*, unsigned int) override { return sum_ += id; }

private:
    unsigned int sum_ = 0;
};

void notify(benchmark::State& state) {
    PZSubject subject;
    std::vector<Counter> observers(static_cast<size_t>(state.range(0)));
    for (Counter& observer : observers) subject.AddObserver(&observer);
    for (auto _ : state)
        benchmark::DoNotOptimize(subject.NotifyObserver(1, nullptr, 0, en_NTF_ALL));
    for (Counter& observer : observers) subject.RemoveObserver(&observer);
}

/// A list walked under a lock.
void notify_list(benchmark::State& state) {
    pzbench::RawSubject subject;
    std::vector<Counter> observers(static_cast<size_t>(state.range(0)));
    for (Counter& observer : observers) subject.Add(&observer);
    for (auto _ : state) benchmark::DoNotOptimize(subject.Notify(1, nullptr, 0));
}

/// The calls alone, inside the program.
void notify_vector(benchmark::State& state) {
    std::vector<Counter> observers(static_cast<size_t>(state.range(0)));
    std::vector<PZObserver_*> list;
    list.reserve(observers.size());
    for (Counter& observer : observers) list.push_back(&observer);
    for (auto _ : state) {
        for (PZObserver_* observer : list) {
            benchmark::DoNotOptimize(observer->OnNotify(1, nullptr, 0));
        }
    }
}

BENCHMARK(notify)->Name("notify/observers")->Arg(1)->Arg(8)->Arg(64);
BENCHMARK(notify_list)->Name("notify/observers:raw")->Arg(1)->Arg(8)->Arg(64);
BENCHMARK(notify_vector)->Name("notify/vector_of_virtual_calls")->Arg(1)->Arg(8)->Arg(64);

}  // namespace
