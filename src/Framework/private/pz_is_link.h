#ifndef PZ_FRAMEWORK_PRIVATE_PZ_IS_LINK_H
#define PZ_FRAMEWORK_PRIVATE_PZ_IS_LINK_H

#include <sys/stat.h>

/// True when the path itself is a symbolic link.
inline bool pz_is_link(const char* path) {
    struct stat status = {};
    return ::lstat(path, &status) == 0 && S_ISLNK(status.st_mode);
}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_IS_LINK_H
