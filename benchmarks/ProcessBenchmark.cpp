// The accounted heap, and start and stop of the framework with its private memory.

#include <execinfo.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <benchmark/benchmark.h>

#include <Framework/Foundation/PZLHeapMng.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

constexpr unsigned int kBlock = 64;
constexpr int kFrames = 13;

/// Runs `body` below so many frames that every capture finds all it asks for.
[[gnu::noinline]] void run_deep(benchmark::State& state, void (*body)(benchmark::State&),
                                int frames = kFrames) {
    if (frames == 0) {
        body(state);
    } else {
        run_deep(state, body, frames - 1);
    }
    benchmark::ClobberMemory();  // keeps the calls from becoming jumps
}

void tracked(benchmark::State& state) {
    run_deep(state, [](benchmark::State& deepState) {
        for (auto _ : deepState) {
            void* const block = Malloc(kBlock);
            benchmark::DoNotOptimize(block);
            Free(block);
        }
    });
}

/// The capture of the call stack that every tracked block needs.
void tracked_raw(benchmark::State& state) {
    run_deep(state, [](benchmark::State& deepState) {
        for (auto _ : deepState) {
            void* frames[kFrames];
            benchmark::DoNotOptimize(backtrace(frames, kFrames));
        }
    });
}

void untracked(benchmark::State& state) {
    for (auto _ : state) {
        void* const block = std::malloc(kBlock);
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
}

/// Private memory of the process in KiB.
double private_kib() {
    std::ifstream rollup("/proc/self/smaps_rollup");
    double total = 0;
    for (std::string line; std::getline(rollup, line);) {
        if (line.rfind("Private_", 0) == 0)
            total += std::strtod(line.c_str() + line.find(':') + 1, nullptr);
    }
    return total;
}

/// Private memory before and after the first start of the process; later starts find it warm.
struct ST_FIRST_START {
    double beforeKib = 0;
    double afterKib = 0;
};

ST_FIRST_START first_start() {
    ST_FIRST_START memory;
    private_kib();  // its own buffers do not count
    memory.beforeKib = private_kib();
    if (pz_FwInitialize("bench", 1) == 0) std::abort();
    memory.afterKib = private_kib();
    pz_FwFinalize();
    return memory;
}

void start_stop(benchmark::State& state) {
    static const ST_FIRST_START memory = first_start();
    for (auto _ : state) {
        if (pz_FwInitialize("bench", 1) == 0) std::abort();
        pz_FwFinalize();
    }
    state.counters["first_start_private_KiB"] = memory.afterKib - memory.beforeKib;
}

BENCHMARK(start_stop)->Name("framework/start+stop")->UseRealTime();
BENCHMARK(tracked)->Name("heap/tracked_malloc+free");
BENCHMARK(tracked_raw)->Name("heap/tracked_malloc+free:raw");
BENCHMARK(untracked)->Name("heap/malloc+free_of_the_c_library");

}  // namespace
