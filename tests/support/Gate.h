#ifndef PZ_TESTS_SUPPORT_GATE_H
#define PZ_TESTS_SUPPORT_GATE_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace pztest {

/// Holds the threads that pass it until the test opens it; then it stays open.
class Gate {
public:
    Gate() = default;

    /// Opens, so that a test that has failed ends, too; waits for the threads that it held.
    ~Gate() {
        std::unique_lock<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
        changed_.wait(lock, [this] { return passed_ == arrived_; });
    }

    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /// For the thread that is to be held.
    void Pass() {
        std::unique_lock<std::mutex> lock(mutex_);
        ++arrived_;
        changed_.notify_all();
        const Leaving leaving{*this};  // also when the thread is cancelled
        changed_.wait(lock, [this] { return open_; });
    }

    /// Waits until `count` threads have come to the gate; false when they do not within a time
    /// that no loaded machine needs.
    bool WaitForArrival(unsigned int count = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(60),
                                 [this, count] { return arrived_ >= count; });
    }

    void Open() {
        const std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    struct Leaving {
        Gate& gate;

        ~Leaving() {
            ++gate.passed_;
            gate.changed_.notify_all();
        }
    };

    std::mutex mutex_;
    std::condition_variable changed_;
    unsigned int arrived_ = 0;
    unsigned int passed_ = 0;
    bool open_ = false;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_GATE_H
