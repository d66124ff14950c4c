#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_SINK_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_SINK_H

#include "pz_report_way.h"

/// Hands the report to the application's sink. Whether the line is to be printed as well: true
/// without a sink, and inside of one.
bool pz_tell_report_sink(const ST_REPORT& report);

/// Exchanges the sink, and waits until no other thread runs an earlier one; not when the calling
/// thread runs one itself.
void pz_set_report_sink(PZDbgOutput::Sink sink, void* user);

/// In a forked child: of the calls that run, that of the forking thread is left. Nobody waits.
void pz_keep_report_sink_in_child() PZ_REQUIRES(pz_report_mutex);

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_REPORT_SINK_H
