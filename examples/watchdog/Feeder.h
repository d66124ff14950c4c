#ifndef WATCHDOG_FEEDER_H
#define WATCHDOG_FEEDER_H

#include <atomic>

#include <Framework/Diagnostics/PZSupervisor.h>
#include <Framework/Utility/PZLTimerMng.h>

#include "NotifySocket.h"

/// Feeds systemd's watchdog as long as nothing in the process hangs.
class Feeder : private PZLTimerBase {
public:
    explicit Feeder(const NotifySocket& systemd) : systemd_(systemd) {}
    ~Feeder() override;

    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;

    /// Feeds several times in `watchdogMs`.
    bool Start(unsigned int watchdogMs);

private:
    static void OnFinding(const PZSupervisor::ST_FINDING& finding, void* feeder);
    void Tell(const PZSupervisor::ST_FINDING& finding);
    int OnTimer(PZLTimerSubMng::_TimerInfo* info) override;

    const NotifySocket& systemd_;
    PZLTimerMng::TimerSubInfo* timer_ = nullptr;
    std::atomic<int> hanging_{0};
};

#endif  // WATCHDOG_FEEDER_H
