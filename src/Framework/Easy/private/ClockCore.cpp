#include "ClockCore.h"

#include <algorithm>
#include <new>

namespace pz::detail {

long long ClockCore::NowMs() const {
    const PZMutexLock lock(mutex_);
    return nowMs_;
}

long long ClockCore::After(std::chrono::milliseconds time) const {
    return NowMs() + std::min<long long>(time.count(), kLongestMs);
}

bool ClockCore::Add(DueEntry& entry, long long dueMs) noexcept {
    const PZMutexLock lock(mutex_);
    try {
        rows_.push_back({&entry, std::max(dueMs, nowMs_)});
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void ClockCore::Remove(const DueEntry& entry) noexcept {
    const PZMutexLock lock(mutex_);
    const auto isIt = [&entry](const Row& row) { return row.entry == &entry; };
    rows_.erase(std::remove_if(rows_.begin(), rows_.end(), isIt), rows_.end());
}

bool ClockCore::Step(long long limitMs) {
    const PZMutexLock lock(mutex_);
    const auto isSooner = [](const Row& a, const Row& b) { return a.dueMs < b.dueMs; };
    const auto first = std::min_element(rows_.begin(), rows_.end(), isSooner);
    if (first == rows_.end() || first->dueMs > limitMs) {
        nowMs_ = std::max(nowMs_, limitMs);
        return false;
    }
    DueEntry* const entry = first->entry;
    nowMs_ = std::max(nowMs_, first->dueMs);
    const long long next = entry->OnDue(nowMs_);
    // Looked up once more: the entry may have been removed meanwhile.
    const auto row = std::find_if(rows_.begin(), rows_.end(),
                                  [entry](const Row& other) { return other.entry == entry; });
    if (row == rows_.end()) return true;
    if (next == DueEntry::kNever) {
        rows_.erase(row);
    } else {
        row->dueMs = next;
    }
    return true;
}

}  // namespace pz::detail
