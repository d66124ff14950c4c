#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PZ_LAST_ERROR_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PZ_LAST_ERROR_H

#include <Framework/PZApi.h>

/// @file
/// The calling thread's last error of the C library (errno). Any thread may call these.

/// Sets the last error to 0.
PZ_API void pz_clear_last_err();

/// The last error number, 0 when there is none.
PZ_API int pz_get_last_err();

/// The last error's text, as strerror() gives it; valid until the thread's next call of strerror().
PZ_API const char* pz_get_last_err_string();

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PZ_LAST_ERROR_H
