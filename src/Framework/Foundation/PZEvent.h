#ifndef PZ_FRAMEWORK_FOUNDATION_PZEVENT_H
#define PZ_FRAMEWORK_FOUNDATION_PZEVENT_H

#include <Framework/PZApi.h>

/// A counting wake-up signal between the threads of one process.
///
/// Every SetEvent adds one signal; a successful wait takes exactly one. Signals are kept in an
/// anonymous pipe, so their number is bounded by its size.
///
/// Threads:   any thread may set or wait; two waiters compete, each signal wakes at most one.
///            SetEvent never blocks.
/// Time:      milliseconds; 0xFFFFFFFF waits without limit, 0 polls.
/// Process:   the first wait sets SIGPIPE to be ignored.
/// Failures:  reported and answered with a result, never thrown.
class PZ_API PZEvent {
public:
    PZEvent();

    /// The name is not used.
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
    /// answered with 0.
    int SetEvent();

    /// Takes all pending signals; always true.
    bool ResetEvent();

    /// 0 signalled (one signal taken), -2 timed out, -3 error.
    int WaitEvent(unsigned int timeout);

    /// Waits for any, or for all, of at most 64 events.
    ///
    /// Any: the index of the event whose signal was taken. All: 0 when every event gave one
    /// signal; each round of waiting gets the full time-out again, and signals taken before a
    /// time-out stay taken. Either: -2 timed out, -3 error.
    static int WaitMultipleEvent(unsigned int count, PZEvent** events, unsigned int timeout,
                                 bool waitAll);

    /// The engine of all waits. As WaitMultipleEvent, but -1 for null `events` or a count of 0.
    static int timedMultiWait(unsigned long count, PZEvent** events, bool waitAll,
                              unsigned long timeout);

private:
    int readFd_;   // -1: not created
    int writeFd_;  // non-blocking; -1: not created
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZEVENT_H
