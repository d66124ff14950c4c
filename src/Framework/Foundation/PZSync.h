#ifndef PZ_FRAMEWORK_FOUNDATION_PZSYNC_H
#define PZ_FRAMEWORK_FOUNDATION_PZSYNC_H

#include <pthread.h>
#include <semaphore.h>  // Lock and Unlock of a free lock are inline calls of it

#include <atomic>
#include <cerrno>

#include <Framework/Foundation/PZThreadAnnotations.h>
#include <Framework/PZApi.h>

/// 1 in a build under the thread sanitizer, which is told of every lock, else 0.
#if defined(__SANITIZE_THREAD__)
#define PZ_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define PZ_THREAD_SANITIZER 1
#endif
#endif
#if !defined(PZ_THREAD_SANITIZER)
#define PZ_THREAD_SANITIZER 0
#endif

/// The framework's lock: recursive, private to the process or shared between processes by name.
///
/// Threads:   any thread may call anything. Unlock does not check who calls it. A thread must not
///            end while it holds a lock: a later one may get its identity and pass for the owner.
///            There is no priority inheritance. A thread may be cancelled in Lock, not in Unlock.
/// Processes: a named lock excludes the processes from each other, but owner and recursion are
///            known only inside one process's own object. Its semaphore "/name" stays in the
///            system when the objects are gone.
/// Time:      milliseconds; 0xFFFFFFFF waits without limit, 0 tries once. Limited waits end by the
///            wall clock; only an end that it cannot hold is measured by the monotonic clock.
/// Failures:  reported and answered with a result, never thrown; a report may block while standard
///            output is stuck. A lock that could not be created answers every Lock with 2.
class PZ_API PZ_CAPABILITY("PZSync") PZSync {
public:
    /// Who shares the lock.
    enum EN_TYPE : int {
        en_TYPE_NAMED = 0,   ///< shared between processes: the semaphore "/name", made or opened
        en_TYPE_UNNAMED = 1  ///< private to the process
    };

    /// A private lock.
    PZSync();

    /// A named lock opens the semaphore as it is: the state of an existing one is not reset.
    /// At most 32 characters of `name` are stored; a private lock only stores it. A null name or
    /// an unknown type is reported and leaves the lock not created.
    PZSync(const char* name, EN_TYPE type);

    ~PZSync();

    PZSync(const PZSync&) = delete;
    PZSync& operator=(const PZSync&) = delete;

    /// 0 acquired (at once when the calling thread holds it already), 1 timed out (not reported),
    /// 2 error (reported).
    unsigned int Lock(unsigned int timeout) PZ_ACQUIRE();

    /// Releases one Lock; the last one lets the next thread in. One too many lets one more in.
    void Unlock() PZ_RELEASE();

private:
    /// Ends a Lock whose wait came to `error` so far; EINTR: it is to be begun, or begun again.
    unsigned int Wait(unsigned int timeout, int error);

    /// Before the semaphore is posted; false, and reported, when there is none.
    bool MayPost();

    sem_t* handle_;  // null: not created
    EN_TYPE type_;
    char name_[32];                 // zero-filled; no terminator after 32 characters
    std::atomic<pthread_t> owner_;  // 0: free. Others read it only to find that it is not them.
    unsigned int nest_;             // acquisitions beyond the first; touched by the owner only
};

// Lock and Unlock of a free lock are short enough to run in the caller's own code: calling them in
// the library takes half as long again as the semaphore's own work. Everything else is called.
// In Lock the shortest way is laid straight: that of a thread which holds the lock already. In
// Unlock a jump on the way to the semaphore would show.

inline unsigned int PZSync::Lock(unsigned int timeout) PZ_NO_THREAD_SAFETY_ANALYSIS {
    // Relaxed is enough: a thread can find only an identity that it stored itself, and what the
    // lock guards is ordered by the semaphore. A lock that is not created has no owner.
    const pthread_t self = pthread_self();
    const pthread_t owner = owner_.load(std::memory_order_relaxed);
    if (__builtin_expect(owner == self, 1)) {
        ++nest_;
        return 0;
    }
    // The wait for another thread is noted for pz-top; a free lock costs nothing more. Of a lock
    // that another process holds, the owner is not known here.
    if (PZ_THREAD_SANITIZER || owner != 0 || handle_ == nullptr || timeout != 0xFFFFFFFFU ||
        type_ != en_TYPE_UNNAMED) {
        return Wait(timeout, EINTR);
    }
    if (sem_wait(handle_) != 0) return Wait(timeout, errno);
    owner_.store(self, std::memory_order_relaxed);
    return 0;
}

inline void PZSync::Unlock() PZ_NO_THREAD_SAFETY_ANALYSIS {
    if (nest_ > 0) {
        --nest_;
        return;
    }
    if ((PZ_THREAD_SANITIZER || handle_ == nullptr) && !MayPost()) return;
    owner_.store(0, std::memory_order_relaxed);
    sem_post(handle_);
}

#endif  // PZ_FRAMEWORK_FOUNDATION_PZSYNC_H
