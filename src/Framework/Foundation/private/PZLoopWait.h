#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZLOOPWAIT_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZLOOPWAIT_H

#include <sys/epoll.h>

#include <array>

#include <Framework/private/pz_descriptor.h>

/// How a loop of the library sleeps: until somebody wakes it, asks it to end, or its time is over.
///
/// What PZEvent does for two events, for the waits of one loop only, and with fewer system calls: a
/// wake-up is one write and one wait. The set of both signals is made once.
///
/// Requests to end are counted, and each ends one wait; they come before wake-ups. Wake-ups are
/// not: all of them before a wait end it together.
///
/// Threads:  one thread waits; any thread wakes and asks to end.
/// Process:  three descriptors, above 2 and close-on-exec. The first wait sets SIGPIPE to be
///           ignored, like that of an event.
/// Failures: answered with a result; those of Open and Wait are reported. Nothing throws, nothing
///           allocates memory.
class PZLoopWait {
public:
    /// What ended a wait; as PZEvent::WaitMultipleEvent answers for the two events.
    enum EN_RESULT : int { en_END = 0, en_WAKE = 1, en_TIMEOUT = -2, en_ERROR = -3 };

    /// Open or not: see IsOpen.
    PZLoopWait() { Open(); }

    /// True when everything is there: a loop that cannot be woken is not to be started.
    bool IsOpen() const noexcept { return set_.IsOpen(); }

    /// True when it is open. Tries once more when it is not: false, and reported, when descriptors
    /// or memory are still missing. Not while another thread calls anything.
    bool Open();

    /// Ends the wait that runs, or else the next one. 1 when that is certain, 0 otherwise.
    int Wake();

    /// Asks the loop to end. 1 when that is certain, 0 otherwise.
    int End();

    /// Waits `timeoutMs` milliseconds at most; 0 polls, values above 0x7FFFFFFF wait without limit.
    ///
    /// An interrupted wait goes on for the time that is left. One that fails takes 100
    /// milliseconds: a loop may try again at once.
    EN_RESULT Wait(unsigned int timeoutMs);

    /// Forgets the wake-ups so far; requests to end stay. Not while a thread waits.
    void DiscardWakeUps();

private:
    using Ready = std::array<epoll_event, 2>;

    int Look(Ready& ready, int timeoutMs);
    EN_RESULT WaitOnce(int timeoutMs);

    PZDescriptor end_;    // eventfd that counts
    PZDescriptor wake_;   // eventfd that is never read: the set tells each write once
    PZDescriptor set_;    // epoll of both; the last one to be opened
    bool woken_ = false;  // a wake-up that came together with a request to end; the waiter's own
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZLOOPWAIT_H
