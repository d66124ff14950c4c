#include "BlockUnit.h"

#include <cstring>

void BlockUnit::Take(unsigned int block) {
    SendMsgSelf(en_MSG_BLOCK, en_MSG_NORMAL, &block, sizeof block);
}

void BlockUnit::TakeEnd() {
    SendMsgSelf(en_MSG_END, en_MSG_NORMAL, nullptr, 0);
}

void BlockUnit::OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int /*BuffSize*/) {
    if (MsgID == en_MSG_END) {
        OnEnd();
        return;
    }
    unsigned int block = 0;
    std::memcpy(&block, Buff, sizeof block);
    OnBlock(block);
}
