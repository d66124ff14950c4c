#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZSTACKSIGNAL_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZSTACKSIGNAL_H

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/PZApi.h>

/// Takes the call stack of another thread: the thread is sent a signal, and walks its own stack in
/// the signal's handler, which does nothing that could wait for anybody.
///
/// Threads: one object at a time, used by one thread.
class PZ_LOCAL PZStackSignal {
public:
    static constexpr int kAny = -1;  ///< the highest real-time signal that is not used

    /// Takes the signal for this purpose. False when the process has another action for it, or the
    /// calling thread blocks it, or it cannot be caught or sent.
    bool Install(int signal);

    /// Gives it back, and leaves it alone when somebody else has taken it.
    void Remove();

    /// Fills `into` with the call stack of the thread `tid`. False when it has not answered within
    /// 200 milliseconds, or somebody else has taken the signal.
    bool Take(int tid, PZCallStack& into);

private:
    int signal_ = 0;  // 0: not installed
};

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZSTACKSIGNAL_H
