#ifndef POLLER_H
#define POLLER_H

#include <atomic>
#include <chrono>
#include <functional>
#include <string>

#include <Framework/Easy.h>

/// Does something again and again.
///
/// Threads: made and destroyed by one thread; what it does runs on the worker's thread.
class Poller {
public:
    /// `polled` is called with the number of the poll, from 1 on. The worker outlives this object.
    Poller(pz::Worker& worker, std::chrono::milliseconds period,
           std::function<void(unsigned int)> polled);

    /// How often it has polled; from any thread.
    unsigned int count() const { return count_; }

private:
    void Poll();

    const std::function<void(unsigned int)> polled_;
    std::atomic<unsigned int> count_{0};
    pz::Timer timer_;  // the last member: stopped before the others are destroyed
};

/// The period in the settings, "period_ms=250" in a line of its own. A second where there is none,
/// and for a value that is no number from 1 to 3,600,000.
std::chrono::milliseconds period_of(const std::string& settings);

#endif  // POLLER_H
