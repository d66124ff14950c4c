#ifndef PZ_FRAMEWORK_FOUNDATION_PZSYNCLOCK_H
#define PZ_FRAMEWORK_FOUNDATION_PZSYNCLOCK_H

#include <Framework/Foundation/PZSync.h>

/// Holds a PZSync from construction, without a time limit, to the end of the scope.
///
/// Unlocks only what it acquired: a lock that could not be created is reported once and the section
/// runs without it. Keeps a reference: the PZSync must outlive it. An object belongs to one
/// thread.
class PZ_SCOPED_CAPABILITY PZSyncLock {
public:
    /// Waits for the lock without a time limit.
    explicit PZSyncLock(PZSync& sync) PZ_ACQUIRE(sync)
        : sync_(sync), acquired_(sync.Lock(0xFFFFFFFFU) == 0) {}

    // The analysis does not follow the condition.
    ~PZSyncLock() PZ_RELEASE() PZ_NO_THREAD_SAFETY_ANALYSIS {
        if (acquired_) sync_.Unlock();
    }

    PZSyncLock(const PZSyncLock&) = delete;
    PZSyncLock& operator=(const PZSyncLock&) = delete;

private:
    PZSync& sync_;
    const bool acquired_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZSYNCLOCK_H
