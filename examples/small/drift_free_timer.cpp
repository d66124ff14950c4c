// A timer that does not drift: each callback sets the interval to what is left until the next
// multiple of the period. A late call shortens the next interval; no call is left out.
#include <algorithm>
#include <cstdio>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Utility/PZLTimerMng.h>

namespace {

constexpr unsigned int kPeriodMs = 20;
constexpr unsigned int kCalls = 5;

unsigned int tick_now() {
    return static_cast<unsigned int>(PZTickCount::GetInstance()->GetTime());
}

class Metronome : public PZLTimerBase {
public:
    explicit Metronome(PZEvent& done) : done_(done), startTick_(tick_now()) {}

    int OnTimer(PZLTimerSubMng::_TimerInfo* info) override {
        // The interval counts from the thread's look at the tick, a moment before the call: a call
        // may come too early, and then only waits for the rest.
        if (LeftMs() <= 0) {
            std::printf("call %u, planned for %u ms\n", nextCall_, nextCall_ * kPeriodMs);
            ++nextCall_;
        }
        info->interval = static_cast<unsigned int>(std::max(LeftMs(), 1));
        if (nextCall_ > kCalls) done_.SetEvent();
        return nextCall_ > kCalls ? 0 : 1;
    }

private:
    /// Milliseconds until the next call is due; right also when the tick wraps.
    int LeftMs() const {
        return static_cast<int>(nextCall_ * kPeriodMs - (tick_now() - startTick_));
    }

    PZEvent& done_;
    const unsigned int startTick_;
    unsigned int nextCall_ = 1;
};

}  // namespace

int main() {
    if (pz_FwInitialize("drift_free_timer", 1) == 0) return 1;
    PZEvent done;
    Metronome metronome(done);
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    PZLTimerMng::TimerSubInfo* const handle = timers->AddTimer(&metronome, kPeriodMs);
    if (handle != nullptr) done.WaitEvent(0xFFFFFFFF);
    timers->RemoveTimer(handle, &metronome);  // waits for the last callback to return
    pz_FwFinalize();
}
