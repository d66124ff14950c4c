#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_WAY_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_WAY_H

#include <atomic>
#include <cstddef>
#include <string_view>

#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Foundation/private/PZMutex.h>

/// A line under construction. Appending costs a fraction of a formatted print of the same parts,
/// and every report of the framework passes here. What does not fit is cut.
class PZReportLine {
public:
    static constexpr size_t kSize = 2048;  // a whole message, and room for any sane place before it

    PZReportLine() { text_[0] = '\0'; }

    PZReportLine& Add(std::string_view text);
    PZReportLine& Add(int number);

    const char* Text() const { return text_; }
    size_t Length() const { return length_; }

private:
    size_t length_ = 0;
    char text_[kSize];
};

constexpr char kReportReset[] = "\033[0m";
constexpr int kReportWidth = 80;

/// A composed report. The texts are the caller's.
struct ST_REPORT {
    const char* text;    // the whole line
    size_t messageAt;    // where the message begins in it
    const char* colour;  // the code before it
    int priority;        // of the system log
    bool isLogged;
    bool isPlain;  // a message alone: no place, no padding
    bool isTagged;
    PZDbgOutput::EN_TAG tag;
    const char* file;
    const char* func;
    int line;
    int error;  // errno, when it is the report's subject
};

// What is asked for: PZDbgOutput::EN_STYLE in the lower bits, and these.
constexpr unsigned int kReportsSettled = 1U << 31U;  // the environment was read, or SetStyle called
constexpr unsigned int kReportsToSink = 1U << 30U;
constexpr unsigned int kReportsUncoloured = 1U << 29U;  // NO_COLOR is set

extern std::atomic<unsigned int> pz_report_way;

/// False for nearly every process: its reports are printed as ever.
inline bool pz_are_reports_special() {
    return pz_report_way.load(std::memory_order_relaxed) != kReportsSettled;
}

/// What is asked for; reads the environment when nobody did yet.
unsigned int pz_settle_report_way();

/// Hands the report to the sink, and prints and logs it as asked for.
void pz_put_special_report(const ST_REPORT& report);

/// Hands it to the system log, if it belongs there.
void pz_log_report(const ST_REPORT& report);

/// Prints the line in the style of `way`, with one write, and logs it.
void pz_print_report(unsigned int way, const ST_REPORT& report);

/// Guards what sinks and repetitions remember. Nothing is printed and no sink runs under it, so
/// that a fork need not wait for long; a child finds it free. Never destroyed: threads may still
/// report while the process ends.
extern PZMutex pz_report_mutex;

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_WAY_H
