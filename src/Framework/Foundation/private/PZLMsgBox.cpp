#include "Framework/Foundation/PZLMsgBox.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <thread>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_home.h>
#include <Framework/private/pz_numbers.h>
#include <Framework/private/pz_probes.h>
#include <Framework/private/pz_rare.h>

#include "../../Diagnostics/private/PZInspection.h"
#include "PZBoxWait.h"
#include "PZHandOver.h"
#include "PZPayloadStore.h"
#include "PZShortLook.h"
#include "PZWatchedWait.h"
#include "pz_lock_memory.h"

namespace {

constexpr unsigned int kMaxMessages = 256;
constexpr unsigned int kMaxEvents = 256;
constexpr unsigned int kMaxPayload = 256;  // bytes
constexpr unsigned int kMostSpent = 16;    // payload copies that the loop gives back together
constexpr unsigned int kOneLevel = 0;      // all events are alike
constexpr unsigned long kNoIdentifier = ~0UL;

#if __SIZEOF_POINTER__ == 4
using Stored = PZPriorityQueue<PZIMsgBox::ST_PUSH_MSG_DATA>::que;
static_assert(sizeof(Stored) == 24, "the record, followed by the priority");
static_assert(offsetof(PZLMsgBox::EventInfo, bits) == 0, "record layout");
static_assert(offsetof(PZLMsgBox::EventInfo, id) == 4, "record layout");
static_assert(sizeof(PZLMsgBox::EventInfo) == 8, "record layout");
#endif

/// What the loop shows of its handlers. The clock is read once for each: a handler ends when the
/// next one begins, or when the loop is about to sleep.
class ShownHandlers {
public:
    void Begin(const void* dispatcher, unsigned int id, bool isEvent) {
        const unsigned int now = pz_inspection_now();
        if (isInRow_) pz_inspect_raise(box_.longestMs, now - pz_inspect_get(box_.beganMs));
        isInRow_ = true;
        pz_inspect_set(box_.beganMs, now);
        pz_inspect_set(box_.messageId, id);
        pz_inspect_set(box_.isEvent, isEvent);
        pz_inspect_set(box_.dispatcher, dispatcher);
    }

    void End(std::atomic<std::uint32_t>& served) {
        pz_inspect_set(box_.dispatcher, nullptr);
        pz_inspect_count(served);
    }

    /// No handler follows at once.
    void EndRow() {
        if (isInRow_) {
            pz_inspect_raise(box_.longestMs, pz_inspection_now() - pz_inspect_get(box_.beganMs));
        }
        isInRow_ = false;
    }

    std::uint32_t RunsForMs() const { return pz_inspection_now() - pz_inspect_get(box_.beganMs); }

    PZInspectedBox& Box() { return box_; }

private:
    PZListedBox box_;
    bool isInRow_ = false;  // a handler has begun since the last sleep
};

}  // namespace

/// What the box keeps for its loop.
///
/// Its functions in ...Locked need the message lock. That is not said to Clang's analysis: the
/// hand-over knows the lock by a reference of its own, and the analysis could not tell that both
/// are one.
struct PZLMsgBox::Kept {
    /// The loop's wait, between the watchdog's hooks, and its look before it.
    struct BracketedWait {
        BracketedWait(PZShortLook& shortLook, ShownHandlers& shownHandlers)
            : look(shortLook), shown(shownHandlers) {}

        template <typename HasWork>
        bool Look(HasWork hasWork) {
            return look(hasWork);
        }
        int Wake() { return wait.Wake(); }
        void DiscardWakeUps() { wait.DiscardWakeUps(); }

        PZBoxWait::EN_RESULT Wait() {
            shown.EndRow();
            const PZWatchedWait watched;
            return wait.Wait();
        }

        PZBoxWait wait;
        PZShortLook& look;
        ShownHandlers& shown;
    };

    /// A thread that loads a value sees what was written before that was stored. A loop that reads
    /// an old value learns better under the lock, before it falls asleep.
    class Counter {
    public:
        constexpr explicit Counter(unsigned int value) : value_(value) {}

        unsigned int load() const { return value_.load(std::memory_order_acquire); }
        void store(unsigned int value) { value_.store(value, std::memory_order_release); }
        void fetch_add(unsigned int more) { value_.fetch_add(more); }
        void fetch_sub(unsigned int less) { value_.fetch_sub(less); }
        void compare_exchange(unsigned int expected, unsigned int value) {
            value_.compare_exchange_strong(expected, value);
        }

    private:
        std::atomic<unsigned int> value_;
    };

    struct Env {
        using Sync = PZSync;
        using Guard = PZSyncLock;
        using Atomic = Counter;
        using Message = ST_PUSH_MSG_DATA;
        using Queue = PZPriorityQueue<ST_PUSH_MSG_DATA>;
        using Wait = BracketedWait;
        using Result = PZBoxWait::EN_RESULT;
        static constexpr Result kWoken = PZBoxWait::en_WAKE;
        static constexpr Result kEnd = PZBoxWait::en_END;
        static constexpr Result kError = PZBoxWait::en_ERROR;
    };

    explicit Kept(PZSync& msgSync) : wait(look, shown), handOver(msgSync, wait, kMaxMessages) {
        pz_inspect_set(pz_inspection.boxPosts, reinterpret_cast<std::uintptr_t>(&posts) -
                                                   reinterpret_cast<std::uintptr_t>(&shown.Box()));
    }

    void ShowPostLocked() {
        pz_inspect_count(posts.posted);
        const unsigned int pending = handOver.PendingAboveLocked(pz_inspect_get(posts.mostPending));
        if (pending != 0) pz_inspect_set(posts.mostPending, pending);
    }

    /// After the lock, too: a wake-up that fails counts.
    void CountRefused() { posts.refused.fetch_add(1, std::memory_order_relaxed); }

    void ShowEventsLocked() {
        const unsigned int events = handOver.EventsLocked();
        pz_inspect_set(posts.events, events);
        pz_inspect_raise(posts.mostEvents, events);
    }

    void ShowBeginLocked(unsigned int workerId) {
        PZInspectedBox& box = shown.Box();
        pz_inspect_set(box.number, workerId);
        pz_inspect_set(box.tid, pz_get_current_thread_id());
        pz_inspect_set(posts.posted,
                       pz_inspect_get(box.served));  // what came before is thrown away
        pz_inspect_set(posts.events, 0);
    }

    /// On the worker's own thread.
    void TakeWorkerName() {
        pz_strncpy(workerName, sizeof workerName,
                   PZReportObject::Current(PZReportObject::en_WORKER), sizeof workerName - 1);
    }

    PZPayloadStore payloads;  // taken under the message lock
    PZInspectedPosts posts;   // written under the message lock, but for the refusals
    PZShortLook look;
    PZApart fromPosts = {};
    BracketedWait wait;
    PZHandOver<Env> handOver;  // ends with what is the loop's own
    ShownHandlers shown;
    const void* inService = nullptr;  // copy that the loop's last message had
    PZPayloadStore::Spent spent;      // copies of the loop's messages before it
    char workerName[128] = {};        // under the message lock; "" before the first loop
    PZHome home;                      // of the last loop
};

/// What follows a post after the lock. The loop may have served it by then, and the box may be
/// gone: its destructor waits only for those that have found the loop asleep.
struct PZLMsgBox::Waking {
    /// Under the lock.
    void From(Kept& asleep, unsigned int itsSleep) {
        kept = &asleep;
        sleep = itsSleep;
    }

    /// False when the loop sleeps and could not be woken, and `counts` that as a refusal.
    bool Succeeds(bool counts) const {
        if (sleep == decltype(Kept::handOver)::kAwake) return true;
        return kept->handOver.WakeFrom(sleep, [this, counts] {
            if (counts) kept->CountRefused();
        });
    }

    Kept* kept = nullptr;
    unsigned int sleep = 0;
};

[[gnu::cold]] PZLMsgBox::PZLMsgBox()
    : events_(kMaxEvents), trail_(0), workerId_(0), kept_(new (std::nothrow) Kept(msgSync_)) {
    if (kept_ == nullptr) PZ_REPORT_ERROR("failed to allocate memory\n");
    // A box without its locks, which have said so, is one without memory.
    if (!pz_has_semaphore(msgSync_) || !pz_has_semaphore(dispatcherSync_)) kept_ = nullptr;
}

PZLMsgBox::~PZLMsgBox() {
    if (kept_ == nullptr) return;
    // The last message may have been served before the thread that posted it has woken the loop.
    // A forked child does not have that thread.
    while (kept_->handOver.IsBeingWoken() && !IsOfParent())
        std::this_thread::sleep_for(std::chrono::microseconds(50));
    kept_->spent.Add(kept_->inService);
    kept_->payloads.Give(kept_->spent);
}

/// Makes what is missing for a loop to be started and woken; false, and reported once, when that
/// fails. Not while the loop runs.
[[gnu::cold]] bool PZLMsgBox::MakeEvents() {
    if (!pz_make_missing_lock(msgSync_) || !pz_make_missing_lock(dispatcherSync_)) return false;
    const PZSyncLock lock(msgSync_);
    if (kept_ == nullptr) kept_.reset(new (std::nothrow) Kept(msgSync_));
    if (kept_ == nullptr) {
        PZ_REPORT_ERROR("failed to allocate memory\n");
        return false;
    }
    if (!startedEvent_.isInitialized()) startedEvent_.init(nullptr);
    return startedEvent_.isInitialized() && kept_->wait.wait.Open();
}

/// Whether the last loop is that of a parent process.
bool PZLMsgBox::IsOfParent() const {
    return kept_ != nullptr && kept_->home.IsParent();
}

int PZLMsgBox::Init() {
    return 0;
}

int PZLMsgBox::Exit() {
    const PZSyncLock lock(msgSync_);  // MakeEvents may be at work
    if (kept_ != nullptr) kept_->wait.wait.End();
    return 0;
}

[[gnu::cold]] int PZLMsgBox::InitWait(unsigned int timeout) {
    const PZWatchedWait watched;
    return startedEvent_.WaitEvent(timeout) == 0 ? 0 : 1;
}

unsigned long PZLMsgBox::Registory(PZIDispatcher* d) {
    if (d == nullptr) return kNoIdentifier;
    const PZSyncLock lock(dispatcherSync_);
    try {
        const bool added = dispatchers_.insert(d).second;
        return added ? reinterpret_cast<unsigned long>(d) : kNoIdentifier;
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("failed to allocate memory\n");
        return kNoIdentifier;
    }
}

void PZLMsgBox::Unregistory(unsigned long id) {
    const PZSyncLock lock(dispatcherSync_);
    dispatchers_.erase(reinterpret_cast<PZIDispatcher*>(id));
}

int PZLMsgBox::CheckTrail(unsigned int n) {
    return trail_ == n ? 1 : 0;
}

/// Queues the message with a copy of its payload after the head; `d.Buff` becomes the copy's
/// address. False, and nothing changed, without memory. `waking` follows after the lock.
template <unsigned int headSize>
__attribute__((always_inline)) inline bool PZLMsgBox::QueueLocked(ST_PUSH_MSG_DATA& d,
                                                                  const void* head,
                                                                  Waking& waking) {
    if (kept_ == nullptr) return false;
    const void* copy = nullptr;
    unsigned int size = d.BuffSize;
    if (d.Buff != nullptr) {
        size += headSize;
        auto* const room = static_cast<unsigned char*>(kept_->payloads.Take(size));
        if (room == nullptr) return false;
        if constexpr (headSize != 0) std::memcpy(room, head, headSize);
        std::memcpy(room + headSize, d.Buff, d.BuffSize);
        copy = room;
    }
    // Before the loop can see it.
    PZ_PROBE(msg_post, this, d.SID, d.MsgID, d.Priority, copy);
    try {
        const auto fill = [&d, copy, size](ST_PUSH_MSG_DATA& queued) {
            queued.SID = d.SID;
            queued.MsgID = d.MsgID;
            queued.Priority = d.Priority;
            queued.Buff = copy;
            queued.BuffSize = size;
        };
        waking.From(*kept_, kept_->handOver.PostLocked(d.Priority, fill));
    } catch (const std::bad_alloc&) {
        if (copy != nullptr) kept_->payloads.GiveBack(copy);
        return false;
    }
    if (copy != nullptr) d.Buff = copy;
    kept_->ShowPostLocked();
    if (kept_->handOver.IsFirstLocked()) kept_->look.NotePost();
    return true;
}

unsigned int PZLMsgBox::PushMsg(ST_PUSH_MSG_DATA& d) {
    Waking waking;
    {
        const PZSyncLock lock(msgSync_);
        if (pz_is_rare(d.Buff != nullptr && (d.BuffSize == 0 || d.BuffSize > kMaxPayload))) {
            PZ_REPORT_ERROR_ON(WORKER, WorkerNameLocked(), "param is NG [0x%08lx][%d]\n",
                               reinterpret_cast<unsigned long>(d.Buff),
                               static_cast<int>(d.BuffSize));
            PZCallStack::dumpDirectly(kReportedFrames);
            return RefusedLocked(en_POST_BAD_SIZE);
        }
        if (pz_is_rare(kept_ != nullptr && kept_->handOver.IsFullLocked())) {
            PZ_REPORT_ERROR_ON(WORKER, WorkerNameLocked(), "msg queue is full : worker[%d]\n",
                               workerId_);
            return RefusedLocked(en_POST_FULL);
        }
        if (pz_is_rare(!QueueLocked<0>(d, nullptr, waking))) {
            PZ_REPORT_ERROR_ON(WORKER, WorkerNameLocked(), "failed to allocate memory\n");
            return RefusedLocked(en_POST_FAILED);
        }
    }
    if (waking.Succeeds(true)) return en_POST_OK;
    PZ_REPORT_ERROR("SetEvent failed\n");
    return en_POST_FAILED;
}

/// Counts a post that is not answered with en_POST_OK; the answer.
PZIMsgBox::EN_POST PZLMsgBox::RefusedLocked(EN_POST answer) const {
    if (kept_ != nullptr) kept_->CountRefused();
    return answer;
}

PZLMsgBox::EN_QUIET PZLMsgBox::PushQuietly(ST_PUSH_MSG_DATA& d, const void* head,
                                           const std::atomic<bool>& isOpen, bool isReserved) {
    Waking waking;
    {
        const PZSyncLock lock(msgSync_);
        if (kept_ == nullptr) return en_QUIET_FULL;
        if (isReserved) kept_->handOver.GiveReservedBackLocked();
        if (!isOpen.load(std::memory_order_relaxed)) return en_QUIET_CLOSED;
        if (kept_->handOver.IsFullLocked()) return en_QUIET_FULL;
        if (!QueueLocked<kQuietHead>(d, head, waking)) return en_QUIET_FULL;
    }
    // It is there, and is served after the next post at the latest.
    if (!waking.Succeeds(false)) PZ_REPORT_ERROR("SetEvent failed\n");
    return en_QUIET_OK;
}

bool PZLMsgBox::ReserveLocked() {
    if (kept_ == nullptr || kept_->handOver.IsFullLocked()) return false;
    kept_->handOver.ReserveLocked();
    return true;
}

void PZLMsgBox::GiveReservedBack() {
    const PZSyncLock lock(msgSync_);
    if (kept_ != nullptr) kept_->handOver.GiveReservedBackLocked();
}

unsigned int PZLMsgBox::CountMessages() {
    const PZSyncLock lock(msgSync_);
    return kept_ != nullptr ? kept_->handOver.CountLocked() : 0;
}

unsigned int PZLMsgBox::SetEvent(unsigned int bits, unsigned long id) {
    Waking waking;
    {
        const PZSyncLock lock(msgSync_);
        if (events_.size() >= events_.capacity()) {
            PZ_REPORT_ERROR_ON(WORKER, WorkerNameLocked(), "event is full : worker[%d]\n",
                               workerId_);
            return RefusedLocked(en_POST_FULL);
        }
        if (!QueueLocked(EventInfo{bits, id}, waking)) {
            PZ_REPORT_ERROR_ON(WORKER, WorkerNameLocked(), "failed to allocate memory\n");
            return RefusedLocked(en_POST_FAILED);
        }
    }
    if (waking.Succeeds(true)) return en_POST_OK;
    PZ_REPORT_ERROR("SetEvent failed\n");
    return en_POST_FAILED;
}

unsigned int PZLMsgBox::HandlerRunsForMs() const {
    return kept_->shown.RunsForMs();
}

/// False, and nothing changed, without memory. `waking` follows after the lock.
bool PZLMsgBox::QueueLocked(const EventInfo& event, Waking& waking) {
    if (kept_ == nullptr) return false;
    PZ_PROBE(event_post, this, event.id, event.bits);
    try {
        events_.push({event, kOneLevel});
    } catch (const std::bad_alloc&) {
        return false;
    }
    waking.From(*kept_, kept_->handOver.EventPostedLocked());
    kept_->ShowEventsLocked();
    kept_->look.NotePost();
    return true;
}

int PZLMsgBox::Loop(unsigned int workerId) {
    if (!BeginLoop(workerId)) return 0;
    const auto servePass = [this] {
        GetAndExcuteEmgMessage();
        GetAndExcuteEventAndEmgMsg();
        GetAndExcuteMessage();
    };
    kept_->handOver.Run(servePass, [] { PZ_REPORT_ASSERTION(); });
    pz_inspect_set(kept_->shown.Box().tid, 0U);
    return 0;
}

/// Forgets what was posted before the loop, whose payload copies are not released, and says that
/// the loop serves. False when it could not be woken, or cannot say so.
bool PZLMsgBox::BeginLoop(unsigned int workerId) {
    const PZSyncLock lock(msgSync_);
    events_.Clear();
    if (kept_ != nullptr) kept_->handOver.BeginLocked();
    workerId_ = static_cast<int>(workerId);
    if (kept_ != nullptr) kept_->home.Renew();
    if (kept_ != nullptr) kept_->TakeWorkerName();
    if (kept_ != nullptr) kept_->ShowBeginLocked(workerId);
    if (kept_ == nullptr || !kept_->wait.wait.IsOpen()) return false;
    kept_->handOver.AwakeLocked();
    return startedEvent_.SetEvent() == 1;
}

/// Takes the next message out; false when there is none, or none that is an emergency. The payload
/// of the one before is released.
bool PZLMsgBox::TakeMessage(bool emergencyOnly, ST_PUSH_MSG_DATA& msg) {
    // The whole field: 256 stands in the emergency level without being an emergency.
    const auto isWanted = [emergencyOnly](const ST_PUSH_MSG_DATA& next) {
        return !emergencyOnly || next.Priority == 0;
    };
    if (!kept_->handOver.Take(isWanted, msg)) return false;
    kept_->spent.Add(kept_->inService);
    kept_->inService = msg.Buff;
    const ST_PUSH_MSG_DATA* const next = kept_->handOver.NextOwn();
    if (next != nullptr) PZPayloadStore::PrefetchToRead(next->Buff, next->BuffSize);
    if (next == nullptr || kept_->spent.Count() >= kMostSpent) kept_->payloads.Give(kept_->spent);
    return true;
}

/// Takes the oldest event out; there must be one.
PZLMsgBox::EventInfo PZLMsgBox::TakeEvent() {
    const PZSyncLock lock(msgSync_);
    const EventInfo event = events_.top();
    events_.pop();
    kept_->handOver.EventTakenLocked();
    kept_->ShowEventsLocked();
    return event;
}

/// For records of reports: texts tell the worker's number only.
const char* PZLMsgBox::WorkerNameLocked() const {
    return kept_ != nullptr ? kept_->workerName : "";
}

int PZLMsgBox::GetAndExcuteEmgMessage() {
    ST_PUSH_MSG_DATA msg;
    while (kept_->handOver.IsNextMostUrgent() && TakeMessage(true, msg)) DispatchMessage(msg);
    return 1;
}

int PZLMsgBox::GetAndExcuteEventAndEmgMsg() {
    while (kept_->handOver.HasEvent()) {
        GetAndExcuteEmgMessage();
        DispatchEvent(TakeEvent());
    }
    return 1;
}

int PZLMsgBox::GetAndExcuteMessage() {
    ST_PUSH_MSG_DATA msg;
    if (TakeMessage(false, msg)) DispatchMessage(msg);
    return 1;
}

/// Null when the identifier is not registered.
PZIDispatcher* PZLMsgBox::FindLocked(unsigned long id) const {
    const auto found = dispatchers_.find(reinterpret_cast<PZIDispatcher*>(id));
    return found != dispatchers_.end() ? *found : nullptr;
}

void PZLMsgBox::DispatchMessage(const ST_PUSH_MSG_DATA& msg) {
    const PZSyncLock lock(dispatcherSync_);
    PZ_PROBE(msg_begin, this, msg.SID, msg.MsgID, msg.Priority, msg.Buff);
    PZIDispatcher* const dispatcher = FindLocked(msg.SID);
    kept_->shown.Begin(dispatcher, msg.MsgID, false);
    if (dispatcher != nullptr) dispatcher->OnReceiveMsg(msg.MsgID, msg.Buff, msg.BuffSize);
    kept_->shown.End(kept_->shown.Box().served);
    PZ_PROBE(msg_end, this, msg.MsgID);
}

void PZLMsgBox::DispatchEvent(const EventInfo& event) {
    const PZSyncLock lock(dispatcherSync_);
    PZ_PROBE(event_begin, this, event.id, event.bits);
    PZIDispatcher* const dispatcher = FindLocked(event.id);
    kept_->shown.Begin(dispatcher, event.bits, true);
    if (dispatcher != nullptr) dispatcher->OnReceiveEvent(event.bits);
    kept_->shown.End(kept_->shown.Box().servedEvents);
    PZ_PROBE(event_end, this, event.bits);
}
