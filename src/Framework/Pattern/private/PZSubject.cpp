#include "Framework/Pattern/PZSubject.h"

#include <algorithm>
#include <cstddef>
#include <new>
#include <utility>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/private/pz_numbers.h>
#include <Framework/private/pz_uncancelled.h>

#include "../../Diagnostics/private/PZInspection.h"

namespace {

/// The header holds its code; this puts a copy into the library for callers that have none.
[[gnu::used]] constexpr auto kCopy = &PZSubject::NotifyObserver;

}  // namespace

PZObserver_::~PZObserver_() = default;

PZSubject::PZSubject() = default;

PZSubject::~PZSubject() {
    if (observers_.capacity() != 0) pz_forget_subject(this);
    if (observers_.size() == gaps_) return;
    const PZUncancelled held;  // printing is a point at which a thread can be cancelled
    PZ_REPORT_ERROR("call RemoveObserver() before delete. [%d]\n",
                    static_cast<int>(observers_.size() - gaps_));
    PZCallStack::dumpDirectly(kReportedFrames);
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
        Entry entry{o, std::vector<unsigned int>(ids, ids + count)};
        const PZSyncLock lock(sync_);
        const bool isFirst = observers_.capacity() == 0;
        observers_.push_back(std::move(entry));
        if (isFirst) pz_watch_subject(this, sync_, turns_);
        ++changes_;
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
    ++changes_;
    if (passes_ == 0) {
        observers_.erase(entry);
    } else {
        entry->observer = nullptr;
        ++gaps_;
    }
    return 1;
}

void PZSubject::CloseGaps() noexcept {
    const auto isGap = [](const Entry& entry) { return entry.observer == nullptr; };
    observers_.erase(std::remove_if(observers_.begin(), observers_.end(), isGap), observers_.end());
    gaps_ = 0;
}

void PZSubject::ForgetObservers() noexcept {
    ++changes_;
    observers_.clear();
    gaps_ = 0;
}

/// From the observer with the number `next` on, whatever was changed meanwhile. By number and up to
/// the size of now: observers may add entries at the end, which may move all.
unsigned int PZSubject::NotifyRest(size_t next, unsigned int result, unsigned int id, void* data,
                                   unsigned int size) {
    while (next < observers_.size()) {
        PZObserver_* const observer = observers_[next++].observer;
        if (observer != nullptr) result = std::max(result, observer->OnNotify(id, data, size));
    }
    return result;
}

unsigned int PZSubject::NotifySelected(unsigned int id, void* data, unsigned int size) {
    const PZSyncLock lock(sync_);
    const Pass pass(*this);
    unsigned int result = 0;
    for (size_t i = 0; i < observers_.size(); ++i) {
        for (size_t k = 0; i < observers_.size() && k < observers_[i].ids.size(); ++k) {
            if (observers_[i].ids[k] != id || observers_[i].observer == nullptr) continue;
            result = std::max(result, observers_[i].observer->OnNotify(id, data, size));
        }
    }
    return result;
}
