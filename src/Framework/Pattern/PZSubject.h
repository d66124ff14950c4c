#ifndef PZ_FRAMEWORK_PATTERN_PZSUBJECT_H
#define PZ_FRAMEWORK_PATTERN_PZSUBJECT_H

/// @file
/// The subject, its observers, and whom a notification reaches.

#include <list>
#include <vector>

#include <Framework/Foundation/PZSync.h>
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
    unsigned int NotifyObserver(unsigned int id, void* data, unsigned int size, EN_NTF_TYPE type);

protected:
    /// Drops all subscriptions without the lock. For a subject in a forked child: another thread of
    /// the parent may have held the lock when the child was made.
    void ForgetObservers() noexcept;

private:
    struct Entry {
        PZObserver_* observer;          // not owned
        std::vector<unsigned int> ids;  // in the order given at subscription
    };

    std::list<Entry> observers_;  // in the order of subscription
    PZSync sync_;                 // guards observers_; held during a notification
};

#endif  // PZ_FRAMEWORK_PATTERN_PZSUBJECT_H
