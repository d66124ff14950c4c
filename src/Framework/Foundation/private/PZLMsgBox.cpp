#include "Framework/Foundation/PZLMsgBox.h"

#include <cstddef>
#include <cstring>
#include <memory>
#include <new>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/PZWatchDog.h>

namespace {

constexpr unsigned int kMaxMessages = 256;
constexpr unsigned int kMaxEvents = 256;
constexpr unsigned int kMaxPayload = 256;  // bytes
constexpr unsigned int kNoTimeLimit = 0xFFFFFFFFU;
constexpr unsigned long kNoIdentifier = ~0UL;
constexpr int kCallStackDepth = 10;

#if __SIZEOF_POINTER__ == 4
using Stored = PZPriorityQueue<PZIMsgBox::ST_PUSH_MSG_DATA>::que;
static_assert(sizeof(Stored) == 24, "the record, followed by the priority");
static_assert(offsetof(PZLMsgBox::EventInfo, bits) == 0, "record layout");
static_assert(offsetof(PZLMsgBox::EventInfo, id) == 4, "record layout");
static_assert(sizeof(PZLMsgBox::EventInfo) == 8, "record layout");
#endif

/// A copy of a payload. The record that holds it is plain data: whoever takes the record over
/// releases the copy.
using Payload = std::unique_ptr<const unsigned char[]>;

/// Null when there is no memory.
Payload copy_payload(const void* buff, unsigned int size) {
    auto* const copy = new (std::nothrow) unsigned char[size];
    if (copy != nullptr) std::memcpy(copy, buff, size);
    return Payload(copy);
}

}  // namespace

PZLMsgBox::PZLMsgBox()
    : msgs_(kMaxMessages), trail_(0), workerId_(0), msgCount_(0), eventCount_(0) {}

PZLMsgBox::~PZLMsgBox() {
    msgs_.Clear();
}

int PZLMsgBox::Init() {
    return 0;
}

int PZLMsgBox::Exit() {
    exitEvent_.SetEvent();
    return 0;
}

int PZLMsgBox::InitWait(unsigned int timeout) {
    PZWatchDog::GetInstance()->IntoWait();
    const int result = startedEvent_.WaitEvent(timeout);
    PZWatchDog::GetInstance()->OutWait();
    return result == 0 ? 0 : 1;
}

unsigned long PZLMsgBox::Registory(PZIDispatcher* d) {
    if (d == nullptr) return kNoIdentifier;
    const PZSyncLock lock(dispatcherSync_);
    const bool added = dispatchers_.insert(d).second;
    return added ? reinterpret_cast<unsigned long>(d) : kNoIdentifier;
}

void PZLMsgBox::Unregistory(unsigned long id) {
    const PZSyncLock lock(dispatcherSync_);
    dispatchers_.erase(reinterpret_cast<PZIDispatcher*>(id));
}

int PZLMsgBox::CheckTrail(unsigned int n) {
    return trail_ == n ? 1 : 0;
}

unsigned int PZLMsgBox::PushMsg(ST_PUSH_MSG_DATA& d) {
    const PZSyncLock lock(msgSync_);
    if (d.Buff != nullptr && (d.BuffSize == 0 || d.BuffSize > kMaxPayload)) {
        PZ_REPORT_ERROR("param is NG [0x%08lx][%d]\n", reinterpret_cast<unsigned long>(d.Buff),
                        static_cast<int>(d.BuffSize));
        PZCallStack::dumpDirectly(kCallStackDepth);
        return 2;
    }
    if (msgs_.size() >= msgs_.capacity()) {
        PZ_REPORT_ERROR("msg queue is full : worker[%d]\n", workerId_);
        return 3;
    }

    Payload payload;
    if (d.Buff != nullptr) {
        payload = copy_payload(d.Buff, d.BuffSize);
        if (payload == nullptr) {
            PZ_REPORT_ERROR("failed to allocate memory\n");
            return 1;
        }
        d.Buff = payload.get();
    }
    msgs_.push({d, d.Priority});
    static_cast<void>(payload.release());  // the queued record's now
    msgCount_.store(msgs_.size());

    if (msgEvent_.SetEvent() != 1) {
        PZ_REPORT_ERROR("SetEvent failed\n");
        return 1;
    }
    return 0;
}

unsigned int PZLMsgBox::SetEvent(unsigned int bits, unsigned long id) {
    const PZSyncLock lock(msgSync_);
    if (events_.size() >= kMaxEvents) {
        PZ_REPORT_ERROR("event is full : worker[%d]\n", workerId_);
        return 3;
    }
    events_.push({bits, id});
    ++eventCount_;

    if (msgEvent_.SetEvent() != 1) {
        PZ_REPORT_ERROR("SetEvent failed\n");
        return 1;
    }
    return 0;
}

int PZLMsgBox::Loop(unsigned int workerId) {
    DiscardPending(workerId);
    if (startedEvent_.SetEvent() != 1) return 0;

    bool exiting = false;
    for (;;) {
        if (!exiting && IsIdle()) exiting = WaitForExit();
        // Tested again: what was posted before Exit may have come after the first test.
        if (exiting && IsIdle()) break;

        GetAndExcuteEmgMessage();
        GetAndExcuteEventAndEmgMsg();
        GetAndExcuteMessage();
        ResetMsgEvent();
    }
    ResetMsgEvent();
    return 0;
}

/// Forgets what was posted before the loop; payload copies are not released.
void PZLMsgBox::DiscardPending(unsigned int workerId) {
    const PZSyncLock lock(msgSync_);
    msgs_.Clear();
    msgCount_.store(0);
    events_ = {};
    eventCount_.store(0);
    workerId_ = static_cast<int>(workerId);
}

bool PZLMsgBox::IsIdle() const {
    return msgCount_.load() == 0 && eventCount_.load() == 0;
}

/// Waits for a post or for Exit; true when it was Exit.
bool PZLMsgBox::WaitForExit() {
    constexpr int kExit = 0;
    constexpr int kPost = 1;
    PZEvent* events[] = {&exitEvent_, &msgEvent_};

    PZWatchDog::GetInstance()->IntoWait();
    const int result = PZEvent::WaitMultipleEvent(2, events, kNoTimeLimit, false);
    PZWatchDog::GetInstance()->OutWait();

    if (result != kExit && result != kPost) PZ_REPORT_ASSERTION();
    return result == kExit;
}

/// Loses no message: a signal follows its insertion, and the loop tests the queues next.
void PZLMsgBox::ResetMsgEvent() {
    // Locked, because a post that finds the event full drains it too: of two that drain, one would
    // block for good on the last signal.
    const PZSyncLock lock(msgSync_);
    msgEvent_.ResetEvent();
}

/// Takes the next message out; false when there is none, or none that is an emergency.
bool PZLMsgBox::TakeMessage(bool emergencyOnly, ST_PUSH_MSG_DATA& msg) {
    if (msgCount_.load() == 0) return false;
    const PZSyncLock lock(msgSync_);
    const auto& next = msgs_.top();
    // The whole field: 256 stands in the emergency level without being an emergency.
    if (emergencyOnly && next.Priority != 0) return false;
    msg = next;
    msgs_.pop();
    msgCount_.store(msgs_.size());
    return true;
}

/// Takes the oldest event out; there must be one.
PZLMsgBox::EventInfo PZLMsgBox::TakeEvent() {
    const PZSyncLock lock(msgSync_);
    const EventInfo event = events_.front();
    events_.pop();
    --eventCount_;
    return event;
}

int PZLMsgBox::GetAndExcuteEmgMessage() {
    ST_PUSH_MSG_DATA msg;
    while (TakeMessage(true, msg)) DispatchMessage(msg);
    return 1;
}

int PZLMsgBox::GetAndExcuteEventAndEmgMsg() {
    while (eventCount_.load() > 0) {
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

/// Hands the message to its dispatcher and releases the payload.
void PZLMsgBox::DispatchMessage(const ST_PUSH_MSG_DATA& msg) {
    const Payload payload(static_cast<const unsigned char*>(msg.Buff));
    const PZSyncLock lock(dispatcherSync_);
    PZIDispatcher* const dispatcher = FindLocked(msg.SID);
    if (dispatcher != nullptr) dispatcher->OnReceiveMsg(msg.MsgID, msg.Buff, msg.BuffSize);
}

void PZLMsgBox::DispatchEvent(const EventInfo& event) {
    const PZSyncLock lock(dispatcherSync_);
    PZIDispatcher* const dispatcher = FindLocked(event.id);
    if (dispatcher != nullptr) dispatcher->OnReceiveEvent(event.bits);
}
