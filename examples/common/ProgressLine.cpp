#include "ProgressLine.h"

#include <cstdio>
#include <utility>

ProgressLine::ProgressLine(std::function<std::string()> text)
    : text_(std::move(text)), handle_(PZLTimerMng::GetTimerMng()->AddTimer(this, kIntervalMs)) {}

// RemoveTimer waits for a running OnTimer: the object may die afterwards.
ProgressLine::~ProgressLine() {
    PZLTimerMng::GetTimerMng()->RemoveTimer(handle_, this);
    std::printf("\r\033[K");
}

int ProgressLine::OnTimer(PZLTimerSubMng::_TimerInfo*) {
    constexpr int kAgain = 1;
    std::printf("\r%s\033[K", text_().c_str());
    std::fflush(stdout);
    return kAgain;
}
