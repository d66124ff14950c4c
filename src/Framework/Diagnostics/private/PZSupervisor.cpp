#include "Framework/Diagnostics/PZSupervisor.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/private/PZLoopWait.h>

#include "PZInspection.h"
#include "PZStackSignal.h"

namespace {

constexpr char kThreadName[] = "pz_supervisor";
constexpr unsigned int kNotWatched = 0;   // the supervision itself
constexpr std::uint32_t kCapacity = 256;  // of each queue of a box

/// A finding, and what tells it from others.
struct ST_FOUND {
    PZSupervisor::ST_FINDING finding;  // without the call stack and the pointer to the name
    const void* record;                // of the table, where it was seen
    std::uint32_t turn;                // how often that record has begun something
    std::uint32_t sinceMs;
    bool isSeen;  // by the latest reading
    char name[128];
};

struct ST_FINDINGS {
    static constexpr int kMost = 32;

    ST_FOUND* Find(const ST_FOUND& wanted) noexcept;

    int count;
    ST_FOUND rows[kMost];
};

[[gnu::noinline]] ST_FOUND* ST_FINDINGS::Find(const ST_FOUND& wanted) noexcept {
    for (int i = 0; i < count; ++i) {
        ST_FOUND& row = rows[i];
        if (row.record == wanted.record && row.turn == wanted.turn &&
            row.finding.kind == wanted.finding.kind && row.finding.tid == wanted.finding.tid) {
            return &row;
        }
    }
    return nullptr;
}

template <typename Record>
Record* record_at(const PZInspectionAddress& address) {
    auto* const link = static_cast<const PZInspectedLink*>(pz_inspect_get(address));
    return static_cast<Record*>(const_cast<PZInspectedLink*>(link));
}

/// Calls `visit` with every record of a list.
template <typename Record, typename Visit>
void for_each_record(const PZInspectionAddress& list, Visit visit) {
    for (auto* record = record_at<Record>(list); record != nullptr;
         record = record_at<Record>(record->next)) {
        visit(*record);
    }
}

/// The first record of a list whose thread this is; null without one.
[[gnu::noinline]] PZInspectedLink* record_of(const PZInspectionAddress& list,
                                             std::uint32_t tid) noexcept {
    auto* record = record_at<PZInspectedLink>(list);
    while (record != nullptr && pz_inspect_get(record->tid) != tid) {
        record = record_at<PZInspectedLink>(record->next);
    }
    return tid != 0 ? record : nullptr;
}

/// Kernel id of a registered thread; 0 of another one.
std::uint32_t registered_tid(pthread_t handle) noexcept {
    const auto* thread = record_at<PZInspectedThread>(pz_inspection.threads);
    while (thread != nullptr &&
           pz_inspect_get(thread->handle) != reinterpret_cast<const void*>(handle)) {
        thread = record_at<PZInspectedThread>(thread->next);
    }
    return thread != nullptr ? pz_inspect_get(thread->tid) : 0;
}

/// True for a thread that serves a box, a band or a queue, which is watched there.
bool is_served(std::uint32_t tid) noexcept {
    if (record_of(pz_inspection.boxes, tid) != nullptr) return true;
    if (record_of(pz_inspection.bands, tid) != nullptr) return true;
    for (unsigned short i = 1; i <= PZ_INSPECTED_QUEUES; ++i) {
        const PZInspectedQueue& queue = pz_inspection_queue(i);
        if (pz_inspect_get(queue.queue) != nullptr && pz_inspect_get(queue.tid) == tid) return true;
    }
    return false;
}

/// One reading of the table: what hangs just now. Of the findings that are open it marks those that
/// it has seen; others it adds to `fresh`, when there is such a list, as far as there is room.
class PZ_SCOPED_CAPABILITY Reading {
public:
    Reading(ST_FINDINGS& open, ST_FINDINGS* fresh) PZ_ACQUIRE(pz_inspection_lock)
        : open_(open), fresh_(fresh) {
        pz_inspection_lock.Lock();
        for (int i = 0; i < open_.count; ++i) open_.rows[i].isSeen = false;
    }

    ~Reading() PZ_RELEASE() { pz_inspection_lock.Unlock(); }

    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

    void ReadRunning() noexcept PZ_REQUIRES(pz_inspection_lock) {
        ReadNotifying();
        for_each_record<PZInspectedBox>(pz_inspection.boxes, [this](const PZInspectedBox& box) {
            AddOverdue(PZSupervisor::en_HANDLER, box, box.dispatcher,
                       pz_inspect_get(box.served) + pz_inspect_get(box.servedEvents), box.beganMs);
        });
        for_each_record<PZInspectedBand>(pz_inspection.bands, [this](const PZInspectedBand& band) {
            AddOverdue(PZSupervisor::en_TIMER, band, band.timer, pz_inspect_get(band.fired),
                       band.beganMs);
        });
        const auto* queue =
            static_cast<const PZInspectedQueue*>(pz_inspect_get(pz_inspection.queues));
        for (std::uint32_t i = pz_inspection.queueCount; i > 0; --i, ++queue) {
            if (pz_inspect_get(queue->isNotifying) == 0) continue;
            AddOverdue(PZSupervisor::en_OBSERVER, *queue, queue->queue,
                       pz_inspect_get(queue->received), queue->beganMs);
        }
        const auto* wait = static_cast<const PZInspectedWait*>(pz_inspect_get(pz_inspection.waits));
        for (std::uint32_t i = pz_inspection.waitCount; i > 0; --i, ++wait) {
            AddOverdue(PZSupervisor::en_LOCK, *wait, wait->lock, pz_inspect_get(wait->sinceMs),
                       wait->sinceMs);
        }
    }

    /// A box refuses from its first refusal until it has refused nothing for an interval, and is
    /// not full any more. Refusals of before the supervision count while it is full.
    void ReadRefusals(bool isFirst) noexcept PZ_REQUIRES(pz_inspection_lock) {
        for_each_record<PZInspectedBox>(pz_inspection.boxes, [this, isFirst](PZInspectedBox& box) {
            ReadRefusal(box, isFirst);
        });
    }

private:
    void ReadRefusal(PZInspectedBox& box, bool isFirst) noexcept {
        PZInspectedPosts& posts = pz_inspected_posts(box);
        const std::uint32_t refused = pz_inspect_get(posts.refused);
        const auto known = static_cast<std::uint16_t>(refused);
        const bool isNew = pz_inspect_get(posts.refusedKnown) != known;
        const bool isFull =
            pz_inspected_pending(box) >= kCapacity || pz_inspect_get(posts.events) >= kCapacity;
        pz_inspect_set(posts.refusedKnown, known);
        Describe(PZSupervisor::en_REFUSAL, &box, &box, 0, pz_inspect_get(box.tid));
        row_.sinceMs = pz_inspection_now();
        row_.finding.refused = refused;
        row_.finding.worker = static_cast<int>(pz_inspect_get(box.number));
        if (isFull ? isNew || open_.Find(row_) != nullptr : isNew && !isFirst) Keep();
    }

    /// Subjects that other threads than those of boxes, bands and queues notify. When they began is
    /// not noted anywhere: it counts from the first look that sees them.
    void ReadNotifying() noexcept PZ_REQUIRES(pz_inspection_lock) {
        const std::uint32_t now = pz_inspection_now();
        for (ST_WATCHED_SUBJECT& entry : pz_watched_subjects()) {
            if (entry.subject == nullptr) continue;
            const pthread_t owner = pz_inspect_get(*entry.owner);
            const unsigned int turn = pz_inspect_get(*entry.turns);
            if (entry.seenOwner != owner || entry.seenTurn != turn) {
                entry.seenOwner = owner;
                entry.seenTurn = turn;
                entry.sinceMs = now;
            }
            const std::uint32_t tid = owner != 0 ? registered_tid(owner) : 0;
            if (tid == 0 || is_served(tid)) continue;
            AddOverdue(PZSupervisor::en_OBSERVER, &entry, entry.subject, tid, turn, entry.sinceMs);
        }
    }

    template <typename Record>
    void AddOverdue(PZSupervisor::EN_KIND kind, const Record& record,
                    const PZInspectionAddress& running, std::uint32_t turn,
                    const std::atomic<std::uint32_t>& since) noexcept {
        if (const void* const object = pz_inspect_get(running)) {
            AddOverdue(kind, &record, object, pz_inspect_get(record.tid), turn,
                       pz_inspect_get(since));
        }
    }

    void AddOverdue(PZSupervisor::EN_KIND kind, const void* record, const void* object,
                    std::uint32_t tid, std::uint32_t turn, std::uint32_t sinceMs) noexcept {
        Describe(kind, record, object, turn, tid);
        row_.sinceMs = sinceMs;
        row_.finding.durationMs = pz_inspection_now() - row_.sinceMs;  // never before it
        const unsigned int watchMs = row_.finding.watchTimeMs;
        if (watchMs != 0 && row_.finding.durationMs > watchMs) Keep();
    }

    void Keep() noexcept {
        if (ST_FOUND* const known = open_.Find(row_)) {
            known->isSeen = true;
        } else if (fresh_ != nullptr && fresh_->count < ST_FINDINGS::kMost) {
            fresh_->rows[fresh_->count++] = row_;
        }
    }

    [[gnu::noinline]] void Describe(PZSupervisor::EN_KIND kind, const void* record,
                                    const void* object, std::uint32_t turn,
                                    std::uint32_t tid) noexcept {
        std::memset(&row_, 0, sizeof row_);
        row_.record = record;
        row_.turn = turn;
        row_.finding.kind = kind;
        row_.finding.object = object;
        row_.finding.tid = static_cast<int>(tid);
        row_.finding.worker = -1;
        if (const auto* const thread =
                static_cast<PZInspectedThread*>(record_of(pz_inspection.threads, tid))) {
            row_.finding.watchTimeMs = pz_inspect_get(thread->watchTimeMs);
            std::strncpy(row_.name, static_cast<const char*>(pz_inspect_get(thread->name)),
                         sizeof row_.name - 1);
        }
        if (const auto* const box =
                static_cast<PZInspectedBox*>(record_of(pz_inspection.boxes, tid))) {
            row_.finding.worker = static_cast<int>(pz_inspect_get(box->number));
            row_.finding.dispatcher = pz_inspect_get(box->dispatcher);
            row_.finding.messageId = pz_inspect_get(box->messageId);
            row_.finding.isEvent = pz_inspect_get(box->isEvent) != 0;
        }
    }

    ST_FINDINGS& open_;
    ST_FINDINGS* const fresh_;
    ST_FOUND row_ = {};  // the one that is looked at
};

/// What watches. It is not copied into a forked child, which makes one of its own.
class Supervision {
public:
    explicit Supervision(const Supervision* parents) : parents_(parents) {}

    bool IsOfThisProcess() const noexcept { return pid_ == getpid(); }

    bool Start(PZSupervisor::Callback callback, void* user, unsigned int intervalMs, int signal) {
        if (state_ != en_STOPPED) {
            PZ_REPORT_ERROR("supervision runs already\n");
            return false;
        }
        isWithStack_ = signal != PZSupervisor::kNoCallStack;
        if (isWithStack_ && !stackSignal_.Install(signal)) {
            PZ_REPORT_ERROR("signal[%d] cannot be used\n", signal);
            return false;
        }
        callback_ = callback;
        user_ = user;
        intervalMs_ = intervalMs;
        if (!wait_.Open() || !thread_.Start(kThreadName)) {
            stackSignal_.Remove();
            return false;
        }
        state_ = en_RUNNING;
        return true;
    }

    /// True when the caller is to stop it now.
    bool BeginStop() {
        int running = en_RUNNING;
        return tid_ != pz_get_current_thread_id() &&
               state_.compare_exchange_strong(running, en_ENDING);
    }
    void Stop() {
        wait_.End();
        thread_.WaitExit();
        stackSignal_.Remove();
        state_ = en_STOPPED;
    }

    // Phases of the thread.
    int Initialize() {
        tid_ = pz_get_current_thread_id();
        open_.count = 0;
        return 0;
    }
    void MainProc() {
        for (bool isFirst = true; wait_.Wait(intervalMs_) != PZLoopWait::en_END; isFirst = false) {
            Look(isFirst);
        }
    }
    void Finalize() {}

private:
    enum EN_STATE : int { en_STOPPED, en_RUNNING, en_ENDING };

    void Look(bool isFirst) {
        fresh_.count = 0;
        {
            Reading reading(open_, &fresh_);
            reading.ReadRefusals(isFirst);
            reading.ReadRunning();
        }
        for (int i = open_.count; i-- > 0;) {
            if (!open_.rows[i].isSeen) End(open_.rows[i]);
        }
        for (int i = 0; i < fresh_.count && open_.count < ST_FINDINGS::kMost; ++i) {
            Begin(fresh_.rows[i]);
        }
    }

    /// Tells only of what lasts until a second reading: fields that changed while they were read
    /// may not fit together, and a call stack may have been taken too late.
    void Begin(const ST_FOUND& row) {
        now_ = row;
        ST_FOUND& open = open_.rows[open_.count++];
        open = row;
        if (row.finding.kind != PZSupervisor::en_REFUSAL) {
            if (isWithStack_ && stackSignal_.Take(row.finding.tid, callStack_)) {
                now_.finding.callStack = &callStack_;
            }
            if (!IsSeenAgain(open)) {
                --open_.count;
                return;
            }
        }
        Tell();
    }

    bool IsSeenAgain(const ST_FOUND& row) {
        Reading reading(open_, nullptr);
        reading.ReadRunning();
        return row.isSeen;
    }

    void End(ST_FOUND& row) {
        now_ = row;
        row = open_.rows[--open_.count];
        now_.finding.isOver = true;
        now_.finding.durationMs = pz_inspection_now() - now_.sinceMs;
        Tell();
    }

    void Tell() {
        now_.finding.threadName = now_.name;
        callback_(now_.finding, user_);
    }

    const pid_t pid_ = getpid();
    [[maybe_unused]] const Supervision* const parents_;  // left as it is, and within reach
    std::atomic<int> tid_{0};
    std::atomic<int> state_{en_STOPPED};
    PZSupervisor::Callback callback_ = nullptr;
    void* user_ = nullptr;
    unsigned int intervalMs_ = 0;
    bool isWithStack_ = false;
    PZLoopWait wait_;
    PZStackSignal stackSignal_;
    PZCallStack callStack_;
    ST_FINDINGS open_ = {};
    ST_FINDINGS fresh_ = {};
    ST_FOUND now_ = {};  // told just now
    PZThread<Supervision> thread_{this, kNotWatched};
};

// Made once and left, for the process may end while it runs.
PZMutex currentLock;  // never held while a thread is waited for
Supervision* current PZ_GUARDED_BY(currentLock) = nullptr;

/// What the caller is to stop now; null when there is nothing.
Supervision* begin_stop() {
    const PZMutexLock lock(currentLock);
    if (current == nullptr || !current->IsOfThisProcess()) return nullptr;
    return current->BeginStop() ? current : nullptr;
}

}  // namespace

bool PZSupervisor::Start(Callback callback, void* user, unsigned int intervalMs, int stackSignal) {
    if (callback == nullptr || intervalMs == 0) {
        PZ_REPORT_ERROR("invalid args\n");
        return false;
    }
    try {
        const PZMutexLock lock(currentLock);
        if (current == nullptr || !current->IsOfThisProcess()) current = new Supervision(current);
        return current->Start(callback, user, intervalMs, stackSignal);
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("failed to allocate memory\n");
        return false;
    }
}

bool PZSupervisor::Stop() {
    Supervision* const ending = begin_stop();
    if (ending == nullptr) return false;
    ending->Stop();
    return true;
}
