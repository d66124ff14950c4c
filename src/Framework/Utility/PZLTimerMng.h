#ifndef PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H
#define PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>

#include <Framework/Foundation/PZEvent.h>
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
/// Failures:  reported and answered with a result, never thrown.
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

    /// Starts the thread, "PZLTimerSubMng" when `name` is null, and sets its priority. Returns
    /// when the thread has read the tick: no timer added from then on is lost. 1 on success. 0
    /// (reported) when there is no thread, or a thread of another priority that runs all the same.
    int start(const char* name);

    /// Ends the thread and waits for that without limit (`timeout` is not used); its timers are
    /// removed. 1 when it was joined, 0 when the join failed (reported). 1 at once when there is
    /// no thread; the next one to be started then ends at once.
    int end(unsigned int timeout);

    /// Gives the running thread another wide priority. 1 when it has it, else 0 (reported).
    int setPriority(int priority);

    /// 1 when the timer was added. 0 when it is null or active already; it keeps its interval and
    /// expiry then.
    int addTimer(PZLTimerBase* t, unsigned int ms);

    /// 1 when the timer is active.
    int isActive(PZLTimerBase* t);

    /// 1 when the timer was active and is removed.
    int removeTimer(PZLTimerBase* t);

    /// Thread hooks, called by the timer thread.
    int Initialize();
    void MainProc();
    void Finalize();

private:
    using TimerMap = std::map<PZLTimerBase*, _TimerInfo, std::less<PZLTimerBase*>>;

    PZ_LOCAL void takeFirstTick();
    PZ_LOCAL void waitForFirstTick();
    PZ_LOCAL int waitForEvent(unsigned int waitMs);
    PZ_LOCAL unsigned int checkAllTimer();
    PZ_LOCAL TimerMap takeDueTimersLocked(unsigned int now) PZ_REQUIRES(sync_);
    PZ_LOCAL unsigned int nextWaitLocked(unsigned int now) const PZ_REQUIRES(sync_);

    unsigned int lastCheck_ PZ_GUARDED_BY(sync_);  // tick of the previous check
    [[maybe_unused]] const unsigned int thirdValue_;
    const int threadPriority_;
    TimerMap timers_
        PZ_GUARDED_BY(sync_);  // the active ones; the due ones leave it while they fire
    PZSync sync_;              // held while callbacks run
    PZThread<PZLTimerSubMng> thread_;
    PZEvent addedEvent_;
    PZEvent endEvent_;

    std::mutex firstTickMutex_;
    std::condition_variable firstTickTaken_;
    bool isFirstTickTaken_ = false;  // guarded by firstTickMutex_
};

/// A timer: derive, say in OnTimer what is to happen, and hand the object to PZLTimerMng::AddTimer.
///
/// The object belongs to its user and must live as long as it is active; see PZLTimerMng for when
/// it may be deleted.
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
/// AddTimer answers with the band as the handle for RemoveTimer and IsActive. A timer object is
/// active at most once in a band; nothing hinders a thread of another band from adding it there
/// too.
///
/// Callbacks run on the band's thread, in order of the timers' addresses when several are due
/// together, with the band's lock held: other threads wait in AddTimer, RemoveTimer and IsActive
/// of that band, and its other timers are late. Keep them short (post a message to a worker), and
/// hold no lock during RemoveTimer that a callback takes. A callback may itself call
/// AddTimer, RemoveTimer and IsActive. The timers that are due in the same check, its own
/// included, are not active until all their callbacks have returned:
///   - RemoveTimer of one of them answers 0 and stops nothing; only the callback's result does.
///   - AddTimer of one of them succeeds, and its interval and expiry win over the repetition.
/// AddTimer from a callback files by the timer thread's own priority: all five lie in the first
/// band. A callback of another band then waits for that band's callbacks, so callbacks of the
/// first band must not call into other bands.
///
/// Time is the 32-bit millisecond tick. A timer never fires early. The period counts from the
/// check that fired it: a late timer is not caught up, and callbacks that take long move it.
///   - An interval of 0 fires at the next check, which a newly added timer brings about at once.
///     A repeating timer of interval 0 brings about none: its thread waits without limit, with
///     all its timers, until a timer is added to the band. Repeat with 1 or more.
///   - Intervals of 0x80000000 or more are not supported: their wait has no limit, and they may
///     fire at once when the band's last check was long ago.
///   - When the tick wraps (every 49.7 days) a timer whose expiry lies beyond the wrap, while no
///     other expiry of the band lies before it, may wait until a timer is added to the band.
///
/// Threads:   any thread may call anything.
/// Ownership: timers belong to their user. A timer may be deleted when it is not active, once
///            RemoveTimer or IsActive on another thread has returned with that: both wait for
///            the running callbacks. A callback may delete its own timer if it answers 0 and has
///            not added it again; other timers of its band may be due as well and must stay.
///            Handles are valid as long as the manager.
/// Lifetime:  made on first use, as a rule by the framework's start, and destroyed with the other
///            singletons: waits for running callbacks, then drops all timers without calling them.
/// Failures:  reported and answered with a result, never thrown.
class PZ_API PZLTimerMng : public PZSingleton<PZLTimerMng> {
public:
    /// One band: the handle of its timers.
    struct TimerSubInfo {
        int lo;               ///< lowest priority
        int hi;               ///< highest priority
        PZLTimerSubMng* sub;  ///< owned by the manager
    };

    ~PZLTimerMng() override;

    /// GetInstance under another name. The first call starts the timer threads.
    static PZLTimerMng* GetTimerMng();

    /// Makes `t` fire `ms` milliseconds from now. Null when `t` is null or active in the band
    /// already (it keeps its interval and expiry), or when the calling thread's priority lies in
    /// no band (reported).
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

    unsigned int count_;
    TimerSubInfo** subs_;  // `count_` records, owned like the array
};

#endif  // PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H
