#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PZSUPERVISOR_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PZSUPERVISOR_H

#include <Framework/PZApi.h>

class PZCallStack;

/// Watches the framework's threads, and calls back when one hangs. Works from Start to Stop only.
///
///     PZSupervisor::Start(&on_finding, nullptr, 500, PZSupervisor::kAnySignal);
///
/// Every thread of the framework has a watch time (PZWorker's constructor, PZThread's,
/// PZThreadMng::setWatchTime; 0: not watched). A finding is
/// - a handler that runs longer than the watch time of its thread;
/// - a timer callback, likewise;
/// - the observers of a received queue message, or of a PZSubject that a registered thread of
///   another kind notifies, likewise. Observers that a handler or a timer callback notifies are
///   part of that;
/// - a registered thread that waits longer than its watch time for one PZSync;
/// - a box that refuses posts.
/// The callback is called once when a finding begins and once when it is over, on the thread
/// "pz_supervisor", without any lock of the framework.
///
/// Time:      the process is checked every interval: a finding is reported up to one interval late,
///            and one that exceeds its watch time by less than that may go unnoticed. A refusing
///            box is over when a whole interval has passed without a refusal and the box is no
///            longer full. A notification counts from the first check that sees it.
/// Threads:   Start and Stop may be called by any thread, but not from the callback, where they
///            answer false.
/// Process:   one thread; from the first Start on three descriptors and 25 KiB. A forked child has
///            no supervision; it may start its own. pz_FwFinalize stops the supervision. A process
///            that ends without it does not wait for the thread.
/// Limits:    32 findings at a time; further ones are reported when others are over. 64 subjects
///            with observers at a time; those that get their first observer later are not watched.
/// Call stack: on request, of the thread that hangs. The thread is sent a signal, and takes its
///            call stack in the handler of that signal, even inside malloc and with locks held. The
///            stack is right if the unwind tables of all code are. On 32-bit ARM most functions of
///            the C library have none: their callers are searched for on the stack, and some may be
///            missing or have returned already. A thread that blocks the signal gives no stack.
///            Calls that every signal interrupts (sleep, poll, epoll_wait) return early in that
///            thread, once for each finding.
/// Failures:  answered with false, and reported where that is said. Watching needs memory only for
///            the names in a call stack.
class PZ_API PZSupervisor {
public:
    /// What a finding is about.
    enum EN_KIND : int {
        en_HANDLER = 0,   ///< OnReceiveMsg or OnReceiveEvent; `object` is the dispatcher
        en_TIMER = 1,     ///< OnTimer; `object` is the PZLTimerBase
        en_OBSERVER = 2,  ///< `object` is the receiving queue, or the PZSubject
        en_LOCK = 3,      ///< a wait; `object` is the PZSync
        en_REFUSAL = 4    ///< `object` is the box's record in pz_inspection
    };

    /// Valid as long as the callback runs.
    struct ST_FINDING {
        EN_KIND kind;                  ///< what is found
        bool isOver;                   ///< false when it begins, true when it is over
        const char* threadName;        ///< at most 127 characters; "" when nobody serves the box
        int tid;                       ///< kernel id of the thread, 0 when nobody serves the box
        int worker;                    ///< number of the worker; -1 when the thread is none
        const void* object;            ///< see EN_KIND
        const void* dispatcher;        ///< whose handler runs on the thread; null without one
        unsigned int messageId;        ///< of that handler's message; or the bits of its event
        bool isEvent;                  ///< whether it handles an event
        unsigned int durationMs;       ///< so far; at the end, up to one interval too long
        unsigned int watchTimeMs;      ///< of the thread; 0 when nobody serves the box
        unsigned int refused;          ///< posts that the box has refused since it was made
        const PZCallStack* callStack;  ///< of the thread, when it begins; null without one
    };

    /// Must not throw, nor call pz_FwFinalize. While it runs nothing is watched.
    using Callback = void (*)(const ST_FINDING& finding, void* user);

    static constexpr int kNoCallStack = 0;  ///< no signal, and no call stacks
    static constexpr int kAnySignal = -1;   ///< the highest real-time signal that is not used

    /// Begins to watch, every `intervalMs` milliseconds. `stackSignal` is the signal for call
    /// stacks, which stays the framework's until Stop: no other code may use it meanwhile.
    ///
    /// False, and reported: a null callback, an interval of 0, a second Start, a signal that the
    /// process uses (it has an action already, or the calling thread blocks it), that cannot be
    /// caught or tells of a fault (SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS), no memory, no
    /// descriptors, no thread. Nothing remains then.
    static bool Start(Callback callback, void* user, unsigned int intervalMs,
                      int stackSignal = kNoCallStack);

    /// Waits for a running callback, ends the watching, and releases the signal. Findings that are
    /// not over are not reported again. False when nothing is watched.
    static bool Stop();

    PZSupervisor() = delete;
};

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PZSUPERVISOR_H
