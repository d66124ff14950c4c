#ifndef PZ_FRAMEWORK_PATTERN_PZSUBJECT_H
#define PZ_FRAMEWORK_PATTERN_PZSUBJECT_H

/// @file
/// The subject, its observers, and whom a notification reaches.

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <vector>

#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/PZThreadAnnotations.h>
#include <Framework/PZApi.h>

/// Whom a notification reaches. Every value other than en_NTF_SELECTED reaches all.
enum EN_NTF_TYPE : int {
    en_NTF_ALL = 0,      ///< every observer
    en_NTF_SELECTED = 1  ///< only observers that subscribed for the notification's identifier
};

/// Receiver of notifications.
class PZ_API PZObserver_ {
public:
    virtual ~PZObserver_();

    /// Runs on the notifying thread, with the subject's lock held. `data` (`size` bytes) is the
    /// notifier's and valid during the call only. The largest result of all observers goes to the
    /// notifier.
    virtual unsigned int OnNotify(unsigned int id, void* data, unsigned int size) = 0;
};

/// The publishing side: observers subscribe and are called one after the other, in the order of
/// their subscription, on the thread that notifies.
///
/// Threads:   any thread may call anything; the lock is held during a notification, so calls of
///            other threads wait until all observers have returned. From inside OnNotify an
///            observer may notify again or add observers (they are reached by the same pass), but
///            must not remove the subscription that is being notified.
/// Ownership: observers are not owned and must be removed before they or the subject die.
/// Failures:  reported and answered with a result, never thrown.
class PZ_API PZSubject {
public:
    PZSubject();
    virtual ~PZSubject();

    PZSubject(const PZSubject&) = delete;
    PZSubject& operator=(const PZSubject&) = delete;

    /// Subscribes for every notification of type en_NTF_ALL. 1, or 0 for null or without memory
    /// (reported). Twice subscribed is twice called.
    int AddObserver(PZObserver_* o);

    /// Subscribes for the `count` identifiers at `ids` (copied; null is none), and for every
    /// notification of type en_NTF_ALL. An identifier listed twice gives two calls. 1, or 0 for a
    /// null observer or without memory (reported).
    int AddObserver(PZObserver_* o, unsigned int* ids, unsigned int count);

    /// Ends the oldest subscription of `o`. 1 when there was one, else 0.
    int RemoveObserver(PZObserver_* o);

    /// Calls the observers and returns the largest of their results; 0 when none was called.
    PZ_API unsigned int NotifyObserver(unsigned int id, void* data, unsigned int size,
                                       EN_NTF_TYPE type);

protected:
    /// Drops all subscriptions without the lock. For a subject in a forked child: another thread of
    /// the parent may have held the lock when the child was made.
    void ForgetObservers() noexcept PZ_NO_THREAD_SAFETY_ANALYSIS;

private:
    struct Entry {
        PZObserver_* observer;          // not owned; null: a subscription that ended during a pass
        std::vector<unsigned int> ids;  // in the order given at subscription
    };

    /// While one lives, no entry changes its place: a subscription that ends leaves a gap.
    class Pass {
    public:
        explicit Pass(PZSubject& subject) noexcept PZ_REQUIRES(subject.sync_) : subject_(subject) {
            ++subject_.passes_;
        }
        // The analysis does not know this subject for the constructor's.
        ~Pass() PZ_NO_THREAD_SAFETY_ANALYSIS {
            if (--subject_.passes_ != 0) return;
            subject_.turns_.store(subject_.turns_.load(std::memory_order_relaxed) + 1,
                                  std::memory_order_relaxed);
            if (subject_.gaps_ > 0) subject_.CloseGaps();
        }
        Pass(const Pass&) = delete;
        Pass& operator=(const Pass&) = delete;

    private:
        PZSubject& subject_;
    };

    unsigned int NotifyRest(std::size_t next, unsigned int result, unsigned int id, void* data,
                            unsigned int size) PZ_REQUIRES(sync_);
    unsigned int NotifySelected(unsigned int id, void* data, unsigned int size);
    void CloseGaps() noexcept PZ_REQUIRES(sync_);

    std::vector<Entry> observers_ PZ_GUARDED_BY(sync_);  // in the order of subscription
    PZSync sync_;                                        // held during a notification
    unsigned int passes_ PZ_GUARDED_BY(sync_) = 0;       // running, one in the other
    unsigned int gaps_ PZ_GUARDED_BY(sync_) = 0;         // among observers_
    unsigned int changes_ PZ_GUARDED_BY(sync_) = 0;      // of observers_; may wrap
    std::atomic<unsigned int> turns_{0};  // passes that are over; others read it at any time
};

// A notification runs in the caller's own code: if the compiler sees what the observers of a
// program do, it inlines them into the loop, which takes a third of the time of calling them.

inline unsigned int PZSubject::NotifyObserver(unsigned int id, void* data, unsigned int size,
                                              EN_NTF_TYPE type) {
    if (type == en_NTF_SELECTED) return NotifySelected(id, data, size);
    const PZSyncLock lock(sync_);
    const Pass pass(*this);
    unsigned int result = 0;
    const unsigned int changes = changes_;
    const Entry* const first = observers_.data();
    const Entry* const end = first + observers_.size();
    for (const Entry* entry = first; entry != end; ++entry) {
        if (entry->observer == nullptr) continue;
        result = std::max(result, entry->observer->OnNotify(id, data, size));
        if (changes_ == changes) continue;  // else the entries may be elsewhere
        return NotifyRest(static_cast<std::size_t>(entry - first) + 1, result, id, data, size);
    }
    return result;
}

#endif  // PZ_FRAMEWORK_PATTERN_PZSUBJECT_H
