#include "ProgressTimer.h"

#include <cstdio>

#include <Framework/Foundation/PZTickCount.h>

namespace {

unsigned int now_ms() {
    return static_cast<unsigned int>(PZTickCount::GetInstance()->GetTime());
}

}  // namespace

ProgressTimer::ProgressTimer(const CounterUnit& counter)
    : counter_(counter),
      lastTick_(now_ms()),
      handle_(PZLTimerMng::GetTimerMng()->AddTimer(this, kIntervalMs)) {}

// RemoveTimer waits for a running OnTimer: the object may die afterwards.
ProgressTimer::~ProgressTimer() {
    PZLTimerMng::GetTimerMng()->RemoveTimer(handle_, this);
    std::printf("\r\033[K");
}

int ProgressTimer::OnTimer(PZLTimerSubMng::_TimerInfo*) {
    constexpr int kAgain = 1;
    constexpr unsigned int kMsPerSecond = 1000;
    const unsigned int now = now_ms();
    const unsigned int elapsed = now - lastTick_;
    const unsigned long long chunks = counter_.Chunks();
    const unsigned long long rate =
        elapsed == 0 ? 0 : (chunks - lastChunks_) * kMsPerSecond / elapsed;
    std::printf("\r%llu bytes, %llu messages, %llu messages/s\033[K", counter_.Bytes(), chunks,
                rate);
    std::fflush(stdout);
    lastChunks_ = chunks;
    lastTick_ = now;
    return kAgain;
}
