#include "support/RatioReporter.h"

#include <algorithm>
#include <cstdio>

namespace pzbench {
namespace {

constexpr char kRaw[] = ":raw";

/// "Area/thing/64/real_time" becomes "Area/thing:raw/64/real_time".
std::string raw_name_of(const std::string& name, const std::map<std::string, double>& known) {
    for (size_t at = name.find('/'); at != std::string::npos; at = name.find('/', at + 1)) {
        std::string candidate = name.substr(0, at) + kRaw + name.substr(at);
        if (known.count(candidate) != 0) return candidate;
    }
    return name + kRaw;
}

}  // namespace

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
        const std::string name = run.run_name.str();
        const double nanoseconds =
            run.real_accumulated_time / static_cast<double>(run.iterations) * 1e9;
        const auto found = fastest_.find(name);
        if (found == fastest_.end()) {
            order_.push_back(name);
            fastest_[name] = nanoseconds;
        } else {
            found->second = std::min(found->second, nanoseconds);
        }
    }
    ConsoleReporter::ReportRuns(runs);
}

void RatioReporter::Finalize() {
    std::printf("\n%-52s %14s %14s %7s\n", "beside the raw mechanism", "framework ns", "raw ns",
                "ratio");
    for (const std::string& name : order_) {
        const auto raw = fastest_.find(raw_name_of(name, fastest_));
        if (raw == fastest_.end()) continue;
        const double own = fastest_[name];
        std::printf("%-52s %14.1f %14.1f %7.2f\n", name.c_str(), own, raw->second,
                    own / raw->second);
    }
    std::fflush(stdout);
}

int run(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}

}  // namespace pzbench
