#include "support/OpenDescriptors.h"

#include <dirent.h>
#include <fcntl.h>

#include <cstdlib>
#include <iterator>
#include <utility>

namespace pztest {
namespace {

/// Where a link of a folder leads to; "" when it is none.
std::string link_target(int folder, const char* name) {
    char target[256];
    const ssize_t length = readlinkat(folder, name, target, sizeof target);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : "";
}

}  // namespace

std::map<int, std::string> descriptors_of(pid_t pid) {
    DIR* const folder = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    std::map<int, std::string> found;
    if (folder == nullptr) {
        if (pid == ::getpid()) std::abort();
        return found;
    }
    while (const dirent* const entry = readdir(folder)) {
        const char* const number = static_cast<const char*>(entry->d_name);
        std::string target = link_target(dirfd(folder), number);
        if (target.empty()) continue;  // "." and "..", or closed meanwhile
        found[static_cast<int>(std::strtol(number, nullptr, 10))] = std::move(target);
    }
    if (pid == ::getpid()) found.erase(dirfd(folder));
    closedir(folder);
    return found;
}

std::string target_of(int fd) {
    return link_target(AT_FDCWD, ("/proc/self/fd/" + std::to_string(fd)).c_str());
}

int open_descriptors() {
    return static_cast<int>(descriptors_of().size());
}

Descriptors open_descriptors_by_kind(bool onlyInherited) {
    Descriptors kinds;
    for (const auto& [fd, target] : descriptors_of()) {
        const int flags = fcntl(fd, F_GETFD);
        if (flags == -1) continue;  // closed meanwhile
        if (onlyInherited && (flags & FD_CLOEXEC) != 0) continue;
        const bool isNumbered = target.rfind("pipe:", 0) == 0 || target.rfind("socket:", 0) == 0;
        ++kinds[isNumbered ? target.substr(0, target.find(':')) : target];
    }
    return kinds;
}

Descriptors added(const Descriptors& before, Descriptors after) {
    for (const auto& [kind, count] : before) after[kind] -= count;
    for (auto entry = after.begin(); entry != after.end();) {
        entry = entry->second == 0 ? after.erase(entry) : std::next(entry);
    }
    return after;
}

}  // namespace pztest
