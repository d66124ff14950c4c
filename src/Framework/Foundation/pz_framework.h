#ifndef PZ_FRAMEWORK_FOUNDATION_PZ_FRAMEWORK_H
#define PZ_FRAMEWORK_FOUNDATION_PZ_FRAMEWORK_H

#include <Framework/PZApi.h>

/// @file
/// Start and stop of the framework in a process: once each, from the main thread. No lock is taken.

/// Starts the framework: heap accounting, process identity, the system log under `name`, the
/// thread manager and the timer manager with its five threads.
///
/// `name`: copied; at most 63 characters, more are cut, null counts as "". `id`: any number, which
/// pz_GetId answers.
///
/// Not 0 on success. 1, and nothing changed, when the framework is started already. 0, not
/// reported, when there is no memory: what was made until then stays in place, name and id too, and
/// a later call continues with it. A timer thread that cannot start is reported, and is no failure.
PZ_API int pz_FwInitialize(const char* name, int id);

/// Stops the framework: destroys all singletons, the last made first (the timer threads end here),
/// closes the system log and reports heap leaks. Does nothing when the framework is not started.
/// End all workers before.
PZ_API void pz_FwFinalize();

#endif  // PZ_FRAMEWORK_FOUNDATION_PZ_FRAMEWORK_H
