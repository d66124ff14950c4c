#ifndef PZ_TESTS_SUPPORT_COUNTEDWAITS_H
#define PZ_TESTS_SUPPORT_COUNTEDWAITS_H

#include <atomic>

// How often the watchdog was told of a wait's beginning and of its end. For executables that link
// pz_counted_waits, which defines PZWatchDog::IntoWait and OutWait: they do nothing, so that
// counting them is the only way to see the calls.

namespace pztest {

extern std::atomic<int> into_waits;
extern std::atomic<int> out_waits;

/// Counts from 0 again.
void reset_waits();

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_COUNTEDWAITS_H
