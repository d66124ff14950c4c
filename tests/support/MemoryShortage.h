#ifndef PZ_TESTS_SUPPORT_MEMORYSHORTAGE_H
#define PZ_TESTS_SUPPORT_MEMORYSHORTAGE_H

#include "support/Uncopyable.h"

// A process that runs out of memory on demand. A test executable that links pz_memory_shortage gets
// operator new from there, for the library's allocations too. Calls of malloc are not refused.
//
// Every allocation of an operation is refused once:
//
//     for (int skip = 0;; ++skip) {
//         const pztest::MemoryShortage shortage(skip);
//         const int result = operation();
//         if (shortage.Refused() == 0) break;  // all were granted: the sweep is over
//         ... keep the result; assert when the shortage has ended, because assertions allocate
//     }

namespace pztest {

/// While one lives, the calling thread's `new` fails, after `skip` more calls that succeed.
class MemoryShortage : private Uncopyable {
public:
    explicit MemoryShortage(int skip = 0);
    ~MemoryShortage();

    /// Calls that failed so far.
    int Refused() const;
};

/// While one lives, `new` fails on every thread.
class GeneralMemoryShortage : private Uncopyable {
public:
    GeneralMemoryShortage();
    ~GeneralMemoryShortage();

    /// Calls that failed so far.
    int Refused() const;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_MEMORYSHORTAGE_H
