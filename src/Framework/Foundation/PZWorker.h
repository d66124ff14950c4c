#ifndef PZ_FRAMEWORK_FOUNDATION_PZWORKER_H
#define PZ_FRAMEWORK_FOUNDATION_PZWORKER_H

/// @file
/// The worker and its priorities.

#include <memory>

#include <Framework/Foundation/PZIMsgBox.h>
#include <Framework/PZApi.h>

class PZLMsgBox;
template <typename T>
class PZThread;

/// Priorities of a worker, on the wide scale of PZThreadMng: lower values are more urgent.
enum EN_WORKER_PRIORITY : int {
    en_WORKER_PRIORITY_HIGHEST = 177,       ///< nice -20
    en_WORKER_PRIORITY_HIGH = 200,          ///< nice -6
    en_WORKER_PRIORITY_ABOVE_NORMAL = 225,  ///< nice -3
    en_WORKER_PRIORITY_NORMAL = 251,        ///< nice 0
    en_WORKER_PRIORITY_BELOW_NORMAL = 252,  ///< nice 1
    en_WORKER_PRIORITY_LOW = 254,           ///< nice 3
    en_WORKER_PRIORITY_LOWEST = 255         ///< nice 4
};

/// A thread that owns a message box and serves it.
///
///     PZWorker worker(1, 4000, 1);
///     if (worker.Start("audio") != 0) return;
///     const unsigned long id = worker.GetMsgBox()->Registory(&unit);
///     ...
///     worker.End(0);
///
/// Life:     pz_FwInitialize before (see PZThread); Start, End, and again. A worker must be ended
///           before it is destroyed: the destructor destroys the box only.
/// Threads:  everything but the box belongs to the thread that owns the worker; End never to the
///           worker's own thread. Any thread may use the box.
/// Handlers: must not throw. An exception ends the thread quietly, and the worker serves nothing
///           afterwards: its box accepts posts until it is full. End and Start succeed, but the new
///           loop ends at once, because the request of End is left in the box. Make a new worker.
/// Failures: reported and answered with a result, never thrown; a report waits while standard
///           output is stuck. Only the constructor throws std::bad_alloc, when there is no memory
///           for the worker at all.
class PZ_API PZWorker {
public:
    /// `id` is not used. `watchTime` (milliseconds) is registered with the thread; `workerNo` names
    /// the worker in the reports of its box. If descriptors or memory for the box are missing, that
    /// is reported, and Start tries again.
    PZWorker(int id, unsigned int watchTime, unsigned int workerNo);
    virtual ~PZWorker();

    PZWorker(const PZWorker&) = delete;
    PZWorker& operator=(const PZWorker&) = delete;

    /// Starts the thread ("no_name" for a null name) and waits until its box serves: 0 when it
    /// does, -1 otherwise. Without descriptors or memory it makes no thread, and can be called
    /// again later.
    ///
    /// -1 after 3000 milliseconds without service (not reported) leaves the thread running: End it.
    /// The box may then still hold the signal of the loop that came too late; InitWait(0) of the
    /// box takes it, so that the next Start waits for its own loop. A worker that runs already is
    /// left alone and answered with -1.
    int Start(const char* name);

    /// Ends the thread when everything posted has been served, however long that takes (`timeout`
    /// is not used). When the join fails, the thread object stays.
    ///
    /// In a forked child of the process that started it nothing happens: the thread is the
    /// parent's.
    ///
    /// Ending a worker whose thread does not run leaves the request in the box: the loop of the
    /// next Start ends as soon as it is idle.
    void End(unsigned int timeout);

    /// True when the thread's priority was set; waits up to 50 milliseconds for a thread that is
    /// just starting. False without a thread.
    bool SetPriority(EN_WORKER_PRIORITY p) const;

    /// The thread's wide priority; 256 without a thread, -1 (reported) while the thread is just
    /// starting, and what PZThreadMng::GetPriority answers otherwise.
    int GetPriority() const;

    /// The box; lives as long as the worker.
    PZIMsgBox* GetMsgBox() const;

    /// The thread's name, valid until End; "" without a thread.
    const char* getName() const;

    /// Hooks of the thread.
    /// @{
    int Initialize();
    void MainProc();
    void Finalize();
    /// @}

private:
    PZ_LOCAL bool MakeThreadObject();

    const std::unique_ptr<PZLMsgBox> msgBox_;
    PZThread<PZWorker>* thread_;  // owned between Start and End, null otherwise
    const unsigned int watchTime_;
    const unsigned int workerNo_;
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZWORKER_H
