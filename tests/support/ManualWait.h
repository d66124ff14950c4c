#ifndef PZ_TESTS_SUPPORT_MANUALWAIT_H
#define PZ_TESTS_SUPPORT_MANUALWAIT_H

#include <sys/epoll.h>

#include <cstddef>
#include <mutex>
#include <vector>

#include "support/Interposed.h"
#include "support/ManualTick.h"
#include "support/WaitUntil.h"

// Waits for several events that end by the ManualTick instead of the real time. Include it in one
// file of a test executable: it defines epoll_wait.

namespace pztest {

inline Interposed<int(int, epoll_event*, int, int)> epoll_wait_call("epoll_wait");
inline std::mutex manual_waits_mutex;
inline std::vector<int> manual_waits;  // guarded by manual_waits_mutex

/// Ends like the real call, but when the manual tick has moved by `timeoutMs`.
inline int manual_epoll_wait(int epollFd, epoll_event* events, int maxEvents, int timeoutMs) {
    if (maxEvents == 1) return epoll_wait_call.Real(epollFd, events, maxEvents, timeoutMs);
    const long long start = manual_tick_ns;
    {
        const std::lock_guard<std::mutex> lock(manual_waits_mutex);
        manual_waits.push_back(timeoutMs);
    }
    for (;;) {
        const long long waited = manual_tick_ns - start;
        const int ready = epoll_wait_call.Real(epollFd, events, maxEvents, 1);
        if (ready != 0) return ready;
        if (timeoutMs >= 0 && waited >= timeoutMs * 1000000LL) return 0;
    }
}

/// While one lives, the waits for more than one event time out by the ManualTick, and their
/// time-outs are on record. Waits for a single event stay real.
class ManualWait {
public:
    ManualWait() {
        manual_waits.clear();
        epoll_wait_call.Replace(&manual_epoll_wait);
    }
    ~ManualWait() { epoll_wait_call.Replace(nullptr); }

    ManualWait(const ManualWait&) = delete;
    ManualWait& operator=(const ManualWait&) = delete;

    /// The time-outs of all waits that have begun, in order.
    std::vector<int> TimeOuts() const {
        const std::lock_guard<std::mutex> lock(manual_waits_mutex);
        return manual_waits;
    }

    size_t Count() const { return TimeOuts().size(); }

    /// Returns when `count` waits have begun; false when that does not come.
    bool AwaitCount(size_t count) const {
        return wait_until([this, count] { return Count() >= count; });
    }
};

}  // namespace pztest

// NOLINTNEXTLINE(misc-definitions-in-headers): one file of a test executable includes this
extern "C" int epoll_wait(int epfd, epoll_event* events, int maxevents, int timeout) {
    return pztest::epoll_wait_call(epfd, events, maxevents, timeout);
}

#endif  // PZ_TESTS_SUPPORT_MANUALWAIT_H
