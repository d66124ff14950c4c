#ifndef PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_ICU_DETECTOR_H
#define PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_ICU_DETECTOR_H

#include <cstdint>

// ICU's character-set detector, found in the running process. Its C interface is stable, so these
// declarations stand for ICU's own headers: the library neither needs ICU to be built nor to load.

struct UCharsetDetector;
struct UCharsetMatch;

/// UErrorCode: below 0 a warning, 0 success, above 0 an error. Set it to 0 before a call.
using IcuError = int;

struct ST_ICU_DETECTOR {
    UCharsetDetector* (*open)(IcuError* error);
    void (*setText)(UCharsetDetector* detector, const char* text, int32_t size, IcuError* error);
    const UCharsetMatch* (*detect)(UCharsetDetector* detector, IcuError* error);
    const UCharsetMatch** (*detectAll)(UCharsetDetector* detector, int32_t* count, IcuError* error);
    const char* (*getName)(const UCharsetMatch* match, IcuError* error);
    int32_t (*getConfidence)(const UCharsetMatch* match, IcuError* error);
    void (*close)(UCharsetDetector* detector);
};

/// The detector of the ICU that the process has loaded; false when there is none. A detector once
/// found is kept. Any thread may call it; it needs no memory of its own.
bool pz_find_icu_detector(ST_ICU_DETECTOR& icu);

#endif  // PZ_FRAMEWORK_WRAPPER_PRIVATE_PZ_ICU_DETECTOR_H
