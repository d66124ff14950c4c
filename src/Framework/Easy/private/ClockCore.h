#ifndef PZ_FRAMEWORK_EASY_CLOCKCORE_H
#define PZ_FRAMEWORK_EASY_CLOCKCORE_H

#include <chrono>
#include <vector>

#include <Framework/Foundation/private/PZMutex.h>

namespace pz::detail {

/// Something that a clock tells when its time has come.
class DueEntry {
public:
    static constexpr long long kNever = -1;

    virtual ~DueEntry() = default;

    /// The next time, kNever when there is none.
    virtual long long OnDue(long long nowMs) = 0;

protected:
    DueEntry() = default;
    DueEntry(const DueEntry&) = default;
    DueEntry& operator=(const DueEntry&) = default;
};

/// Longer times count as this one: thirty years.
constexpr long long kLongestMs = 30LL * 365 * 24 * 3600 * 1000;

/// A clock that moves when it is told to, and tells the entries in the order of their times; those
/// of the same time in the order in which they were added.
class ClockCore {
public:
    long long NowMs() const;
    /// What the clock shows `time` later.
    long long After(std::chrono::milliseconds time) const;

    /// False when there is no memory.
    bool Add(DueEntry& entry, long long dueMs) noexcept;
    /// Waits until an entry that is being told has returned, unless that is what calls.
    void Remove(const DueEntry& entry) noexcept;

    /// Moves to the next time of an entry, but not beyond `limitMs`, and tells that entry. False,
    /// at `limitMs`, when there is no more.
    bool Step(long long limitMs);

private:
    struct Row {
        DueEntry* entry;  // not owned
        long long dueMs;
    };

    mutable PZRecursiveMutex mutex_;  // held while an entry is told
    long long nowMs_ PZ_GUARDED_BY(mutex_) = 0;
    std::vector<Row> rows_ PZ_GUARDED_BY(mutex_);
};

}  // namespace pz::detail

#endif  // PZ_FRAMEWORK_EASY_CLOCKCORE_H
