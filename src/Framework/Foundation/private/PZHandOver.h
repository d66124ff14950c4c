#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZHANDOVER_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZHANDOVER_H

/// How work gets from the threads that post it to the loop that serves it, without a wake-up too
/// few and with as few as possible.
///
///   a post, under the lock:   put the work in; is the loop asleep?
///           after it:         if so, wake it: this sleep needs no other wake-up
///   the loop:                 nothing there? under the lock: still nothing? it is asleep; wait
///
/// So only a post for a sleeping loop wakes it, and none does while it serves. The wake-up comes
/// after the lock, for which the woken loop would have to wait at once.
///
/// What must hold: while the loop waits and work is there, a wake-up is on its way. The loop falls
/// asleep under the lock, with nothing there. The first post after that finds it asleep, and so do
/// all others until a wake-up of this very sleep has succeeded: sleeps are numbered.
///
/// The steps are a template over what they share between the threads, so that a test can run the
/// very same steps in every order. `Env` names the types:
///   Sync, Guard   the lock of the queues, and its scoped guard
///   Atomic        an atomic unsigned int
///   Wait          Wake, Wait (without limit), DiscardWakeUps, as PZLoopWait
///   Result        what Wait answers: kWoken, kEnd, kError
template <typename Env>
class PZHandOver {
public:
    /// What a post has found: the number of the loop's sleep, 0 when it is awake.
    using Sleep = unsigned int;

    PZHandOver(typename Env::Sync& sync, typename Env::Wait& wait) : sync_(sync), wait_(wait) {}

    PZHandOver(const PZHandOver&) = delete;
    PZHandOver& operator=(const PZHandOver&) = delete;

    /// Under the lock, when a piece of work was put in: the answer is for WakeFrom, which follows.
    Sleep AddedLocked() {
        pieces_.store(pieces_.load() + 1);
        const Sleep sleep = sleep_.load();
        if (sleep != kAwake) wakers_.fetch_add(1);
        return sleep;
    }

    /// After the lock. False when the loop sleeps and could not be woken: the next post tries
    /// again.
    bool WakeFrom(Sleep sleep) {
        if (sleep == kAwake) return true;
        const bool woken = wait_.Wake() == 1;
        // Another sleep may have begun meanwhile: it needs a wake-up of its own.
        if (woken) sleep_.compare_exchange(sleep, kAwake);
        wakers_.fetch_sub(1);
        return woken;
    }

    /// Under the lock, when a piece of work was taken out.
    void TakenLocked() { pieces_.store(pieces_.load() - 1); }

    /// The test for work without the lock: only the loop takes out, so what it has seen stays
    /// there, and what it has missed it finds before it falls asleep.
    bool IsIdle() const { return pieces_.load() == 0; }

    /// Under the lock, when a loop begins, for which all work was thrown away.
    void BeginLocked() {
        pieces_.store(0);
        wait_.DiscardWakeUps();
        sleep_.store(kAwake);
    }

    /// The loop: calls `servePass` while there is work, until it is asked to end and nothing is
    /// left. `waitFailed` is called after a wait that came to an error.
    template <typename ServePass, typename WaitFailed>
    void Run(ServePass servePass, WaitFailed waitFailed) {
        bool ending = false;
        for (;;) {
            if (!ending && IsIdle()) {
                const typename Env::Result result = WaitForWork();
                if (result == Env::kError) waitFailed();
                ending = result == Env::kEnd;
            }
            // Tested again: what was posted before the end was asked for may have come after the
            // first test.
            if (ending && IsIdle()) break;
            servePass();
        }
        // What nobody serves counts as asleep, so that a post tells when the next loop could not be
        // woken either.
        const typename Env::Guard guard(sync_);
        wait_.DiscardWakeUps();
        FallAsleepLocked();
    }

    /// Whether a post is still about to wake the loop: it is to outlive that.
    bool IsBeingWoken() const { return wakers_.load() != 0; }

private:
    static constexpr Sleep kAwake = 0;

    /// Waits until there is work, or the loop is asked to end; answers as the wait did.
    typename Env::Result WaitForWork() {
        {
            const typename Env::Guard guard(sync_);
            if (!IsIdle()) return Env::kWoken;
            FallAsleepLocked();
        }
        const typename Env::Result result = wait_.Wait();
        sleep_.store(kAwake);
        return result;
    }

    void FallAsleepLocked() {
        if (++lastSleep_ == kAwake) ++lastSleep_;
        sleep_.store(lastSleep_);
    }

    typename Env::Sync& sync_;
    typename Env::Wait& wait_;
    typename Env::Atomic pieces_{0};  // written under the lock
    typename Env::Atomic sleep_{1};   // begins under the lock; asleep until there is a loop
    typename Env::Atomic wakers_{0};
    Sleep lastSleep_ = 1;  // guarded by the lock
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZHANDOVER_H
