#ifndef PZ_FRAMEWORK_FOUNDATION_PZLMSGBOX_H
#define PZ_FRAMEWORK_FOUNDATION_PZLMSGBOX_H

#include <atomic>
#include <memory>
#include <set>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZIMsgBox.h>
#include <Framework/Foundation/PZPriorityQueue.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZThreadAnnotations.h>
#include <Framework/PZApi.h>

namespace pz::detail {
class WorkerCore;
}

/// The message box of a worker: at most 256 pending messages and 256 pending events.
///
/// Service:   the loop works in passes. One pass serves all emergency messages (Priority 0), then
///            every event, each after the emergency messages that came meanwhile, then one
///            ordinary message: the lowest priority value first, first come first served within
///            a level. A Priority of 256, 512, ... is ordered with the emergencies, but served as
///            an ordinary message.
/// Threads:   any thread posts. Handlers run on the loop's thread without the message lock and
///            with the dispatcher lock: a handler may post to any box, its own included, and may
///            register or unregister dispatchers, itself included. Other threads that register or
///            unregister wait until the running handler returns.
/// Start:     what is posted before Loop is discarded, and the payload copies of discarded
///            messages are not released: wait with InitWait before the first post.
/// Exit:      takes effect when nothing is pending. An Exit that found no loop, or a second one,
///            stays pending and ends the next Loop as soon as that is idle.
/// Wake-ups:  a post wakes the loop when it sleeps, with one system call, and makes none while it
///            serves, so that it cannot fail for that then. Before it sleeps, the loop checks for
///            more for up to 10 microseconds if posts come from another processor. A wait that
///            fails is reported like a broken invariant and repeated after 100 milliseconds.
/// Ownership: the box owns its payload copies. It keeps their memory, and uses it again after
///            service. Copies of messages that are still queued when the box is destroyed are not
///            released. Messages for an identifier that is not registered are dropped without a
///            report.
/// Process:   three descriptors; that of the loop is above 2. A box without descriptors or memory
///            (reported) answers posts with en_POST_FAILED, and its Loop ends at once.
class PZ_API PZLMsgBox : public PZIMsgBox {
public:
    /// One pending event.
    struct EventInfo {
        unsigned int bits;  ///< handed to the dispatcher
        unsigned long id;   ///< addressed dispatcher
    };

    PZLMsgBox();
    ~PZLMsgBox() override;

    PZLMsgBox(const PZLMsgBox&) = delete;
    PZLMsgBox& operator=(const PZLMsgBox&) = delete;

    /// Does nothing; 0.
    int Init() override;

    int Exit() override;
    int InitWait(unsigned int timeout) override;

    /// The identifier is the dispatcher's address.
    unsigned long Registory(PZIDispatcher* d) override;
    void Unregistory(unsigned long id) override;

    /// The trail value is 0 and nothing changes it.
    int CheckTrail(unsigned int n) override;

    unsigned int PushMsg(ST_PUSH_MSG_DATA& d) override;
    unsigned int SetEvent(unsigned int bits, unsigned long id) override;

    int Loop(unsigned int workerId) override;

private:
    struct PZ_LOCAL Kept;
    struct PZ_LOCAL Waking;

    PZ_LOCAL bool MakeEvents();
    PZ_LOCAL bool IsOfParent() const;
    PZ_LOCAL EN_POST RefusedLocked(EN_POST answer) const PZ_REQUIRES(msgSync_);
    PZ_LOCAL bool BeginLoop(unsigned int workerId);
    template <unsigned int headSize>
    PZ_LOCAL bool QueueLocked(ST_PUSH_MSG_DATA& d, const void* head, Waking& waking)
        PZ_REQUIRES(msgSync_);
    PZ_LOCAL bool QueueLocked(const EventInfo& event, Waking& waking) PZ_REQUIRES(msgSync_);
    PZ_LOCAL bool TakeMessage(bool emergencyOnly, ST_PUSH_MSG_DATA& msg);
    PZ_LOCAL EventInfo TakeEvent();
    PZ_LOCAL const char* WorkerNameLocked() const PZ_REQUIRES(msgSync_);
    PZ_LOCAL PZIDispatcher* FindLocked(unsigned long id) const PZ_REQUIRES(dispatcherSync_);
    PZ_LOCAL void DispatchMessage(const ST_PUSH_MSG_DATA& msg);
    PZ_LOCAL void DispatchEvent(const EventInfo& event);

    // The three steps of a pass; each answers 1.
    PZ_LOCAL int GetAndExcuteEmgMessage();
    PZ_LOCAL int GetAndExcuteEventAndEmgMsg();
    PZ_LOCAL int GetAndExcuteMessage();

    // For the easy layer's workers: as PushMsg, but without a report when there is no room, and
    // only while `isOpen`. Room may be reserved before: it is then used or released.
    enum EN_QUIET {
        en_QUIET_OK,
        en_QUIET_FULL,   // no room, or no memory
        en_QUIET_CLOSED  // not open
    };
    // A payload is stored after the kQuietHead bytes at `head`.
    static constexpr unsigned int kQuietHead = 4 * sizeof(void*);
    PZ_LOCAL EN_QUIET PushQuietly(ST_PUSH_MSG_DATA& d, const void* head,
                                  const std::atomic<bool>& isOpen, bool isReserved);
    PZ_LOCAL bool ReserveLocked() PZ_REQUIRES(msgSync_);
    PZ_LOCAL void GiveReservedBack();
    PZ_LOCAL unsigned int CountMessages();
    PZ_LOCAL unsigned int HandlerRunsForMs() const;  // while one does; there is a loop

    friend class PZWorker;  // makes the events before the thread
    friend class pz::detail::WorkerCore;

    // What the loop changes at every message stands away from what posts change, in this object and
    // in the order of allocations: on two processors they are not to wait for each other's lines.
    std::set<PZIDispatcher*> dispatchers_ PZ_GUARDED_BY(dispatcherSync_);  // not owned
    PZSync dispatcherSync_;                                      // held while a handler runs
    PZPriorityQueue<EventInfo> events_ PZ_GUARDED_BY(msgSync_);  // all of one level
    PZEvent startedEvent_;
    unsigned int trail_;
    int workerId_ PZ_GUARDED_BY(msgSync_);  // 0 until Loop
    std::unique_ptr<Kept> kept_;  // messages, and what the loop waits with; null without memory
    PZSync msgSync_;              // never held while a handler runs
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZLMSGBOX_H
