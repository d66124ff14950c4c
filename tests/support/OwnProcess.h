#ifndef PZ_TESTS_SUPPORT_OWNPROCESS_H
#define PZ_TESTS_SUPPORT_OWNPROCESS_H

#include <dirent.h>

#include <cstdlib>
#include <set>
#include <string>

#include "support/TempDir.h"

// What the kernel tells about the threads of the test's own process.

namespace pztest {

/// The names in a folder below /proc/self, without "." and "..".
inline std::set<std::string> own_entries(const std::string& folder) {
    std::set<std::string> names;
    DIR* const dir = opendir(("/proc/self/" + folder).c_str());
    if (dir == nullptr) std::abort();
    while (const dirent* const entry = readdir(dir)) {
        const std::string name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != "..") names.insert(name);
    }
    closedir(dir);
    return names;
}

/// Kernel ids of the living threads whose names begin with `prefix`.
inline std::set<std::string> threads_named(const std::string& prefix) {
    std::set<std::string> ids;
    for (const std::string& id : own_entries("task")) {
        const std::string name = read_file("/proc/self/task/" + id + "/comm");
        if (name.compare(0, prefix.size(), prefix) == 0) ids.insert(id);
    }
    return ids;
}

/// The value of a line "key:\tvalue" in the status of a thread.
inline std::string thread_status(const std::string& id, const std::string& key) {
    const std::string status = read_file("/proc/self/task/" + id + "/status");
    const size_t at = status.find("\n" + key + ":\t");
    if (at == std::string::npos) return "";
    const size_t start = at + key.size() + 3;
    return status.substr(start, status.find('\n', start) - start);
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_OWNPROCESS_H
