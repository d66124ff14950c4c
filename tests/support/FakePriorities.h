#ifndef PZ_TESTS_SUPPORT_FAKEPRIORITIES_H
#define PZ_TESTS_SUPPORT_FAKEPRIORITIES_H

#include <sys/resource.h>
#include <sys/types.h>

#include <vector>

#include "support/Interposed.h"
#include "support/Uncopyable.h"

// The nice values of threads without the rights that real ones need. For executables that link
// pz_fake_priorities, which defines getpriority and setpriority.

namespace pztest {

extern PZ_INTERPOSED(getpriority) getpriority_call;
extern PZ_INTERPOSED(setpriority) setpriority_call;

/// One successful setpriority.
struct PriorityChange {
    id_t thread;  // kernel thread id
    int nice;
};

/// While one lives, every thread has the nice value that it was given under it, 0 at first.
class FakePriorities : private Uncopyable {
public:
    FakePriorities();
    ~FakePriorities();

    /// The calling thread has this nice value from now on.
    static void SetOwnNice(int nice);

    /// What setpriority was called with, in order.
    std::vector<PriorityChange> Changes() const;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_FAKEPRIORITIES_H
