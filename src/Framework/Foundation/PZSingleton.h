#ifndef PZ_FRAMEWORK_FOUNDATION_PZSINGLETON_H
#define PZ_FRAMEWORK_FOUNDATION_PZSINGLETON_H

#include <atomic>
#include <list>

#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/PZApi.h>

/// Base of classes whose objects are not copied.
class PZUncopyable {
public:
    PZUncopyable(const PZUncopyable&) = delete;
    PZUncopyable& operator=(const PZUncopyable&) = delete;

protected:
    PZUncopyable() = default;
    ~PZUncopyable() = default;
};

/// The list of functions that destroy the process's singletons.
///
/// Threads: no lock. Registration happens inside GetInstance, in practice during start-up;
///          finalize runs on the thread that stops the framework.
class PZ_API PZSingletonFinalizer {
public:
    /// Registers `fn` in front of all others.
    static void addDestroyFunc(void (*fn)());

    /// Calls all registered functions, the last registered first, and forgets them; what is
    /// registered meanwhile is forgotten, too, and not called.
    static void finalize();

private:
    PZ_LOCAL static std::list<void (*)()>* destroyList_;  // null: nothing is registered
};

/// Makes the one object of class T on first use and has it destroyed when the framework stops.
///
/// T derives from PZSingleton<T> and is default-constructible for it (a friend where the
/// constructor is private).
///
/// Threads:   GetInstance may be called from any thread; destroy belongs to the finalizer.
/// Ownership: the instance belongs to the class; singletons die in the reverse order of their
///            creation. After that GetInstance makes a fresh one.
template <typename T>
class PZ_API PZSingleton : public PZUncopyable {
public:
    virtual ~PZSingleton() = default;

    /// The instance, made on the first call. What T's constructor throws reaches the caller;
    /// nothing is registered then.
    static T* GetInstance() {
        // The fast path is unlocked on purpose: an instance that is there needs no lock.
        T* instance = pInstance_.load(std::memory_order_acquire);
        if (instance != nullptr) return instance;

        const PZSyncLock lock(Sync_);
        instance = pInstance_.load(std::memory_order_relaxed);
        if (instance == nullptr) {
            instance = new T;
            pInstance_.store(instance, std::memory_order_release);
            PZSingletonFinalizer::addDestroyFunc(&PZSingleton<T>::destroy);
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
    static std::atomic<T*> pInstance_;  // null: not made yet, or destroyed
    static PZSync Sync_;                // held while the instance is made
};

template <typename T>
std::atomic<T*> PZSingleton<T>::pInstance_{nullptr};

template <typename T>
PZSync PZSingleton<T>::Sync_;

#endif  // PZ_FRAMEWORK_FOUNDATION_PZSINGLETON_H
