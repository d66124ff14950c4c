#ifndef PZ_FRAMEWORK_EASY_TIMERCORE_H
#define PZ_FRAMEWORK_EASY_TIMERCORE_H

#include <atomic>
#include <condition_variable>
#include <memory>

#include <Framework/Easy/Timer.h>
#include <Framework/Foundation/private/PZMutex.h>
#include <Framework/Utility/PZLTimerMng.h>

#include "ClockCore.h"
#include "WorkerCore.h"

namespace pz::detail {

/// What a pz::Timer is made of. Its worker keeps it while it is active; so does its function while
/// it waits to be run.
class TimerCore : public PZLTimerBase,
                  public DueEntry,
                  public std::enable_shared_from_this<TimerCore> {
public:
    TimerCore(std::shared_ptr<WorkerCore> worker, std::unique_ptr<TimerFunction> function,
              const TimerRequest& request);

    /// Begins to fire; false when no more can be added where it is fired.
    bool Attach();

    /// Fires no more. Waits for a timer thread that fires just now.
    void Detach() noexcept;

    /// See pz::Timer::stop.
    bool Stop() noexcept;

    bool IsActive() const noexcept;
    unsigned long long Missed() const noexcept { return missed_.load(); }

    /// On a timer thread.
    int OnTimer(PZLTimerSubMng::_TimerInfo* info) override;

    long long OnDue(long long nowMs) override;

private:
    bool Add();
    void NoteDone();
    bool WaitUntilDone();
    bool PostOnce() noexcept;
    void Run();

    const std::shared_ptr<WorkerCore> worker_;
    const std::unique_ptr<TimerFunction> function_;
    const TimerRequest request_;
    PZLTimerMng::TimerSubInfo* const band_;  // null: fired by a clock of the worker's own

    long long dueMs_ = 0;  // touched by the thread that fires, and before
    std::atomic<unsigned long long> missed_{0};

    mutable PZMutex mutex_;
    std::condition_variable done_;  // with isRunning_
    bool isStopped_ PZ_GUARDED_BY(mutex_) = false;
    // The only run has been posted, or there is no worker any more.
    bool isOver_ PZ_GUARDED_BY(mutex_) = false;
    bool isDetached_ PZ_GUARDED_BY(mutex_) = false;
    bool isPosted_ PZ_GUARDED_BY(mutex_) = false;  // and not run yet
    bool isRunning_ PZ_GUARDED_BY(mutex_) = false;
};

}  // namespace pz::detail

#endif  // PZ_FRAMEWORK_EASY_TIMERCORE_H
