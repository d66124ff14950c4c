#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_DEADLINE_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_DEADLINE_H

#include <ctime>

/// When a limited wait for a semaphore ends.
struct PZDeadline {
    clockid_t clock;
    timespec time;
};

/// The moment `timeoutMs` milliseconds from now: on CLOCK_REALTIME, or on CLOCK_MONOTONIC where the
/// wall clock's seconds have no room for it, as from 2038 on in a 32-bit program.
PZDeadline pz_deadline_after(unsigned int timeoutMs);

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_DEADLINE_H
