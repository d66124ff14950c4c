#include "support/ManualWait.h"

#include <mutex>

#include "support/ManualTick.h"
#include "support/WaitUntil.h"

namespace pztest {

PZ_INTERPOSE(epoll_wait, 4);

namespace {

std::mutex mutex;
std::vector<int> waits;  // guarded by mutex

/// Ends like the real call, but when the manual tick has moved by `timeoutMs`.
int manual_epoll_wait(int epollFd, epoll_event* events, int maxEvents, int timeoutMs) {
    if (maxEvents == 1) return epoll_wait_call.Real(epollFd, events, maxEvents, timeoutMs);
    const long long start = ManualTick::Nanoseconds();
    {
        const std::lock_guard<std::mutex> lock(mutex);
        waits.push_back(timeoutMs);
    }
    for (;;) {
        const long long waited = ManualTick::Nanoseconds() - start;
        const int ready = epoll_wait_call.Real(epollFd, events, maxEvents, 1);
        if (ready != 0) return ready;
        if (timeoutMs >= 0 && waited >= timeoutMs * 1000000LL) return 0;
    }
}

}  // namespace

ManualWait::ManualWait() {
    waits.clear();
    epoll_wait_call.Replace(&manual_epoll_wait);
}

ManualWait::~ManualWait() {
    epoll_wait_call.Replace(nullptr);
}

std::vector<int> ManualWait::TimeOuts() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return waits;
}

bool ManualWait::AwaitCount(size_t count) const {
    return wait_until([this, count] { return Count() >= count; });
}

}  // namespace pztest
