#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PZREPORT_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PZREPORT_H

/// @file
/// Reports that name the place which they come from.

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/PZApi.h>

/// Prints a tagged error line that names the calling file, function and line.
#define PZ_REPORT_ERROR(...)                                                      \
    PZDbgOutput::DbgPrint(__FILE__, static_cast<const char*>(__func__), __LINE__, \
                          PZDbgOutput::en_TAG_ERROR, __VA_ARGS__)

/// Prints a tagged error line with the calling thread's errno: "std library error [%d : %s]\n".
#define PZ_REPORT_LAST_ERROR() \
    PZDbgOutput::DbgPrintStdErr(__FILE__, static_cast<const char*>(__func__), __LINE__)

/// The same, followed by a message of the caller's own.
#define PZ_REPORT_ERRNO(...) \
    PZDbgOutput::DbgPrintStdErr(__FILE__, static_cast<const char*>(__func__), __LINE__, __VA_ARGS__)

/// Reports a broken invariant: the banner with the full source path and the line, then the whole
/// call stack. Never stops the process; the caller goes on with its own failure path.
#define PZ_REPORT_ASSERTION() pz_report_assertion(__FILE__, __LINE__)

/// The function behind PZ_REPORT_ASSERTION.
PZ_API void pz_report_assertion(const char* file, int line);

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PZREPORT_H
