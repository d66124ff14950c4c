#include "PZLoopWait.h"

#include <unistd.h>

#include <cstdint>
#include <utility>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_epoll_wait.h>
#include <Framework/private/pz_sigpipe.h>

#include "pz_loop_signal.h"

namespace {

bool watch(const PZDescriptor& set, const PZDescriptor& signal, PZLoopWait::EN_RESULT meaning,
           unsigned int trigger) {
    epoll_event interest = {};
    interest.events = EPOLLIN | trigger;
    interest.data.fd = meaning;
    return ::epoll_ctl(set.Get(), EPOLL_CTL_ADD, signal.Get(), &interest) == 0;
}

}  // namespace

bool PZLoopWait::Open() {
    if (IsOpen()) return true;
    PZDescriptor end = pz_make_loop_signal(EFD_SEMAPHORE | EFD_NONBLOCK);
    PZDescriptor wake = pz_make_loop_signal(EFD_NONBLOCK);
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
    return pz_add_to_loop_signal(wake_, 1);
}

int PZLoopWait::End() {
    return pz_add_to_loop_signal(end_, 1);
}

PZLoopWait::EN_RESULT PZLoopWait::Wait(unsigned int timeoutMs) {
    pz_ignore_sigpipe_once();
    const EN_RESULT result = WaitOnce(woken_ ? 0 : static_cast<int>(timeoutMs));
    if (result == en_ERROR) {
        PZ_REPORT_LAST_ERROR();
        pz_pause_after_failure();
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
