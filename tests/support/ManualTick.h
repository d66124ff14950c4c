#ifndef PZ_TESTS_SUPPORT_MANUALTICK_H
#define PZ_TESTS_SUPPORT_MANUALTICK_H

#include <ctime>

#include "support/Interposed.h"
#include "support/Uncopyable.h"

// The monotonic clock of the whole process, in the hand of the test. For executables that link
// pz_manual_tick, which defines clock_gettime.

namespace pztest {

extern PZ_INTERPOSED(clock_gettime) clock_gettime_call;

/// While one lives, CLOCK_MONOTONIC stands still until the test moves it; other clocks run.
class ManualTick : private Uncopyable {
public:
    explicit ManualTick(long long milliseconds = 1000000);
    ~ManualTick();

    void Set(long long milliseconds) { SetNanoseconds(milliseconds * 1000000); }
    void SetNanoseconds(long long nanoseconds);
    void Advance(long long milliseconds);

    /// What the clock tells.
    static long long Nanoseconds();
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_MANUALTICK_H
