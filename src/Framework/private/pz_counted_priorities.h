#ifndef PZ_FRAMEWORK_PRIVATE_PZ_COUNTED_PRIORITIES_H
#define PZ_FRAMEWORK_PRIVATE_PZ_COUNTED_PRIORITIES_H

#include <cerrno>

/// While one lives, priorities to which the calling thread has no right are counted instead of
/// being reported one by one: their owner says once what they mean. Not nested.
class PZCountedPriorities {
public:
    PZCountedPriorities() noexcept { current_ = this; }
    ~PZCountedPriorities() { current_ = nullptr; }

    PZCountedPriorities(const PZCountedPriorities&) = delete;
    PZCountedPriorities& operator=(const PZCountedPriorities&) = delete;

    unsigned int Count() const noexcept { return count_; }

    /// True when the failure with this errno is counted, and not to be reported.
    static bool Take(int error) noexcept {
        if (current_ == nullptr || (error != EACCES && error != EPERM)) return false;
        ++current_->count_;
        return true;
    }

private:
    static inline thread_local PZCountedPriorities* current_ = nullptr;

    unsigned int count_ = 0;
};

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_COUNTED_PRIORITIES_H
