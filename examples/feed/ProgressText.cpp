#include "ProgressText.h"

#include <Framework/Foundation/PZTickCount.h>

namespace {

unsigned int now_ms() {
    return static_cast<unsigned int>(PZTickCount::GetInstance()->GetTime());
}

}  // namespace

ProgressText::ProgressText(const CounterUnit& counter) : counter_(&counter), lastTick_(now_ms()) {}

std::string ProgressText::operator()() {
    constexpr unsigned int kMsPerSecond = 1000;
    const unsigned int now = now_ms();
    const unsigned int elapsed = now - lastTick_;
    const unsigned long long chunks = counter_->Chunks();
    const unsigned long long rate =
        elapsed == 0 ? 0 : (chunks - lastChunks_) * kMsPerSecond / elapsed;
    lastChunks_ = chunks;
    lastTick_ = now;
    return std::to_string(counter_->Bytes()) + " bytes, " + std::to_string(chunks) + " messages, " +
           std::to_string(rate) + " messages/s";
}
