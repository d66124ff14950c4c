#include <semaphore.h>
#include <sys/prctl.h>

#include <cerrno>
#include <iterator>
#include <new>
#include <utility>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Foundation/PZWatchDog.h>
#include <Framework/Foundation/private/PZLoopWait.h>
#include <Framework/Foundation/private/PZWatchedWait.h>
#include <Framework/Foundation/private/pz_lock_memory.h>
#include <Framework/Utility/PZLTimerMng.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_home.h>
#include <Framework/private/pz_probes.h>
#include <Framework/private/pz_time.h>

#include "../../Diagnostics/private/PZInspection.h"

namespace {

constexpr unsigned int kWatchTimeMs = 4000;
constexpr unsigned int kLongestWaitMs =
    0x7FFFFFFFU;                            // everything above is waited for without limit
constexpr unsigned long kTimerSlackNs = 1;  // the kernel's default may add 50 us to a wait

unsigned int tick_now() {
    return static_cast<unsigned int>(PZTickCount::GetInstance()->GetTime());
}

/// True when `tick` lies in the window from `last` to `now`, both included, on the wrapping tick.
constexpr bool is_between(unsigned int tick, unsigned int last, unsigned int now) {
    return tick - last <= now - last;
}
static_assert(is_between(5, 5, 9) && is_between(9, 5, 9), "both ends belong to the window");
static_assert(!is_between(4, 5, 9) && !is_between(10, 5, 9), "nothing else does");
static_assert(is_between(0xFFFFFFFFU, 0xFFFFFFF0U, 2) && is_between(0, 0xFFFFFFF0U, 2),
              "the window spans the wrap");

constexpr bool is_without_limit(unsigned int waitMs) {
    return waitMs == 0 || waitMs > kLongestWaitMs;
}

/// The one that was made there.
sem_t* semaphore_in(long* room) {
    return std::launder(reinterpret_cast<sem_t*>(room));
}

/// Counts a callback that is called so late. When a count would overflow, all are halved.
void count_lateness(PZInspectedBand& shown, unsigned int lateMs) {
    pz_inspect_raise(shown.worstLateMs, lateMs);
    constexpr unsigned int kLast = std::size(PZ_INSPECTED_LATENESS_MS) - 1;
    unsigned int place = 0;
    while (place < kLast && PZ_INSPECTED_LATENESS_MS[place] < lateMs) ++place;
    if (pz_inspect_get(shown.lateness[place]) == 0xFFFF) {
        for (auto& count : shown.lateness) pz_inspect_set(count, pz_inspect_get(count) / 2);
    }
    pz_inspect_count(shown.lateness[place]);
}

}  // namespace

struct PZLTimerSubMng::Kept {
    PZLoopWait wait;
    PZListedBand shown;
    PZHome home;  // of the thread

    // Nodes of the timer that was removed last, for the next one; both or none. Who adds and
    // removes timers all the time needs no memory for that.
    TimerMap::node_type spareTimer;
    ExpiryIndex::node_type spareExpiry;
};

PZLTimerSubMng::PZLTimerSubMng(unsigned int thirdValue, int threadPriority)
    : lastCheck_(0),
      thirdValue_(thirdValue),
      threadPriority_(threadPriority),
      thread_(this, kWatchTimeMs),
      kept_(std::make_unique<Kept>()),
      wait_{0, 0},
      due_{0, 0},
      isWoken_(false),
      refuses_(false) {
    static_assert(sizeof firstTickTaken_ == sizeof(sem_t) && alignof(long) >= alignof(sem_t),
                  "the header gives the room without the system's header");
    if (!pz_has_semaphore(sync_)) throw std::bad_alloc();
    sem_init(new (firstTickTaken_) sem_t, 0, 0);
    // The timer threads need these to their end. Made here they outlive the timer manager, and no
    // two timer threads come to make singletons at the same time.
    PZThreadMng::GetInstance();
    PZTickCount::GetInstance();
    PZWatchDog::GetInstance();
}

PZLTimerSubMng::~PZLTimerSubMng() {
    sem_destroy(semaphore_in(firstTickTaken_));
}

int PZLTimerSubMng::start(const char* name) {
    if (name == nullptr) name = "PZLTimerSubMng";
    if (thread_.isStarted()) {
        thread_.Start(name);  // refuses and reports it; the running thread is left alone
        return 0;
    }
    const bool isStarted = startThread(name) == 1;
    {
        const PZSyncLock lock(sync_);
        refuses_ = !isStarted;
    }
    return isStarted ? setPriority(threadPriority_) : 0;
}

// A thread that could not be woken would be of no use to anybody.
int PZLTimerSubMng::startThread(const char* name) {
    kept_->home.Renew();
    if (!kept_->wait.Open() || !thread_.Start(name)) return 0;
    while (sem_wait(semaphore_in(firstTickTaken_)) != 0 && errno == EINTR) {
    }
    return 1;
}

int PZLTimerSubMng::end(unsigned int /*timeout*/) {
    if (thread_.isStarted() && kept_->home.IsParent()) return 1;
    kept_->wait.End();
    return thread_.WaitExit() == 0 ? 1 : 0;
}

int PZLTimerSubMng::setPriority(int priority) {
    return thread_.SetPriority(priority) ? 1 : 0;
}

int PZLTimerSubMng::addTimer(PZLTimerBase* t, unsigned int ms) {
    if (t == nullptr) return 0;
    try {
        const PZSyncLock lock(sync_);
        return !refuses_ && insertLocked(t, ms) ? 1 : 0;
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR_ON(THREAD, thread_.getName(), "failed to allocate memory\n");
        return 0;
    }
}

int PZLTimerSubMng::isActive(PZLTimerBase* t) {
    const PZSyncLock lock(sync_);
    return timers_.count(t) != 0 ? 1 : 0;
}

// flatten: one function, although the file is built for size.
[[gnu::flatten]] int PZLTimerSubMng::removeTimer(PZLTimerBase* t) {
    const PZSyncLock lock(sync_);
    const auto timer = timers_.find(t);
    if (timer == timers_.end()) return 0;
    kept_->spareExpiry = index_.extract(timer->second.byExpiry);
    kept_->spareTimer = timers_.extract(timer);
    showLocked();
    return 1;
}

int PZLTimerSubMng::Initialize() {
    return 0;
}

void PZLTimerSubMng::MainProc() {
    prctl(PR_SET_TIMERSLACK, kTimerSlackNs);
    takeFirstTick();
    unsigned int waitMs = 0;  // 0: without limit
    for (;;) {
        switch (waitForEvent(waitMs)) {
            case PZLoopWait::en_END:
                return;
            case PZLoopWait::en_WAKE:
                waitMs = checkWhenWoken();
                break;
            case PZLoopWait::en_TIMEOUT:
                waitMs = checkAfterTimeout();
                break;
            default:
                PZ_REPORT_ASSERTION();
                waitMs = waitAgain();
                break;
        }
    }
}

void PZLTimerSubMng::Finalize() {
    const PZSyncLock lock(sync_);
    index_.clear();
    timers_.clear();
    waitWithoutLimitLocked();
    pz_inspect_set(kept_->shown.tid, 0U);
    showLocked();
}

// A timer that is added before this reading could expire outside the first check's window and
// would be lost, so `start` waits for it.
void PZLTimerSubMng::takeFirstTick() {
    {
        const PZSyncLock lock(sync_);
        lastCheck_ = tick_now();
        waitWithoutLimitLocked();
        isWoken_ = false;
        pz_inspect_set(kept_->shown.tid, pz_get_current_thread_id());
        if (!timers_.empty()) wakeLocked();  // added while there was no thread
    }
    sem_post(semaphore_in(firstTickTaken_));
}

int PZLTimerSubMng::waitForEvent(unsigned int waitMs) {
    const PZWatchedWait watched;
    return kept_->wait.Wait(waitMs == 0 ? kNoTimeLimit : waitMs);
}

// What these three answer is the wait that follows: milliseconds, 0 for no limit.

unsigned int PZLTimerSubMng::checkWhenWoken() {
    const PZSyncLock lock(sync_);
    isWoken_ = false;
    return checkAllTimerLocked(tick_now());
}

unsigned int PZLTimerSubMng::checkAfterTimeout() {
    const PZSyncLock lock(sync_);
    const unsigned int now = tick_now();
    const unsigned int leftMs = leftOf(due_, now);
    if (leftMs == 0) return checkAllTimerLocked(now);
    // A timer that was removed had been waited for.
    wait_ = {now, is_without_limit(leftMs) ? 0 : leftMs};
    return wait_.ms;
}

unsigned int PZLTimerSubMng::waitAgain() {
    const PZSyncLock lock(sync_);
    due_.start = tick_now();
    wait_ = due_;
    return wait_.ms;
}

/// What is left at `now` of a wait, 0 when it is over.
unsigned int PZLTimerSubMng::leftOf(const Wait& wait, unsigned int now) {
    if (is_without_limit(wait.ms)) return kNoTimeLimit;
    const unsigned int elapsed = now - wait.start;
    return elapsed < wait.ms ? wait.ms - elapsed : 0;
}

void PZLTimerSubMng::waitWithoutLimitLocked() {
    wait_ = {0, 0};
    due_ = {0, 0};
}

// False when it is there already. An allocation that fails leaves nothing.
bool PZLTimerSubMng::insertLocked(PZLTimerBase* t, unsigned int ms) {
    const unsigned int now = tick_now();
    const unsigned int expiry = now + ms;
    const auto place = timers_.lower_bound(t);
    if (place != timers_.end() && place->first == t) return false;
    if (kept_->spareTimer.empty()) {
        insertNewLocked(place, t, ms, expiry);
    } else {
        insertSpareLocked(place, t, ms, expiry);
    }
    PZ_PROBE(timer_add, t, ms);
    provideCheckLocked(now);
    showLocked();
    return true;
}

void PZLTimerSubMng::insertNewLocked(TimerMap::iterator place, PZLTimerBase* t, unsigned int ms,
                                     unsigned int expiry) {
    const auto timer = timers_.try_emplace(place, t, Timer{{ms, expiry}, index_.end()});
    try {
        timer->second.byExpiry = index_.emplace(expiry, t);
    } catch (const std::bad_alloc&) {
        timers_.erase(timer);
        throw;
    }
}

void PZLTimerSubMng::insertSpareLocked(TimerMap::iterator place, PZLTimerBase* t, unsigned int ms,
                                       unsigned int expiry) {
    kept_->spareExpiry.key() = expiry;
    kept_->spareExpiry.mapped() = t;
    kept_->spareTimer.key() = t;
    kept_->spareTimer.mapped() = {{ms, expiry}, index_.insert(std::move(kept_->spareExpiry))};
    timers_.insert(place, std::move(kept_->spareTimer));
}

// Every timer that is added brings about a check. Where that check would find nothing due, and the
// thread wakes up early enough for the next one all the same, it takes place here, and the thread
// sleeps on. Its wait may end before the check that is due then; it waits for the rest.
void PZLTimerSubMng::provideCheckLocked(unsigned int now) {
    if (isWoken_) return;
    if (!is_without_limit(wait_.ms) && !isAnyDueLocked(now)) {
        const Wait next = {now, nextWaitLocked(now)};
        if (leftOf(wait_, now) <= leftOf(next, now)) {
            lastCheck_ = now;
            due_ = next;
            return;
        }
    }
    wakeLocked();
}

void PZLTimerSubMng::wakeLocked() {
    isWoken_ = kept_->wait.Wake() == 1;
}

// Fires what is due; the milliseconds to the next check, 0 for no limit.
unsigned int PZLTimerSubMng::checkAllTimerLocked(unsigned int now) {
    waitWithoutLimitLocked();  // what a callback adds has to wake the thread after this check
    Timers due = takeDueTimersLocked(now);
    const bool isAnyDue = !due.byAddress.empty();
    fire(due, now);
    armAgainLocked(due);
    lastCheck_ = now;
    // Counted from the check, but waited for from its end.
    wait_ = {isAnyDue ? tick_now() : now, nextWaitLocked(now)};
    due_ = wait_;
    showLocked();
    return wait_.ms;
}

PZLTimerSubMng::Timers PZLTimerSubMng::takeDueTimersLocked(unsigned int now) {
    Timers due;
    const auto first = index_.lower_bound(lastCheck_);
    const auto last = index_.upper_bound(now);
    if (now >= lastCheck_) {
        takeLocked(first, last, due);
    } else {
        takeLocked(index_.begin(), last, due);
        takeLocked(first, index_.end(), due);
    }
    return due;
}

// Moves the timers between the two over; nothing is allocated.
void PZLTimerSubMng::takeLocked(ExpiryIndex::iterator first, ExpiryIndex::iterator last,
                                Timers& due) {
    while (first != last) {
        const auto expiry = first++;
        auto timer = timers_.extract(expiry->second);
        timer.mapped().byExpiry = due.byExpiry.insert(index_.extract(expiry));
        due.byAddress.insert(std::move(timer));
    }
}

// Calls the timers in the order of their addresses. Those that repeat stay; the others go.
void PZLTimerSubMng::fire(Timers& due, unsigned int now) {
    if (due.byAddress.empty()) return;
    PZInspectedBand& shown = kept_->shown;
    const unsigned int firstMs = pz_inspection_now();
    unsigned int beginMs = firstMs;
    for (auto it = due.byAddress.begin(); it != due.byAddress.end();) {
        Timer& timer = it->second;
        const unsigned int expiry = static_cast<unsigned int>(timer.expiry);
        const unsigned int lateMs = now - expiry + (beginMs - firstMs);
        count_lateness(shown, lateMs);
        pz_inspect_set(shown.beganMs, beginMs);
        pz_inspect_set(shown.timer, it->first);
        PZ_PROBE(timer_begin, it->first, lateMs);
        const int again = it->first->OnTimer(&timer);
        PZ_PROBE(timer_end, it->first, again);
        pz_inspect_set(shown.timer, nullptr);
        pz_inspect_count(shown.fired);
        const unsigned int endMs = pz_inspection_now();
        pz_inspect_raise(shown.longestMs, endMs - beginMs);
        beginMs = endMs;
        if (again == 0) {
            due.byExpiry.erase(timer.byExpiry);
            it = due.byAddress.erase(it);  // the timer itself may be deleted already
            continue;
        }
        timer.expiry = now + timer.interval;  // a 32-bit sum
        ++it;
    }
}

// Puts the timers back, but for those that a callback has added again. Nothing is allocated.
void PZLTimerSubMng::armAgainLocked(Timers& due) {
    while (!due.byAddress.empty()) {
        auto timer = due.byAddress.extract(due.byAddress.begin());
        auto expiry = due.byExpiry.extract(timer.mapped().byExpiry);
        expiry.key() = static_cast<unsigned int>(timer.mapped().expiry);
        const auto back = timers_.insert(std::move(timer));
        if (back.inserted) back.position->second.byExpiry = index_.insert(std::move(expiry));
    }
}

void PZLTimerSubMng::showLocked() {
    pz_inspect_set(kept_->shown.active, timers_.size());
    pz_inspect_set(kept_->shown.nextTick, due_.start + due_.ms);
}

/// The first one with an expiry of `tick` or later. As a rule that is the first of all.
PZLTimerSubMng::ExpiryIndex::const_iterator PZLTimerSubMng::firstFromLocked(
    unsigned int tick) const {
    const auto first = index_.begin();
    return first != index_.end() && first->first >= tick ? first : index_.lower_bound(tick);
}

bool PZLTimerSubMng::isAnyDueLocked(unsigned int now) const {
    if (index_.empty()) return false;
    auto next = firstFromLocked(lastCheck_);
    if (next == index_.end()) next = index_.begin();  // beyond the wrap
    return is_between(next->first, lastCheck_, now);
}

unsigned int PZLTimerSubMng::nextWaitLocked(unsigned int now) const {
    if (index_.empty()) return 0;
    // The smallest expiry from `now` upward, or the smallest of all when every one lies beyond
    // the wrap.
    const auto next = firstFromLocked(now);
    // Beyond the wrap the wait is the sum on purpose, not the difference.
    return next != index_.end() ? next->first - now : now + index_.begin()->first;
}
