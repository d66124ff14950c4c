#include "Framework/Foundation/PZEvent.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_epoll_wait.h>
#include <Framework/private/pz_sigpipe.h>
#include <Framework/private/pz_uncancelled.h>

namespace {

// Results of the waits.
constexpr int kSignalled = 0;
constexpr int kNothingToWaitFor = -1;
constexpr int kTimedOut = -2;
constexpr int kError = -3;

constexpr unsigned long kMaxEvents = 64;  // in one wait

/// Closes both ends, whatever becomes of the first; false when one of them failed.
bool close_pipe(int readFd, int writeFd) {
    const int readResult = pz_close_descriptor(readFd);
    const int writeResult = pz_close_descriptor(writeFd);
    return readResult + writeResult == 0;
}

ssize_t put_signal(int writeFd) {
    const unsigned char signal = 1;
    return ::write(writeFd, &signal, sizeof signal);
}

/// Blocks when another waiter was faster, unless the event gives way: EAGAIN then.
bool take_signal(int readFd) {
    unsigned char signal = 0;
    return ::read(readFd, &signal, sizeof signal) == 1;
}

bool watch(int epollFd, int readFd) {
    epoll_event interest = {};
    interest.events = EPOLLIN;
    interest.data.fd = readFd;
    return ::epoll_ctl(epollFd, EPOLL_CTL_ADD, readFd, &interest) == 0;
}

bool watch_all(int epollFd, const int* readFds, int count) {
    for (int i = 0; i < count; ++i) {
        if (!watch(epollFd, readFds[i])) return false;
    }
    return true;
}

/// Leaves the first `count` entries out of the next round.
bool unwatch_all(int epollFd, const epoll_event* ready, int count) {
    for (int i = 0; i < count; ++i) {
        if (::epoll_ctl(epollFd, EPOLL_CTL_DEL, ready[i].data.fd, nullptr) != 0) return false;
    }
    return true;
}

/// Takes one signal of each of the first `count` entries.
bool take_signals(const epoll_event* ready, int count) {
    for (int i = 0; i < count; ++i) {
        if (!take_signal(ready[i].data.fd)) return false;
    }
    return true;
}

/// What a signal that could not be taken means. The event gives way to another waiter: as if there
/// had been none.
[[gnu::cold, gnu::noinline]] int result_of_failed_take() {
    return errno == EAGAIN ? kTimedOut : kError;
}

/// Waits until one of `count` watched events has a signal; takes it from the first, or one from
/// each, that is ready. The number of ready entries, kTimedOut, or kError with errno.
int take_ready(int epollFd, epoll_event* ready, int count, bool fromEach, int timeoutMs) {
    const int readyCount = pz_epoll_wait(epollFd, ready, count, timeoutMs);
    if (readyCount == 0) return kTimedOut;
    if (readyCount < 0) return kError;
    if (take_signals(ready, fromEach ? readyCount : 1)) return readyCount;
    return result_of_failed_take();
}

/// kSignalled when each of `count` watched events gave a signal, kTimedOut, or kError with errno.
int take_all(int epollFd, epoll_event* ready, int count, int timeoutMs) {
    for (int remaining = count;;) {
        const int taken = take_ready(epollFd, ready, remaining, true, timeoutMs);
        if (taken < 0) return taken;
        remaining -= taken;
        if (remaining == 0) return kSignalled;
        if (!unwatch_all(epollFd, ready, taken)) return kTimedOut;
    }
}

/// The place, among `count` events, of the one whose signal was taken from the first ready entry.
int index_of_taken(const int* readFds, int count, const epoll_event* ready, int readyCount) {
    for (int i = 0; i < count; ++i) {
        if (readFds[i] == ready[0].data.fd) return i;
    }
    for (int i = 0; i < count; ++i) {
        PZ_REPORT_ERROR_OF("timedMultiWait", "No[%d] rcv[%d] evt[%d]\n", i,
                           i < readyCount ? ready[i].data.fd : kNoDescriptor, readFds[i]);
    }
    return kError;
}

}  // namespace

PZEvent::PZEvent() : PZEvent(nullptr) {}

PZEvent::PZEvent(const char* name) : readFd_(kNoDescriptor), writeFd_(kNoDescriptor) {
    init(name);
}

PZEvent::~PZEvent() {
    const PZUncancelled uncancelled;
    if (isInitialized() && !close_pipe(readFd_, writeFd_)) PZ_REPORT_LAST_ERROR();
}

void PZEvent::init(const char* /*name*/) {
    if (isInitialized() && !close_pipe(readFd_, writeFd_)) PZ_REPORT_LAST_ERROR();
    readFd_ = kNoDescriptor;
    writeFd_ = kNoDescriptor;

    std::array<int, 2> fds = {kNoDescriptor, kNoDescriptor};
    const bool isMade = ::pipe2(fds.data(), O_CLOEXEC) == 0;
    PZDescriptor readEnd(fds[0]);
    PZDescriptor writeEnd(fds[1]);
    if (!isMade || !readEnd.MoveAboveStandard() || !writeEnd.MoveAboveStandard()) {
        PZ_REPORT_LAST_ERROR();
        return;
    }
    ::fcntl(writeEnd.Get(), F_SETFL, O_NONBLOCK);
    readFd_ = readEnd.Release();
    writeFd_ = writeEnd.Release();
}

void PZEvent::GiveWay() {
    if (isInitialized()) ::fcntl(readFd_, F_SETFL, O_NONBLOCK);
}

bool PZEvent::isInitialized() const noexcept {
    return readFd_ != kNoDescriptor && writeFd_ != kNoDescriptor;
}

int PZEvent::SetEvent() {
    const ssize_t written = put_signal(writeFd_);
    if (written == 1) return 1;
    if (written != -1) return 0;

    if (errno == EAGAIN) {
        // Full. Nobody counts that many signals: waiters only have to find that there was one.
        PZ_REPORT_LAST_ERROR();
        ResetEvent();
        put_signal(writeFd_);
    } else if (errno == EPIPE) {
        PZ_REPORT_LAST_ERROR();
    }
    return 0;
}

bool PZEvent::ResetEvent() {
    PZEvent* self = this;
    while (timedMultiWait(1, &self, true, 0) >= 0) {
    }
    return true;
}

int PZEvent::WaitEvent(unsigned int timeout) {
    PZEvent* self = this;
    return timedMultiWait(1, &self, true, timeout);
}

int PZEvent::WaitMultipleEvent(unsigned int count, PZEvent** events, unsigned int timeout,
                               bool waitAll) {
    if (events == nullptr) return kError;
    const int result = timedMultiWait(count, events, waitAll, timeout);
    return result == kNothingToWaitFor ? kError : result;
}

int PZEvent::timedMultiWait(unsigned long count, PZEvent** events, bool waitAll,
                            unsigned long timeout) {
    pz_ignore_sigpipe_once();
    if (events == nullptr || count == 0) return kNothingToWaitFor;

    std::array<int, kMaxEvents> readFds;
    bool canWait = count <= readFds.size();
    for (unsigned long i = 0; canWait && i < count; ++i) {
        readFds[i] = events[i] != nullptr ? events[i]->readFd_ : kNoDescriptor;
        canWait = readFds[i] != kNoDescriptor;
    }
    if (!canWait) {
        PZ_REPORT_ERROR("handle error\n");
        return kError;
    }

    const int number = static_cast<int>(count);
    const PZDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll.IsOpen() || !watch_all(epoll.Get(), readFds.data(), number)) {
        PZ_REPORT_LAST_ERROR();
        return kError;
    }

    std::array<epoll_event, kMaxEvents> ready;
    const int timeoutMs = static_cast<int>(timeout);
    const int result = waitAll ? take_all(epoll.Get(), ready.data(), number, timeoutMs)
                               : take_ready(epoll.Get(), ready.data(), number, false, timeoutMs);
    if (result == kError) PZ_REPORT_LAST_ERROR();
    if (result < 0 || waitAll) return result;
    return index_of_taken(readFds.data(), number, ready.data(), result);
}
