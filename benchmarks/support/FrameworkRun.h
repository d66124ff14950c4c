#ifndef PZ_BENCHMARKS_SUPPORT_FRAMEWORKRUN_H
#define PZ_BENCHMARKS_SUPPORT_FRAMEWORKRUN_H

#include <Framework/Foundation/pz_framework.h>

#include "support/RatioReporter.h"

namespace pzbench {

/// main() of a benchmark program that needs the framework started.
inline int run_in_framework(int argc, char** argv) {
    if (pz_FwInitialize("bench", 1) == 0) return 1;
    const int status = run(argc, argv);
    pz_FwFinalize();
    return status;
}

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_FRAMEWORKRUN_H
