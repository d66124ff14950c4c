#include "EndOfRun.h"

namespace {

constexpr int kFinished = SIGUSR1;

}  // namespace

EndOfRun::EndOfRun() : signals_(), waiter_(pthread_self()) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    sigaddset(&signals_, kFinished);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
}

void EndOfRun::Finish() const {
    pthread_kill(waiter_, kFinished);
}

bool EndOfRun::Wait() const {
    int signal = 0;
    while (sigwait(&signals_, &signal) != 0) {
    }
    return signal == kFinished;
}
