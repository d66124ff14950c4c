#include "support/RawSubject.h"

#include <algorithm>

#include <Framework/Foundation/PZSyncLock.h>

namespace pzbench {

unsigned int RawSubject::Notify(unsigned int id, void* data, unsigned int size) {
    const PZSyncLock lock(sync_);
    unsigned int result = 0;
    for (PZObserver_* const observer : observers_) {
        result = std::max(result, observer->OnNotify(id, data, size));
    }
    return result;
}

}  // namespace pzbench
