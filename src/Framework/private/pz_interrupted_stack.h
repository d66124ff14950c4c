#ifndef PZ_FRAMEWORK_PRIVATE_PZ_INTERRUPTED_STACK_H
#define PZ_FRAMEWORK_PRIVATE_PZ_INTERRUPTED_STACK_H

// On 32-bit machines the unwind tables do not tell the truth about every instruction: a walk that
// believes them may read memory that is none. Elsewhere backtrace() serves.
#if defined(__i386__) || defined(__arm__)
#define PZ_HAS_INTERRUPTED_STACK

/// Fills `addresses` with up to `size` addresses of the call stack that a signal has interrupted,
/// that of the interrupted instruction first. `context` is the third argument of the handler. Ends
/// where a caller is not certain: each further address follows a call.
///
/// For signal handlers: allocates nothing, takes no lock of its own, and reads no memory before the
/// kernel has said that it can be read.
int pz_take_interrupted_stack(const void* context, void** addresses, int size);

#endif

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_INTERRUPTED_STACK_H
