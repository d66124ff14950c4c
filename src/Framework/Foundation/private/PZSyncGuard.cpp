#include "Framework/Foundation/PZSyncGuard.h"

PZSyncObjectBase::~PZSyncObjectBase() = default;

PZSyncGuard::PZSyncGuard(const PZSyncObjectBase& obj) : obj_(obj) {
    obj_.lock();
}

PZSyncGuard::~PZSyncGuard() noexcept(false) {
    obj_.unlock();
}
