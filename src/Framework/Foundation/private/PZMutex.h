#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZMUTEX_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZMUTEX_H

#include <pthread.h>

#include <condition_variable>
#include <mutex>

#include <Framework/Foundation/PZThreadAnnotations.h>

/// A mutex of the standard library that Clang's analysis knows: theirs has no attributes here.
template <typename Native>
class PZ_CAPABILITY("mutex") PZMutexOf {
public:
    PZMutexOf() = default;

    PZMutexOf(const PZMutexOf&) = delete;
    PZMutexOf& operator=(const PZMutexOf&) = delete;

    void Lock() PZ_ACQUIRE() { native_.lock(); }
    void Unlock() PZ_RELEASE() { native_.unlock(); }

private:
    template <typename Mutex>
    friend class PZMutexLock;

    Native native_;
};

using PZMutex = PZMutexOf<std::mutex>;
using PZRecursiveMutex = PZMutexOf<std::recursive_mutex>;

/// Holds a mutex to the end of the scope.
template <typename Mutex>
class PZ_SCOPED_CAPABILITY PZMutexLock {
public:
    explicit PZMutexLock(Mutex& mutex) PZ_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~PZMutexLock() PZ_RELEASE() { mutex_.Unlock(); }

    PZMutexLock(const PZMutexLock&) = delete;
    PZMutexLock& operator=(const PZMutexLock&) = delete;

    /// Gives the mutex away until `changed` is notified, and takes it again. May return for
    /// nothing: to be called in a loop. The analysis would not follow a condition that is handed
    /// over.
    void Wait(pthread_cond_t& changed) const {
        pthread_cond_wait(&changed, mutex_.native_.native_handle());
    }

    /// The same, but false when the time is over.
    template <typename TimePoint>
    bool WaitUntil(std::condition_variable& changed, const TimePoint& deadline) const {
        Lent lent(mutex_);
        return changed.wait_until(lent.lock, deadline) == std::cv_status::no_timeout;
    }

private:
    /// What a condition variable asks for. It gives the mutex back as it got it, also when the wait
    /// is cancelled.
    struct Lent {
        explicit Lent(Mutex& mutex) : lock(mutex.native_, std::adopt_lock) {}
        ~Lent() { lock.release(); }
        Lent(const Lent&) = delete;
        Lent& operator=(const Lent&) = delete;

        std::unique_lock<std::mutex> lock;
    };

    Mutex& mutex_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZMUTEX_H
