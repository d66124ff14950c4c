#ifndef PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_LOCK_MEMORY_H
#define PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_LOCK_MEMORY_H

#include <cstring>
#include <new>

#include <Framework/Foundation/PZSync.h>

// A lock that finds no memory for its semaphore says so and excludes nobody. Who cannot do without
// it asks.

/// False when the lock found no memory. The semaphore's address stands first in it.
inline bool pz_has_semaphore(const PZSync& lock) noexcept {
    const void* semaphore = nullptr;
    std::memcpy(&semaphore, static_cast<const void*>(&lock), sizeof semaphore);
    return semaphore != nullptr;
}

/// Makes a private lock again that found no memory; nobody has any use of it before. False,
/// reported, when it finds none again.
inline bool pz_make_missing_lock(PZSync& lock) {
    if (pz_has_semaphore(lock)) return true;
    lock.~PZSync();
    return pz_has_semaphore(*new (&lock) PZSync);
}

#endif  // PZ_FRAMEWORK_FOUNDATION_PRIVATE_PZ_LOCK_MEMORY_H
