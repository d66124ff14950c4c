#ifndef PZ_TESTS_SUPPORT_FAKEPRIORITIES_H
#define PZ_TESTS_SUPPORT_FAKEPRIORITIES_H

#include <sys/resource.h>
#include <unistd.h>

#include <map>
#include <mutex>
#include <vector>

#include "support/Interposed.h"

// The nice values of threads without the rights that real ones need. Include it in one file of a
// test executable: it defines getpriority and setpriority.

namespace pztest {

/// One successful setpriority.
struct PriorityChange {
    id_t thread;  // kernel thread id
    int nice;
};

inline Interposed<int(__priority_which_t, id_t)> getpriority_call("getpriority");
inline Interposed<int(__priority_which_t, id_t, int)> setpriority_call("setpriority");
inline std::mutex fake_priorities_mutex;
inline std::map<id_t, int> fake_nice_values;               // guarded by fake_priorities_mutex
inline std::vector<PriorityChange> fake_priority_changes;  // guarded by fake_priorities_mutex

inline int fake_getpriority(__priority_which_t /*which*/, id_t who) {
    if (who == 0) who = static_cast<id_t>(gettid());  // the calling thread
    const std::lock_guard<std::mutex> lock(fake_priorities_mutex);
    const auto entry = fake_nice_values.find(who);
    return entry != fake_nice_values.end() ? entry->second : 0;
}

inline int fake_setpriority(__priority_which_t /*which*/, id_t who, int nice) {
    const std::lock_guard<std::mutex> lock(fake_priorities_mutex);
    fake_nice_values[who] = nice;
    fake_priority_changes.push_back({who, nice});
    return 0;
}

/// While one lives, every thread has the nice value that it was given under it, 0 at first.
class FakePriorities {
public:
    FakePriorities() {
        fake_nice_values.clear();
        fake_priority_changes.clear();
        getpriority_call.Replace(&fake_getpriority);
        setpriority_call.Replace(&fake_setpriority);
    }
    ~FakePriorities() {
        getpriority_call.Replace(nullptr);
        setpriority_call.Replace(nullptr);
    }

    FakePriorities(const FakePriorities&) = delete;
    FakePriorities& operator=(const FakePriorities&) = delete;

    /// The calling thread has this nice value from now on.
    static void SetOwnNice(int nice) {
        const std::lock_guard<std::mutex> lock(fake_priorities_mutex);
        fake_nice_values[static_cast<id_t>(gettid())] = nice;
    }

    /// What setpriority was called with, in order.
    std::vector<PriorityChange> Changes() const {
        const std::lock_guard<std::mutex> lock(fake_priorities_mutex);
        return fake_priority_changes;
    }
};

}  // namespace pztest

// NOLINTNEXTLINE(misc-definitions-in-headers): one file of a test executable includes this
extern "C" int getpriority(__priority_which_t which, id_t who) noexcept {
    return pztest::getpriority_call(which, who);
}
// NOLINTNEXTLINE(misc-definitions-in-headers): one file of a test executable includes this
extern "C" int setpriority(__priority_which_t which, id_t who, int prio) noexcept {
    return pztest::setpriority_call(which, who, prio);
}

#endif  // PZ_TESTS_SUPPORT_FAKEPRIORITIES_H
