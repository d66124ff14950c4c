#ifndef PZ_FRAMEWORK_FOUNDATION_PZIMSGBOX_H
#define PZ_FRAMEWORK_FOUNDATION_PZIMSGBOX_H

#include <Framework/Foundation/PZIDispatcher.h>
#include <Framework/PZApi.h>

/// The inbox of a worker's thread: any thread posts, the worker's thread serves.
///
/// Threads:   any thread may call anything but Loop, which belongs to the worker's thread.
/// Ownership: payloads are copied; dispatchers are not owned.
/// Failures:  reported and answered with a result, never thrown. A refused post is reported under
///            the box's lock: while the standard output is stuck, all posts wait.
class PZ_API PZIMsgBox {
public:
    /// One message.
    struct ST_PUSH_MSG_DATA {
        unsigned long SID;      ///< addressed dispatcher: what Registory returned
        unsigned int MsgID;     ///< handed to the dispatcher
        unsigned int Priority;  ///< 0 is an emergency; the low 8 bits order the queue, low first
        const void* Buff;       ///< payload or null; the box copies it
        unsigned int BuffSize;  ///< 1 to 256 bytes; ignored without payload
    };

    /// What PushMsg and SetEvent answer.
    enum EN_POST : unsigned int {
        en_POST_OK = 0,        ///< posted
        en_POST_FAILED = 1,    ///< no memory, or the loop could not be woken
        en_POST_BAD_SIZE = 2,  ///< a payload of 0 or of more than 256 bytes
        en_POST_FULL = 3       ///< 256 wait already
    };

    virtual ~PZIMsgBox();

    /// Prepares the box for its thread: 0 success, anything else keeps the thread from Loop.
    virtual int Init() = 0;

    /// Asks the loop to end when everything posted has been served. Always 0.
    virtual int Exit() = 0;

    /// Waits until the loop serves: 0 when it does, 1 on time-out (as that of PZEvent) or failure.
    /// Each start of a loop answers one call; PZWorker::Start makes that call.
    virtual int InitWait(unsigned int timeout) = 0;

    /// Adds a dispatcher and answers its identifier; all bits set when it is null or registered
    /// already, and without memory (reported). Waits for a running handler of the box to return.
    virtual unsigned long Registory(PZIDispatcher* d) = 0;

    /// Removes a dispatcher, if present; waits for a running handler of the box to return. What
    /// is still queued for it is dropped, unless a dispatcher with the same identifier (a new
    /// object at the same address) is registered by the time it is served.
    virtual void Unregistory(unsigned long id) = 0;

    /// 1 when the trail value is `n`, else 0.
    virtual int CheckTrail(unsigned int n) = 0;

    /// Posts a message: an EN_POST.
    ///
    /// en_POST_FAILED has two causes: no memory for the payload (nothing is queued), or the loop
    /// could not be woken (the message stays queued and is served when the loop wakes for another
    /// reason). With a payload, `d.Buff` is changed to the address of the box's copy, which the
    /// box releases after service: give every post a fresh record.
    virtual unsigned int PushMsg(ST_PUSH_MSG_DATA& d) = 0;

    /// Posts an event for the dispatcher `id`: an EN_POST, with the same two causes of a failure.
    virtual unsigned int SetEvent(unsigned int bits, unsigned long id) = 0;

    /// Serves until Exit; `workerId` names the worker in reports. Always 0.
    virtual int Loop(unsigned int workerId) = 0;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZIMSGBOX_H
