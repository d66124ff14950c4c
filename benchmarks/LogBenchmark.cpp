// One line of a log, beside the C library's buffered write that it stands on.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <Framework/Utility/PZLSysFileOut.h>

#include "support/RatioReporter.h"

namespace {

constexpr unsigned int kLineSize = 100;
constexpr benchmark::IterationCount kLines = 500000;  // a file of 50 MB, made anew for each run

/// A folder in memory, so that no disk is measured; removed at the end of the scope.
class Folder {
public:
    Folder() {
        char path[] = "/dev/shm/pz_bench_XXXXXX";
        if (mkdtemp(path) == nullptr) std::abort();
        path_ = path;
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    const std::string& Path() const { return path_; }

private:
    std::string path_;
};

void log_write(benchmark::State& state) {
    const Folder folder;
    const std::string& path = folder.Path();
    PZLSysFileOut log(std::wstring(path.begin(), path.end()).c_str(), L"app", L"txt", false, 0, 0);
    if (!log.Open()) std::abort();
    const std::string line(kLineSize, 'x');
    for (auto _ : state) benchmark::DoNotOptimize(log.Write(line.data(), kLineSize));
    log.Close();
}

void log_write_raw(benchmark::State& state) {
    const Folder folder;
    std::FILE* file = std::fopen((folder.Path() + "/app.txt").c_str(), "w+");
    if (file == nullptr) std::abort();
    const std::string line(kLineSize, 'x');
    for (auto _ : state) benchmark::DoNotOptimize(std::fwrite(line.data(), kLineSize, 1, file));
    std::fclose(file);
}

BENCHMARK(log_write)->Name("log_write/100_bytes")->Iterations(kLines);
BENCHMARK(log_write_raw)->Name("log_write/100_bytes:raw")->Iterations(kLines);

}  // namespace

int main(int argc, char** argv) {
    return pzbench::run(argc, argv);
}
