#ifndef PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H
#define PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H

#include <functional>
#include <map>
#include <memory>

#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/PZThreadAnnotations.h>
#include <Framework/PZApi.h>

class PZLTimerBase;
class PZLTimerMng;
extern template class PZ_API PZSingleton<PZLTimerMng>;

/// One timer thread and its timers.
///
/// PZLTimerMng runs one for each band of priorities; applications use that. What PZLTimerMng
/// promises about callbacks, time and the lifetime of timers is kept here.
///
/// Threads:   adding, removing and querying may be done from any thread and wait while callbacks
///            run. start, end and setPriority belong to the owner's thread. An object must be
///            ended before it is destroyed.
/// Ownership: timers are kept by address and never deleted.
/// Memory:    adding a timer needs some, or takes over that of the timer removed last, and is
///            refused without. Firing, repeating and removing need none.
/// Failures:  reported and answered with a result; only the constructor throws (std::bad_alloc).
class PZ_API PZLTimerSubMng {
public:
    /// One active timer.
    struct _TimerInfo {
        unsigned int interval;      ///< milliseconds
        unsigned long long expiry;  ///< tick, 32 bits wide: wraps with the tick
    };

    /// `thirdValue` is kept and has no meaning yet. `threadPriority` is the wide priority that
    /// the thread gets, see PZThreadMng.
    PZLTimerSubMng(unsigned int thirdValue, int threadPriority);
    ~PZLTimerSubMng();

    PZLTimerSubMng(const PZLTimerSubMng&) = delete;
    PZLTimerSubMng& operator=(const PZLTimerSubMng&) = delete;

    /// Starts the thread, "PZLTimerSubMng" when `name` is null, and sets its priority. Returns when
    /// the thread has read the tick: no timer added from then on is lost. 1 on success. 0
    /// (reported) when there is no thread, or when a thread runs with another priority.
    ///
    /// There is no thread when the system refuses it or its wake-up: start may be tried again.
    /// Until there is one, timers are refused.
    int start(const char* name);

    /// Ends the thread and waits for that without limit (`timeout` is not used); its timers are
    /// removed. 1 when it was joined, 0 when the join failed (reported). 1 at once when there is no
    /// thread; the next thread to be started then ends at once.
    ///
    /// In a forked child of the process that started it nothing happens, and the answer is 1.
    int end(unsigned int timeout);

    /// Gives the running thread another wide priority. 1 when it has it, else 0 (reported).
    int setPriority(int priority);

    /// 1 when the timer was added. 0 when it is null, or active already (it keeps its interval and
    /// expiry then), when the last start made no thread, or when there is no memory (reported).
    int addTimer(PZLTimerBase* t, unsigned int ms);

    /// 1 when the timer is active.
    int isActive(PZLTimerBase* t);

    /// 1 when the timer was active and is removed.
    int removeTimer(PZLTimerBase* t);

    /// Thread hooks, called by the timer thread.
    /// @{
    int Initialize();
    void MainProc();
    void Finalize();
    /// @}

private:
    struct PZ_LOCAL Kept;

    /// Timers by their expiries, as numbers of 32 bits.
    using ExpiryIndex = std::multimap<unsigned int, PZLTimerBase*>;

    struct Timer : _TimerInfo {
        ExpiryIndex::iterator byExpiry;  // where the index has it
    };
    using TimerMap = std::map<PZLTimerBase*, Timer, std::less<PZLTimerBase*>>;

    /// Timers, each in both containers.
    struct Timers {
        TimerMap byAddress;
        ExpiryIndex byExpiry;
    };

    /// A wait of the thread: from a tick on, so many milliseconds, 0 for no limit.
    struct Wait {
        unsigned int start;
        unsigned int ms;
    };

    PZ_LOCAL static unsigned int leftOf(const Wait& wait, unsigned int now);
    PZ_LOCAL void fire(Timers& due, unsigned int now);

    PZ_LOCAL int startThread(const char* name);
    PZ_LOCAL void takeFirstTick();
    PZ_LOCAL int waitForEvent(unsigned int waitMs);
    PZ_LOCAL unsigned int checkWhenWoken();
    PZ_LOCAL unsigned int checkAfterTimeout();
    PZ_LOCAL unsigned int waitAgain();
    PZ_LOCAL bool insertLocked(PZLTimerBase* t, unsigned int ms) PZ_REQUIRES(sync_);
    PZ_LOCAL void insertNewLocked(TimerMap::iterator place, PZLTimerBase* t, unsigned int ms,
                                  unsigned int expiry) PZ_REQUIRES(sync_);
    PZ_LOCAL void insertSpareLocked(TimerMap::iterator place, PZLTimerBase* t, unsigned int ms,
                                    unsigned int expiry) PZ_REQUIRES(sync_);
    PZ_LOCAL void provideCheckLocked(unsigned int now) PZ_REQUIRES(sync_);
    PZ_LOCAL void wakeLocked() PZ_REQUIRES(sync_);
    PZ_LOCAL unsigned int checkAllTimerLocked(unsigned int now) PZ_REQUIRES(sync_);
    PZ_LOCAL Timers takeDueTimersLocked(unsigned int now) PZ_REQUIRES(sync_);
    PZ_LOCAL void takeLocked(ExpiryIndex::iterator first, ExpiryIndex::iterator last, Timers& due)
        PZ_REQUIRES(sync_);
    PZ_LOCAL void armAgainLocked(Timers& due) PZ_REQUIRES(sync_);
    PZ_LOCAL ExpiryIndex::const_iterator firstFromLocked(unsigned int tick) const
        PZ_REQUIRES(sync_);
    PZ_LOCAL bool isAnyDueLocked(unsigned int now) const PZ_REQUIRES(sync_);
    PZ_LOCAL unsigned int nextWaitLocked(unsigned int now) const PZ_REQUIRES(sync_);
    PZ_LOCAL void waitWithoutLimitLocked() PZ_REQUIRES(sync_);
    PZ_LOCAL void showLocked() PZ_REQUIRES(sync_);

    unsigned int lastCheck_ PZ_GUARDED_BY(sync_);  // tick of the previous check
    [[maybe_unused]] const unsigned int thirdValue_;
    const int threadPriority_;
    TimerMap timers_ PZ_GUARDED_BY(sync_);  // active; due ones are outside while they fire
    PZSync sync_;                           // held while callbacks run
    PZThread<PZLTimerSubMng> thread_;
    const std::unique_ptr<Kept> kept_;
    ExpiryIndex index_ PZ_GUARDED_BY(sync_);  // of timers_
    Wait wait_ PZ_GUARDED_BY(sync_);          // of the thread; without limit while it checks
    Wait due_ PZ_GUARDED_BY(sync_);           // ends with the next check, never before wait_
    bool isWoken_ PZ_GUARDED_BY(sync_);       // a wake-up is on its way to the thread
    bool refuses_ PZ_GUARDED_BY(sync_);       // the last start made no thread
    long firstTickTaken_[4];                  // room of a semaphore that each thread posts
};

/// A timer: derive, implement OnTimer, and pass the object to PZLTimerMng::AddTimer.
///
/// The object belongs to its user and must live as long as it is active; PZLTimerMng says when it
/// may be deleted.
class PZ_API PZLTimerBase {
public:
    virtual ~PZLTimerBase();

    /// Called on a timer thread, under that thread's lock, when the interval is over. Non-zero:
    /// fire again `info->interval` milliseconds after this check; the callback may change the
    /// interval. Zero: the timer is no longer active. Must not throw: an exception ends the
    /// timer thread.
    virtual int OnTimer(PZLTimerSubMng::_TimerInfo* info) = 0;
};

/// The timers of the process.
///
///     class Blink : public PZLTimerBase {
///         int OnTimer(PZLTimerSubMng::_TimerInfo*) override { toggle(); return 1; }
///     };
///     PZLTimerMng::TimerSubInfo* handle = PZLTimerMng::GetTimerMng()->AddTimer(&blink, 500);
///     ...
///     PZLTimerMng::GetTimerMng()->RemoveTimer(handle, &blink);  // from now on blink may die
///
/// Bands. Five timer threads share the work, "ZLTimerSubMng_0" to "ZLTimerSubMng_4". The wide
/// priority (see PZThreadMng) of the thread that adds a timer selects the one that fires it:
///
///     callers 177-207   208-219   220-231   232-243   244-255
///     thread      196       197       198       199       200
///
/// AddTimer answers the band, which is the handle for RemoveTimer and IsActive. A timer object is
/// active at most once in a band; a thread of another band may add it there too.
///
/// Callbacks run on the band's thread, in the order of the timers' addresses when several are due
/// together, and with the band's lock held: meanwhile other threads wait in AddTimer, RemoveTimer
/// and IsActive of that band, and its other timers are late. Keep callbacks short (post a message
/// to a worker), and hold no lock that a callback takes while calling into its band.
///
/// A callback may itself call AddTimer, RemoveTimer and IsActive. The timers that are due in the
/// same check, its own included, are not active until all their callbacks have returned:
/// - RemoveTimer of one of them answers 0 and stops nothing; only its callback's result does.
/// - AddTimer of one of them succeeds, and its interval and expiry win over the repetition.
///
/// AddTimer from a callback uses the timer thread's own priority, and all five are in the first
/// band: a timer of another band cannot re-add itself there, but repeats by its result. A callback
/// that calls into another band waits for that band's callbacks; two bands whose callbacks call
/// into each other can block each other without end.
///
/// Time is the 32-bit millisecond tick. A timer fires at its expiry or later, never before. The
/// period counts from the check that fired it, so a late timer is not caught up.
/// - An interval of 0 fires at the next check; adding a timer causes a check at once. A timer that
///   repeats with an interval of 0 causes none: its band with all its timers then waits without
///   limit, until a timer is added to it. Repeat with 1 or more.
/// - Intervals of 0x80000000 (24.8 days) or more are not supported: such a timer waits without
///   limit, or fires at once if the band's previous check was long ago.
/// - Every 49.7 days, shortly before the tick wraps, a band whose timers all expire after the wrap
///   may wait without limit, until a timer is added to it after the wrap. On a device that runs so
///   long, let another thread add one from time to time.
///
/// Threads:   any thread may call anything.
/// Ownership: timers belong to their user. After RemoveTimer a timer is not touched any more and
///            may be deleted; inside a callback of the same band, where 0 can mean that the timer
///            is due, only after an answer of 1. A callback may delete its own timer if it answers
///            0 and has not added it again. Handles live as long as the manager.
/// Lifetime:  made on first use, usually by the framework's start, and destroyed with the other
///            singletons: that waits for running callbacks, then drops all timers without calling
///            them.
/// Memory:    only AddTimer needs some. Active timers continue to fire without.
/// Failures:  reported and answered with a result; only making the manager throws
///            (std::bad_alloc): nothing of it is left then. A band whose thread could not be
///            started (reported) takes no timers.
class PZ_API PZLTimerMng : public PZSingleton<PZLTimerMng> {
public:
    /// One band: the handle of its timers.
    struct TimerSubInfo {
        int lo;               ///< lowest priority
        int hi;               ///< highest priority
        PZLTimerSubMng* sub;  ///< owned by the manager
    };

    ~PZLTimerMng() override;

    PZLTimerMng(const PZLTimerMng&) = delete;
    PZLTimerMng& operator=(const PZLTimerMng&) = delete;

    /// GetInstance under another name. The first call starts the timer threads.
    static PZLTimerMng* GetTimerMng();

    /// Makes `t` fire `ms` milliseconds from now. Null when `t` is null or active in the band
    /// already (it keeps its interval and expiry), when the calling thread's priority lies in no
    /// band (reported), when the band has no thread, or when there is no memory (reported).
    TimerSubInfo* AddTimer(PZLTimerBase* t, unsigned int ms);

    /// 1 when `t` was active in the band `h` and is removed; else 0, also for null arguments.
    int RemoveTimer(TimerSubInfo* h, PZLTimerBase* t);

    /// 1 when `t` is active in the band `h`; else 0, also for null arguments.
    int IsActive(TimerSubInfo* h, PZLTimerBase* t);

    /// The band that holds `priority`, or null.
    TimerSubInfo* Find(int priority);

    /// -1 when `priority` lies below the band `h` (not null), 1 when above, else 0.
    int Checkup(TimerSubInfo* h, int priority);

    /// The calling thread's wide priority, see PZThreadMng::GetCurrentThreadPriority.
    int GetPriority();

private:
    friend class PZSingleton<PZLTimerMng>;
    PZLTimerMng();

    PZ_LOCAL void endBands();

    unsigned int count_;
    TimerSubInfo** subs_;  // `count_` records, owned like the array
};

#endif  // PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H
