#ifndef PZ_FRAMEWORK_PRIVATE_PZ_CANCELLATION_H
#define PZ_FRAMEWORK_PRIVATE_PZ_CANCELLATION_H

#include <pthread.h>

/// While one lives, the calling thread is not cancelled: a request waits until it is gone. For
/// destructors, which the unwinding of a cancelled thread must not leave.
class PZCancellationHeld {
public:
    PZCancellationHeld() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); }
    ~PZCancellationHeld() { pthread_setcancelstate(state_, nullptr); }

    PZCancellationHeld(const PZCancellationHeld&) = delete;
    PZCancellationHeld& operator=(const PZCancellationHeld&) = delete;

private:
    int state_ = PTHREAD_CANCEL_ENABLE;
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_CANCELLATION_H
