#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_DEADLINE_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_DEADLINE_H

#include <ctime>

/// The moment `timeoutMs` milliseconds from now on CLOCK_REALTIME, as sem_timedwait wants it.
timespec pz_deadline_after(unsigned int timeoutMs);

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_DEADLINE_H
