#ifndef PZ_FRAMEWORK_EASY_TIMER_H
#define PZ_FRAMEWORK_EASY_TIMER_H

#include <chrono>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include <Framework/Easy/Place.h>
#include <Framework/PZApi.h>

namespace pz {

enum class Priority : unsigned int;

namespace detail {

class TimerCore;
class WorkerCore;

/// What a timer runs, whatever its type.
class TimerFunction {
public:
    virtual ~TimerFunction() = default;
    virtual void Run() = 0;

protected:
    TimerFunction() = default;
    TimerFunction(const TimerFunction&) = default;
    TimerFunction& operator=(const TimerFunction&) = default;
};

template <typename F>
class TimerFunctionOf : public TimerFunction {
public:
    template <typename G>
    TimerFunctionOf(std::in_place_t /*tag*/, G&& function) : function_(std::forward<G>(function)) {}
    void Run() override { function_(); }

private:
    F function_;
};

}  // namespace detail

/// A function that a worker runs later, or again and again. Made by Worker::every and
/// Worker::after.
///
///     pz::Timer t = tuner.every(100ms, [&] { poll(); });
///
/// Steady:    period n is due at the start plus n periods, however late the previous one was, and
///            never runs before. A period that comes while the previous one still waits or runs is
///            counted as missed, and not queued. A timer thread of PZLTimerMng (the band of the
///            worker's priority) posts each period to the worker.
/// Stop:      stop, the destructor, and the stop of the worker. The function does not run
///            afterwards.
/// Threads:   the function runs on the worker's thread. Any thread may stop the timer, and so may
///            the function itself.
/// Ownership: the function belongs to the timer, and is destroyed with it or after its last run.
/// Failures:  a timer that could not be started is false (reported).
class PZ_API Timer {
public:
    /// No timer: false.
    Timer() noexcept;

    /// stop().
    ~Timer();

    /// One that was moved from is false.
    Timer(Timer&& other) noexcept;
    /// Stops the timer that was here before.
    Timer& operator=(Timer&& other) noexcept;

    /// Whether it will be posted again. False once the only run of `after` is posted, and when the
    /// worker has been stopped.
    explicit operator bool() const noexcept;

    /// Ends the timer: true when the function does not run and will not run again.
    ///
    /// Waits for a running function, at most for the worker's `stop_within`: then false, with a
    /// report; what the function uses of the timer stays until it has returned. On the worker's own
    /// thread it does not wait, because the running function may be its own. True at once when it
    /// is stopped already.
    bool stop() noexcept;

    /// Periods that were not run because the previous one was not done, or the worker had no room.
    unsigned long long missed() const noexcept;

private:
    friend class Worker;
    explicit Timer(std::shared_ptr<detail::TimerCore> core) noexcept;

    std::shared_ptr<detail::TimerCore> core_;  // null: no timer
};

namespace detail {

/// What is asked of a timer.
struct TimerRequest {
    std::chrono::milliseconds time;  // of a period, or to the only run
    bool isPeriodic;
    Priority priority;
    Place place;
};

/// Null, and reported, when it cannot be started.
PZ_API std::shared_ptr<TimerCore> start_timer(const std::shared_ptr<WorkerCore>& worker,
                                              std::unique_ptr<TimerFunction> function,
                                              const TimerRequest& request) noexcept;

/// Null when there is no memory.
template <typename F>
std::unique_ptr<TimerFunction> timer_function(F&& function) {
    using Function = std::decay_t<F>;
    static_assert(std::is_invocable_v<Function&>, "a timer calls its function without arguments");
    try {
        return std::make_unique<TimerFunctionOf<Function>>(std::in_place,
                                                           std::forward<F>(function));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace detail

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_TIMER_H
