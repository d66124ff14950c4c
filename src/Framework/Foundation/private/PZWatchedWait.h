#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZWATCHEDWAIT_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZWATCHEDWAIT_H

#include <new>

#include <Framework/Foundation/PZWatchDog.h>

/// Tells the watchdog of a blocking wait, from construction to the end of the scope.
///
/// A wait without memory for the watchdog's instance goes unwatched: no thread ends for that.
class PZWatchedWait {
public:
    PZWatchedWait() {
        if (PZWatchDog* const dog = Dog()) dog->IntoWait();
    }
    /// A cancellation may leave it where the instance is made.
    ~PZWatchedWait() noexcept(false) {
        if (PZWatchDog* const dog = Dog()) dog->OutWait();
    }

    PZWatchedWait(const PZWatchedWait&) = delete;
    PZWatchedWait& operator=(const PZWatchedWait&) = delete;

private:
    static PZWatchDog* Dog() {
        try {
            return PZWatchDog::GetInstance();
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZWATCHEDWAIT_H
