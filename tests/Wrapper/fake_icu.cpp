#include "Wrapper/fake_icu.h"

#include <cstdint>

// A module with the seven functions of ICU's character-set detector, under the names of one
// version: FAKE_ICU_SUFFIX, or that of the machine's headers for FAKE_ICU_BUILT. With
// FAKE_ICU_INCOMPLETE one of them is missing.

#ifdef FAKE_ICU_BUILT
#if __has_include(<unicode/uvernum.h>)
#include <unicode/uvernum.h>
#define FAKE_ICU_SUFFIX U_ICU_VERSION_SUFFIX
#else
#define FAKE_ICU_SUFFIX _built
#endif
#endif

#define JOIN_NAMES(name, suffix) name##suffix
#define JOIN(name, suffix) JOIN_NAMES(name, suffix)
#define NAME(name) JOIN(name, FAKE_ICU_SUFFIX)

namespace {

FakeIcu fake_icu;  // every module has its own

void keep_status(int status) {
    const std::lock_guard<std::mutex> lock(fake_icu.mutex);
    fake_icu.setStatus.push_back(status);
}

}  // namespace

extern "C" {

FakeIcu* get_fake_icu() {
    return &fake_icu;
}

struct UCharsetDetector {
    std::vector<const FakeMatch*> list;
};

UCharsetDetector* NAME(ucsdet_open)(int* error) {
    keep_status(*error);
    *error = fake_icu.openError;
    if (*error > 0 || fake_icu.opensNull) return nullptr;
    ++fake_icu.opened;
    return new UCharsetDetector;
}

void NAME(ucsdet_close)(UCharsetDetector* detector) {
    ++fake_icu.closed;
    delete detector;
}

void NAME(ucsdet_setText)(UCharsetDetector*, const char* text, int32_t size, int* error) {
    const std::lock_guard<std::mutex> lock(fake_icu.mutex);
    fake_icu.text.assign(text, static_cast<size_t>(size));
    *error = fake_icu.setTextError;
}

const FakeMatch* NAME(ucsdet_detect)(UCharsetDetector*, int* error) {
    *error = fake_icu.detectError;
    if (*error > 0 || fake_icu.hasNoBest || fake_icu.matches.empty()) return nullptr;
    return &fake_icu.matches[0];
}

const FakeMatch** NAME(ucsdet_detectAll)(UCharsetDetector* detector, int32_t* count, int* error) {
    *error = fake_icu.detectAllError;
    if (*error > 0 || fake_icu.hasNoList) return nullptr;
    for (const FakeMatch& match : fake_icu.matches) detector->list.push_back(&match);
    *count = static_cast<int32_t>(detector->list.size());
    return detector->list.data();
}

const char* NAME(ucsdet_getName)(const FakeMatch* match, int* error) {
    keep_status(*error);
    *error = match->nameError;
    return match->name;
}

#ifndef FAKE_ICU_INCOMPLETE
int32_t NAME(ucsdet_getConfidence)(const FakeMatch* match, int* error) {
    keep_status(*error);
    return match->confidence;
}
#endif

}  // extern "C"
