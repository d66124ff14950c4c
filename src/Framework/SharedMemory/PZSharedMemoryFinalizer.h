#ifndef PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDMEMORYFINALIZER_H
#define PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDMEMORYFINALIZER_H

#include <Framework/PZApi.h>

/// The hook through which shared-memory handles would be released when the framework stops.
/// Its operations do nothing.
class PZ_API PZSharedMemoryFinalizer {
public:
    /// Does nothing.
    /// @{
    static void addShmHdl(int handle);
    static void addSyncShmHdl(int handle);
    static void addSyncHdl(void* handle);
    static void finalize();
    /// @}
};

#endif  // PZ_FRAMEWORK_SHAREDMEMORY_PZSHAREDMEMORYFINALIZER_H
