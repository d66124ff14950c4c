#ifndef PZ_FRAMEWORK_FOUNDATION_PZUNITFRAME_H
#define PZ_FRAMEWORK_FOUNDATION_PZUNITFRAME_H

/// @file
/// The unit and the priorities of its messages.

#include <Framework/Foundation/PZIDispatcher.h>
#include <Framework/Foundation/PZIMsgBox.h>
#include <Framework/PZApi.h>

/// Priorities of a unit's messages to itself; values between them are valid too.
enum EN_MSG_ID : unsigned int {
    en_MSG_EMERGENCY = 0,
    en_MSG_HIGH = 64,
    en_MSG_NORMAL = 128,
    en_MSG_LOW = 192,
    en_MSG_LOWEST = 255
};

/// Base of an application unit: knows the message box it is registered in, and posts messages
/// and events to itself, so that they are handled on the worker's thread.
///
/// Life:      registered with RegistMsgBox until UnregistMsgBox or destruction. The box must live
///            that long. A unit that is its own dispatcher calls UnregistMsgBox first in its own
///            destructor: that of the base comes too late for a handler that runs meanwhile.
/// Threads:   any thread may send. Registering and leaving belong to the thread that owns the
///            unit, at times when no other thread sends.
/// Ownership: neither the box nor the dispatcher is owned.
/// Failures:  reported and answered with a result, never thrown, never retried. Reports wait while
///            the standard output is stuck.
class PZ_API PZUnitFrame {
public:
    /// Results of the operations.
    enum EN_RESULT : int {
        en_SUCCESS = 0,
        en_ERROR_REGIST = -1,    ///< not registered; for RegistMsgBox: refused
        en_ERROR_NO_MSGBOX = 4,  ///< no box
        en_ERROR_PUSH_MSG = 5,   ///< the box did not accept the message
        en_ERROR_PUSH_EVT = 6    ///< the box did not accept the event
    };

    /// `unitId` names the unit in reports.
    explicit PZUnitFrame(int unitId = 0);

    /// Leaves the box; no cancellation point.
    virtual ~PZUnitFrame();

    PZUnitFrame(const PZUnitFrame&) = delete;
    PZUnitFrame& operator=(const PZUnitFrame&) = delete;

    /// Registers `dispatcher`, which handles what the unit sends to itself, in `box`.
    /// en_ERROR_NO_MSGBOX without a box; en_ERROR_REGIST when the unit is registered already or
    /// the box refuses the dispatcher. Nothing is changed then.
    int RegistMsgBox(PZIMsgBox* box, PZIDispatcher* dispatcher);

    /// Leaves the box; waits for a running handler of the box to return. Without effect while not
    /// registered.
    void UnregistMsgBox();

    /// Posts a message with a payload of 1 to 256 bytes, or none (`buff` null), to the own
    /// dispatcher.
    ///
    /// The message identifier comes first; the EN_MSG_ID is the priority, 0 an emergency. Answers
    /// en_SUCCESS or another EN_RESULT.
    int SendMsgSelf(unsigned int msgId, EN_MSG_ID priority, const void* buff, unsigned int size);

    /// Posts an event to the own dispatcher. Answers en_SUCCESS or another EN_RESULT.
    int SendEvtSelf(unsigned int bits);

protected:
    long SID;                      ///< identifier in the box; -1 while not registered
    PZIMsgBox* pIMsgBox_;          ///< the box; null while not registered
    PZIDispatcher* pIDispatcher_;  ///< the dispatcher; printed in reports

private:
    PZ_LOCAL int CheckRegistration(const char* operation) const;

    const int unitId_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZUNITFRAME_H
