#include <algorithm>
#include <iterator>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Foundation/PZWatchDog.h>
#include <Framework/Utility/PZLTimerMng.h>

namespace {

constexpr unsigned int kWatchTimeMs = 4000;
constexpr unsigned int kNoLimit = 0xFFFFFFFFU;
constexpr unsigned int kMaxAddedSignals = 256;  // far below what the smallest event holds

/// What ends a wait: the index of the event, or the time-out. Anything else is an error.
enum EN_WAKE_UP : int { en_WAKE_TIMEOUT = -2, en_WAKE_END = 0, en_WAKE_ADDED = 1 };

unsigned int tick_now() {
    return static_cast<unsigned int>(PZTickCount::GetInstance()->GetTime());
}

unsigned int expiry_of(const PZLTimerSubMng::_TimerInfo& info) {
    return static_cast<unsigned int>(info.expiry);
}

/// True when `tick` lies in the window from `last` to `now`, both included, on the wrapping tick.
constexpr bool is_between(unsigned int tick, unsigned int last, unsigned int now) {
    return tick - last <= now - last;
}
static_assert(is_between(5, 5, 9) && is_between(9, 5, 9), "both ends belong to the window");
static_assert(!is_between(4, 5, 9) && !is_between(10, 5, 9), "nothing else does");
static_assert(is_between(0xFFFFFFFFU, 0xFFFFFFF0U, 2) && is_between(0, 0xFFFFFFF0U, 2),
              "the window spans the wrap");

/// Calls the timers in order. Those that repeat stay, armed again from `now`; the others go.
template <typename TimerMap>
void fire(TimerMap& due, unsigned int now) {
    for (auto it = due.begin(); it != due.end();) {
        PZLTimerSubMng::_TimerInfo& info = it->second;
        if (it->first->OnTimer(&info) == 0) {
            it = due.erase(it);  // the timer itself may be deleted already
            continue;
        }
        info.expiry = now + info.interval;  // a 32-bit sum
        ++it;
    }
}

}  // namespace

PZLTimerSubMng::PZLTimerSubMng(unsigned int thirdValue, int threadPriority)
    : lastCheck_(0),
      thirdValue_(thirdValue),
      threadPriority_(threadPriority),
      thread_(this, kWatchTimeMs),
      addedSignals_(0) {
    // The timer threads need these to their end. Made here they outlive the timer manager, and no
    // two timer threads come to make singletons at the same time.
    PZThreadMng::GetInstance();
    PZTickCount::GetInstance();
    PZWatchDog::GetInstance();
}

PZLTimerSubMng::~PZLTimerSubMng() = default;

int PZLTimerSubMng::start(const char* name) {
    {
        const std::lock_guard<std::mutex> lock(firstTickMutex_);
        isFirstTickTaken_ = false;
    }
    if (!thread_.Start(name != nullptr ? name : "PZLTimerSubMng")) return 0;
    waitForFirstTick();
    return setPriority(threadPriority_);
}

int PZLTimerSubMng::end(unsigned int /*timeout*/) {
    endEvent_.SetEvent();
    return thread_.WaitExit() == 0 ? 1 : 0;
}

int PZLTimerSubMng::setPriority(int priority) {
    return thread_.SetPriority(priority) ? 1 : 0;
}

int PZLTimerSubMng::addTimer(PZLTimerBase* t, unsigned int ms) {
    if (t == nullptr) return 0;
    const PZSyncLock lock(sync_);
    const unsigned int expiry = tick_now() + ms;
    const bool isNew = timers_.insert({t, {ms, expiry}}).second;
    if (!isNew) return 0;
    signalAddedLocked();
    return 1;
}

int PZLTimerSubMng::isActive(PZLTimerBase* t) {
    const PZSyncLock lock(sync_);
    return timers_.count(t) != 0 ? 1 : 0;
}

int PZLTimerSubMng::removeTimer(PZLTimerBase* t) {
    const PZSyncLock lock(sync_);
    return timers_.erase(t) != 0 ? 1 : 0;
}

int PZLTimerSubMng::Initialize() {
    return 0;
}

void PZLTimerSubMng::MainProc() {
    takeFirstTick();
    unsigned int waitMs = 0;  // 0: without limit
    for (;;) {
        switch (waitForEvent(waitMs)) {
            case en_WAKE_END:
                return;
            case en_WAKE_ADDED:
                noteAddedSignalTaken();
                waitMs = checkAllTimer();
                break;
            case en_WAKE_TIMEOUT:
                waitMs = checkAllTimer();
                break;
            default:
                PZ_REPORT_ASSERTION();
                break;
        }
    }
}

void PZLTimerSubMng::Finalize() {
    const PZSyncLock lock(sync_);
    timers_.clear();
}

// A timer that is added before this reading could expire outside the first check's window and
// would be lost, so `start` waits for it.
void PZLTimerSubMng::takeFirstTick() {
    {
        const PZSyncLock lock(sync_);
        lastCheck_ = tick_now();
    }
    const std::lock_guard<std::mutex> lock(firstTickMutex_);
    isFirstTickTaken_ = true;
    firstTickTaken_.notify_one();
}

void PZLTimerSubMng::waitForFirstTick() {
    std::unique_lock<std::mutex> lock(firstTickMutex_);
    firstTickTaken_.wait(lock, [this] { return isFirstTickTaken_; });
}

int PZLTimerSubMng::waitForEvent(unsigned int waitMs) {
    PZEvent* events[] = {&endEvent_, &addedEvent_};  // indexes as in EN_WAKE_UP
    constexpr auto kCount = static_cast<unsigned int>(std::size(events));
    PZWatchDog::GetInstance()->IntoWait();
    const int result =
        PZEvent::WaitMultipleEvent(kCount, events, waitMs == 0 ? kNoLimit : waitMs, false);
    PZWatchDog::GetInstance()->OutWait();
    return result;
}

// Timers may be added faster than the thread checks them. The event must not fill up: it would be
// drained here, and of adder and thread the one that comes too late for the last signal would wait
// for good, the adder with the lock held. A check that is still to come sees the new timer as well.
void PZLTimerSubMng::signalAddedLocked() {
    if (addedSignals_ >= kMaxAddedSignals) return;
    // A signal that could not be added may have cost those before it: count anew.
    addedSignals_ = addedEvent_.SetEvent() == 1 ? addedSignals_ + 1 : 0;
}

void PZLTimerSubMng::noteAddedSignalTaken() {
    const PZSyncLock lock(sync_);
    if (addedSignals_ > 0) --addedSignals_;
}

// Fires what is due; the milliseconds to the next check, 0 for no limit.
unsigned int PZLTimerSubMng::checkAllTimer() {
    const PZSyncLock lock(sync_);
    const unsigned int now = tick_now();
    TimerMap due = takeDueTimersLocked(now);
    fire(due, now);
    timers_.merge(due);  // leaves alone what a callback has added anew
    lastCheck_ = now;
    return nextWaitLocked(now);
}

PZLTimerSubMng::TimerMap PZLTimerSubMng::takeDueTimersLocked(unsigned int now) {
    TimerMap due;
    for (auto it = timers_.begin(); it != timers_.end();) {
        const auto timer = it++;
        if (is_between(expiry_of(timer->second), lastCheck_, now)) {
            due.insert(due.end(), timers_.extract(timer));
        }
    }
    return due;
}

unsigned int PZLTimerSubMng::nextWaitLocked(unsigned int now) const {
    if (timers_.empty()) return 0;
    // The smallest expiry from `now` upward, or the smallest of all when every one lies beyond
    // the wrap.
    const auto isSooner = [now](const auto& a, const auto& b) {
        return expiry_of(a.second) - now < expiry_of(b.second) - now;
    };
    const auto next = std::min_element(timers_.begin(), timers_.end(), isSooner);
    const unsigned int expiry = expiry_of(next->second);
    // Beyond the wrap the wait is the sum on purpose, not the difference.
    return expiry >= now ? expiry - now : now + expiry;
}
