#include "PZLoopWait.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <utility>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_epoll_wait.h>
#include <Framework/private/pz_sigpipe.h>
#include <Framework/private/pz_uncancelled.h>

namespace {

constexpr long kPauseNs = 100000000;  // 100 milliseconds

PZDescriptor make_signal(int flags) {
    PZDescriptor signal(::eventfd(0, flags | EFD_CLOEXEC | EFD_NONBLOCK));
    signal.MoveAboveStandard();
    return signal;
}

bool watch(const PZDescriptor& set, const PZDescriptor& signal, PZLoopWait::EN_RESULT meaning,
           unsigned int trigger) {
    epoll_event interest = {};
    interest.events = EPOLLIN | trigger;
    interest.data.fd = meaning;
    return ::epoll_ctl(set.Get(), EPOLL_CTL_ADD, signal.Get(), &interest) == 0;
}

/// Done whole or not at all: what the caller has done before it is not left unknown to the loop.
int add_one(const PZDescriptor& signal) {
    const PZUncancelled uncancelled;
    const std::uint64_t one = 1;
    return ::write(signal.Get(), &one, sizeof one) == sizeof one ? 1 : 0;
}

/// For a loop that is to try again: the cause of a failure may last.
void pause_after_failure() {
    const timespec pause = {0, kPauseNs};
    nanosleep(&pause, nullptr);
}

}  // namespace

bool PZLoopWait::Open() {
    if (IsOpen()) return true;
    PZDescriptor end = make_signal(EFD_SEMAPHORE);
    PZDescriptor wake = make_signal(0);
    PZDescriptor set(::epoll_create1(EPOLL_CLOEXEC));
    set.MoveAboveStandard();
    // Edge-triggered, a wake-up needs no read; its counter has room for 2^64 of them.
    if (!end.IsOpen() || !wake.IsOpen() || !set.IsOpen() || !watch(set, end, en_END, 0) ||
        !watch(set, wake, en_WAKE, EPOLLET)) {
        PZ_REPORT_LAST_ERROR();
        return false;
    }
    end_ = std::move(end);
    wake_ = std::move(wake);
    set_ = std::move(set);
    return true;
}

int PZLoopWait::Wake() {
    return add_one(wake_);
}

int PZLoopWait::End() {
    return add_one(end_);
}

PZLoopWait::EN_RESULT PZLoopWait::Wait(unsigned int timeoutMs) {
    pz_ignore_sigpipe_once();
    const EN_RESULT result = WaitOnce(woken_ ? 0 : static_cast<int>(timeoutMs));
    if (result == en_ERROR) {
        PZ_REPORT_LAST_ERROR();
        pause_after_failure();
    }
    return result;
}

void PZLoopWait::DiscardWakeUps() {
    Ready ready;
    Look(ready, 0);
    woken_ = false;
}

/// The number of signals that are there, in `ready`; the set tells of a wake-up only once.
int PZLoopWait::Look(Ready& ready, int timeoutMs) {
    return pz_epoll_wait(set_.Get(), ready.data(), static_cast<int>(ready.size()), timeoutMs);
}

/// As Wait, without a report and a pause.
PZLoopWait::EN_RESULT PZLoopWait::WaitOnce(int timeoutMs) {
    Ready ready;
    const int count = Look(ready, timeoutMs);
    if (count < 0) return en_ERROR;

    bool ended = false;
    for (int i = 0; i < count; ++i) {
        const bool isEnd = ready[static_cast<unsigned int>(i)].data.fd == en_END;
        (isEnd ? ended : woken_) = true;
    }
    if (ended) {
        std::uint64_t one = 0;
        return ::read(end_.Get(), &one, sizeof one) == sizeof one ? en_END : en_ERROR;
    }
    if (!woken_) return en_TIMEOUT;
    woken_ = false;
    return en_WAKE;
}
