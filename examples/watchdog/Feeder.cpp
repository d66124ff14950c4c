#include "Feeder.h"

#include <cstdio>
#include <string>

#include <Framework/Diagnostics/PZCallStack.h>

Feeder::~Feeder() {
    PZSupervisor::Stop();
    PZLTimerMng::GetTimerMng()->RemoveTimer(timer_, this);
}

bool Feeder::Start(unsigned int watchdogMs) {
    constexpr unsigned int kFeedings = 4;
    constexpr unsigned int kLooks = 20;
    timer_ = PZLTimerMng::GetTimerMng()->AddTimer(this, watchdogMs / kFeedings + 1);
    return timer_ != nullptr &&
           PZSupervisor::Start(&OnFinding, this, watchdogMs / kLooks + 1, PZSupervisor::kAnySignal);
}

void Feeder::OnFinding(const PZSupervisor::ST_FINDING& finding, void* feeder) {
    // A full box alone may empty itself; what does not serve it is a finding of its own.
    if (finding.kind != PZSupervisor::en_REFUSAL) static_cast<Feeder*>(feeder)->Tell(finding);
}

void Feeder::Tell(const PZSupervisor::ST_FINDING& finding) {
    hanging_ += finding.isOver ? -1 : 1;
    const std::string what =
        std::string(finding.threadName) + (finding.isOver ? " goes on after " : " hangs for ") +
        std::to_string(finding.durationMs) + " ms in message " + std::to_string(finding.messageId);
    systemd_.Send("STATUS=" + what);
    std::printf("%s\n", what.c_str());
    for (int i = 0; finding.callStack != nullptr && i < finding.callStack->size(); ++i) {
        std::printf("    %s\n", finding.callStack->getSymbol(i));
    }
    std::fflush(stdout);  // the journal may be the last one to see it
}

// A timer thread that hangs itself does not feed either.
int Feeder::OnTimer(PZLTimerSubMng::_TimerInfo*) {
    if (hanging_ == 0) systemd_.Send("WATCHDOG=1");
    return 1;
}
