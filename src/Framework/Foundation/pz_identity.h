#ifndef PZ_FRAMEWORK_FOUNDATION_PZ_IDENTITY_H
#define PZ_FRAMEWORK_FOUNDATION_PZ_IDENTITY_H

#include <Framework/PZApi.h>

/// @file
/// The name and id that the application gave to pz_FwInitialize. They stay readable after
/// pz_FwFinalize. Written by the starting thread before any framework thread exists, then only
/// read, by any thread.

/// The process name, at most 63 characters; "" before start-up. A static buffer.
PZ_API const char* pz_GetName();

/// Length of the process name in bytes.
PZ_API unsigned int pz_GetNameLen();

/// The process id given by the application (not the kernel's); 0 before start-up.
PZ_API int pz_GetId();

#endif  // PZ_FRAMEWORK_FOUNDATION_PZ_IDENTITY_H
