#include "PZNamedPath.h"

#include <cstdio>

#include "PZErrnoKeeper.h"
#include "PZInspection.h"

PZNamedPath::PZNamedPath(const char* folder, const char* file) noexcept {
    const PZErrnoKeeper keeper;
    std::snprintf(text_, sizeof text_, "%s%s", folder, file);
}

PZNamedPath::PZNamedPath(const PZSync* lock) noexcept {
    const PZErrnoKeeper keeper;
    text_[0] = '\0';
    if (lock == nullptr) return;
    const char* const name = reinterpret_cast<const char*>(lock) + kInspectedLockName;
    if (*name != '\0') {
        std::snprintf(text_, sizeof text_, "%.32s", name);  // may have no terminator
    } else {
        std::snprintf(text_, sizeof text_, "%p", static_cast<const void*>(lock));
    }
}
