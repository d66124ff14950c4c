#ifndef PZ_TESTS_SUPPORT_CANCELLEDSTACK_H
#define PZ_TESTS_SUPPORT_CANCELLEDSTACK_H

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

#include "support/Uncopyable.h"

namespace pztest {

/// Stands in the first function of a thread that is to be cancelled. The address sanitizer does not
/// see the unwinding, and would take the stack below for that of functions that still run.
class CancelledStack : private Uncopyable {
public:
    CancelledStack() = default;
    ~CancelledStack() {
#if defined(__SANITIZE_ADDRESS__)
        constexpr unsigned int kBelow = 16384;  // bytes, more than a wait of the library uses
        auto* const here = static_cast<char*>(__builtin_frame_address(0));
        __asan_unpoison_memory_region(here - kBelow, kBelow);
#endif
    }
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_CANCELLEDSTACK_H
