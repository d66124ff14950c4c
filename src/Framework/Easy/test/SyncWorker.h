#ifndef PZ_FRAMEWORK_EASY_TEST_SYNCWORKER_H
#define PZ_FRAMEWORK_EASY_TEST_SYNCWORKER_H

#include <chrono>
#include <cstddef>

#include <Framework/Easy/Worker.h>
#include <Framework/Easy/test/ManualClock.h>
#include <Framework/PZApi.h>

namespace pz::test {

/// A worker without a thread: the test serves it, one post at a time. Pass it to anything that
/// takes a pz::Worker&.
///
///     pz::test::ManualClock clock;
///     pz::test::SyncWorker worker(clock);
///     Scanner scanner(worker);             // posts, and makes timers
///     worker.run_for(1s);                  // no sleep: the clock is moved
///     EXPECT_EQ(10, scanner.polls());
///
/// The order, the room and the answers are those of pz::Worker. A call serves what is posted before
/// it, and the call itself, on the calling thread. stop serves what is posted. No pz::Framework is
/// needed. There is no message box: box() is null.
///
/// Threads:  any thread may post; one at a time serves.
/// Failures: without memory the constructor throws std::bad_alloc: it is for tests.
class PZ_API SyncWorker : public Worker {
public:
    /// The clock need not outlive the worker.
    explicit SyncWorker(ManualClock& clock, const char* name = "sync",
                        const WorkerOptions& options = WorkerOptions());

    /// Runs the next post; false when there is none.
    bool run_one();

    /// Runs posts until there are none, those that come meanwhile included, and answers how many
    /// there were; at most `limit`, in case a function posts itself again and again.
    std::size_t run_all(std::size_t limit = 100000);

    /// Moves the clock from timer to timer, and runs everything that is posted, until `time` has
    /// passed (see ManualClock::advance). Answers how many posts were run. Other workers with the
    /// same clock are not served.
    std::size_t run_for(std::chrono::milliseconds time);

    /// How many posts took longer than `options.watch_time` by the test's clock, which they move
    /// themselves.
    unsigned int overruns() const noexcept;
};

}  // namespace pz::test

#endif  // PZ_FRAMEWORK_EASY_TEST_SYNCWORKER_H
