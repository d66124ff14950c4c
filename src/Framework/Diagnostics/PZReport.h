#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PZREPORT_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PZREPORT_H

/// @file
/// Reports that name the place they come from. Any thread may report at any time.

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/PZApi.h>

/// Prints a tagged error line that names the calling file, function and line.
#define PZ_REPORT_ERROR(...)                                                      \
    PZDbgOutput::DbgPrint(__FILE__, static_cast<const char*>(__func__), __LINE__, \
                          PZDbgOutput::en_TAG_ERROR, __VA_ARGS__)

/// The same in the name of another function, for a helper that reports for its caller.
#define PZ_REPORT_ERROR_OF(function, ...) \
    PZDbgOutput::DbgPrint(__FILE__, function, __LINE__, PZDbgOutput::en_TAG_ERROR, __VA_ARGS__)

/// PZ_REPORT_ERROR about an object that the text does not name: only the record does, see
/// PZReportObject. `kind` is PATH, THREAD or WORKER.
#define PZ_REPORT_ERROR_ON(kind, name, ...)                       \
    pz_report_error_on(PZReportObject::en_##kind, name, __FILE__, \
                       static_cast<const char*>(__func__), __LINE__, __VA_ARGS__)

/// PZ_REPORT_LAST_ERROR about such an object.
#define PZ_REPORT_LAST_ERROR_ON(kind, name)                            \
    pz_report_last_error_on(PZReportObject::en_##kind, name, __FILE__, \
                            static_cast<const char*>(__func__), __LINE__)

/// Prints a tagged error line with the calling thread's errno: "std library error [%d : %s]\n".
#define PZ_REPORT_LAST_ERROR() \
    PZDbgOutput::DbgPrintStdErr(__FILE__, static_cast<const char*>(__func__), __LINE__)

/// The same, followed by a message of the caller's own.
#define PZ_REPORT_ERRNO(...) \
    PZDbgOutput::DbgPrintStdErr(__FILE__, static_cast<const char*>(__func__), __LINE__, __VA_ARGS__)

/// Reports a broken invariant: the banner with the full source path and the line, then the whole
/// call stack. Never stops the process; the caller continues with its own failure path.
#define PZ_REPORT_ASSERTION() pz_report_assertion(__FILE__, __LINE__)

/// What PZ_REPORT_ASSERTION calls.
PZ_API void pz_report_assertion(const char* file, int line);

/// Names an object in the records of the calling thread's reports, for texts that name none: see
/// PZDbgOutput::SetSink. Lines do not show it. An inner scope hides an outer one of the same kind.
class PZ_API PZReportObject {
public:
    /// What kind of object is named.
    enum EN_KIND : unsigned int {
        en_PATH = 0,    ///< a file or a folder
        en_THREAD = 1,  ///< name of a thread
        en_WORKER = 2   ///< name of a worker
    };

    /// `name` is kept by its address and must outlive the object; null names nothing.
    PZReportObject(EN_KIND kind, const char* name) noexcept;
    ~PZReportObject();

    PZReportObject(const PZReportObject&) = delete;
    PZReportObject& operator=(const PZReportObject&) = delete;

    /// What the innermost scope of this kind names on the calling thread; "" without one.
    static const char* Current(EN_KIND kind) noexcept;

private:
    const EN_KIND kind_;
    const char* const before_;
};

/// The function that PZ_REPORT_ERROR_ON calls.
PZ_API void pz_report_error_on(PZReportObject::EN_KIND kind, const char* name, const char* file,
                               const char* func, int line, const char* format, ...)
    PZ_PRINTF_FORMAT(6, 7);
/// The function that PZ_REPORT_LAST_ERROR_ON calls.
PZ_API void pz_report_last_error_on(PZReportObject::EN_KIND kind, const char* name,
                                    const char* file, const char* func, int line);

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PZREPORT_H
