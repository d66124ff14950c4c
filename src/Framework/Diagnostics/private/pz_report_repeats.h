#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_REPEATS_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_REPEATS_H

#include "pz_report_way.h"

/// "... repeated 120 times": what stands for the lines that were only counted.
struct ST_REPETITIONS {
    bool isDue = false;
    PZReportLine line;
    ST_REPORT report = {};  // its text is that line
};

/// Counts a report that equals the one before it. True: it is counted only, and not to be printed
/// itself. `due` gets what is to be printed first, if anything. Any thread.
bool pz_count_report(const ST_REPORT& report, ST_REPETITIONS& due);

/// What was counted and not told yet; the next report is taken for a new one. `forGood`: nothing is
/// counted any more.
void pz_take_repetitions(ST_REPETITIONS& due, bool forGood);

/// In a forked child: what was counted is told by the parent.
void pz_forget_repetitions_in_child() PZ_REQUIRES(pz_report_mutex);

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_REPEATS_H
