// Copying a file and searching a directory, beside bare loops of the calls underneath; and
// patterns made to be slow.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include <benchmark/benchmark.h>

#include <Framework/Foundation/PZFileSys.h>

#include "support/TempFolder.h"

// Both sides call it once for every copy. What the machine has to write meanwhile is not measured.
extern "C" void sync() noexcept {}

namespace {

using pzbench::TempFolder;

constexpr int kFiles = 10000;

std::string make_source(const TempFolder& folder, std::int64_t mebibytes) {
    std::string path = folder.File("source");
    std::ofstream file(path, std::ios::binary);
    const std::string block(size_t{1024} * 1024, 'x');
    for (std::int64_t i = 0; i < mebibytes; ++i) file << block;
    return path;
}

bool copy_by_calls(const char* src, const char* dst) {
    const int in = ::open(src, O_RDONLY | O_CLOEXEC);
    const int out = ::open(dst, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    constexpr size_t kPiece = size_t{1} << 30;
    ssize_t got = 0;
    while ((got = ::copy_file_range(in, nullptr, out, nullptr, kPiece, 0)) > 0) {
    }
    ::close(in);
    ::close(out);
    ::sync();
    return got == 0;
}

void copy(benchmark::State& state, bool (*operation)(const char*, const char*)) {
    const TempFolder folder;
    const std::string source = make_source(folder, state.range(0));
    const std::string copied = folder.File("copied");
    for (auto _ : state) {
        if (!operation(source.c_str(), copied.c_str())) state.SkipWithError("not copied");
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * 1024 * 1024);
}

void copy_file(benchmark::State& state) {
    copy(state,
         [](const char* src, const char* dst) { return PZFileSys::Copy(src, dst, false, false); });
}

void copy_file_raw(benchmark::State& state) {
    copy(state, copy_by_calls);
}

/// "0.mp3", "1.txt", ...: every second one matches.
void make_files(const TempFolder& folder) {
    for (int i = 0; i < kFiles; ++i) {
        std::ofstream(folder.File(std::to_string(i) + (i % 2 == 0 ? ".mp3" : ".txt")));
    }
}

void search(benchmark::State& state) {
    const TempFolder folder;
    make_files(folder);
    const std::string pattern = folder.File("*.mp3");
    for (auto _ : state) {
        PZFileSys files;
        PZFileSys::ST_FIND_DATA data;
        int found = 0;
        for (bool more = files.FindFirst(pattern.c_str(), data); more;
             more = files.FindNext(data)) {
            ++found;
        }
        if (found != kFiles / 2) state.SkipWithError("not all found");
    }
}

bool ends_with(std::string_view name, std::string_view end) {
    return name.size() >= end.size() && name.substr(name.size() - end.size()) == end;
}

void search_raw(benchmark::State& state) {
    const TempFolder folder;
    make_files(folder);
    const std::string path = folder.File("");
    for (auto _ : state) {
        DIR* const dir = ::opendir(path.c_str());
        int found = 0;
        while (const dirent* entry = ::readdir(dir)) {
            if (ends_with(entry->d_name, ".mp3")) ++found;
        }
        ::closedir(dir);
        if (found != kFiles / 2) state.SkipWithError("not all found");
    }
}

void hostile_pattern(benchmark::State& state) {
    std::string pattern;
    for (std::int64_t i = 0; i < state.range(0); ++i) pattern += "a*";
    pattern += "b";
    const std::string name(255, 'a');
    for (auto _ : state) {
        benchmark::DoNotOptimize(PZFileSys::strcmp_wild(pattern.c_str(), name.c_str()));
    }
}

BENCHMARK(copy_file)->Name("files/copy_MiB")->Arg(1)->Arg(10)->Arg(100)->UseRealTime();
BENCHMARK(copy_file_raw)->Name("files/copy_MiB:raw")->Arg(1)->Arg(10)->Arg(100)->UseRealTime();
BENCHMARK(search)->Name("files/search_10000")->UseRealTime();
BENCHMARK(search_raw)->Name("files/search_10000:raw")->UseRealTime();
BENCHMARK(hostile_pattern)->Name("files/hostile_pattern")->Arg(1)->Arg(5)->Arg(50)->Arg(100);

}  // namespace
