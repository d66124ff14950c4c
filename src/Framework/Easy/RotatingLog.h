#ifndef PZ_FRAMEWORK_EASY_ROTATINGLOG_H
#define PZ_FRAMEWORK_EASY_ROTATINGLOG_H

#include <cstddef>
#include <memory>
#include <string_view>

#include <Framework/PZApi.h>

namespace pz {

/// Units for sizes: 64_KiB.
inline namespace literals {

/// Units of 1024 bytes.
constexpr std::size_t operator""_KiB(unsigned long long count) noexcept {
    return static_cast<std::size_t>(count * 1024);
}

/// Units of 1024 * 1024 bytes.
constexpr std::size_t operator""_MiB(unsigned long long count) noexcept {
    return static_cast<std::size_t>(count * 1024 * 1024);
}

}  // namespace literals

/// Options of a log.
struct RotatingLogOptions {
    /// Begins every line with date and time of day: "2026-11-22 07:08:09.123 ".
    bool time = false;
    /// So many bytes of lines (at most the size of a file) are collected before they are written;
    /// collected lines are lost when the process is killed. 0: every line is written at once.
    std::size_t buffer = 0;
};

/// A log that never takes more than (generations + 1) times its size.
///
///     pz::RotatingLog log("/log", "app", 64_KiB, 3);
///     log.line("tuned to %u", khz);
///
/// Files:     the newest lines are always in "app.log"; "app.log.1" is the previous generation, the
///            last one "app.log.3". When a line does not fit, the files are renamed, each to the
///            next number, and the last one is replaced. The constructor adapts what earlier
///            settings have left: a larger file keeps its last lines, and generations after the
///            last are removed.
/// Kill:      a process that is killed at any moment leaves whole files: only lines that were not
///            flushed are lost.
/// Fork:      the destructor in a forked child writes nothing: what is collected is the parent's. A
///            child that takes the log over (a daemon) flushes by itself.
/// Folder:    made by the constructor, as far as it is missing. When folder or file go away, cannot
///            be written (a full medium), or the file is no plain one (a link, a fifo), lines are
///            counted as lost until they are back; the log tries ten times a second. The first line
///            then says how many were lost.
/// Threads:   any thread may call anything; lines do not mix. One object, in one process, for each
///            log: the lines of a second one are lost while the first one lives.
/// Failures:  reported once until the log works again, and answered with false; nothing is thrown.
class PZ_API RotatingLog {
public:
    /// Another name of RotatingLogOptions.
    using Options = RotatingLogOptions;

    /// `size` in bytes, at least 64; at most 1000 generations, 0 for none. False afterwards, and
    /// every line refused, for a null or empty folder or name, a name with a '/', other sizes, and
    /// without memory. A log whose file cannot be opened yet is true, and tries again.
    RotatingLog(const char* folder, const char* name, std::size_t size, unsigned int generations,
                const Options& options = Options()) noexcept;

    /// Flushes.
    ~RotatingLog();

    /// One that was moved from is false.
    RotatingLog(RotatingLog&& other) noexcept;
    /// Flushes the log that was here before.
    RotatingLog& operator=(RotatingLog&& other) noexcept;

    /// Whether it can be written to, now or later.
    explicit operator bool() const noexcept { return state_ != nullptr; }

    /// Writes one formatted line; the line feed is added when there is none. A line that is longer
    /// than a file is cut. False when it is lost, and for a null format (not reported).
    bool line(const char* format, ...) noexcept PZ_PRINTF_FORMAT(2, 3);

    /// Writes a line that is already formatted, likewise.
    bool text(std::string_view line) noexcept;

    /// Writes what is collected. False when that is lost.
    bool flush() noexcept;

    /// Lines that were lost so far.
    unsigned long long lost() const noexcept;

private:
    struct State;
    std::unique_ptr<State> state_;  // null: refused, or moved from
};

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_ROTATINGLOG_H
