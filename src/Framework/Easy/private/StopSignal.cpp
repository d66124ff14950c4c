#include "Framework/Easy/StopSignal.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <new>
#include <type_traits>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/private/PZMutex.h>

namespace pz {

namespace {

constexpr std::array<int, 2> kSignals = {SIGINT, SIGTERM};
constexpr int kMaxWaiters = 16;

/// What the signal's handler reads; constants and atomics without locks only.
std::array<std::atomic<PZEvent*>, kMaxWaiters> waiters;
std::atomic<int> stop_number{0};
std::atomic<int> running_handlers{0};
/// Whose the above is. A forked child shares the pipes of the events with its parent, and handlers
/// that other threads of the parent were running never end in it.
std::atomic<pid_t> owner{0};

static_assert(std::atomic<PZEvent*>::is_always_lock_free && std::atomic<int>::is_always_lock_free,
              "what a signal's handler may use");

/// Asks the kernel: a signal may come before the child's fork has returned.
bool is_parents() noexcept {
    return owner.load() != ::getpid();
}

// Each event gets one signal here, or a second one, of the other kind: far from filling its pipe.
// So SetEvent is one write, which a handler may do.
void note_stop(int number) {
    const int savedErrno = errno;
    if (is_parents()) {
        ::raise(number);  // with the default action again, which ends the child
        errno = savedErrno;
        return;
    }
    ++running_handlers;
    stop_number = number;
    for (const std::atomic<PZEvent*>& waiter : waiters) {
        PZEvent* const event = waiter.load();
        if (event != nullptr) event->SetEvent();
    }
    --running_handlers;
    errno = savedErrno;
}

/// How many stop signals live, and the actions that were there before them.
struct ST_HANDLERS {
    PZMutex mutex;
    unsigned int users PZ_GUARDED_BY(mutex) = 0;
    std::array<struct sigaction, kSignals.size()> former PZ_GUARDED_BY(mutex) = {};
};

ST_HANDLERS& handlers() noexcept {
    static_assert(std::is_trivially_destructible_v<ST_HANDLERS>, "there until the process ends");
    static ST_HANDLERS instance;
    return instance;
}

void install_locked(ST_HANDLERS& state) PZ_REQUIRES(state.mutex) {
    stop_number = 0;  // a handler may have noted a signal after the last StopSignal had gone
    struct sigaction action = {};
    action.sa_handler = &note_stop;
    // The second one ends the process; what the first interrupts goes on.
    action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        struct sigaction replaced = {};
        ::sigaction(kSignals[i], &action, &replaced);
        // In a forked child it may be the parent's handler, or what is left when that has run.
        if (state.users == 0) state.former[i] = replaced;
    }
}

void restore_locked(const ST_HANDLERS& state) PZ_REQUIRES(state.mutex) {
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
        ::sigaction(kSignals[i], &state.former[i], nullptr);
    }
}

/// From now on it is the calling process: no event of its parent is signalled any more.
void begin_in_process() {
    for (std::atomic<PZEvent*>& waiter : waiters) waiter = nullptr;
    running_handlers = 0;
    owner = ::getpid();
}

/// The place of the event among the waiters, -1 when all are taken.
int add_waiter(PZEvent* event) {
    for (int i = 0; i < kMaxWaiters; ++i) {
        PZEvent* none = nullptr;
        if (waiters[static_cast<std::size_t>(i)].compare_exchange_strong(none, event)) return i;
    }
    return -1;
}

/// The event may die afterwards: a handler on another thread is done with it.
void remove_waiter(int slot, PZEvent* event) {
    if (is_parents()) return;
    // What was inherited has lost its place, maybe to another one.
    waiters[static_cast<std::size_t>(slot)].compare_exchange_strong(event, nullptr);
    while (running_handlers.load() != 0) {
    }
}

/// As add_waiter; the first event brings the handlers.
int begin_waiting(PZEvent& event) {
    ST_HANDLERS& state = handlers();
    const PZMutexLock lock(state.mutex);
    const bool isFirst = is_parents();  // in this process: its parent's signals are not its own
    if (isFirst) begin_in_process();
    const int slot = add_waiter(&event);
    if (slot < 0) return slot;
    if (isFirst || state.users == 0) install_locked(state);
    ++state.users;
    if (stop_number != 0) event.SetEvent();
    return slot;
}

void end_waiting(int slot, PZEvent* event) {
    ST_HANDLERS& state = handlers();
    const PZMutexLock lock(state.mutex);
    if (--state.users == 0) restore_locked(state);
    remove_waiter(slot, event);
}

}  // namespace

StopSignal::StopSignal() noexcept : event_(new (std::nothrow) PZEvent) {
    if (event_ == nullptr || !event_->isInitialized()) {
        PZ_REPORT_ERROR("no event for the stop\n");
        return;
    }
    slot_ = begin_waiting(*event_);
    if (slot_ == kNoSlot) PZ_REPORT_ERROR("more than 16 at a time\n");
}

StopSignal::~StopSignal() {
    if (slot_ != kNoSlot) end_waiting(slot_, event_.get());
}

int StopSignal::number() const noexcept {
    return *this ? stop_number.load() : 0;
}

PZEvent* StopSignal::signals() const noexcept {
    return slot_ != kNoSlot ? event_.get() : nullptr;
}

// The stop stays: the next waiter is let through as well.
void StopSignal::taken() noexcept {
    event_->SetEvent();
}

int wait_for_stop() {
    StopSignal stop;
    return wait_any({&stop}).has_value() ? stop.number() : 0;
}

}  // namespace pz
