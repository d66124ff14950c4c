#include "Framework/Foundation/PZEvent.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
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

using ReadyEntries = std::array<epoll_event, kMaxEvents>;

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

/// Blocks when another waiter was faster: the read end is a blocking one.
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

/// Takes one signal of each of the first `count` entries.
bool take_signals(const ReadyEntries& ready, int count) {
    return std::all_of(ready.begin(), ready.begin() + count,
                       [](const epoll_event& entry) { return take_signal(entry.data.fd); });
}

/// Leaves the first `count` entries out of the next round.
bool unwatch_all(int epollFd, const ReadyEntries& ready, int count) {
    return std::all_of(ready.begin(), ready.begin() + count, [epollFd](const epoll_event& entry) {
        return ::epoll_ctl(epollFd, EPOLL_CTL_DEL, entry.data.fd, nullptr) == 0;
    });
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
    return WaitMultipleEvent(1, &self, timeout, true);
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
    if (count > readFds.size()) {
        PZ_REPORT_ERROR("handle error\n");
        return kError;
    }
    for (unsigned long i = 0; i < count; ++i) {
        readFds[i] = events[i] != nullptr ? events[i]->readFd_ : kNoDescriptor;
        if (readFds[i] == kNoDescriptor) {
            PZ_REPORT_ERROR("handle error\n");
            return kError;
        }
    }

    const PZDescriptor epoll(::epoll_create1(EPOLL_CLOEXEC));
    if (!epoll.IsOpen()) {
        PZ_REPORT_LAST_ERROR();
        return kError;
    }
    for (unsigned long i = 0; i < count; ++i) {
        if (!watch(epoll.Get(), readFds[i])) {
            PZ_REPORT_LAST_ERROR();
            return kError;
        }
    }

    ReadyEntries ready;
    int readyCount = 0;
    int remaining = static_cast<int>(count);
    for (;;) {
        readyCount = pz_epoll_wait(epoll.Get(), ready.data(), remaining, static_cast<int>(timeout));
        if (readyCount == 0) return kTimedOut;
        if (readyCount < 0) {
            PZ_REPORT_LAST_ERROR();
            return kError;
        }
        if (!take_signals(ready, waitAll ? readyCount : 1)) {
            PZ_REPORT_LAST_ERROR();
            return kError;
        }
        if (!waitAll) break;

        remaining -= readyCount;
        if (remaining == 0) return kSignalled;
        if (!unwatch_all(epoll.Get(), ready, readyCount)) return kTimedOut;
    }

    const auto end = readFds.begin() + remaining;
    const auto found = std::find(readFds.begin(), end, ready[0].data.fd);
    if (found != end) return static_cast<int>(found - readFds.begin());

    for (int i = 0; i < remaining; ++i) {
        const auto index = static_cast<unsigned int>(i);
        PZ_REPORT_ERROR("No[%d] rcv[%d] evt[%d]\n", i,
                        i < readyCount ? ready[index].data.fd : kNoDescriptor, readFds[index]);
    }
    return kError;
}
