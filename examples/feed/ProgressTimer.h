#ifndef FEED_PROGRESSTIMER_H
#define FEED_PROGRESSTIMER_H

#include <Framework/Utility/PZLTimerMng.h>

#include "CounterUnit.h"

/// Draws a progress line on the terminal ten times a second, from construction to the end of the
/// scope.
class ProgressTimer : private PZLTimerBase {
public:
    explicit ProgressTimer(const CounterUnit& counter);
    ~ProgressTimer() override;

    ProgressTimer(const ProgressTimer&) = delete;
    ProgressTimer& operator=(const ProgressTimer&) = delete;

private:
    static constexpr unsigned int kIntervalMs = 100;

    /// Runs on a timer thread.
    int OnTimer(PZLTimerSubMng::_TimerInfo* info) override;

    const CounterUnit& counter_;
    unsigned long long lastChunks_ = 0;
    unsigned int lastTick_;
    PZLTimerMng::TimerSubInfo* handle_;  // null: not running
};

#endif  // FEED_PROGRESSTIMER_H
