#ifndef PZ_FRAMEWORK_PRIVATE_PZ_THREAD_ID_H
#define PZ_FRAMEWORK_PRIVATE_PZ_THREAD_ID_H

/// Kernel id of the calling thread. Asking the system costs as much as several frames of a call
/// stack, so a thread asks once, and once more in a forked child.
unsigned int pz_this_thread_id();

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_THREAD_ID_H
