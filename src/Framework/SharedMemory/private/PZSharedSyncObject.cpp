#include "Framework/SharedMemory/PZSharedSyncObject.h"

#include <cerrno>
#include <cstring>
#include <new>

#include <Framework/Diagnostics/PZReport.h>

#include "../../Diagnostics/private/PZNamedPath.h"

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(PZSharedSyncObject) == 8, "record layout");
#endif

PZSharedSyncObject::PZSharedSyncObject(const char* name)
    : sync_(new (std::nothrow) PZSync(name, PZSync::en_TYPE_NAMED)) {
    if (sync_ == nullptr) {
        PZ_REPORT_ERROR_ON(PATH, name, "create error : errno[%d : %s]\n", ENOMEM,
                           std::strerror(ENOMEM));
    }
}

PZSharedSyncObject::~PZSharedSyncObject() = default;

// The analysis cannot follow a lock that outlives the call that took it.

void PZSharedSyncObject::lock() const PZ_NO_THREAD_SAFETY_ANALYSIS {
    constexpr unsigned int kLimitMs = 5000;
    constexpr unsigned int kNotCreated = 2;
    const unsigned int result = sync_ != nullptr ? sync_->Lock(kLimitMs) : kNotCreated;
    if (result == 0) return;
    const PZNamedPath named(sync_.get());
    PZ_REPORT_ERROR("PZSync.Lock() error [%d]\n", result);
}

void PZSharedSyncObject::unlock() const PZ_NO_THREAD_SAFETY_ANALYSIS {
    if (sync_ == nullptr) {
        PZ_REPORT_ERROR("handle is not created\n");
        return;
    }
    sync_->Unlock();
}
