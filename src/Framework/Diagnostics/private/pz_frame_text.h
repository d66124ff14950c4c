#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_FRAME_TEXT_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_FRAME_TEXT_H

#include "pz_report_way.h"

/// Adds "#2 tune(int)+0x1f radio" for "/usr/bin/radio(_Z4tunei+0x1f) [0x4012ab]", as the C library
/// describes frame `index`; "#2 radio+0x12ab" when it knows no function. What reads otherwise is
/// added as it is, and a name that cannot be translated, for lack of memory too, as it is.
void pz_add_frame(PZReportLine& text, int index, const char* symbol);

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZ_FRAME_TEXT_H
