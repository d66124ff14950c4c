// The same works done by the framework and by the libraries that one would take instead. A row is
// named "work/library"; every adapter is checked for the right result, outside of what is timed.

#include <algorithm>
#include <vector>

#include <QCoreApplication>
#include <benchmark/benchmark.h>

#include <Framework/Foundation/pz_framework.h>

namespace {

/// The usual table; remembers whether a row was refused.
class Reporter : public benchmark::ConsoleReporter {
public:
    Reporter() : benchmark::ConsoleReporter(OO_Tabular) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        isRight_ = isRight_ && std::none_of(runs.begin(), runs.end(),
                                            [](const Run& run) { return run.error_occurred; });
        ConsoleReporter::ReportRuns(runs);
    }
    bool IsRight() const { return isRight_; }

private:
    bool isRight_ = true;
};

int run(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return reporter.IsRight() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const QCoreApplication application(argc, argv);  // event loops of Qt want one
    if (pz_FwInitialize("bench", 1) == 0) return 1;
    const int status = run(argc, argv);
    pz_FwFinalize();
    return status;
}
