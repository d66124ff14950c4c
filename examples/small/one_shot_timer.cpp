// A one-shot timer: its callback answers 0, so it fires once. Until then it can be taken back.
#include <cstdio>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZStopwatch.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Utility/PZLTimerMng.h>

namespace {

class EggTimer : public PZLTimerBase {
public:
    explicit EggTimer(PZEvent& done) : done_(done) {}

    int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override {
        done_.SetEvent();  // short: the band's other timers wait meanwhile
        return 0;
    }

private:
    PZEvent& done_;
};

}  // namespace

int main() {
    if (pz_FwInitialize("one_shot_timer", 1) == 0) return 1;
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    PZEvent done;
    EggTimer soft(done);
    EggTimer hard(done);

    PZStopwatch watch;
    watch.Start();
    PZLTimerMng::TimerSubInfo* const handle = timers->AddTimer(&soft, 50);  // milliseconds
    if (handle == nullptr || timers->AddTimer(&hard, 3600000) == nullptr) return 1;

    done.WaitEvent(0xFFFFFFFF);
    const bool isEarly = watch.Stop() < 49000000;  // the tick counts whole milliseconds
    std::printf("the soft egg is done%s\n", isEarly ? ", too early" : "");
    std::printf("the hard one: %s\n", timers->IsActive(handle, &hard) == 1 ? "active" : "over");

    // Waits for a callback that still runs; afterwards the timer may die.
    std::printf("soft taken back: %d\n", timers->RemoveTimer(handle, &soft));
    std::printf("hard taken back: %d\n", timers->RemoveTimer(handle, &hard));
    pz_FwFinalize();
}
