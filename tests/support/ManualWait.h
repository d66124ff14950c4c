#ifndef PZ_TESTS_SUPPORT_MANUALWAIT_H
#define PZ_TESTS_SUPPORT_MANUALWAIT_H

#include <sys/epoll.h>

#include <cstddef>
#include <vector>

#include "support/Interposed.h"
#include "support/Uncopyable.h"

// Waits for several events that end by the ManualTick instead of the real time. For executables
// that link pz_manual_wait, which defines epoll_wait, and pz_manual_tick.

namespace pztest {

extern PZ_INTERPOSED(epoll_wait) epoll_wait_call;

/// While one lives, the waits for more than one event time out by the ManualTick, and their
/// time-outs are on record. Waits for a single event stay real.
class ManualWait : private Uncopyable {
public:
    ManualWait();
    ~ManualWait();

    /// The time-outs of all waits that have begun, in order.
    std::vector<int> TimeOuts() const;

    size_t Count() const { return TimeOuts().size(); }

    /// Returns when `count` waits have begun; false when that does not come.
    bool AwaitCount(size_t count) const;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_MANUALWAIT_H
