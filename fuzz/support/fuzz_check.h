#ifndef PZ_FUZZ_SUPPORT_FUZZ_CHECK_H
#define PZ_FUZZ_SUPPORT_FUZZ_CHECK_H

namespace pzfuzz {

/// Ends the process with `what` on the standard error when `holds` is false: a finding.
void fuzz_check(bool holds, const char* what);

}  // namespace pzfuzz

#endif  // PZ_FUZZ_SUPPORT_FUZZ_CHECK_H
