#ifndef PZ_FRAMEWORK_FOUNDATION_PZSYNCGUARD_H
#define PZ_FRAMEWORK_FOUNDATION_PZSYNCGUARD_H

#include <Framework/PZApi.h>

/// Anything that can be locked and unlocked.
class PZ_API PZSyncObjectBase {
public:
    virtual ~PZSyncObjectBase();

    /// Waits for the lock, as long as the implementing class says.
    virtual void lock() const = 0;
    /// Releases it.
    virtual void unlock() const = 0;
};

/// Locks an object from construction to the end of the scope.
///
/// Keeps a reference only: the object must outlive the guard. One guard belongs to one thread.
class PZ_API PZSyncGuard {
public:
    /// Locks `obj`; the destructor unlocks it.
    explicit PZSyncGuard(const PZSyncObjectBase& obj);
    /// Unlocks. A cancellation may leave it where `unlock` is a cancellation point.
    virtual ~PZSyncGuard() noexcept(false);

    PZSyncGuard(const PZSyncGuard&) = delete;
    PZSyncGuard& operator=(const PZSyncGuard&) = delete;

private:
    const PZSyncObjectBase& obj_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZSYNCGUARD_H
