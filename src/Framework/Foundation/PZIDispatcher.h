#ifndef PZ_FRAMEWORK_FOUNDATION_PZIDISPATCHER_H
#define PZ_FRAMEWORK_FOUNDATION_PZIDISPATCHER_H

#include <Framework/PZApi.h>

/// Receiver of a message box's messages and events.
///
/// Both operations run on the worker's thread, with the box's dispatcher lock held: the handler
/// may post to any box and may register or unregister dispatchers of its own box. It must not
/// throw: an exception ends the worker's thread.
class PZ_API PZIDispatcher {
public:
    virtual ~PZIDispatcher();

    /// A message. `Buff` is the box's copy of the payload, valid during the call only; null for a
    /// message without payload (`BuffSize` then is the sender's, and means nothing).
    virtual void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) = 0;

    /// An event: the bits given to one SetEvent of the box.
    virtual void OnReceiveEvent(unsigned int bits) = 0;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZIDISPATCHER_H
