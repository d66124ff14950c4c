#ifndef PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDSYNCOBJECT_H
#define PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDSYNCOBJECT_H

#include <memory>

#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncGuard.h>
#include <Framework/PZApi.h>

/// A lock shared between processes by name, for use with PZSyncGuard.
///
/// Threads:   any thread may call lock and unlock; a thread may lock the same object repeatedly.
/// Processes: objects of the same name share one semaphore "/name"; it outlives them.
/// Failures:  reported, never thrown. An object that could not be created reports every call.
class PZ_API PZSharedSyncObject : public PZSyncObjectBase {
public:
    /// Makes or opens the semaphore "/name", see PZSync. A null name is reported.
    explicit PZSharedSyncObject(const char* name);
    ~PZSharedSyncObject() override;

    PZSharedSyncObject(const PZSharedSyncObject&) = delete;
    PZSharedSyncObject& operator=(const PZSharedSyncObject&) = delete;

    /// Waits at most 5000 milliseconds. A failure is reported, and the caller continues without the
    /// lock. A cancellation point.
    void lock() const override;

    /// Releases the lock, even another thread's: after a lock() that failed, one more is let in.
    void unlock() const override;

private:
    std::unique_ptr<PZSync> sync_;
};

#endif  // PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDSYNCOBJECT_H
