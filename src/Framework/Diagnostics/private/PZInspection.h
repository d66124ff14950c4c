#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZINSPECTION_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZINSPECTION_H

/// @file
/// How the library keeps its table `pz_inspection`.
///
/// Every field has one writer at a time, or is written under the lock of what it describes: plain
/// loads and stores, no locked instructions.

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include <Framework/Diagnostics/pz_inspection.h>
#include <Framework/Foundation/private/PZMutex.h>
#include <Framework/PZApi.h>

class PZSync;

using PZInspectedLink = ST_INSPECTED_LINK<PZInspectionLive>;
using PZInspectedBox = ST_INSPECTED_BOX<PZInspectionLive>;
using PZInspectedPosts = ST_INSPECTED_POSTS<PZInspectionLive>;
using PZInspectedBand = ST_INSPECTED_BAND<PZInspectionLive>;
using PZInspectedThread = ST_INSPECTED_THREAD<PZInspectionLive>;
using PZInspectedQueue = ST_INSPECTED_QUEUE<PZInspectionLive>;
using PZInspectedWait = ST_INSPECTED_WAIT<PZInspectionLive>;

/// Where a PZSync and a PZMessageQueue<2> have what the table says of them.
/// @{
constexpr std::uint32_t kInspectedLockType = sizeof(void*);
constexpr std::uint32_t kInspectedLockName = kInspectedLockType + 4;
constexpr std::uint32_t kInspectedLockOwner = sizeof(void*) == 4 ? 40 : 48;
constexpr std::uint32_t kInspectedQueueName = 4;
/// @}

/// Records join and leave their lists under this lock. Code of the process that follows the lists
/// holds it. It is held for nothing else, and no other lock is taken under it.
///
/// The lists are not marked as guarded by it: other processes read them without it.
PZ_LOCAL extern PZMutex pz_inspection_lock;

/// Milliseconds of the coarse monotonic clock, as every stamp of the table.
PZ_LOCAL std::uint32_t pz_inspection_now();

/// @{ Relaxed access: the table orders nothing.
template <typename T, typename V>
void pz_inspect_set(std::atomic<T>& field, V value) {
    field.store(static_cast<T>(value), std::memory_order_relaxed);
}

template <typename T>
T pz_inspect_get(const std::atomic<T>& field) {
    return field.load(std::memory_order_relaxed);
}

template <typename T>
void pz_inspect_count(std::atomic<T>& field) {
    pz_inspect_set(field, pz_inspect_get(field) + 1);
}

template <typename T, typename V>
void pz_inspect_raise(std::atomic<T>& most, V value) {
    if (pz_inspect_get(most) < value) pz_inspect_set(most, value);
}

inline void pz_inspect_set(PZInspectionAddress& field, const void* address) {
    field.pointer.store(address, std::memory_order_relaxed);
}

inline const void* pz_inspect_get(const PZInspectionAddress& field) {
    return field.pointer.load(std::memory_order_relaxed);
}
/// @}

/// Puts a record of this kind into the list, or takes it out.
/// @{
PZ_LOCAL void pz_inspection_join(PZInspectionAddress& list, PZInspectedLink& record,
                                 std::uint32_t kind);
PZ_LOCAL void pz_inspection_leave(PZInspectionAddress& list, PZInspectedLink& record);
/// @}

/// A record that stands in its list as long as it lives. Its fields are zero at first.
template <typename Record, PZInspectionAddress ST_INSPECTION<PZInspectionLive>::*kList,
          std::uint32_t kKind>
class PZInspected : public Record {
public:
    PZInspected() { pz_inspection_join(pz_inspection.*kList, *this, kKind); }
    ~PZInspected() { pz_inspection_leave(pz_inspection.*kList, *this); }

    PZInspected(const PZInspected&) = delete;
    PZInspected& operator=(const PZInspected&) = delete;
};

using PZListedBox =
    PZInspected<PZInspectedBox, &ST_INSPECTION<PZInspectionLive>::boxes, PZ_INSPECTED_BOX_KIND>;
using PZListedBand =
    PZInspected<PZInspectedBand, &ST_INSPECTION<PZInspectionLive>::bands, PZ_INSPECTED_BAND_KIND>;

/// The part of the box's record that posts write.
inline PZInspectedPosts& pz_inspected_posts(PZInspectedBox& box) {
    auto* const bytes = reinterpret_cast<unsigned char*>(&box);
    const auto distance = static_cast<std::int32_t>(pz_inspect_get(pz_inspection.boxPosts));
    return *reinterpret_cast<PZInspectedPosts*>(bytes + distance);
}

/// Messages that wait in the box, also while it changes.
PZ_LOCAL unsigned int pz_inspected_pending(PZInspectedBox& box);

/// An entry for an open queue, 1 to PZ_INSPECTED_QUEUES; 0 when all are taken.
PZ_LOCAL unsigned short pz_inspection_queue_opened(const void* queue, std::uint32_t sides);

/// Gives the entry back; 0 is none.
PZ_LOCAL void pz_inspection_queue_closed(unsigned short entry);

/// The record of an entry; entry 0, which is never shown, stands for all that have none.
PZ_LOCAL PZInspectedQueue& pz_inspection_queue(unsigned short entry);

/// A subject that has observers. Other processes do not see it; the supervision does. A thread that
/// notifies holds the subject's lock, and counts the notification when it is over.
struct ST_WATCHED_SUBJECT {
    const void* subject;  // PZSubject; null: the entry is free
    const std::atomic<pthread_t>* owner;
    const std::atomic<unsigned int>* turns;
    // The supervision's: what it saw last, and since when.
    pthread_t seenOwner;
    unsigned int seenTurn;
    std::uint32_t sinceMs;
};

using PZWatchedSubjects = ST_WATCHED_SUBJECT[64];
PZ_LOCAL PZWatchedSubjects& pz_watched_subjects() PZ_REQUIRES(pz_inspection_lock);

/// Takes an entry, if there is a free one, or gives it back.
/// @{
PZ_LOCAL void pz_watch_subject(const void* subject, const PZSync& lock,
                               const std::atomic<unsigned int>& turns);
PZ_LOCAL void pz_forget_subject(const void* subject);
/// @}

/// Notes, as long as it lives, that the calling thread waits for a lock: only on the way to sleep.
class PZ_LOCAL PZInspectedLockWait {
public:
    explicit PZInspectedLockWait(const void* lock);
    ~PZInspectedLockWait();

    PZInspectedLockWait(const PZInspectedLockWait&) = delete;
    PZInspectedLockWait& operator=(const PZInspectedLockWait&) = delete;

private:
    PZInspectedWait* const entry_;  // null when all are taken
};

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZINSPECTION_H
