#include "support/FakePriorities.h"

#include <unistd.h>

#include <map>
#include <mutex>

namespace pztest {

PZ_INTERPOSE(getpriority, 2);
PZ_INTERPOSE(setpriority, 3);

namespace {

std::mutex mutex;
std::map<id_t, int> nice_values;      // guarded by mutex
std::vector<PriorityChange> changes;  // guarded by mutex

int fake_getpriority(__priority_which_t /*which*/, id_t who) {
    if (who == 0) who = static_cast<id_t>(gettid());  // the calling thread
    const std::lock_guard<std::mutex> lock(mutex);
    const auto entry = nice_values.find(who);
    return entry != nice_values.end() ? entry->second : 0;
}

int fake_setpriority(__priority_which_t /*which*/, id_t who, int nice) {
    const std::lock_guard<std::mutex> lock(mutex);
    nice_values[who] = nice;
    changes.push_back({who, nice});
    return 0;
}

}  // namespace

FakePriorities::FakePriorities() {
    nice_values.clear();
    changes.clear();
    getpriority_call.Replace(&fake_getpriority);
    setpriority_call.Replace(&fake_setpriority);
}

FakePriorities::~FakePriorities() {
    getpriority_call.Replace(nullptr);
    setpriority_call.Replace(nullptr);
}

void FakePriorities::SetOwnNice(int nice) {
    const std::lock_guard<std::mutex> lock(mutex);
    nice_values[static_cast<id_t>(gettid())] = nice;
}

std::vector<PriorityChange> FakePriorities::Changes() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return changes;
}

}  // namespace pztest
