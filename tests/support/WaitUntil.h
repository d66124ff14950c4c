#ifndef PZ_TESTS_SUPPORT_WAITUNTIL_H
#define PZ_TESTS_SUPPORT_WAITUNTIL_H

#include <chrono>
#include <thread>

namespace pztest {

/// Waits until `condition` holds; false when it does not within a time that no loaded machine
/// needs. Tests wait for conditions with it, never for a time.
///
/// Counts its naps instead of reading a clock, which a ManualTick may have stopped.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::seconds limit = std::chrono::seconds(60)) {
    constexpr std::chrono::milliseconds kNap(1);
    for (auto napped = kNap; !condition(); napped += kNap) {
        if (napped > limit) return false;
        std::this_thread::sleep_for(kNap);
    }
    return true;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_WAITUNTIL_H
