#ifndef PZ_TESTS_SUPPORT_INTERRUPTIONS_H
#define PZ_TESTS_SUPPORT_INTERRUPTIONS_H

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/Uncopyable.h"

namespace pztest {

/// Interrupts the calling thread with SIGUSR1 again and again, while it lives. One at a time.
class Interruptions : private Uncopyable {
public:
    explicit Interruptions(std::chrono::milliseconds period = std::chrono::milliseconds(10))
        : victim_(pthread_self()) {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++taken_; };  // without SA_RESTART
        sigaction(SIGUSR1, &action, nullptr);
        taken_ = 0;
        sent_ = 0;
        hammer_ = std::thread([this, period] {
            while (!stop_) {
                std::this_thread::sleep_for(period);
                pthread_kill(victim_, SIGUSR1);
                ++sent_;
            }
        });
    }
    ~Interruptions() {
        stop_ = true;
        hammer_.join();
    }

    /// How often the thread has been interrupted. The thread sanitizer delays a handler until the
    /// thread comes to a call that it knows to wait.
    static int Taken() { return taken_; }

    /// How many signals it was sent.
    static int Sent() { return sent_; }

private:
    inline static std::atomic<int> taken_{0};
    inline static std::atomic<int> sent_{0};

    const pthread_t victim_;
    std::atomic<bool> stop_{false};
    std::thread hammer_;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_INTERRUPTIONS_H
