#ifndef PZ_FRAMEWORK_PRIVATE_PZ_HOME_H
#define PZ_FRAMEWORK_PRIVATE_PZ_HOME_H

#include <atomic>

/// How many forks led from the process that loaded the library to this one.
extern unsigned int pz_forks;

/// The process in which something was begun. A forked child has a copy of it without the threads
/// that serve it, and shares the descriptors that wake them: it leaves them to its parent.
class PZHome {
public:
    /// True in a forked child of that process.
    bool IsParent() const noexcept { return forks_.load(std::memory_order_relaxed) != pz_forks; }

    /// From now on it is the calling process.
    void Renew() noexcept { forks_.store(pz_forks, std::memory_order_relaxed); }

private:
    std::atomic<unsigned int> forks_{pz_forks};
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_HOME_H
