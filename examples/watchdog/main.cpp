// A service with two busy workers. systemd restarts it when one of them hangs:
//
//     systemctl start pz-watchdog
//     systemctl kill --signal=USR1 pz-watchdog    # makes the worker "camera" hang

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include <Framework/Easy/Framework.h>

#include "Feeder.h"
#include "JobUnit.h"
#include "NotifySocket.h"

namespace {

constexpr int kExitUsage = 2;
constexpr char kUsage[] =
    "usage: pz_watchdog\n"
    "\n"
    "Serves until a request to terminate, and tells systemd that it is alive.\n"
    "SIGUSR1 makes a worker hang.\n";

/// Serves until a request to terminate; false when something does not start.
bool run(const sigset_t& signals) {
    constexpr unsigned int kUsualWatchdogMs = 10000;  // when systemd does not ask for one
    const NotifySocket systemd;
    const unsigned int asked = NotifySocket::WatchdogMs();
    const unsigned int watchdogMs = asked != 0 ? asked : kUsualWatchdogMs;

    Feeder feeder(systemd);
    JobUnit camera(watchdogMs / 2);
    JobUnit index(watchdogMs / 2);
    if (!camera.Start("camera") || !index.Start("index") || !feeder.Start(watchdogMs)) return false;
    systemd.Send("READY=1");

    int signal = 0;
    while (sigwait(&signals, &signal) == 0 && signal == SIGUSR1) camera.Hang();
    systemd.Send("STOPPING=1");
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        const bool isHelp = std::string_view(argv[1]) == "--help";
        std::fputs(kUsage, isHelp ? stdout : stderr);
        return isHelp ? EXIT_SUCCESS : kExitUsage;
    }

    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGUSR1}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // before the framework starts its threads

    const pz::Framework framework("pz_watchdog", 1);
    if (!framework) return EXIT_FAILURE;
    const bool isDone = run(signals);
    if (!isDone) std::fprintf(stderr, "pz_watchdog: the service does not start\n");
    return isDone ? EXIT_SUCCESS : EXIT_FAILURE;
}
