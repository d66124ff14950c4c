#include "PZInspection.h"

#include <pthread.h>

#include <ctime>

#include "../../private/pz_thread_id.h"

namespace {

using Table = ST_INSPECTION<PZInspectionLive>;

PZInspectedQueue queues[PZ_INSPECTED_QUEUES + 1];  // the first one is nobody's
PZInspectedWait waits[PZ_INSPECTED_WAITS];
PZWatchedSubjects subjects PZ_GUARDED_BY(pz_inspection_lock);

/// The entry is the caller's when this answers true.
template <typename T>
bool take(std::atomic<T>& mark, T value) {
    T free = {};
    return pz_inspect_get(mark) == free &&
           mark.compare_exchange_strong(free, value, std::memory_order_relaxed);
}

void lock_for_fork() PZ_ACQUIRE(pz_inspection_lock) {
    pz_inspection_lock.Lock();
}

void unlock_after_fork() PZ_RELEASE(pz_inspection_lock) {
    pz_inspection_lock.Unlock();
}

/// The search begins at an entry of the thread's own: threads that wait in turns for one lock would
/// otherwise write to the same cache line, which takes longer than the note itself. Threads that
/// were made one after another begin far from each other.
PZInspectedWait* take_wait(std::uint32_t tid) {
    constexpr std::uint32_t kDistance = 13;
    for (std::uint32_t i = 0; i < PZ_INSPECTED_WAITS; ++i) {
        PZInspectedWait& wait = waits[(tid * kDistance + i) % PZ_INSPECTED_WAITS];
        if (take(wait.tid, tid)) return &wait;
    }
    return nullptr;
}

}  // namespace

// Constant from the first instruction of the program on: objects of static storage may join before
// the library's own constructors have run.
Table pz_inspection = {
    {'P', 'Z', 'I', 'N', 'S', 'P', 'E', 'C'},
    PZ_INSPECTION_VERSION,
    sizeof(Table),
    sizeof(void*),
    sizeof(PZInspectedBox),
    sizeof(PZInspectedBand),
    sizeof(PZInspectedThread),
    sizeof(PZInspectedQueue),
    sizeof(PZInspectedWait),
    PZ_INSPECTED_QUEUES,
    PZ_INSPECTED_WAITS,
    sizeof(ST_INSPECTED_HEAP<PZInspectionLive>::threads) /
        sizeof(ST_INSPECTED_HEAP_THREAD<PZInspectionLive>),
    kInspectedLockType,
    kInspectedLockName,
    kInspectedLockOwner,
    {0},
    kInspectedQueueName,
    {0},
    {0},
    {0},
    {0},
    {},
    {},
    {},
    {},
    {},
    {queues + 1},
    {waits},
    {},
};

PZMutex pz_inspection_lock;

// Of a process that forks just now the lists are whole, and their lock is free in the child.
[[maybe_unused]] static const bool isToldOfForks =
    pthread_atfork(lock_for_fork, unlock_after_fork, unlock_after_fork) == 0;

std::uint32_t pz_inspection_now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint32_t>(now.tv_sec) * 1000U +
           static_cast<std::uint32_t>(now.tv_nsec) / 1000000U;
}

// The record is whole before it can be found.
void pz_inspection_join(PZInspectionAddress& list, PZInspectedLink& record, std::uint32_t kind) {
    pz_inspect_set(record.kind, kind);
    const PZMutexLock lock(pz_inspection_lock);
    pz_inspect_set(record.next, pz_inspect_get(list));
    list.pointer.store(&record, std::memory_order_release);
}

void pz_inspection_leave(PZInspectionAddress& list, PZInspectedLink& record) {
    const PZMutexLock lock(pz_inspection_lock);
    PZInspectionAddress* link = &list;
    while (const void* const at = pz_inspect_get(*link)) {
        if (at == &record) {
            pz_inspect_set(*link, pz_inspect_get(record.next));
            break;
        }
        link = &static_cast<PZInspectedLink*>(const_cast<void*>(at))->next;
    }
    pz_inspect_set(record.kind, 0U);
}

unsigned int pz_inspected_pending(PZInspectedBox& box) {
    const bool isInHandler =
        pz_inspect_get(box.dispatcher) != nullptr && pz_inspect_get(box.isEvent) == 0;
    const std::uint32_t gone = pz_inspect_get(box.served) + (isInHandler ? 1 : 0);
    const auto pending =
        static_cast<std::int32_t>(pz_inspect_get(pz_inspected_posts(box).posted) - gone);
    return pending > 0 ? static_cast<unsigned int>(pending) : 0;
}

unsigned short pz_inspection_queue_opened(const void* queue, std::uint32_t sides) {
    for (unsigned short entry = 1; entry <= PZ_INSPECTED_QUEUES; ++entry) {
        PZInspectedQueue& record = queues[entry];
        if (!take(record.queue.pointer, queue)) continue;
        pz_inspect_set(record.sides, sides);
        pz_inspect_set(record.sent, 0U);
        pz_inspect_set(record.received, 0U);
        pz_inspect_set(record.refused, 0U);
        pz_inspect_set(record.tid, 0U);
        pz_inspect_set(record.isNotifying, 0U);
        return entry;
    }
    return 0;
}

void pz_inspection_queue_closed(unsigned short entry) {
    pz_inspect_set(queues[entry].queue, nullptr);
}

PZInspectedQueue& pz_inspection_queue(unsigned short entry) {
    return queues[entry];
}

PZWatchedSubjects& pz_watched_subjects() {
    return subjects;
}

void pz_watch_subject(const void* subject, const PZSync& lock,
                      const std::atomic<unsigned int>& turns) {
    const auto* const owner = reinterpret_cast<const unsigned char*>(&lock) + kInspectedLockOwner;
    const PZMutexLock whole(pz_inspection_lock);
    for (ST_WATCHED_SUBJECT& entry : pz_watched_subjects()) {
        if (entry.subject != nullptr) continue;
        entry = {subject, reinterpret_cast<const std::atomic<pthread_t>*>(owner), &turns, 0, 0, 0};
        return;
    }
}

void pz_forget_subject(const void* subject) {
    const PZMutexLock whole(pz_inspection_lock);
    for (ST_WATCHED_SUBJECT& entry : pz_watched_subjects()) {
        if (entry.subject == subject) entry.subject = nullptr;
    }
}

PZInspectedLockWait::PZInspectedLockWait(const void* lock)
    : entry_(take_wait(pz_this_thread_id())) {
    if (entry_ == nullptr) return;
    pz_inspect_set(entry_->sinceMs, pz_inspection_now());
    pz_inspect_set(entry_->handle, reinterpret_cast<const void*>(pthread_self()));
    pz_inspect_set(entry_->lock, lock);
}

PZInspectedLockWait::~PZInspectedLockWait() {
    if (entry_ == nullptr) return;
    pz_inspect_set(entry_->lock, nullptr);
    pz_inspect_set(entry_->tid, 0U);
}
