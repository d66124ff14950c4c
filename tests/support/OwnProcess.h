#ifndef PZ_TESTS_SUPPORT_OWNPROCESS_H
#define PZ_TESTS_SUPPORT_OWNPROCESS_H

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>

#include "support/TempDir.h"

// What the kernel tells about the threads and descriptors of the test's own process.

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

/// How many descriptors are open to what the kernel names so ("pipe:", "socket:", a path ...),
/// shortened to the part before a "[" behind a colon.
using Descriptors = std::map<std::string, int>;

/// The open descriptors; with `onlyInherited` those that a program started now would get.
inline Descriptors open_descriptors_by_kind(bool onlyInherited) {
    Descriptors kinds;
    for (const std::string& name : own_entries("fd")) {
        const int flags = fcntl(std::atoi(name.c_str()), F_GETFD);
        if (flags == -1) continue;  // of the folder that was just read
        if (onlyInherited && (flags & FD_CLOEXEC) != 0) continue;
        char target[256];
        const ssize_t length = readlink(("/proc/self/fd/" + name).c_str(), target, sizeof target);
        if (length <= 0) continue;
        std::string kind(target, static_cast<size_t>(length));
        if (kind.compare(0, 5, "pipe:") == 0 || kind.compare(0, 7, "socket:") == 0) {
            kind.resize(kind.find(':'));
        }
        ++kinds[kind];
    }
    return kinds;
}

/// What is open in `after` and was not before.
inline Descriptors added(const Descriptors& before, Descriptors after) {
    for (const auto& [kind, count] : before) after[kind] -= count;
    for (auto entry = after.begin(); entry != after.end();) {
        entry = entry->second == 0 ? after.erase(entry) : std::next(entry);
    }
    return after;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_OWNPROCESS_H
