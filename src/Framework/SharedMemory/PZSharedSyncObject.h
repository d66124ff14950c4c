#ifndef PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDSYNCOBJECT_H
#define PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDSYNCOBJECT_H

#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncGuard.h>
#include <Framework/PZApi.h>

/// A lock shared between processes by name, for use with PZSyncGuard.
///
/// Threads:   any thread may call lock and unlock.
/// Processes: objects of the same name share one semaphore "/name"; it outlives them.
class PZ_API PZSharedSyncObject : public PZSyncObjectBase {
public:
    explicit PZSharedSyncObject(const char* name);
    ~PZSharedSyncObject() override;

    PZSharedSyncObject(const PZSharedSyncObject&) = delete;
    PZSharedSyncObject& operator=(const PZSharedSyncObject&) = delete;

    /// Waits at most 5000 milliseconds. A failure is reported, and the call returns without the
    /// lock.
    void lock() const override;
    void unlock() const override;

private:
    PZSync* sync_;  // owned
};

#endif  // PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDSYNCOBJECT_H
