#include "PZStackSignal.h"

#include <execinfo.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_interrupted_stack.h>

namespace {

constexpr int kMaxFrames = 34;
constexpr int kHandlerFrames = 2;  // the handler itself, and the kernel's way into it
constexpr unsigned int kPollMs = 1;
constexpr int kPolls = 200;

// What the one request is about: the kernel id of the thread that is asked, or one of these. Only
// the thread that finds its own id here answers: a signal may arrive long after its request.
constexpr int kNothing = 0;
constexpr int kAtWork = -1;    // the thread fills the frames
constexpr int kAnswered = -2;  // the frames are there

std::atomic<int> request{kNothing};
int frameCount = 0;
void* frames[kMaxFrames];

/// Into the frames, those of the way into the handler included; answers their number.
int walk([[maybe_unused]] const void* context) {
#ifdef PZ_HAS_INTERRUPTED_STACK
    return kHandlerFrames +
           pz_take_interrupted_stack(context, frames + kHandlerFrames, kMaxFrames - kHandlerFrames);
#else
    return backtrace(frames, kMaxFrames);
#endif
}

void take_own_stack(int /*signal*/, siginfo_t* /*info*/, void* context) {
    const int error = errno;
    int self = static_cast<int>(syscall(SYS_gettid));
    if (request.compare_exchange_strong(self, kAtWork)) {
        frameCount = walk(context);
        request.store(kAnswered);
    }
    errno = error;
}

bool is_ours(int signal) {
    struct sigaction action = {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_sigaction == take_own_stack;
}

bool is_default(int signal) {
    struct sigaction action = {};
    // Handlers of both kinds have the same place.
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_DFL;
}

void set_plain_action(int signal, void (*handler)(int)) {
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(signal, &action, nullptr);
}

/// Of such signals a handler must not return: the same instruction would fail again, for ever.
bool is_of_faults(int signal) {
    return signal == SIGSEGV || signal == SIGBUS || signal == SIGFPE || signal == SIGILL ||
           signal == SIGTRAP || signal == SIGSYS;
}

/// Whether nothing in the process wants the signal: a forked child has its parent's handler.
bool is_free(int signal) {
    if (is_of_faults(signal)) return false;
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return (is_default(signal) || is_ours(signal)) && sigismember(&blocked, signal) == 0;
}

int send_to(int tid, int signal) {
    return static_cast<int>(syscall(SYS_tgkill, getpid(), tid, signal));
}

/// False when the signal is used, or cannot be caught or sent: emulators of other processors refuse
/// to send some. The calling thread gets it once, as a trial.
bool occupy(int signal) {
    if (!is_free(signal)) return false;
    struct sigaction action = {};
    action.sa_sigaction = take_own_stack;
    action.sa_flags = SA_RESTART | SA_ONSTACK | SA_SIGINFO;
    if (sigaction(signal, &action, nullptr) != 0) return false;
    if (send_to(static_cast<int>(syscall(SYS_gettid)), signal) == 0) return true;
    set_plain_action(signal, SIG_DFL);
    return false;
}

}  // namespace

void PZStackSignal::Remove() {
    if (!is_ours(signal_)) return;
    // A thread that blocks the signal may still be going to get it. To ignore a signal takes it
    // away from every thread; its default action would end the process.
    set_plain_action(signal_, SIG_IGN);
    set_plain_action(signal_, SIG_DFL);
}

bool PZStackSignal::Install(int signal) {
    // The first walk of a process loads the unwinder, which no signal handler may do.
    void* own[1];
    backtrace(own, 1);
    request.store(kNothing);
    // The very highest is left to debuggers.
    const int first = signal == kAny ? SIGRTMAX - 1 : signal;
    const int last = signal == kAny ? SIGRTMIN : signal;
    for (signal_ = first; signal_ >= last; --signal_) {
        if (occupy(signal_)) return true;
    }
    return false;
}

bool PZStackSignal::Take(int tid, PZCallStack& into) {
    // A thread that was asked before may still be at work: the frames are its own.
    if (!is_ours(signal_) || request.load() == kAtWork) return false;
    request.store(tid);
    if (send_to(tid, signal_) != 0) {
        request.store(kNothing);
        return false;
    }
    for (int poll = 0; poll < kPolls && request.load() != kAnswered; ++poll) pz_msleep(kPollMs);
    int asked = tid;
    if (request.compare_exchange_strong(asked, kNothing) || asked != kAnswered) return false;

    into.assign(frames + kHandlerFrames, frameCount - kHandlerFrames);
    request.store(kNothing);
    return into.size() > 0;
}
