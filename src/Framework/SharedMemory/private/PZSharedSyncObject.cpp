#include "Framework/SharedMemory/PZSharedSyncObject.h"

#include <Framework/Diagnostics/PZReport.h>

PZSharedSyncObject::PZSharedSyncObject(const char* name)
    : sync_(new PZSync(name, PZSync::en_TYPE_NAMED)) {}

PZSharedSyncObject::~PZSharedSyncObject() {
    delete sync_;
    sync_ = nullptr;
}

void PZSharedSyncObject::lock() const PZ_NO_THREAD_SAFETY_ANALYSIS {
    constexpr unsigned int kLimitMs = 5000;
    const unsigned int result = sync_->Lock(kLimitMs);
    if (result != 0) PZ_REPORT_ERROR("PZSync.Lock() error [%d]\n", result);
}

void PZSharedSyncObject::unlock() const PZ_NO_THREAD_SAFETY_ANALYSIS {
    sync_->Unlock();
}
