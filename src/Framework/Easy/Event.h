#ifndef PZ_FRAMEWORK_EASY_EVENT_H
#define PZ_FRAMEWORK_EASY_EVENT_H

/// @file
/// Signals between threads, and waiting for one of several.

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <optional>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/PZApi.h>

// Qt has a macro of this name.
#pragma push_macro("signals")
#undef signals

namespace pz {

/// What a thread may wait for, see wait_any.
class PZ_API Waitable {
public:
    virtual ~Waitable();

    /// The signals that are waited for; null when there are none (no memory, or moved from). After
    /// Qt's headers it can be called only below `#undef signals`.
    ///
    /// With the signals of a pz::Event, several threads may wait for the same, each for its own
    /// time. With a PZEvent of the program's own, one thread.
    virtual PZEvent* signals() const noexcept = 0;

    /// Called by the thread whose wait has taken a signal.
    virtual void taken() noexcept;

protected:
    /// Has no state.
    /// @{
    Waitable() = default;
    Waitable(const Waitable&) = default;
    Waitable& operator=(const Waitable&) = default;
    /// @}
};

/// Waits for a signal of one in the list, takes it, and answers the index; when several have
/// signals, one of them. Nothing when none came `within` the time (0 and less does not wait), or
/// when a wait is not possible: an empty list (not reported), or, reported, more than 64, one
/// listed twice, null, or one without signals.
///
///     pz::wait_any({&a, &b}, 1s)
[[nodiscard]] PZ_API std::optional<std::size_t> wait_any(std::initializer_list<Waitable*> list,
                                                         std::chrono::milliseconds within);

/// The same without a time limit.
[[nodiscard]] PZ_API std::optional<std::size_t> wait_any(std::initializer_list<Waitable*> list);

/// A counting signal between the threads of a process: every set lets one wait through.
///
/// Threads:  any thread may set and wait; the event must outlive the calls on it.
/// Failures: an event that could not be made (reported) is false; nothing is thrown.
class PZ_API Event : public Waitable {
public:
    Event() noexcept;
    ~Event() override;

    /// One that was moved from is false.
    Event(Event&& other) noexcept;
    /// The signals that were here before are forgotten.
    Event& operator=(Event&& other) noexcept;

    /// Whether it can be set and waited for.
    explicit operator bool() const noexcept;

    /// Adds a signal; false when that failed (reported) and for an event that is false. Never
    /// waits. When 65,536 are pending, all but one are forgotten, and the answer is false
    /// (reported).
    bool set() noexcept;

    /// Forgets all signals.
    void reset() noexcept;

    /// Waits for a signal and takes it; false when none came `within` the time, and on a failure. 0
    /// and less does not wait.
    [[nodiscard]] bool wait(std::chrono::milliseconds within);

    /// Waits without a time limit; false on a failure only.
    bool wait();

    PZEvent* signals() const noexcept override;

private:
    std::unique_ptr<PZEvent> event_;  // null: no memory, or moved from
};

}  // namespace pz

#pragma pop_macro("signals")

#endif  // PZ_FRAMEWORK_EASY_EVENT_H
