#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZBOXWAIT_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZBOXWAIT_H

#include <cstdint>

#include <Framework/private/pz_descriptor.h>

/// How the loop of a message box sleeps: without a time limit, until somebody wakes it or asks it
/// to end. A wake-up is one write, a wait is one read.
///
/// Requests to end are counted, and each ends one wait; they come before wake-ups. Wake-ups are
/// not: all of them before a wait end it together. Those that a request to end comes with are over
/// with it: a loop that ends looks for work first.
///
/// Threads:  one thread waits; any thread wakes and asks to end.
/// Process:  one descriptor, above 2 and close-on-exec. The first wait sets SIGPIPE to be ignored,
///           like that of an event.
/// Failures: answered with a result; those of Open, Wait and DiscardWakeUps are reported. Nothing
///           throws, nothing allocates memory.
class PZBoxWait {
public:
    /// What ended a wait.
    enum EN_RESULT : int { en_END, en_WAKE, en_ERROR };

    /// Open or not: see IsOpen.
    PZBoxWait() { Open(); }

    /// True when it is there: a loop that cannot be woken is not to be started.
    bool IsOpen() const noexcept { return signal_.IsOpen(); }

    /// True when it is open. Tries once more when it is not: false, and reported, when descriptors
    /// or memory are still missing. Not while another thread calls anything.
    bool Open();

    /// Ends the wait that runs, or else the next one. 1 when that is certain, 0 otherwise.
    int Wake();

    /// Asks the loop to end. 1 when that is certain, 0 otherwise.
    int End();

    /// Waits, through interruptions. A wait that fails takes 100 milliseconds: a loop may try again
    /// at once.
    EN_RESULT Wait();

    /// Forgets the wake-ups so far; requests to end stay. Not while a thread waits.
    void DiscardWakeUps();

private:
    bool TakeSignals();

    PZDescriptor signal_;     // eventfd: wake-ups in the low half, requests to end in the high one
    std::uint64_t ends_ = 0;  // requests that were read and not answered; the waiter's own
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZBOXWAIT_H
