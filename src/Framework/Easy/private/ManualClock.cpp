#include "Framework/Easy/test/ManualClock.h"

#include "ClockCore.h"

namespace pz::test {

ManualClock::ManualClock() : core_(std::make_shared<detail::ClockCore>()) {}

ManualClock::~ManualClock() = default;

std::chrono::milliseconds ManualClock::now() const {
    return std::chrono::milliseconds(core_->NowMs());
}

void ManualClock::advance(std::chrono::milliseconds by) {
    if (by < std::chrono::milliseconds::zero()) return;
    const long long limit = core_->After(by);
    while (core_->Step(limit)) {
    }
}

}  // namespace pz::test
