#ifndef PZ_TESTS_SUPPORT_CLOCKREADBY_H
#define PZ_TESTS_SUPPORT_CLOCKREADBY_H

#include <ctime>
#include <functional>

#include "support/ManualTick.h"

namespace pztest {

/// The clock that `body` reads last; -1 when it reads none. Ends a ManualTick. For executables that
/// link pz_manual_tick.
inline clockid_t clock_read_by(const std::function<void()>& body) {
    static clockid_t last;
    last = -1;
    clock_gettime_call.Replace([](clockid_t clock, timespec* now) {
        last = clock;
        return clock_gettime_call.Real(clock, now);
    });
    body();
    clock_gettime_call.Replace(nullptr);
    return last;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_CLOCKREADBY_H
