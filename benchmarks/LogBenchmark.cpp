// One line of a log, beside the C library's buffered write that it stands on.

#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>

#include <Framework/Utility/PZLSysFileOut.h>

#include "support/TempFolder.h"

namespace {

constexpr char kMemory[] = "/dev/shm";  // no disk is measured
constexpr unsigned int kLineSize = 100;
constexpr benchmark::IterationCount kLines = 500000;  // a file of 50 MB, made anew for each run

void log_write(benchmark::State& state) {
    const pzbench::TempFolder folder(kMemory);
    const std::string& path = folder.Path();
    PZLSysFileOut log(std::wstring(path.begin(), path.end()).c_str(), L"app", L"txt", false, 0, 0);
    if (!log.Open()) std::abort();
    const std::string line(kLineSize, 'x');
    for (auto _ : state) benchmark::DoNotOptimize(log.Write(line.data(), kLineSize));
    log.Close();
}

void log_write_raw(benchmark::State& state) {
    const pzbench::TempFolder folder(kMemory);
    std::FILE* file = std::fopen(folder.File("app.txt").c_str(), "w+");
    if (file == nullptr) std::abort();
    const std::string line(kLineSize, 'x');
    for (auto _ : state) benchmark::DoNotOptimize(std::fwrite(line.data(), kLineSize, 1, file));
    std::fclose(file);
}

BENCHMARK(log_write)->Name("log_write/100_bytes")->Iterations(kLines);
BENCHMARK(log_write_raw)->Name("log_write/100_bytes:raw")->Iterations(kLines);

}  // namespace
