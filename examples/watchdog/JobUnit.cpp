#include "JobUnit.h"

#include <chrono>

unsigned int JobUnit::made_ = 0;

JobUnit::~JobUnit() {
    isEnding_ = true;
    answer_.SetEvent();
    worker_.End(0);
    UnregistMsgBox();
}

bool JobUnit::Start(const char* name) {
    return worker_.Start(name) == 0 && RegistMsgBox(worker_.GetMsgBox(), this) == en_SUCCESS &&
           SendMsgSelf(en_MSG_JOB, en_MSG_NORMAL, nullptr, 0) == en_SUCCESS;
}

void JobUnit::Hang() {
    SendMsgSelf(en_MSG_HANG, en_MSG_HIGH, nullptr, 0);
}

void JobUnit::OnReceiveMsg(unsigned int msgId, const void*, unsigned int) {
    if (msgId == en_MSG_HANG) {
        answer_.WaitEvent(0xFFFFFFFF);
        return;
    }
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::milliseconds(10);
    while (Clock::now() < end) {
    }
    if (!isEnding_) SendMsgSelf(en_MSG_JOB, en_MSG_NORMAL, nullptr, 0);
}
