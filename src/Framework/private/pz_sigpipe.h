#ifndef PZ_FRAMEWORK_PRIVATE_PZ_SIGPIPE_H
#define PZ_FRAMEWORK_PRIVATE_PZ_SIGPIPE_H

#include <atomic>
#include <csignal>

inline std::atomic<bool> pz_sigpipe_ignored{false};

/// Sets SIGPIPE to be ignored, at the first wait of the process and never again: an application may
/// choose otherwise afterwards.
inline void pz_ignore_sigpipe_once() {
    if (pz_sigpipe_ignored.load(std::memory_order_relaxed)) return;
    if (!pz_sigpipe_ignored.exchange(true)) ::signal(SIGPIPE, SIG_IGN);
}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_SIGPIPE_H
