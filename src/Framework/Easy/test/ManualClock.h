#ifndef PZ_FRAMEWORK_EASY_TEST_MANUALCLOCK_H
#define PZ_FRAMEWORK_EASY_TEST_MANUALCLOCK_H

#include <chrono>
#include <memory>

#include <Framework/PZApi.h>

namespace pz {

namespace detail {
class ClockCore;
}

/// What tests of an application need.
namespace test {

/// A time that the test moves by hand, for the timers of pz::test::SyncWorker.
///
/// Threads:  one at a time.
/// Failures: without memory the constructor throws std::bad_alloc: it is for tests.
class PZ_API ManualClock {
public:
    /// The time is 0.
    ManualClock();
    ~ManualClock();

    ManualClock(const ManualClock&) = delete;
    ManualClock& operator=(const ManualClock&) = delete;

    /// The time since the start.
    std::chrono::milliseconds now() const;

    /// Moves the time forward. Timers that become due are posted to their workers, in order; the
    /// workers serve them when the test says so. 0 posts what is due now; less does nothing; more
    /// than thirty years count as these.
    void advance(std::chrono::milliseconds by);

    /// For the other classes of this layer.
    const std::shared_ptr<detail::ClockCore>& core() const noexcept { return core_; }

private:
    const std::shared_ptr<detail::ClockCore> core_;
};

}  // namespace test

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_TEST_MANUALCLOCK_H
