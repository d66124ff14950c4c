#include "Framework/Pattern/PZSubject.h"

#include <algorithm>
#include <new>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/private/pz_uncancelled.h>

PZObserver_::~PZObserver_() = default;

PZSubject::PZSubject() = default;

PZSubject::~PZSubject() {
    if (observers_.empty()) return;
    const PZUncancelled held;  // printing is a point at which a thread can be cancelled
    PZ_REPORT_ERROR("call RemoveObserver() before delete. [%d]\n",
                    static_cast<int>(observers_.size()));
    PZCallStack::dumpDirectly(10);
}

int PZSubject::AddObserver(PZObserver_* o) {
    return AddObserver(o, nullptr, 0);
}

int PZSubject::AddObserver(PZObserver_* o, unsigned int* ids, unsigned int count) {
    if (o == nullptr) {
        PZ_REPORT_ASSERTION();
        return 0;
    }
    if (ids == nullptr) count = 0;
    try {
        std::list<Entry> entry;
        entry.push_back(Entry{o, std::vector<unsigned int>(ids, ids + count)});
        const PZSyncLock lock(sync_);
        observers_.splice(observers_.end(), entry);
        return 1;
    } catch (const std::bad_alloc&) {
    }
    PZ_REPORT_ERROR("failed to allocate memory\n");
    return 0;
}

int PZSubject::RemoveObserver(PZObserver_* o) {
    if (o == nullptr) return 0;
    const PZSyncLock lock(sync_);
    const auto entry = std::find_if(observers_.begin(), observers_.end(),
                                    [o](const Entry& e) { return e.observer == o; });
    if (entry == observers_.end()) return 0;
    observers_.erase(entry);
    return 1;
}

void PZSubject::ForgetObservers() noexcept {
    observers_.clear();
}

unsigned int PZSubject::NotifyObserver(unsigned int id, void* data, unsigned int size,
                                       EN_NTF_TYPE type) {
    const PZSyncLock lock(sync_);
    unsigned int result = 0;
    // A list: observers may add entries behind, or remove other ones, during the walk.
    if (type != en_NTF_SELECTED) {
        for (const Entry& entry : observers_) {
            result = std::max(result, entry.observer->OnNotify(id, data, size));
        }
        return result;
    }
    for (const Entry& entry : observers_) {
        for (const unsigned int wanted : entry.ids) {
            if (wanted != id) continue;
            result = std::max(result, entry.observer->OnNotify(id, data, size));
        }
    }
    return result;
}
