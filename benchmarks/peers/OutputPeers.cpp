// A line for whoever debugs: its place in the source, two values, coloured, out at once.

#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include <QMessageLogger>
#include <QString>
#include <benchmark/benchmark.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <Framework/Diagnostics/PZDbgOutput.h>

#include "peers/Checked.h"
#include "support/OutputToFile.h"

namespace {

constexpr char kFile[] = "src/Framework/Foundation/private/PZSync.cpp";
constexpr char kFunction[] = "Lock";
constexpr int kLine = 123;
constexpr int kError = 22;
constexpr char kText[] = "Invalid argument";
constexpr char kExpected[] = "create error : errno[22 : Invalid argument]";

// The tag is one that stays out of the system log: its price is the log's, not the line's.
class Framework {
public:
    static constexpr int kDescriptor = STDOUT_FILENO;
    void Print() {
        PZDbgOutput::DbgPrint(kFile, kFunction, kLine, PZDbgOutput::en_TAG_INFO,
                              "create error : errno[%d : %s]\n", kError, kText);
    }
};

class Spdlog {
public:
    static constexpr int kDescriptor = STDOUT_FILENO;
    Spdlog()
        : log_("app",
               std::make_shared<spdlog::sinks::stdout_color_sink_mt>(spdlog::color_mode::always)) {
        log_.set_pattern("%^[%l] %!()@%s(%#) {%n} : %v%$");
    }
    void Print() {
        log_.log(spdlog::source_loc{kFile, kLine, kFunction}, spdlog::level::info,
                 "create error : errno[{} : {}]", kError, kText);
    }

private:
    spdlog::logger log_;
};

class Qt {
public:
    static constexpr int kDescriptor = STDERR_FILENO;
    Qt() {
        qSetMessagePattern(
            QStringLiteral("\033[49m[%{type}] %{function}()@%{file}(%{line}) : %{message}\033[0m"));
    }
    void Print() {
        QMessageLogger(kFile, kLine, kFunction)
            .info("create error : errno[%d : %s]", kError, kText);
    }
};

template <typename Peer>
void debug_line(benchmark::State& state) {
    Peer peer;
    std::string text;
    {
        const pzbench::OutputToFile output(Peer::kDescriptor);
        for (auto _ : state) peer.Print();
        text = output.Text();
    }
    const std::string first = text.substr(0, text.find('\n'));
    pzbench::check(state, first.find(kExpected) != std::string::npos &&
                              first.find(kFunction) != std::string::npos &&
                              std::count(text.begin(), text.end(), '\n') == state.iterations());
}

BENCHMARK(debug_line<Framework>)->Name("debug_line/pzframework");
BENCHMARK(debug_line<Spdlog>)->Name("debug_line/spdlog");
BENCHMARK(debug_line<Qt>)->Name("debug_line/Qt");

}  // namespace
