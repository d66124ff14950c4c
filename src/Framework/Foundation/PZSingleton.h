#ifndef PZ_FRAMEWORK_FOUNDATION_PZSINGLETON_H
#define PZ_FRAMEWORK_FOUNDATION_PZSINGLETON_H

#include <atomic>
#include <list>
#include <new>

#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/PZApi.h>
#include <Framework/PZUncopyable.h>

/// The list of functions that destroy the process's singletons.
///
/// Threads: no lock. Registration happens inside GetInstance, in practice during start-up;
///          finalize runs on the thread that stops the framework.
class PZ_API PZSingletonFinalizer {
public:
    /// Registers `fn`, which must not be null, in front of all others. Throws std::bad_alloc, with
    /// nothing registered, when there is no memory for that.
    static void addDestroyFunc(void (*fn)());

    /// Calls all registered functions, the last registered first, and forgets them. Functions that
    /// are registered meanwhile are forgotten too, and not called.
    static void finalize();

private:
    PZ_LOCAL static std::list<void (*)()>* destroyList_;  // null: nothing is registered
};

/// Memory for the lock of one kind of singletons. It needs no initialisation, so that static
/// objects of any source file may use the singleton, before main too, and it is never destroyed, so
/// that they may do so while the process ends.
struct PZSingletonLockMemory {
    alignas(PZSync) unsigned char bytes[sizeof(PZSync)];  ///< where the lock is made
};

/// Makes the one object of class T on first use and has it destroyed when the framework stops.
///
/// T derives from PZSingleton<T> and is default-constructible for it (a friend where constructor or
/// destructor are private).
///
/// Threads:   GetInstance may be called from any thread, also before main; destroy belongs to the
///            finalizer.
/// Ownership: the instance belongs to the class; singletons die in the reverse order of their
///            creation. After that GetInstance makes a new one.
template <typename T>
class PZ_API PZSingleton : public PZUncopyable {
public:
    virtual ~PZSingleton() = default;

    /// The instance, made on the first call. What T's constructor throws reaches the caller, and
    /// std::bad_alloc when there is no memory for the instance or its registration: nothing is made
    /// then, and nothing registered.
    static T* GetInstance() {
        // The fast path is unlocked on purpose: an instance that is there needs no lock.
        T* instance = pInstance_.load(std::memory_order_acquire);
        if (instance != nullptr) return instance;

        const PZSyncLock lock(Sync());
        instance = pInstance_.load(std::memory_order_relaxed);
        if (instance == nullptr) {
            instance = MakeRegistered();
            pInstance_.store(instance, std::memory_order_release);
        }
        return instance;
    }

    /// Deletes the instance, if there is one.
    static void destroy() {
        delete pInstance_.load(std::memory_order_acquire);
        pInstance_.store(nullptr, std::memory_order_release);
    }

protected:
    PZSingleton() = default;

private:
    /// Held while the instance is made.
    static PZSync& Sync() {
        static PZSync* const sync = new (Sync_.bytes) PZSync;  // never destroyed
        return *sync;
    }

    /// Registered only after T's constructor: singletons that it uses have to outlive this one.
    static T* MakeRegistered() {
        T* const instance = new T;
        try {
            PZSingletonFinalizer::addDestroyFunc(&PZSingleton<T>::destroy);
        } catch (...) {
            delete instance;
            throw;
        }
        return instance;
    }

    static std::atomic<T*> pInstance_;   // null: not made yet, or destroyed
    static PZSingletonLockMemory Sync_;  // see Sync

    // Only the framework's own singletons have this: it makes their locks when the library is
    // loaded, for programs whose code, built with an earlier header, uses Sync_ as it is.
    static PZSync* const loadedSync_;
};

template <typename T>
std::atomic<T*> PZSingleton<T>::pInstance_{nullptr};

template <typename T>
PZSingletonLockMemory PZSingleton<T>::Sync_;

template <typename T>
PZSync* const PZSingleton<T>::loadedSync_ = &Sync();

#endif  // PZ_FRAMEWORK_FOUNDATION_PZSINGLETON_H
