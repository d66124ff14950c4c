#ifndef PZ_FRAMEWORK_FOUNDATION_PZTHREADMNG_H
#define PZ_FRAMEWORK_FOUNDATION_PZTHREADMNG_H

#include <map>
#include <memory>
#include <vector>

#include <Framework/Diagnostics/pz_inspection.h>
#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/PZApi.h>
#include <Framework/Pattern/PZSubject.h>

class PZThreadMng;
template <typename T>
class PZThread;
extern template class PZ_API PZSingleton<PZThreadMng>;

/// The registry of the process's framework threads and the keeper of their priorities.
///
/// Priorities: the wide scale from 177 (most urgent, nice -20) to 255 (least urgent, nice 4).
/// Handles:    a thread is known by its pthread_t.
/// Threads:    any thread may call anything but checkThreadStatus; one lock guards the registry.
/// Failures:   system errors are reported; an unknown handle is answered with false or 0.
class PZ_API PZThreadMng : public PZSingleton<PZThreadMng>, public PZSubject {
public:
    /// One registered thread.
    struct ThreadInfo {
        unsigned long handle;    ///< pthread_t; the key
        int priority;            ///< wide priority, -1 when unknown
        char name[256];          ///< label
        int starttime;           ///< 0
        int runtime;             ///< milliseconds; 0 in practice, see checkThreadStatus
        unsigned int watchTime;  ///< milliseconds
        int status;              ///< 1 running, 0 waiting
    };

    ~PZThreadMng() override;

    /// Does nothing: the instance dies with the other singletons.
    static void DelInstance();

    /// Starts and stops the watchdog. initialize answers 1, or 0 when that failed.
    /// @{
    int initialize();
    void finalize();
    /// @}

    /// Registers a running thread. A null name leaves the label empty; 256 characters or more are
    /// cut to 255. A handle that is registered already keeps its record, unless the record is known
    /// to be that of an ended thread whose handle the calling thread has got. Let each thread
    /// register itself: if another thread does it while a WaitExit ends, the handle may be that of
    /// the joined thread, whose record is removed. `watchTime` is in milliseconds. False, and
    /// reported, when there is no memory for the record.
    /// @{
    bool registerThreadInfo(unsigned long handle, const char* name, int priority,
                            unsigned int watchTime);
    bool registerThreadInfo(const ThreadInfo& info);
    /// @}

    /// True when the handle was registered.
    bool unregisterThreadInfo(unsigned long handle);

    /// Replaces the label (cut to 255 characters); false for a null label or an unknown handle.
    bool setLabel(unsigned long handle, const char* label);

    /// Copies the label into `out`, which must hold 256 characters. False, with `out` untouched,
    /// for a null `out` or an unknown handle.
    bool getLabel(unsigned long handle, char* out);

    /// Replaces the watch time (milliseconds; 0: not watched); false for an unknown handle.
    bool setWatchTime(unsigned long handle, unsigned int ms);

    /// Milliseconds; 0 for an unknown handle.
    unsigned int getWatchTime(unsigned long handle);

    /// Wide priority of the kernel thread `tid`; -1 when its nice value is not on the scale (5 and
    /// above), 0 when it cannot be read (reported). `handle` is not used.
    int GetPriority(unsigned long handle, unsigned int tid);

    /// The same for the calling thread; a nice value off the scale is reported.
    int GetCurrentThreadPriority();

    /// Sets the nice value of the kernel thread `tid` and records `priority` for `handle`. False
    /// when the kernel refuses (reported) or the handle is unknown (the nice value is set).
    bool SetPriority(unsigned long handle, int priority, unsigned int tid);

    /// Marks the calling thread's record as waiting, or running. For threads of the application
    /// around their blocking waits.
    /// @{
    void notifyToWaiting();
    void notifyToRunning();
    /// @}

    /// Refreshes the run time of each running thread whose processor-time clock answers with a
    /// failure, on purpose: run times stay 0 in practice. Walks the registry without its lock: no
    /// thread may be registered, unregistered or joined meanwhile.
    void checkThreadStatus();

    /// Writes all records to "/temp/ThreadInfo"; does nothing when that cannot be opened, or is a
    /// symbolic link. Holds the registry's lock meanwhile: if the path is a full fifo that nobody
    /// reads, everything that needs the registry waits, starting threads included.
    void dumpThreadStatus();

    /// The handles of the running threads, in ascending order. Always true. Throws std::bad_alloc
    /// when there is no memory for the list.
    bool getActiveThreadList(std::vector<unsigned long>& out);

    /// First wide priority with this nice value; -1 when there is none.
    int get_wide_priority(int nice);

    /// Nice value of the first wide priority not below `wide`; -1 when there is none.
    int get_narrow_priority(int wide);

private:
    friend class PZSingleton<PZThreadMng>;
    PZThreadMng();

    struct PriorityRow {
        int wide;
        int nice;
    };
    PZ_LOCAL static const PriorityRow priTable_[79];  // ascending wide priorities

    /// A registered thread, as it is shown to readers of the process.
    struct Record : ThreadInfo {
        PZ_LOCAL Record(const ThreadInfo& info, int knownTid);
        PZ_LOCAL ~Record();
        Record(const Record&) = delete;
        Record& operator=(const Record&) = delete;

        PZ_LOCAL void Replace(const ThreadInfo& info, int newTid);
        PZ_LOCAL void Show();

        int tid;            // kernel id of the thread, 0 when it was not the one that registered
        const void* owner;  // the PZThread that will unregister it, or null
        ST_INSPECTED_THREAD<PZInspectionLive> shown;
    };

    // A PZThread's own registration. The system may give the handle of a joined thread to the next
    // thread before WaitExit has unregistered it: a PZThread removes no record that is known to be
    // another thread's.
    template <typename T>
    friend class PZThread;
    void claimThreadInfo(unsigned long handle, const void* owner);
    void releaseThreadInfo(unsigned long handle, const void* owner, int tid);

    PZ_LOCAL Record* FindLocked(unsigned long handle) PZ_REQUIRES(*sync_);

    std::map<unsigned long, Record> threads_ PZ_GUARDED_BY(*sync_);
    const std::unique_ptr<PZSync> sync_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZTHREADMNG_H
