#include "Framework/Easy/Event.h"

#include <algorithm>
#include <array>
#include <new>
#include <utility>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_time.h>

#include "WorkerCore.h"

namespace pz {

namespace {

constexpr std::size_t kMaxEvents = 64;  // of one wait
constexpr int kTimedOut = -2;
constexpr std::chrono::milliseconds kLongestLeg(std::chrono::hours(24));

/// What is left until the deadline, not more than a wait can take; a part of a millisecond counts.
unsigned int left_ms(detail::Clock::time_point deadline) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - detail::Clock::now());
    return static_cast<unsigned int>(
        std::clamp(left, std::chrono::milliseconds::zero(), kLongestLeg).count());
}

/// Null where something cannot be waited for.
std::optional<std::size_t> wait_for(std::initializer_list<Waitable*> list,
                                    const detail::Clock::time_point* deadline) {
    if (list.size() == 0) return std::nullopt;
    if (list.size() > kMaxEvents) {
        PZ_REPORT_ERROR("%zu to wait for, at most 64\n", list.size());
        return std::nullopt;
    }
    std::array<PZEvent*, kMaxEvents> events = {};
    std::transform(list.begin(), list.end(), events.begin(), [](const Waitable* waitable) {
        return waitable != nullptr ? waitable->signals() : nullptr;
    });
    for (;;) {
        const unsigned int left = deadline != nullptr ? left_ms(*deadline) : kNoTimeLimit;
        const int result = PZEvent::WaitMultipleEvent(static_cast<unsigned int>(list.size()),
                                                      events.data(), left, false);
        if (result >= 0) {
            const auto index = static_cast<std::size_t>(result);
            list.begin()[index]->taken();
            return index;
        }
        // Another thread may have been faster: there is time left.
        const bool isOver = deadline != nullptr && detail::Clock::now() >= *deadline;
        if (result != kTimedOut || isOver) return std::nullopt;
    }
}

}  // namespace

Waitable::~Waitable() = default;

void Waitable::taken() noexcept {}

std::optional<std::size_t> wait_any(std::initializer_list<Waitable*> list,
                                    std::chrono::milliseconds within) {
    const auto deadline = detail::deadline_after(within);
    return wait_for(list, &deadline);
}

std::optional<std::size_t> wait_any(std::initializer_list<Waitable*> list) {
    return wait_for(list, nullptr);
}

Event::Event() noexcept : event_(new (std::nothrow) PZEvent) {
    if (event_ == nullptr) {
        PZ_REPORT_ERROR("no memory\n");
        return;
    }
    event_->GiveWay();
}

Event::~Event() = default;

Event::Event(Event&& other) noexcept : Waitable(other), event_(std::move(other.event_)) {}

Event& Event::operator=(Event&& other) noexcept {
    event_ = std::move(other.event_);
    return *this;
}

Event::operator bool() const noexcept {
    return event_ != nullptr && event_->isInitialized();
}

bool Event::set() noexcept {
    return event_ != nullptr && event_->SetEvent() == 1;
}

void Event::reset() noexcept {
    if (event_ != nullptr) event_->ResetEvent();
}

bool Event::wait(std::chrono::milliseconds within) {
    return wait_any({this}, within).has_value();
}

bool Event::wait() {
    return wait_any({this}).has_value();
}

PZEvent* Event::signals() const noexcept {
    return event_.get();
}

}  // namespace pz
