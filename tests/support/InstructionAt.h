#ifndef PZ_TESTS_SUPPORT_INSTRUCTIONAT_H
#define PZ_TESTS_SUPPORT_INSTRUCTIONAT_H

#include <cstdint>

namespace pztest {

/// The address of an instruction: on ARM the lowest bit of a return address tells what kind it is.
inline const void* instruction_at(const void* address) {
#ifdef __arm__
    return reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(address) & ~uintptr_t{1});
#else
    return address;
#endif
}

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_INSTRUCTIONAT_H
