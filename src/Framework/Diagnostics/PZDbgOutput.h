#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PZDBGOUTPUT_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PZDBGOUTPUT_H

#include <Framework/PZApi.h>

/// Prints one coloured line per call on the standard output; serious lines also go to the
/// system log, without colours.
///
/// Code that reports a failure of its own uses the macros of PZReport.h, which supply file,
/// function and line.
///
/// Line:      right-aligned to 80 columns, between a colour code and "\033[0m". Nothing adds a
///            line feed: formats end with "\n". The file is printed without its folders. The
///            process name is the one given to pz_FwInitialize, empty before.
/// Limits:    a message keeps its first 510 characters; the rest is cut silently. A wide one that
///            then needs more than 511 bytes in UTF-8 is refused by the converter, which reports
///            it, and the line is printed without a message. A line keeps its first 2047 bytes.
/// Threads:   any thread may call anything; no lock is taken, and lines of different threads do
///            not mix within a line. A standard output that is stuck (a pipe that nobody reads)
///            makes every report wait, also one that is made under a lock; the thread may be
///            cancelled there.
/// Failures:  none; nothing is thrown, and errno keeps its value.
class PZ_API PZDbgOutput {
public:
    /// Kind of a line. Any other value prints "illegal" and is logged like an error.
    enum EN_TAG : int {
        en_TAG_INFO = 0,     ///< "info"
        en_TAG_ERROR = 1,    ///< "error": red, system log at LOG_ERR
        en_TAG_DEBUG = 2,    ///< "debug"
        en_TAG_VERBOSE = 3,  ///< "verbose"
        en_TAG_WARNING = 4,  ///< "warning": printed, but kept out of the system log
        en_TAG_SYS = 5       ///< "sys": system log at LOG_NOTICE
    };

    /// The message alone: no prefix, no padding, never logged.
    ///
    /// A format whose arguments begin with a string, a number and a string selects the located
    /// form instead; use that form, or print such a message with one "%s".
    static void DbgPrint(const char* format, ...) PZ_PRINTF_FORMAT(1, 2);

    /// "func ()@file(line) {process} : message", never logged. A line of -1 leaves "(line) " out.
    static void DbgPrint(const char* file, const char* func, int line, const char* format, ...)
        PZ_PRINTF_FORMAT(4, 5);

    /// The same with a wide format; a line of -1 is printed as "(-1)".
    static void DbgPrint(const char* file, const char* func, int line, const wchar_t* format, ...);

    /// "[tag] func()@file(line) {process} : message".
    static void DbgPrint(const char* file, const char* func, int line, EN_TAG tag,
                         const char* format, ...) PZ_PRINTF_FORMAT(5, 6);

    /// "[tag] func ()@file(line) {process} : message": a blank before "()", unlike the narrow form.
    static void DbgPrint(const char* file, const char* func, int line, EN_TAG tag,
                         const wchar_t* format, ...);

    /// Reports the calling thread's errno: a tagged error line "std library error [%d : %s]\n".
    static void DbgPrintStdErr(const char* file, const char* func, int line);

    /// The same, followed by a message and always logged; errno is read after the message has
    /// been formatted.
    static void DbgPrintStdErr(const char* file, const char* func, int line, const char* format,
                               ...) PZ_PRINTF_FORMAT(4, 5);

    /// "\033[31m" (red) for en_TAG_ERROR, "\033[49m" for every other value. A static text.
    static const char* getColorTagString(EN_TAG tag);
};

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PZDBGOUTPUT_H
