#ifndef PZ_FRAMEWORK_FOUNDATION_PZEVENT_H
#define PZ_FRAMEWORK_FOUNDATION_PZEVENT_H

#include <Framework/PZApi.h>

namespace pz {
class Event;
}

/// A counting wake-up signal between the threads of one process.
///
/// Every SetEvent adds one signal; a successful wait takes exactly one. Signals are kept in an
/// anonymous pipe, so their number is bounded by its size (65536 on most machines). Programs that
/// the process starts inherit neither the pipe nor the descriptor of a wait.
///
/// Threads:  any thread may set or wait. Two waiters compete, and each signal wakes at most one:
///           the other, if it has seen the same signal, waits for the next one, whatever its
///           time-out. ResetEvent, and SetEvent on a full pipe, take signals like a waiter. An
///           event must outlive the calls on it.
/// Time:     milliseconds; 0 polls. 0xFFFFFFFF, like all values above 0x7FFFFFFF, waits without
///           limit. A wait that a signal interrupts continues for the time that is left.
/// Process:  the first wait sets SIGPIPE to be ignored.
/// Cancel:   waiting is a cancellation point, destruction is none.
/// Failures: reported and answered with a result, never thrown; a report may block while standard
///           output is stuck. Nothing allocates memory.
class PZ_API PZEvent {
public:
    /// Makes the event without a signal; isInitialized tells whether that succeeded.
    PZEvent();

    /// The same; the name is not used.
    explicit PZEvent(const char* name);

    ~PZEvent();

    PZEvent(const PZEvent&) = delete;
    PZEvent& operator=(const PZEvent&) = delete;

    /// Makes the pipe; called by the constructors. A second call closes the pipe it had, with its
    /// signals. The name is not used.
    void init(const char* name);

    /// False when the pipe could not be made.
    bool isInitialized() const noexcept;

    /// 1 when the signal was added, 0 otherwise. A full pipe is drained, left with one signal and
    /// answered with 0. Does not wait for room.
    int SetEvent();

    /// Takes all pending signals; always true.
    bool ResetEvent();

    /// 0 signalled (one signal taken), -2 timed out, -3 error.
    int WaitEvent(unsigned int timeout);

    /// Waits for any, or for all, of 1 to 64 different events.
    ///
    /// Any: the index of the event whose signal was taken. All: 0 when every event gave one
    /// signal; each round of waiting gets the full time-out again, and signals taken before a
    /// time-out stay taken. Either: -2 timed out, -3 error (also for an event without a pipe, one
    /// that is listed twice, null `events`, and a count of 0 or above 64).
    static int WaitMultipleEvent(unsigned int count, PZEvent** events, unsigned int timeout,
                                 bool waitAll);

    /// The engine of all waits. As WaitMultipleEvent, but -1 for null `events` or a count of 0.
    static int timedMultiWait(unsigned long count, PZEvent** events, bool waitAll,
                              unsigned long timeout);

private:
    friend class pz::Event;

    // From now on a waiter that loses a signal to another does not wait for the next: the wait ends
    // as timed out.
    PZ_LOCAL void GiveWay();

    int readFd_;   // -1: not created
    int writeFd_;  // non-blocking; -1: not created
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZEVENT_H
