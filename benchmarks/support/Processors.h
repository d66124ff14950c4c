#ifndef PZ_BENCHMARKS_SUPPORT_PROCESSORS_H
#define PZ_BENCHMARKS_SUPPORT_PROCESSORS_H

namespace pzbench {

/// Keeps the calling thread on one processor; a number the machine does not have is taken modulo.
void stay_on_processor(unsigned int processor);

/// Lets the calling thread run on every processor again.
void roam();

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_PROCESSORS_H
