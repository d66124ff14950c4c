#ifndef PZ_TESTS_SUPPORT_OPENDESCRIPTORS_H
#define PZ_TESTS_SUPPORT_OPENDESCRIPTORS_H

#include <dirent.h>

namespace pztest {

/// How many descriptors the process has open, and a few more, always as many: only differences
/// mean something. Queues are descriptors, too.
inline int open_descriptors() {
    DIR* const folder = opendir("/proc/self/fd");
    if (folder == nullptr) return -1;
    int count = 0;
    while (readdir(folder) != nullptr) ++count;
    closedir(folder);
    return count;
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_OPENDESCRIPTORS_H
