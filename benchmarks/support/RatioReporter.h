#ifndef PZ_BENCHMARKS_SUPPORT_RATIOREPORTER_H
#define PZ_BENCHMARKS_SUPPORT_RATIOREPORTER_H

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace pzbench {

/// Prints the usual table and, below it, the framework's time beside that of the raw mechanism it
/// stands on, with their ratio. A benchmark "Area/thing" is paired with "Area/thing:raw"; of
/// several repetitions the fastest counts.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : benchmark::ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

private:
    std::vector<std::string> order_;
    std::map<std::string, double> fastest_;  // nanoseconds
};

/// Runs the benchmarks that the command line asks for: all that main() does in most programs.
int run(int argc, char** argv);

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_RATIOREPORTER_H
