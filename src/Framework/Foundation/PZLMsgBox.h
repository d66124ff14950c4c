#ifndef PZ_FRAMEWORK_FOUNDATION_PZLMSGBOX_H
#define PZ_FRAMEWORK_FOUNDATION_PZLMSGBOX_H

#include <atomic>
#include <queue>
#include <set>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZIMsgBox.h>
#include <Framework/Foundation/PZPriorityQueue.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZThreadAnnotations.h>
#include <Framework/PZApi.h>

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
/// Ownership: the box owns its payload copies and releases each one after service. Copies of
///            messages that are still queued when the box dies are not released. Messages for an
///            identifier that is not registered are dropped without a report.
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
    PZ_LOCAL void DiscardPending(unsigned int workerId);
    PZ_LOCAL bool IsIdle() const;
    PZ_LOCAL bool WaitForExit();
    PZ_LOCAL void ResetMsgEvent();
    PZ_LOCAL bool TakeMessage(bool emergencyOnly, ST_PUSH_MSG_DATA& msg);
    PZ_LOCAL EventInfo TakeEvent();
    PZ_LOCAL PZIDispatcher* FindLocked(unsigned long id) const PZ_REQUIRES(dispatcherSync_);
    PZ_LOCAL void DispatchMessage(const ST_PUSH_MSG_DATA& msg);
    PZ_LOCAL void DispatchEvent(const EventInfo& event);

    // The three steps of a pass; each answers 1.
    PZ_LOCAL int GetAndExcuteEmgMessage();
    PZ_LOCAL int GetAndExcuteEventAndEmgMsg();
    PZ_LOCAL int GetAndExcuteMessage();

    std::set<PZIDispatcher*> dispatchers_ PZ_GUARDED_BY(dispatcherSync_);  // not owned
    PZPriorityQueue<ST_PUSH_MSG_DATA> msgs_ PZ_GUARDED_BY(msgSync_);       // owns the payloads
    std::queue<EventInfo> events_ PZ_GUARDED_BY(msgSync_);
    PZSync msgSync_;         // never held while a handler runs
    PZSync dispatcherSync_;  // held while a handler runs
    PZEvent startedEvent_;
    PZEvent exitEvent_;
    PZEvent msgEvent_;  // set after every insertion, under msgSync_
    unsigned int trail_;
    int workerId_ PZ_GUARDED_BY(msgSync_);  // 0 until Loop

    // The sizes of the queues, written under msgSync_. The loop reads them without it: only the
    // loop takes out, so what it has seen stays there, and what it has missed sets msgEvent_.
    std::atomic<unsigned int> msgCount_;
    std::atomic<unsigned int> eventCount_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZLMSGBOX_H
