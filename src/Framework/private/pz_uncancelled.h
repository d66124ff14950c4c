#ifndef PZ_FRAMEWORK_PRIVATE_PZ_UNCANCELLED_H
#define PZ_FRAMEWORK_PRIVATE_PZ_UNCANCELLED_H

#include <pthread.h>

/// While one lives, the calling thread is not cancelled: for destructors, which a cancellation must
/// not leave, and for steps that are to be done whole.
class PZUncancelled {
public:
    PZUncancelled() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); }
    ~PZUncancelled() { pthread_setcancelstate(state_, nullptr); }

    PZUncancelled(const PZUncancelled&) = delete;
    PZUncancelled& operator=(const PZUncancelled&) = delete;

private:
    int state_ = PTHREAD_CANCEL_ENABLE;
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_UNCANCELLED_H
