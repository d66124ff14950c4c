#ifndef PZ_FRAMEWORK_PRIVATE_PZ_CALLERS_H
#define PZ_FRAMEWORK_PRIVATE_PZ_CALLERS_H

/// Fills `addresses` with up to `size` return addresses, the one into the calling function first:
/// those that backtrace() called there would give, at a tenth of its cost.
///
/// -1 where that cannot be promised (always on machines other than x86-64, under a sanitizer, in a
/// forked child): ask backtrace() then.
///
/// Any thread, also in a signal handler. Allocates nothing, keeps errno.
int pz_take_callers(void** addresses, int size);

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_CALLERS_H
