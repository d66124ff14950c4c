// Timers that fire on time where the tick wraps, every 49.7 days: shortly before, a band whose
// timers all expire behind the wrap may wait without limit. No timer of its own can help, only
// another thread, that adds one to the band from time to time. The program moves the tick by hand.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <thread>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Utility/PZLTimerMng.h>

constexpr long long kWrapMs = 4294967296;  // the tick that reads 0 again
static std::atomic<long long> tickMs{1000};

// The clock behind the tick. Everything else keeps the system's time.
extern "C" int clock_gettime(clockid_t clock_id, timespec* tp) noexcept {
    if (clock_id != CLOCK_MONOTONIC) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock_id, tp));
    }
    tp->tv_sec = static_cast<time_t>(tickMs / 1000);
    tp->tv_nsec = static_cast<long>(tickMs % 1000 * 1000000);
    return 0;
}

struct Alarm : PZLTimerBase {
    PZEvent rang;
    int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override {
        rang.SetEvent();
        return 0;
    }
};

int main() {
    if (pz_FwInitialize("tick_wrap", 1) == 0) return 1;
    Alarm alarm;
    Alarm now;
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    tickMs = kWrapMs - 60;
    PZLTimerMng::TimerSubInfo* const band = timers->AddTimer(&alarm, 100);
    if (band == nullptr || timers->AddTimer(&now, 0) != band) return 1;
    if (now.rang.WaitEvent(60000) != 0) return 1;  // the band has looked at all its timers
    tickMs = kWrapMs + 1000;                       // long past the alarm's time
    std::printf("by itself: %s\n", alarm.rang.WaitEvent(500) == 0 ? "rings" : "sleeps on");

    PZEvent stop;
    Alarm check;
    std::thread guard([&] {  // 0 milliseconds: fires at once, and whatever else is due with it
        while (stop.WaitEvent(50) == -2) band->sub->addTimer(&check, 0);  // a device: every minute
    });
    std::printf("with the guard: %s\n", alarm.rang.WaitEvent(60000) == 0 ? "rings" : "sleeps on");
    stop.SetEvent();
    guard.join();
    timers->RemoveTimer(band, &check);
    pz_FwFinalize();
}
