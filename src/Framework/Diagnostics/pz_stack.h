#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PZ_STACK_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PZ_STACK_H

#include <Framework/PZApi.h>

/// @file
/// Entry points of stack accounting. They are kept for callers and account nothing. Any thread may
/// call them.

/// Does nothing.
PZ_API void pz_InitStack();

/// Does nothing.
PZ_API void pz_FinStack();

/// Ignores `size` (bytes) and answers 1.
PZ_API int pz_InitThisStack(unsigned int size);

/// Always 0 bytes.
PZ_API unsigned int pz_GetUsedStackSize();

/// Always 0 bytes.
PZ_API unsigned int pz_GetPutativeStackSize();

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PZ_STACK_H
