#ifndef PZ_TESTS_SUPPORT_WAITUNTIL_H
#define PZ_TESTS_SUPPORT_WAITUNTIL_H

#include <chrono>
#include <thread>

namespace pztest {

/// Waits until `condition` holds; false when it does not within a time that no loaded machine
/// needs. Tests wait for conditions with it, never for a time.
template <typename Condition>
bool wait_until(Condition condition, std::chrono::seconds limit = std::chrono::seconds(60)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_WAITUNTIL_H
