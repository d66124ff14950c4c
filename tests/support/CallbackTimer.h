#ifndef PZ_TESTS_SUPPORT_CALLBACKTIMER_H
#define PZ_TESTS_SUPPORT_CALLBACKTIMER_H

#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Utility/PZLTimerMng.h>

namespace pztest {

using TimerInfo = PZLTimerSubMng::_TimerInfo;

/// The ticks at which a timer was called.
using Ticks = std::vector<unsigned int>;

inline unsigned int tick_now() {
    return static_cast<unsigned int>(PZTickCount::GetInstance()->GetTime());
}

/// A timer that does what the test wants and remembers when it was called.
class CallbackTimer : public PZLTimerBase {
public:
    using Callback = std::function<int(TimerInfo* info)>;

    explicit CallbackTimer(Callback callback) : callback_(std::move(callback)) {}

    /// Fires once for result 0, else again and again.
    explicit CallbackTimer(int result = 0) : callback_([result](TimerInfo*) { return result; }) {}

    int OnTimer(TimerInfo* info) override {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            firedAt_.push_back(tick_now());
        }
        return callback_(info);
    }

    Ticks FiredAt() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return firedAt_;
    }

    size_t Fired() const { return FiredAt().size(); }

private:
    const Callback callback_;
    mutable std::mutex mutex_;
    Ticks firedAt_;  // guarded by mutex_
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_CALLBACKTIMER_H
