#ifndef TWOPROCESS_TICKINGUNIT_H
#define TWOPROCESS_TICKINGUNIT_H

#include <atomic>

#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Utility/PZLTimerMng.h>

/// A unit that is called in an interval, on its worker.
///
/// The timer only posts a message, so that the timer thread is free at once; and only when the last
/// one has been handled, so that a slow unit is called less often and its box does not fill up.
class TickingUnit : public PZUnitFrame, protected PZIDispatcher, private PZLTimerBase {
public:
    TickingUnit() = default;
    TickingUnit(const TickingUnit&) = delete;
    TickingUnit& operator=(const TickingUnit&) = delete;

    /// Joins the message box of a worker; false when it refuses.
    bool Join(PZIMsgBox* box) { return RegistMsgBox(box, this) == en_SUCCESS; }

    /// Starts the interval; false when that is not possible.
    bool Begin(unsigned int intervalMs);

    /// Stops the interval. A tick that is posted already still comes.
    void End();

protected:
    enum EN_MSG : unsigned int {
        en_MSG_TICK,
        en_MSG_OTHER  ///< the first one that the derived unit may use
    };

    virtual void OnTick() = 0;

    /// A message other than the tick.
    virtual void OnMessage(unsigned int, const void*, unsigned int) {}

private:
    int OnTimer(PZLTimerSubMng::_TimerInfo* info) override;
    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override;
    void OnReceiveEvent(unsigned int) override {}

    PZLTimerMng::TimerSubInfo* timer_ = nullptr;
    std::atomic<bool> isPosted_{false};
};

#endif  // TWOPROCESS_TICKINGUNIT_H
