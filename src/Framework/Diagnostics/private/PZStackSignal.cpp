#include "PZStackSignal.h"

#include <execinfo.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>

#include <Framework/Wrapper/pz_stdlib.h>

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
int walk(const void* context) {
#ifdef __i386__
    // The unwind tables of the C library are not exact there, and a walk that follows a wrong one
    // reads memory that is none: only where the thread stands is known for certain.
    const auto* const interrupted = static_cast<const ucontext_t*>(context);
    frames[kHandlerFrames] = reinterpret_cast<void*>(interrupted->uc_mcontext.gregs[REG_EIP]);
    return kHandlerFrames + 1;
#else
    static_cast<void>(context);
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

/// Whether nothing in the process wants the signal: a forked child has its parent's handler.
bool is_free(int signal) {
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return (is_default(signal) || is_ours(signal)) && sigismember(&blocked, signal) == 0;
}

/// 0 when all are used. The very highest is left to debuggers.
int highest_free_signal() {
    int signal = SIGRTMAX - 1;
    while (signal >= SIGRTMIN && !is_free(signal)) --signal;
    return signal >= SIGRTMIN ? signal : 0;
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
    if (signal == kAny) signal = highest_free_signal();
    if (signal <= 0 || !is_free(signal)) return false;
    // The first walk of a process loads the unwinder, which no signal handler may do.
    void* own[1];
    backtrace(own, 1);
    request.store(kNothing);
    signal_ = signal;
    struct sigaction action = {};
    action.sa_sigaction = take_own_stack;
    action.sa_flags = SA_RESTART | SA_ONSTACK | SA_SIGINFO;
    return sigaction(signal, &action, nullptr) == 0;
}

bool PZStackSignal::Take(int tid, PZCallStack& into) {
    // A thread that was asked before may still be at work: the frames are its own.
    if (!is_ours(signal_) || request.load() == kAtWork) return false;
    request.store(tid);
    if (syscall(SYS_tgkill, getpid(), tid, signal_) != 0) {
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
