#ifndef TESTS_TOOLS_TOP_OTHER_LIBRARY_H
#define TESTS_TOOLS_TOP_OTHER_LIBRARY_H

#include <cstdint>

constexpr std::uint32_t kOtherInspectionVersion = 2;

/// The table of another release.
struct ST_OTHER_INSPECTION {
    char magic[8];
    std::uint32_t version;
    unsigned char rest[20];  // shorter than that of version 1
};

__attribute__((visibility("default"))) extern ST_OTHER_INSPECTION pz_inspection;

#endif  // TESTS_TOOLS_TOP_OTHER_LIBRARY_H
