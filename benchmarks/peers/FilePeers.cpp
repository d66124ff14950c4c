// A file of 10 MiB that is copied, and a line of 100 bytes that goes to a log.

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include <Poco/AutoPtr.h>
#include <Poco/File.h>
#include <Poco/FileChannel.h>
#include <Poco/Message.h>
#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>

#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Utility/PZLSysFileOut.h>

#include "peers/Checked.h"
#include "support/TempFolder.h"

// The framework's copies and logs call it, the others leave it to their user: what else the machine
// has to write is not measured.
extern "C" void sync() noexcept {}

namespace {

constexpr char kMemory[] = "/dev/shm";  // no disk is measured
constexpr size_t kCopySize = size_t{10} * 1024 * 1024;
constexpr benchmark::IterationCount kLines = 200000;  // a file of 20 MB, a fresh one for each run

std::string content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool framework_copy(const std::string& src, const std::string& dst) {
    return PZFileSys::Copy(src.c_str(), dst.c_str(), false, false);
}

bool poco_copy(const std::string& src, const std::string& dst) {
    Poco::File(src).copyTo(dst);
    return true;
}

bool std_copy(const std::string& src, const std::string& dst) {
    return std::filesystem::copy_file(src, dst, std::filesystem::copy_options::overwrite_existing);
}

void copy_10MiB(benchmark::State& state, bool (*copy)(const std::string&, const std::string&)) {
    const pzbench::TempFolder folder;
    const std::string src = folder.File("source");
    const std::string dst = folder.File("copy");
    std::string content(kCopySize, 'x');
    for (size_t i = 0; i < content.size(); i += 512) content[i] = static_cast<char>(i / 512 % 251);
    std::ofstream(src, std::ios::binary) << content;

    bool isCopied = true;
    for (auto _ : state) isCopied = copy(src, dst) && isCopied;
    pzbench::check(state, isCopied && content_of(dst) == content);
}

class Framework {
public:
    explicit Framework(const std::string& folder)
        : log_(std::wstring(folder.begin(), folder.end()).c_str(), L"app", L"txt", false, 0, 0) {
        if (!log_.Open()) std::abort();
    }
    ~Framework() { log_.Close(); }
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    void Write(const std::string& line) {
        log_.Write(line.data(), static_cast<unsigned int>(line.size()));
    }

private:
    PZLSysFileOut log_;
};

class Spdlog {
public:
    explicit Spdlog(const std::string& folder)
        : log_("app", std::make_shared<spdlog::sinks::basic_file_sink_st>(folder + "/app.txt")) {
        log_.set_pattern("%v");
    }

    void Write(const std::string& line) {
        // It ends the line itself.
        log_.info(spdlog::string_view_t(line.data(), line.size() - 1));
    }

private:
    spdlog::logger log_;
};

class PocoLog {
public:
    explicit PocoLog(const std::string& folder)
        : channel_(new Poco::FileChannel(folder + "/app.txt")) {
        channel_->setProperty("flush", "false");
        channel_->open();
    }
    ~PocoLog() { channel_->close(); }
    PocoLog(const PocoLog&) = delete;
    PocoLog& operator=(const PocoLog&) = delete;

    void Write(const std::string& line) {
        message_.setText(line.substr(0, line.size() - 1));  // it ends the line itself
        channel_->log(message_);
    }

private:
    Poco::AutoPtr<Poco::FileChannel> channel_;
    Poco::Message message_;
};

template <typename Peer>
void log_line(benchmark::State& state) {
    const pzbench::TempFolder folder(kMemory);
    const std::string line = std::string(99, 'x') + '\n';
    {
        Peer peer(folder.Path());
        for (auto _ : state) peer.Write(line);
    }
    const std::string content = content_of(folder.File("app.txt"));
    pzbench::check(state, content.size() == line.size() * size_t{kLines} &&
                              content.compare(0, line.size(), line) == 0);
}

BENCHMARK_CAPTURE(copy_10MiB, framework, framework_copy)
    ->Name("copy_10MiB/pzframework")
    ->UseRealTime();
BENCHMARK_CAPTURE(copy_10MiB, poco, poco_copy)->Name("copy_10MiB/POCO")->UseRealTime();
BENCHMARK_CAPTURE(copy_10MiB, std, std_copy)->Name("copy_10MiB/std::filesystem")->UseRealTime();
BENCHMARK(log_line<Framework>)->Name("log_line/pzframework")->Iterations(kLines);
BENCHMARK(log_line<Spdlog>)->Name("log_line/spdlog")->Iterations(kLines);
BENCHMARK(log_line<PocoLog>)->Name("log_line/POCO")->Iterations(kLines);

}  // namespace
