#include "TimerCore.h"

#include <algorithm>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_scope_end.h>

namespace pz::detail {

namespace {

constexpr long long kLongestLegMs = 24LL * 3600 * 1000;  // far below what a band can wait
constexpr long long kRetryMs = 10;  // the only run, when the worker has no room

/// The band of the worker's priority; null when its timers are fired otherwise.
PZLTimerMng::TimerSubInfo* band_of(const WorkerCore& worker) {
    if (worker.ManualClock() != nullptr) return nullptr;
    constexpr EN_WORKER_PRIORITY kUsual = en_WORKER_PRIORITY_NORMAL;
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    auto* const band = timers->Find(worker.Options().priority.value_or(kUsual));
    return band != nullptr ? band : timers->Find(kUsual);
}

}  // namespace

TimerCore::TimerCore(std::shared_ptr<WorkerCore> worker, std::unique_ptr<TimerFunction> function,
                     const TimerRequest& request)
    : worker_(std::move(worker)),
      function_(std::move(function)),
      request_(request),
      band_(band_of(*worker_)) {}

bool TimerCore::Attach() {
    if (!Add()) return false;
    {
        const PZMutexLock lock(mutex_);
        if (!isDetached_) return true;  // its only run may have been posted already
    }
    Detach();  // the worker has been stopped meanwhile, and could not find it yet
    return false;
}

bool TimerCore::Add() {
    const long long time = std::clamp<long long>(request_.time.count(), 0, kLongestMs);
    if (ClockCore* const clock = worker_->ManualClock(); clock != nullptr) {
        dueMs_ = clock->NowMs() + time;
        return clock->Add(*this, dueMs_);
    }
    // The clock's millisecond has begun already: one more, and it is never too early.
    dueMs_ = worker_->NowMs() + time + 1;
    const auto first = static_cast<unsigned int>(std::min(time + 1, kLongestLegMs));
    return band_->sub->addTimer(this, first) == 1;
}

void TimerCore::Detach() noexcept {
    {
        const PZMutexLock lock(mutex_);
        isOver_ = true;
        isDetached_ = true;
    }
    if (ClockCore* const clock = worker_->ManualClock(); clock != nullptr) {
        clock->Remove(*this);
    } else if (band_ != nullptr) {
        PZLTimerMng::GetTimerMng()->RemoveTimer(band_, this);
    }
}

bool TimerCore::Stop() noexcept {
    if (worker_->IsOfParent()) return true;
    const auto self = weak_from_this().lock();  // its worker may be all that keeps it
    {
        const PZMutexLock lock(mutex_);
        isStopped_ = true;
    }
    // Kept no more: the worker has detached it, or does so now.
    if (worker_->Forget(*this)) Detach();
    if (worker_->IsOwnThread()) return true;
    if (WaitUntilDone()) return true;
    PZ_REPORT_ERROR("worker [%s]: the timer of %s()@%s(%d) still runs\n", worker_->Name(),
                    request_.place.function, base_name(request_.place.file), request_.place.line);
    return false;
}

void TimerCore::NoteDone() {
    const PZMutexLock lock(mutex_);
    isRunning_ = false;
    done_.notify_all();
}

bool TimerCore::WaitUntilDone() {
    const PZMutexLock lock(mutex_);
    const auto deadline = deadline_after(worker_->Options().stop_within);
    while (isRunning_ && lock.WaitUntil(done_, deadline)) {
    }
    return !isRunning_;
}

bool TimerCore::IsActive() const noexcept {
    const PZMutexLock lock(mutex_);
    return !isStopped_ && !isOver_;
}

// Under the band's lock.
int TimerCore::OnTimer(PZLTimerSubMng::_TimerInfo* info) {
    const long long now = worker_->NowMs();
    const long long next = now < dueMs_ ? dueMs_ : OnDue(now);
    if (next == kNever) return 0;
    info->interval = static_cast<unsigned int>(std::clamp<long long>(next - now, 1, kLongestLegMs));
    return 1;
}

long long TimerCore::OnDue(long long nowMs) {
    const bool isPosted = PostOnce();
    if (!IsActive()) return kNever;
    if (!request_.isPeriodic) {
        if (!isPosted) return nowMs + kRetryMs;
        const PZMutexLock lock(mutex_);
        isOver_ = true;
        return kNever;
    }
    const long long period = std::min<long long>(request_.time.count(), kLongestMs);
    const long long passed = (nowMs - dueMs_) / period;  // after the one that was due
    missed_ += static_cast<unsigned long long>(passed) + (isPosted ? 0 : 1);
    dueMs_ += (passed + 1) * period;
    return dueMs_;
}

/// False when the run before is not done, or the worker has no room.
bool TimerCore::PostOnce() noexcept {
    {
        const PZMutexLock lock(mutex_);
        if (isPosted_ || isRunning_) return false;
        isPosted_ = true;
    }
    const Posted posted = post(
        worker_.get(), [self = shared_from_this()] { self->Run(); }, request_.priority,
        std::chrono::milliseconds::zero(), request_.place);
    if (posted == Posted::ok) return true;
    const PZMutexLock lock(mutex_);
    isPosted_ = false;
    if (posted == Posted::stopped) isOver_ = true;
    return false;
}

void TimerCore::Run() {
    {
        const PZMutexLock lock(mutex_);
        isPosted_ = false;
        if (isStopped_) return;
        isRunning_ = true;
        if (!request_.isPeriodic) isOver_ = true;  // the thread that posts it says so too late
    }
    // Tells the thread that waits, also when the function throws.
    const PZScopeEnd running([this] { NoteDone(); });
    function_->Run();
}

}  // namespace pz::detail
