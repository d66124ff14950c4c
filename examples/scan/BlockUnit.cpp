#include "BlockUnit.h"

#include <cstring>

void BlockUnit::Take(unsigned int number) {
    SendMsgSelf(en_MSG_BLOCK, en_MSG_NORMAL, &number, sizeof number);
}

void BlockUnit::TakeEnd() {
    SendMsgSelf(en_MSG_END, en_MSG_NORMAL, nullptr, 0);
}

void BlockUnit::OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int /*BuffSize*/) {
    if (MsgID == en_MSG_END) {
        OnEnd();
        return;
    }
    unsigned int number = 0;
    std::memcpy(&number, Buff, sizeof number);
    OnBlock(pool_.At(number), number);
}
