#ifndef PZ_FRAMEWORK_FOUNDATION_PZTICKCOUNT_H
#define PZ_FRAMEWORK_FOUNDATION_PZTICKCOUNT_H

#include <Framework/Foundation/PZSingleton.h>
#include <Framework/PZApi.h>

class PZTickCount;
extern template class PZ_API PZSingleton<PZTickCount>;

/// The framework's monotonic time. Changes of the wall clock do not disturb it.
///
/// Threads: any thread may call anything.
class PZ_API PZTickCount : public PZSingleton<PZTickCount> {
public:
    ~PZTickCount() override;

    /// Does nothing: the instance dies with the other singletons.
    static void DelInstance();

    /// Milliseconds, 32 bits on every machine: wraps after 49.7 days. 0xFFFFFFFF when the clock
    /// cannot be read.
    unsigned long GetTime() const;

    /// Nanoseconds, 64 bits; all bits set when the clock cannot be read.
    unsigned long long GetPerformanceCount() const;

    /// Always 1000, although GetPerformanceCount counts nanoseconds.
    unsigned long long GetPerformanceFreq() const;

    /// Milliseconds, 64 bits: GetPerformanceCount divided by 1,000,000, also when that failed.
    unsigned long long GetPerformanceTime() const;

private:
    friend class PZSingleton<PZTickCount>;
    PZTickCount();

    unsigned long long freq_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZTICKCOUNT_H
