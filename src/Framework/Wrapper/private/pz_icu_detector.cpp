#include "pz_icu_detector.h"

#include <dlfcn.h>

#include <atomic>
#include <memory>
#include <string>

#if __has_include(<unicode/uvernum.h>)
#include <unicode/uvernum.h>
#endif

namespace {

// ICU appends its major version to the names of its functions, unless it was built not to.
constexpr int kOldestVersion = 40;
constexpr int kNewestVersion = 99;

template <typename Function>
bool find(Function*& function, const char* name, const std::string& suffix) {
    function = reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, (name + suffix).c_str()));
    return function != nullptr;
}

/// All functions with the same suffix, or false.
bool find_all(ST_ICU_DETECTOR& icu, const std::string& suffix) {
    return find(icu.open, "ucsdet_open", suffix) && find(icu.setText, "ucsdet_setText", suffix) &&
           find(icu.detect, "ucsdet_detect", suffix) &&
           find(icu.detectAll, "ucsdet_detectAll", suffix) &&
           find(icu.getName, "ucsdet_getName", suffix) &&
           find(icu.getConfidence, "ucsdet_getConfidence", suffix) &&
           find(icu.close, "ucsdet_close", suffix);
}

bool find_version(ST_ICU_DETECTOR& icu, int version) {
    return find_all(icu, "_" + std::to_string(version));
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

const ST_ICU_DETECTOR* pz_find_icu_detector() {
    static std::atomic<const ST_ICU_DETECTOR*> known{nullptr};
    const ST_ICU_DETECTOR* icu = known;
    if (icu != nullptr) return icu;

    auto found = std::make_unique<ST_ICU_DETECTOR>();
    if (!find_any(*found)) return nullptr;
    // Another thread may have been faster; its detector serves as well.
    if (known.compare_exchange_strong(icu, found.get())) return found.release();
    return icu;
}
