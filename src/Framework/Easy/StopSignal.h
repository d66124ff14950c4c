#ifndef PZ_FRAMEWORK_EASY_STOPSIGNAL_H
#define PZ_FRAMEWORK_EASY_STOPSIGNAL_H

/// @file
/// The end of a program by SIGINT (Ctrl-C) and SIGTERM.

#include <Framework/Easy/Event.h>
#include <Framework/PZApi.h>

// Qt has a macro of this name.
#pragma push_macro("signals")
#undef signals

namespace pz {

/// While one lives, SIGINT and SIGTERM signal it and do not end the process.
///
///     pz::StopSignal stop;
///     while (pz::wait_any({&stop, &work}) == 1) ...
///
/// The signal stays: once it has come, every wait for a StopSignal is over at once, as long as one
/// lives. A second signal of the same kind ends the process, so that a program that hangs while it
/// ends can still be stopped by hand.
///
/// Several:  at most 16 at a time; all of them are signalled. The first installs the handlers, the
///           last restores the previous ones.
/// Threads:  made and destroyed by one thread at a time; any thread may wait.
/// Process:  a signal ends a forked child, unless it has made a StopSignal of its own; those that
///           it has inherited are its parent's, and are not signalled.
/// Failures: one that could not be made (reported) is false, and cannot be waited for.
class PZ_API StopSignal : public Waitable {
public:
    [[nodiscard]] StopSignal() noexcept;
    ~StopSignal() override;

    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    /// Whether it can be waited for.
    explicit operator bool() const noexcept { return slot_ != kNoSlot; }

    /// SIGINT or SIGTERM when that has come, else 0.
    int number() const noexcept;

    PZEvent* signals() const noexcept override;
    void taken() noexcept override;

private:
    static constexpr int kNoSlot = -1;

    std::unique_ptr<PZEvent> event_;
    int slot_ = kNoSlot;
};

/// Waits until SIGINT or SIGTERM comes and answers which; 0 when it cannot wait (reported).
///
/// A signal that comes earlier ends the process, unless a StopSignal lives already.
PZ_API int wait_for_stop();

}  // namespace pz

#pragma pop_macro("signals")

#endif  // PZ_FRAMEWORK_EASY_STOPSIGNAL_H
