#ifndef PZ_FRAMEWORK_COMMUNICATION_PZFILEGUARD_H
#define PZ_FRAMEWORK_COMMUNICATION_PZFILEGUARD_H

#include <pthread.h>
#include <sys/types.h>

#include <cerrno>
#include <string>

#include <Framework/PZApi.h>

/// One recursive mutex of several processes, with which they take turns at a shared file.
///
/// Sides:     one process, the system side, makes the mutex with initForSystem and removes it with
///            destroyMutex. Every other process is an application side, and attaches with
///            initForApp. An application may start first: its guard attaches, and refuses to lock
///            until the system side is there. It needs the key files, which only the system side
///            makes; without them every canLock, lock and tryLock tries once more, and reports the
///            missing files.
/// Processes: the mutex, and one byte that tells whether it may be used, are two System V
///            shared-memory segments. Their keys are ftok(path, 1) of the files directory + name +
///            "_mutex" and directory + name + "_initflag", empty files that are open to everybody.
///            All processes of a guard must be built for the same kind of machine: the mutex
///            segment is as large as its pthread_mutex_t.
/// Threads:   an object belongs to one thread at a time; threads that lock against each other need
///            a guard each. The thread that locked unlocks. Locks nest.
/// Ownership: a process that ends while it holds the mutex leaves it locked. The segments belong to
///            the process that made the system side: its forked children leave them alone when they
///            end.
/// Failures:  reported and answered with false, a lack of memory included. Only the constructors
///            throw std::bad_alloc. A mutex that another program has overwritten is refused, or
///            waited for like a held one.
class PZ_API PZFileGuard {
public:
    /// The directory "/temp/system_data/", and no file name yet.
    PZFileGuard();

    /// The directory "/temp/system_data/". The name is the base name of the guarded file.
    explicit PZFileGuard(const std::string& fileName);

    /// A directory without a '/' at its end gets one; an empty one is "/".
    PZFileGuard(const std::string& dirPath, const std::string& fileName);

    /// Does what destroyMutex does, when the mutex is attached; but nothing with the system side of
    /// a parent process.
    virtual ~PZFileGuard() noexcept(false);

    PZFileGuard(const PZFileGuard&) = delete;
    PZFileGuard& operator=(const PZFileGuard&) = delete;

    /// False, and nothing changed, for an empty name, and between initForSystem or initForApp and
    /// destroyMutex.
    bool setFileName(const std::string& name);

    /// Like setFileName, with the directory as in the constructor.
    bool setFilePath(const std::string& dirPath, const std::string& fileName);

    /// Becomes the system side: makes the directory and the key files as far as they are missing
    /// (open to everybody), attaches both segments, makes a new mutex, even while others hold the
    /// old one, and lets the applications in. A thread that waits in lock then waits for the new
    /// mutex. A key file that is a symbolic link is refused, and its target is not touched. False
    /// for an empty file name and for a second call; after any other failure the object is
    /// unusable.
    bool initForSystem();

    /// Becomes an application side and attaches both segments, which are made when there are none.
    /// False when that fails, but it is still an application side: canLock, lock and tryLock try
    /// again.
    bool initForApp();

    /// True while the system side is there. An application side that is not attached yet attaches.
    bool canLock();

    /// Waits for the mutex without a time limit; false when canLock is false (reported) or the
    /// mutex is not usable.
    bool lock();

    /// Like lock, but does not wait: false when another thread or process holds the mutex
    /// (reported), or when canLock is false (not reported).
    bool tryLock();

    /// Releases one lock, even when the system side is gone. False when the mutex is not attached.
    /// For a thread that does not hold the mutex: true, and nothing happens.
    bool unlock();

    /// On the system side: shuts the applications out and removes the segments. They vanish when
    /// the last attached process detaches or ends; this process stays attached. While somebody
    /// holds the mutex this fails, and the segments stay; initForSystem followed by destroyMutex
    /// removes them later. On an application side: detaches. Afterwards the guard can be given
    /// another file, and begin again. False, with a call stack, when it is neither.
    ///
    /// A forked child that replaces its parent (a daemon) calls this itself; its destructor does
    /// not.
    bool destroyMutex();

private:
    enum EN_MODE : int { en_MODE_NONE = 0, en_MODE_SYSTEM = 1, en_MODE_APP = 2 };

    static constexpr unsigned char kUsable = 0xA5;  // init flag: the mutex may be used

    // What the C library notes in a recursive mutex (type 1) that is shared between processes.
    static constexpr int kMutexKind = 0x81;

    void checkPath();
    static bool makeDir(const std::string& dirPath);
    key_t getMkey(const std::string& path) const;
    static key_t getMkeyForSystem(const std::string& path);
    static key_t getMkeyForApp(const std::string& path);
    bool attachSharedMem();
    bool initMutex();
    bool destroyMutexForSystem();
    bool destroyMutexForApp();

    /// True when the init flag can be read and says so. The other processes write it at any time; a
    /// reader sees what the system side did to the mutex before.
    bool isUsable() const {
        return initFlag_ != nullptr && __atomic_load_n(initFlag_, __ATOMIC_ACQUIRE) == kUsable;
    }

    /// True when nothing stands between a lock and the mutex.
    bool isReady() const { return initialized_ && mutex_ != nullptr && isUsable(); }

    /// What lock does when the guard is not ready at once; false when it is not ready at all.
    bool getReadyToLock();

    // Every process may write over the mutex. What is no mutex of ours could end the process inside
    // the C library.

    int kind() const { return __atomic_load_n(&mutex_->__data.__kind, __ATOMIC_RELAXED); }
    int owner() const { return __atomic_load_n(&mutex_->__data.__owner, __ATOMIC_RELAXED); }

    /// True when nothing stands between a lock and a mutex of ours that nobody holds. One question
    /// instead of four: they would be a good part of a lock's time.
    bool isReadyAndFree() const {
        const unsigned char* const flag = initFlag_;
        if (mutex_ == nullptr || flag == nullptr) return false;
        return ((__atomic_load_n(flag, __ATOMIC_ACQUIRE) ^ kUsable) | (kind() ^ kMutexKind) |
                owner() | (initialized_ ? 0 : 1)) == 0;
    }

    /// lock of a mutex that is not ready, not free, or not sound.
    bool lockWithCare();

    /// unlock of what is no mutex of ours.
    bool unlockWithCare();

    /// Reports what an operation got from the mutex, and answers false.
    bool reportLock(int error);
    bool reportTryLock(int error);
    bool reportUnlock(int error);

    PZ_LOCAL void rememberMaker();
    PZ_LOCAL bool isMaker() const;

    std::string dirPath_;
    std::string fileName_;
    int mutexShmId_;           // -1: not attached
    pthread_mutex_t* mutex_;   // in the mutex segment; null: not attached
    int initFlagShmId_;        // -1: not attached
    unsigned char* initFlag_;  // in the init-flag segment; null: not attached
    bool initialized_;         // has attached at some time; destroyMutex does not clear it
    unsigned char maker_[3];   // id of the process that became the system side: at most 2^22
    EN_MODE mode_;
};

// Taking a free mutex and giving it back are so short that a call into the library would be a good
// part of their time: they run in the caller's own code. The rest is called.

inline bool PZFileGuard::lock() {
    if (!isReadyAndFree()) return lockWithCare();
    const int result = pthread_mutex_lock(mutex_);
    return result != EINVAL || reportLock(result);  // no other result counts as a failure
}

inline bool PZFileGuard::tryLock() {
    if (!isReadyAndFree()) {
        if (!canLock() || mutex_ == nullptr) return false;
        if (kind() != kMutexKind) return reportTryLock(EINVAL);
    }
    const int result = pthread_mutex_trylock(mutex_);
    return (result != EINVAL && result != EBUSY) || reportTryLock(result);
}

inline bool PZFileGuard::unlock() {
    if (mutex_ == nullptr || kind() != kMutexKind) return unlockWithCare();
    const int result = pthread_mutex_unlock(mutex_);
    return result != EINVAL || reportUnlock(result);
}

#endif  // PZ_FRAMEWORK_COMMUNICATION_PZFILEGUARD_H
