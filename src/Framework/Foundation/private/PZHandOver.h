#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZHANDOVER_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZHANDOVER_H

#include <array>
#include <utility>

/// Stands between what different threads write, so that it lies on different lines of their caches.
using PZApart = std::array<unsigned char, 64>;

/// How work gets from the threads that post it to the loop that serves it: in order, without a
/// wake-up too few, and with few locks and wake-ups.
///
/// Messages wait in two queues. Posts put theirs into the inbox, under the lock. The loop serves
/// from a queue of its own, without the lock; when that is empty, it exchanges it for the inbox. So
/// both meet at the lock once for many messages.
///
/// The order is that of one queue: before each message the loop reads how urgent the inbox is. What
/// is more urgent than all of its own comes first. Among equals its own came first, because an
/// exchange takes all there is.
///
///   a post, under the lock:   put the work in; is the loop asleep?
///           after it:         if so, wake it: this sleep needs no other wake-up
///   the loop:                 nothing there? look a moment longer, where that may help;
///                             under the lock: still nothing? it is asleep; wait
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
///   Message       what is posted
///   Queue         PZPriorityQueue of messages
///   Wait          Look, Wake, Wait (without limit), DiscardWakeUps, as the box's
///   Result        what Wait answers: kWoken, kEnd, kError
template <typename Env>
class PZHandOver {
public:
    using Message = typename Env::Message;
    using Queue = typename Env::Queue;

    /// What a post has found: the number of the loop's sleep, kAwake when it needs no wake-up.
    using Sleep = unsigned int;
    static constexpr Sleep kAwake = 0;

    /// For `room` messages at most: a post asks IsFullLocked first.
    PZHandOver(typename Env::Sync& sync, typename Env::Wait& wait, unsigned int room)
        : sync_(sync), wait_(wait), inbox_(room), own_(room) {}

    PZHandOver(const PZHandOver&) = delete;
    PZHandOver& operator=(const PZHandOver&) = delete;

    /// Under the lock: whether as many messages wait as there is room for.
    bool IsFullLocked() {
        if (posted_ - takenBefore_ < inbox_.capacity()) return false;
        takenBefore_ = taken_.load();
        return posted_ - takenBefore_ >= inbox_.capacity();
    }

    /// Under the lock: keeps room for a message, which counts as one that waits; and gives it back.
    /// @{
    void ReserveLocked() { ++posted_; }
    void GiveReservedBackLocked() { --posted_; }
    /// @}

    /// Under the lock: how many messages wait, reserved room included.
    unsigned int CountLocked() const { return posted_ - taken_.load(); }

    /// Under the lock: puts a message in, which `fill` is called with. The answer is for WakeFrom,
    /// which follows. Without memory it throws std::bad_alloc, and nothing has changed.
    template <typename Fill>
    Sleep PostLocked(unsigned int priority, Fill fill) {
        typename Queue::que& message = inbox_.Insert(priority);
        fill(message);
        ++posted_;
        if (message.priority < urgency_.load()) urgency_.store(message.priority);
        return AddedLocked();
    }

    /// Under the lock, after a post: whether it is the only one that the loop has not fetched.
    bool IsFirstLocked() const { return inbox_.size() == 1; }

    /// Under the lock, after a post: how many messages wait when they are more than `most`, else 0.
    /// What the loop has taken is looked up only when they may be more.
    unsigned int PendingAboveLocked(unsigned int most) {
        if (posted_ - takenBefore_ <= most) return 0;
        takenBefore_ = taken_.load();
        const unsigned int pending = posted_ - takenBefore_;
        return pending > most ? pending : 0;
    }

    /// Under the lock: the events that wait.
    unsigned int EventsLocked() const { return events_.load(); }

    /// Under the lock, when an event was put in: the answer is for WakeFrom, which follows.
    Sleep EventPostedLocked() {
        events_.store(events_.load() + 1);
        return AddedLocked();
    }

    /// After the lock, when the loop was asleep: a destructor waits for the call. When the
    /// loop was awake, there may be nothing left to call.
    ///
    /// False when the loop could not be woken: the next post tries again. `notWoken` is called
    /// then, before anybody may destroy what it touches.
    template <typename NotWoken>
    bool WakeFrom(Sleep sleep, NotWoken notWoken) {
        const bool woken = wait_.Wake() == 1;
        // Another sleep may have begun meanwhile: it needs a wake-up of its own.
        if (woken) sleep_.compare_exchange(sleep, kAwake);
        if (!woken) notWoken();
        wakers_.fetch_sub(1);
        return woken;
    }

    /// Under the lock, when a loop begins: throws all work away.
    void BeginLocked() {
        inbox_.Clear();
        own_.Clear();
        posted_ = 0;
        takenBefore_ = 0;
        taken_.store(0);
        urgency_.store(kNothing);
        events_.store(0);
    }

    /// Under the lock, when a loop that can be woken has begun.
    void AwakeLocked() {
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

    /// The loop: takes the next message out; false when there is none, or when `isWanted` refuses
    /// the next one, which stays.
    template <typename IsWanted>
    bool Take(IsWanted isWanted, Message& message) {
        if (urgency_.load() >= LevelOf(own_)) return TakeFrom(own_, isWanted, message);
        return TakeWithInbox(isWanted, message);
    }

    /// The loop: false when the next message is none of the most urgent level, unless such a one is
    /// posted just now.
    bool IsNextMostUrgent() const { return LevelOf(own_) == 0 || urgency_.load() == 0; }

    /// The loop: what it takes next, if nothing more urgent is posted meanwhile; null when it has
    /// to look into the inbox.
    const Message* NextOwn() const { return own_.empty() ? nullptr : &own_.top(); }

    /// The loop: whether there is an event.
    bool HasEvent() const { return events_.load() != 0; }

    /// Under the lock, when an event was taken out.
    void EventTakenLocked() { events_.store(events_.load() - 1); }

    /// Whether a post is still about to wake the loop: it is to outlive that.
    bool IsBeingWoken() const { return wakers_.load() != 0; }

private:
    static constexpr unsigned int kNothing = ~0U;  // less urgent than every level

    static unsigned int LevelOf(const Queue& queue) {
        return queue.empty() ? kNothing : queue.top().priority;
    }

    Sleep AddedLocked() {
        const Sleep sleep = sleep_.load();
        if (sleep != kAwake) wakers_.fetch_add(1);
        return sleep;
    }

    template <typename IsWanted>
    __attribute__((noinline)) bool TakeWithInbox(IsWanted isWanted, Message& message) {
        const typename Env::Guard guard(sync_);
        if (!own_.empty()) {
            const bool taken = TakeFrom(inbox_, isWanted, message);
            urgency_.store(LevelOf(inbox_));
            return taken;
        }
        std::swap(own_, inbox_);
        urgency_.store(kNothing);
        return TakeFrom(own_, isWanted, message);
    }

    template <typename IsWanted>
    bool TakeFrom(Queue& queue, IsWanted isWanted, Message& message) {
        if (queue.empty() || !isWanted(queue.top())) return false;
        message = queue.top();
        queue.pop();
        taken_.store(taken_.load() + 1);
        return true;
    }

    /// The loop's test for work without the lock: only the loop takes out, so what it has seen
    /// stays there, and what it has missed it finds before it falls asleep.
    bool IsIdle() const {
        return own_.empty() && urgency_.load() == kNothing && events_.load() == 0;
    }

    /// Waits until there is work, or the loop is asked to end; answers as the wait did.
    typename Env::Result WaitForWork() {
        if (wait_.Look([this] { return !IsIdle(); })) return Env::kWoken;
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

    // Read by everybody.
    typename Env::Sync& sync_;
    typename Env::Wait& wait_;
    typename Env::Atomic urgency_{kNothing};  // level of the inbox's next; written under the lock
    typename Env::Atomic events_{0};          // written under the lock
    typename Env::Atomic sleep_{1};           // begins under the lock; asleep until there is a loop
    typename Env::Atomic wakers_{0};
    PZApart fromPosts_ = {};

    // Guarded by the lock.
    Queue inbox_;
    unsigned int posted_ = 0;       // messages since the loop began, modulo 2^32
    unsigned int takenBefore_ = 0;  // taken_, as it was when the box last seemed full
    Sleep lastSleep_ = 1;
    PZApart fromLoop_ = {};

    // The loop's own.
    Queue own_;
    typename Env::Atomic taken_{0};  // read by posts
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZHANDOVER_H
