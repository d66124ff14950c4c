#ifndef PZ_FRAMEWORK_FOUNDATION_PZSTOPWATCH_H
#define PZ_FRAMEWORK_FOUNDATION_PZSTOPWATCH_H

#include <ctime>

#include <Framework/PZApi.h>

/// Measures elapsed monotonic time, with laps. All results are nanoseconds.
///
/// Threads: an object belongs to one thread.
/// Limits:  an interval may last up to 2^31 - 1 seconds.
class PZ_API PZStopwatch {
public:
    /// Not running.
    PZStopwatch();

    /// Forgets everything; not running afterwards.
    void init();

    /// Begins to measure; ignored while running.
    void Start();

    /// Answers the time since Start or the last Lap, and begins the next lap; 0 when not running.
    unsigned long long Lap();

    /// Answers the time since Start, and changes nothing; 0 when not running.
    unsigned long long Split() const;

    /// Answers the time since Start, and forgets everything; 0 when not running.
    unsigned long long Stop();

private:
    timespec start_ = {};  // time of Start
    timespec lap_ = {};    // time of Start or of the last Lap
    bool running_ = false;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZSTOPWATCH_H
