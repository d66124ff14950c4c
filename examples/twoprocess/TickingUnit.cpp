#include "TickingUnit.h"

bool TickingUnit::Begin(unsigned int intervalMs) {
    timer_ = PZLTimerMng::GetTimerMng()->AddTimer(this, intervalMs);
    return timer_ != nullptr;
}

void TickingUnit::End() {
    PZLTimerMng::GetTimerMng()->RemoveTimer(timer_, this);
}

int TickingUnit::OnTimer(PZLTimerSubMng::_TimerInfo*) {
    constexpr int kAgain = 1;
    if (!isPosted_.exchange(true) && SendMsgSelf(en_MSG_TICK, en_MSG_NORMAL, nullptr, 0) != 0)
        isPosted_ = false;
    return kAgain;
}

void TickingUnit::OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) {
    if (MsgID != en_MSG_TICK) {
        OnMessage(MsgID, Buff, BuffSize);
        return;
    }
    isPosted_ = false;
    OnTick();
}
