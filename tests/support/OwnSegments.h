#ifndef PZ_TESTS_SUPPORT_OWNSEGMENTS_H
#define PZ_TESTS_SUPPORT_OWNSEGMENTS_H

#include <sched.h>

namespace pztest {

/// Whether the test program that includes this has shared memory of its own. The key of a guard's
/// segment is 16 bits of a file's number: among all programs of the machine, now and then two files
/// have the same one. Only root gets such a namespace; it has default limits of queues as well.
inline const bool kHasOwnSegments = ::unshare(CLONE_NEWIPC) == 0;

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_OWNSEGMENTS_H
