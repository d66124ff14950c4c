#include "pz_icu_detector.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>

#if __has_include(<unicode/uvernum.h>)
#include <unicode/uvernum.h>
#endif

namespace {

// ICU appends its major version to the names of its functions, unless it was built not to.
constexpr int kOldestVersion = 40;
constexpr int kNewestVersion = 99;

/// A name with its suffix, in memory that cannot run out.
using Name = char[64];

template <typename Function>
bool find(Function*& function, const char* name, const char* suffix) {
    Name whole;
    std::snprintf(whole, sizeof whole, "%s%s", name, suffix);
    function = reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, whole));
    return function != nullptr;
}

/// All functions with the same suffix, or false.
bool find_all(ST_ICU_DETECTOR& icu, const char* suffix) {
    return find(icu.open, "ucsdet_open", suffix) && find(icu.setText, "ucsdet_setText", suffix) &&
           find(icu.detect, "ucsdet_detect", suffix) &&
           find(icu.detectAll, "ucsdet_detectAll", suffix) &&
           find(icu.getName, "ucsdet_getName", suffix) &&
           find(icu.getConfidence, "ucsdet_getConfidence", suffix) &&
           find(icu.close, "ucsdet_close", suffix);
}

bool find_version(ST_ICU_DETECTOR& icu, int version) {
    Name suffix;
    std::snprintf(suffix, sizeof suffix, "_%d", version);
    return find_all(icu, suffix);
}

bool find_any(ST_ICU_DETECTOR& icu) {
    if (find_all(icu, "")) return true;
#ifdef U_ICU_VERSION_MAJOR_NUM
    if (find_version(icu, U_ICU_VERSION_MAJOR_NUM)) return true;
#endif
    for (int version = kOldestVersion; version <= kNewestVersion; ++version) {
        if (find_version(icu, version)) return true;
    }
    return false;
}

}  // namespace

bool pz_find_icu_detector(ST_ICU_DETECTOR& icu) {
    enum State : int { UNKNOWN, BEING_KEPT, KNOWN };
    static std::atomic<State> state{UNKNOWN};
    static ST_ICU_DETECTOR known;
    if (state.load(std::memory_order_acquire) == KNOWN) {
        icu = known;
        return true;
    }

    if (!find_any(icu)) return false;
    State before = UNKNOWN;  // one thread keeps what it found; the others have theirs
    if (state.compare_exchange_strong(before, BEING_KEPT)) {
        known = icu;
        state.store(KNOWN, std::memory_order_release);
    }
    return true;
}
