#include "Framework/Easy/test/SyncWorker.h"

#include "WorkerCore.h"

namespace pz::test {

SyncWorker::SyncWorker(ManualClock& clock, const char* name, const WorkerOptions& options)
    : Worker(std::make_shared<detail::WorkerCore>(detail::WorkerCore::Kind::manual, name, options,
                                                  clock.core())) {}

bool SyncWorker::run_one() {
    return core() != nullptr && core()->RunOne();
}

std::size_t SyncWorker::run_all(std::size_t limit) {
    std::size_t runs = 0;
    while (runs < limit && run_one()) ++runs;
    return runs;
}

std::size_t SyncWorker::run_for(std::chrono::milliseconds time) {
    std::size_t runs = run_all();
    if (core() == nullptr || time < std::chrono::milliseconds::zero()) return runs;
    detail::ClockCore& clock = *core()->ManualClock();
    const long long limit = clock.After(time);
    while (clock.Step(limit)) runs += run_all();
    return runs;
}

unsigned int SyncWorker::overruns() const noexcept {
    return core() != nullptr ? core()->Overruns() : 0;
}

}  // namespace pz::test
