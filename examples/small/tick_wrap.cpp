// What a device that runs for more than 49.7 days does about the wrap of the tick: shortly before,
// a band whose timers all expire behind it may wait without limit. No timer of its own can help,
// only another thread, that adds one to the band from time to time: that brings about a check.
//
// So that nobody has to wait for 49.7 days, the program moves the tick by hand.
#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Utility/PZLTimerMng.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>

namespace {

constexpr long long kWrapMs = 4294967296;  // the tick that reads 0 again

std::atomic<long long> tickMs{1000};

/// Adds a timer to a band again and again: how late a timer of the band can be at the wrap.
class WrapGuard {
public:
    WrapGuard(PZLTimerMng::TimerSubInfo* band, unsigned int everyMs)
        : band_(band), everyMs_(everyMs) {}
    ~WrapGuard() {
        stop_.SetEvent();
        thread_.WaitExit();
        band_->sub->removeTimer(&check_);
    }
    bool Start() { return thread_.Start("wrap_guard"); }

    int Initialize() { return 0; }
    void MainProc() {
        // 0 milliseconds: fires at once, and whatever else is due with it.
        while (stop_.WaitEvent(everyMs_) == -2) band_->sub->addTimer(&check_, 0);
    }
    void Finalize() {}

private:
    class Check : public PZLTimerBase {
        int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override { return 0; }
    };

    PZLTimerMng::TimerSubInfo* const band_;
    const unsigned int everyMs_;
    Check check_;
    PZEvent stop_;
    PZThread<WrapGuard> thread_{this, 4000};
};

class Alarm : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override {
        rang_.SetEvent();
        return 0;
    }
    bool RingsWithin(unsigned int ms) { return rang_.WaitEvent(ms) == 0; }

private:
    PZEvent rang_;
};

}  // namespace

// The clock behind the tick. Everything else keeps the system's time.
extern "C" int clock_gettime(clockid_t id, timespec* now) noexcept {
    if (id != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, id, now));
    now->tv_sec = static_cast<time_t>(tickMs / 1000);
    now->tv_nsec = static_cast<long>(tickMs % 1000 * 1000000);
    return 0;
}

int main() {
    if (pz_FwInitialize("tick_wrap", 1) == 0) return 1;
    Alarm alarm;
    Alarm now;
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    tickMs = kWrapMs - 60;
    PZLTimerMng::TimerSubInfo* const band = timers->AddTimer(&alarm, 100);
    if (band == nullptr || timers->AddTimer(&now, 0) != band) return 1;
    if (!now.RingsWithin(60000)) return 1;  // with that the band has looked at all its timers
    tickMs = kWrapMs + 1000;                // long past the alarm's time

    std::printf("by itself: %s\n", alarm.RingsWithin(500) ? "rings" : "sleeps on");
    {
        WrapGuard guard(band, 50);  // a device: every minute, say
        if (!guard.Start()) return 1;
        std::printf("with the guard: %s\n", alarm.RingsWithin(60000) ? "rings" : "sleeps on");
    }
    pz_FwFinalize();
}
