// One debug line to a file, beside the formatted print and flush it stands on.

#include <cstdio>

#include <benchmark/benchmark.h>

#include <Framework/Diagnostics/PZDbgOutput.h>

#include "support/OutputToFile.h"

namespace {

// The tag is one that stays out of the system log: its price is the log's, not the line's.
void debug_line(benchmark::State& state) {
    const pzbench::OutputToFile output;
    for (auto _ : state) {
        PZDbgOutput::DbgPrint("src/Framework/Foundation/private/PZSync.cpp", "Lock", 123,
                              PZDbgOutput::en_TAG_INFO, "create error : errno[%d : %s]\n", 22,
                              "Invalid argument");
    }
}

void debug_line_raw(benchmark::State& state) {
    const pzbench::OutputToFile output;
    for (auto _ : state) {
        std::printf("%s[%s] %s()@%s(%d) {%s} : create error : errno[%d : %s]\n%s", "\033[49m",
                    "info", "Lock", "PZSync.cpp", 123, "", 22, "Invalid argument", "\033[0m");
        std::fflush(stdout);
    }
}

BENCHMARK(debug_line)->Name("debug_line/to_file");
BENCHMARK(debug_line_raw)->Name("debug_line/to_file:raw");

}  // namespace
