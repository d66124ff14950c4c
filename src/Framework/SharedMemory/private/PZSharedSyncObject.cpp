#include "Framework/SharedMemory/PZSharedSyncObject.h"

#include <Framework/Diagnostics/PZReport.h>

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(PZSharedSyncObject) == 8, "record layout");
#endif

PZSharedSyncObject::PZSharedSyncObject(const char* name)
    : sync_(std::make_unique<PZSync>(name, PZSync::en_TYPE_NAMED)) {}

PZSharedSyncObject::~PZSharedSyncObject() = default;

// The analysis cannot follow a lock that outlives the call that took it.

void PZSharedSyncObject::lock() const PZ_NO_THREAD_SAFETY_ANALYSIS {
    constexpr unsigned int kLimitMs = 5000;
    const unsigned int result = sync_->Lock(kLimitMs);
    if (result != 0) PZ_REPORT_ERROR("PZSync.Lock() error [%d]\n", result);
}

void PZSharedSyncObject::unlock() const PZ_NO_THREAD_SAFETY_ANALYSIS {
    sync_->Unlock();
}
