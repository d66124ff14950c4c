#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_TSAN_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_TSAN_H

#include <Framework/Foundation/PZSync.h>

// What PZSync tells the thread sanitizer, so that it finds locks taken in opposite orders: a
// semaphore alone gives it the order of memory accesses, but no locks. Empty in other builds.
//
// Every acquisition counts as a shared one. The order of locks is checked alike, and the sanitizer
// does not insist that the thread that took the lock gives it back, as PZSync does not. A thread
// whose lock was given back by another one counts as holding it until it has used it once more.
// Recursive acquisitions are not told: they do not touch the semaphore.

#if PZ_THREAD_SANITIZER

#include <sanitizer/tsan_interface.h>

inline void pz_tsan_created(void* lock) {
    __tsan_mutex_create(lock, __tsan_mutex_not_static);
}

inline void pz_tsan_destroyed(void* lock) {
    __tsan_mutex_destroy(lock, __tsan_mutex_not_static);
}

/// Before the wait for the semaphore. A `limited` wait cannot become a deadlock: it is not checked
/// against the locks that the thread holds.
inline void pz_tsan_waiting(void* lock, bool limited) {
    const unsigned int kind = limited ? __tsan_mutex_try_read_lock : __tsan_mutex_read_lock;
    __tsan_mutex_pre_lock(lock, kind);
    __tsan_mutex_pre_divert(lock, 0);  // the semaphore's own order still counts
}

/// After the wait.
inline void pz_tsan_waited(void* lock, bool limited, bool acquired) {
    const unsigned int kind = limited ? __tsan_mutex_try_read_lock : __tsan_mutex_read_lock;
    __tsan_mutex_post_divert(lock, 0);
    __tsan_mutex_post_lock(lock, acquired ? kind : kind | __tsan_mutex_try_lock_failed, 0);
}

/// Before the semaphore is posted.
inline void pz_tsan_unlocking(void* lock) {
    __tsan_mutex_pre_unlock(lock, __tsan_mutex_read_lock);
    __tsan_mutex_post_unlock(lock, __tsan_mutex_read_lock);
}

#else

inline void pz_tsan_created(void*) {}
inline void pz_tsan_destroyed(void*) {}
inline void pz_tsan_waiting(void*, bool) {}
inline void pz_tsan_waited(void*, bool, bool) {}
inline void pz_tsan_unlocking(void*) {}

#endif

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_TSAN_H
