#include "pz_report_repeats.h"

#include <cstring>

#include <Framework/private/pz_time.h>

namespace {

constexpr long long kTellAfterMs = 5000;

// The last line that may be repeated.
char lastText[PZReportLine::kSize] PZ_GUARDED_BY(pz_report_mutex);  // "" without one
ST_REPORT last PZ_GUARDED_BY(pz_report_mutex) = {};                 // its text is that one
unsigned int count PZ_GUARDED_BY(pz_report_mutex) = 0;              // not told yet
long long toldMs PZ_GUARDED_BY(pz_report_mutex) = 0;  // when it, or a count of it, was printed
bool isEnding PZ_GUARDED_BY(pz_report_mutex) = false;

bool ends_with_line_feed(const char* text) {
    const size_t length = std::strlen(text);
    return length > 0 && text[length - 1] == '\n';
}

void take_locked(ST_REPETITIONS& due) PZ_REQUIRES(pz_report_mutex) {
    if (count == 0) return;
    due.line.Add(std::string_view(lastText, last.messageAt)).Add("repeated ");
    due.line.Add(static_cast<int>(count)).Add(count == 1 ? " time\n" : " times\n");
    due.report = last;
    due.report.text = due.line.Text();
    due.isDue = true;
    count = 0;
}

void remember_locked(const ST_REPORT& report, long long nowMs) PZ_REQUIRES(pz_report_mutex) {
    last = report;
    last.text = lastText;
    last.file = last.func = "";  // those were the caller's
    toldMs = nowMs;
    std::memcpy(lastText, report.text, std::strlen(report.text) + 1);
}

}  // namespace

bool pz_count_report(const ST_REPORT& report, ST_REPETITIONS& due) {
    const bool canRepeat = !report.isPlain && ends_with_line_feed(report.text);
    const long long nowMs = pz_ms_of(pz_monotonic_now());
    const PZMutexLock lock(pz_report_mutex);
    if (!canRepeat || isEnding || std::strcmp(lastText, report.text) != 0) {
        take_locked(due);
        lastText[0] = '\0';
        if (canRepeat) remember_locked(report, nowMs);
        return false;
    }
    ++count;
    if (nowMs - toldMs >= kTellAfterMs) {
        take_locked(due);
        toldMs = nowMs;
    }
    return true;
}

void pz_take_repetitions(ST_REPETITIONS& due, bool forGood) {
    const PZMutexLock lock(pz_report_mutex);
    take_locked(due);
    lastText[0] = '\0';
    isEnding = isEnding || forGood;
}

void pz_forget_repetitions_in_child() {
    count = 0;
    lastText[0] = '\0';
}
