#include "Framework/Easy/Timer.h"

#include <Framework/Diagnostics/PZReport.h>

#include "TimerCore.h"
#include "replace.h"

namespace pz {

namespace detail {

namespace {

/// Null without memory.
std::shared_ptr<TimerCore> make_timer(const std::shared_ptr<WorkerCore>& worker,
                                      std::unique_ptr<TimerFunction> function,
                                      const TimerRequest& request) noexcept {
    if (function == nullptr) return nullptr;
    try {
        return std::make_shared<TimerCore>(worker, std::move(function), request);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

std::shared_ptr<TimerCore> refuse(const std::shared_ptr<WorkerCore>& worker, const Place& place,
                                  const char* why) noexcept {
    PZ_REPORT_ERROR("worker [%s] refuses a timer of %s()@%s(%d): %s\n",
                    worker != nullptr ? worker->Name() : "", place.function, base_name(place.file),
                    place.line, why);
    return nullptr;
}

}  // namespace

std::shared_ptr<TimerCore> start_timer(const std::shared_ptr<WorkerCore>& worker,
                                       std::unique_ptr<TimerFunction> function,
                                       const TimerRequest& request) noexcept {
    if (worker == nullptr || !worker->IsRunning()) {
        return refuse(worker, request.place, "the worker does not run");
    }
    if (request.isPeriodic && request.time < std::chrono::milliseconds(1)) {
        return refuse(worker, request.place, "no period");
    }
    std::shared_ptr<TimerCore> timer = make_timer(worker, std::move(function), request);
    if (timer == nullptr) return refuse(worker, request.place, "no memory");
    if (!worker->Keep(timer)) return refuse(worker, request.place, "the worker ends");
    if (!timer->Attach()) {
        timer->Stop();
        return refuse(worker, request.place, "no timer thread");
    }
    return timer;
}

}  // namespace detail

Timer::Timer() noexcept = default;

Timer::Timer(std::shared_ptr<detail::TimerCore> core) noexcept : core_(std::move(core)) {}

Timer::Timer(Timer&& other) noexcept = default;

Timer& Timer::operator=(Timer&& other) noexcept {
    detail::replace(core_, other.core_, [this] { stop(); });
    return *this;
}

Timer::~Timer() {
    stop();
}

Timer::operator bool() const noexcept {
    return core_ != nullptr && core_->IsActive();
}

bool Timer::stop() noexcept {
    return core_ == nullptr || core_->Stop();
}

unsigned long long Timer::missed() const noexcept {
    return core_ != nullptr ? core_->Missed() : 0;
}

}  // namespace pz
