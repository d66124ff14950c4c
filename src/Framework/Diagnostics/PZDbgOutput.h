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
/// Limits:    a message keeps its first 510 characters; the rest is cut silently. If a wide message
///            then needs more than 511 bytes in UTF-8, the converter refuses and reports it, and
///            the line is printed without a message. A line keeps its first 2047 bytes.
/// Threads:   any thread may call anything; no lock is taken in the default style, and lines of
///            different threads do not mix within a line. While standard output is stuck (a pipe
///            that nobody reads), every report waits, even one that is made under a lock; the
///            thread may be cancelled there.
/// Failures:  none; nothing is thrown, and errno keeps its value. A null file or function prints
///            "(null)"; a format must not be null.
/// On request: SetStyle, or PZ_REPORT in the environment, changes how lines are printed; SetSink
///            hands every report to the application. Lines in the system log never change.
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

    /// What SetStyle takes, joined by '|', and the words that PZ_REPORT takes, joined by ','. Only
    /// colours and the stream apply to plain messages.
    enum EN_STYLE : unsigned int {
        en_STYLE_DEFAULT = 0,  ///< "colour": as described above; NO_COLOR is ignored
        en_STYLE_PLAIN = 1,    ///< "plain": no colour codes
        /// "auto": colour codes only on a terminal, and none when NO_COLOR is set and not empty.
        en_STYLE_AUTO = 2,
        en_STYLE_TIME = 4,        ///< "time": begins with "2026-01-31 23:59:59.123 ", local time
        en_STYLE_THREAD = 8,      ///< "thread": then "name(id) ", the kernel's, before the tag
        en_STYLE_NOPAD = 16,      ///< "nopad": no blanks in front
        en_STYLE_STDERR = 32,     ///< "stderr": to the standard error instead
        en_STYLE_DEMANGLED = 64,  ///< "demangled": frames as "#2 tune(int)+0x1f radio"
        /// "repeats": a line that equals the one before is counted instead of printed and logged.
        /// "repeated 120 times" is printed before the next different line, with the first equal
        /// line after 5 s, and at exit. Lines without a line feed at their end are not counted.
        en_STYLE_REPEATS = 128
    };

    /// A report as a sink gets it. The texts live until the sink returns and are never null.
    struct ST_RECORD {
        bool isTagged;             ///< false: `tag` says nothing
        EN_TAG tag;                ///< also one out of range, as it was given
        long long timeNs;          ///< since 1970; 0 when the clock cannot tell it
        const char* thread;        ///< name of the calling thread, at most 15 characters
        int threadId;              ///< its kernel id
        const char* file;          ///< as given, folders included; "" in a plain message
        const char* function;      ///< "" in a plain message
        int line;                  ///< -1 in a plain message
        int error;                 ///< errno of DbgPrintStdErr, else 0
        const char* message;       ///< without the line feed at its end
        const char* objectPath;    ///< the file, folder, queue or lock concerned, or ""; for a
                                   ///< lock without a name its address, "0x55d0c2a0"
        const char* objectThread;  ///< the thread concerned, or ""
        const char* objectWorker;  ///< the worker concerned, else the one that reports, or ""
    };

    /// Takes a report on the thread that makes it. True: the line is also printed and logged. An
    /// exception counts as true; cancellation passes through.
    using Sink = bool (*)(const ST_RECORD& record, void* user);

    /// From now on lines are printed in `style`, whatever PZ_REPORT says; bits without a meaning
    /// are ignored. PZ_REPORT is read once, with the first report or the first call of one of these
    /// three; a program with more rights than its user does not read it.
    static void SetStyle(unsigned int style);

    /// The style in force: add to it to keep what the user asked for in PZ_REPORT.
    static unsigned int GetStyle();

    /// From now on every report goes to `sink`, null for none, with `user`. Several threads may
    /// call the sink at a time. What it reports itself is printed, not handed to it. When SetSink
    /// returns, the previous sink no longer runs, unless the calling thread is inside a sink. Do
    /// not call it with a lock that the previous sink takes. A forked child keeps the sink. What
    /// perror prints is no report.
    static void SetSink(Sink sink, void* user);

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
