#ifndef TOOLS_DOCTOR_ICULIBRARY_H
#define TOOLS_DOCTOR_ICULIBRARY_H

#include <string>

#include "Machine.h"

/// ICU's library with the code-page detector, as the framework could use it.
struct IcuLibrary {
    int version = 0;   ///< ICU's major version; 0 when none was found
    std::string name;  ///< "libicui18n.so.72"
};

/// Loads the newest ICU of this machine for a moment, or looks for its file in a file tree.
IcuLibrary find_icu(const Machine& machine);

#endif  // TOOLS_DOCTOR_ICULIBRARY_H
