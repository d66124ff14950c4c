#ifndef PZ_FRAMEWORK_EASY_WORKERCORE_H
#define PZ_FRAMEWORK_EASY_WORKERCORE_H

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <vector>

#include <Framework/Easy/Worker.h>
#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/PZPriorityQueue.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/private/PZMutex.h>
#include <Framework/private/pz_home.h>

#include "ClockCore.h"

namespace pz::detail {

class TimerCore;

using Clock = std::chrono::steady_clock;

const char* base_name(const char* file) noexcept;

/// `within` from now; times that are too long for the clock count as thirty years.
Clock::time_point deadline_after(std::chrono::milliseconds within) noexcept;

/// What a pz::Worker is made of. Everything that its thread touches is in here, so that a thread
/// that cannot be joined may keep it.
///
/// A core that runs is known to the list of all cores, which owns it until its thread was joined.
///
/// A posted function lies in a job of the pool; the message that stands for it has no payload, its
/// identifier is the job's index. The pool has one job more than the box has room: the one that is
/// being run. A function that is nothing but bytes is itself the payload of its message.
class WorkerCore : public PZIDispatcher, public std::enable_shared_from_this<WorkerCore> {
public:
    enum class Kind {
        thread,  // serves by its own thread
        manual   // served by the caller of RunOne
    };

    /// `clock`: of a manual core.
    WorkerCore(Kind kind, const char* name, const WorkerOptions& options,
               std::shared_ptr<ClockCore> clock = nullptr);
    ~WorkerCore() override;

    WorkerCore(const WorkerCore&) = delete;
    WorkerCore& operator=(const WorkerCore&) = delete;

    /// Starts the thread. When that fails, the core takes no posts.
    void Start();

    /// See pz::Worker::stop.
    bool Stop(std::chrono::milliseconds within);

    /// Ends the service as soon as nothing is posted any more; does not wait.
    void RequestStop() noexcept;

    /// Posts the `size` bytes of a function.
    Posted PostPlain(const PlainHead& head, const void* function, std::size_t size,
                     Priority priority, std::chrono::milliseconds within) noexcept;

    /// A free job, or null and why.
    Job* Reserve(std::chrono::milliseconds within, const Place& place, Posted& answer) noexcept;
    Posted Commit(Job& job, const JobType& type, Priority priority) noexcept;
    /// Takes a reserved job without a function back.
    void GiveBack(Job& job) noexcept;

    /// Keeps a timer until it is forgotten, or the worker stops, which detaches it. False when the
    /// worker stops already, and without memory.
    bool Keep(const std::shared_ptr<TimerCore>& timer) noexcept;
    /// True when it was kept.
    bool Forget(const TimerCore& timer) noexcept;

    /// Serves the next post of a manual core on the calling thread; false when there is none.
    bool RunOne();

    /// Milliseconds of the worker's clock.
    long long NowMs() const;
    /// Null where real time counts.
    ClockCore* ManualClock() const noexcept { return clock_.get(); }
    /// Posts of a manual core that took longer than the watch time.
    unsigned int Overruns() const noexcept { return overruns_.load(); }

    bool IsManual() const noexcept { return kind_ == Kind::manual; }
    bool IsOwnThread() const noexcept;
    /// True in a forked child, which does not have the thread.
    bool IsOfParent() const noexcept { return !IsManual() && home_.IsParent(); }
    bool IsRunning() const noexcept;
    bool HasFailedToStop() const noexcept { return hangReported_.load(); }
    std::size_t Pending() noexcept;
    const char* Name() const noexcept { return name_; }
    const WorkerOptions& Options() const noexcept { return options_; }
    PZIMsgBox* Box() noexcept { return IsManual() ? nullptr : &box_; }

    // Phases of the thread.
    int Initialize() { return 0; }
    void MainProc();
    void Finalize() {}

    void OnReceiveMsg(unsigned int msgId, const void* buff, unsigned int size) override;
    void OnReceiveEvent(unsigned int bits) override;

    /// True, and joined, when the thread has ended.
    bool JoinIfFinished() noexcept;

private:
    struct QueuedJob {
        unsigned int index;
    };

    static constexpr unsigned int kCapacity = 256;  // of the box
    static constexpr unsigned int kJobs = kCapacity + 1;
    static constexpr unsigned int kServedJobs = 512;  // divides 2^32, holds all jobs
    static constexpr unsigned int kPlain = kJobs;     // identifier of a message with a PlainHead

    /// Of a job.
    enum EN_STATE : int {
        en_STATE_FREE,      // nobody's, or a poster's
        en_STATE_QUEUED,    // has a function
        en_STATE_TAKEN,     // being run
        en_STATE_CANCELLED  // its message may still come, its function is gone
    };

    Posted PostPlainByHand(const PlainHead& head, const void* function, std::size_t size,
                           Priority priority) noexcept;
    Posted PostPlainWithin(const PlainHead& head, const void* function, std::size_t size,
                           Priority priority, std::chrono::milliseconds within) noexcept;
    Posted PushPlain(const PlainHead& head, const void* function, std::size_t size,
                     Priority priority) noexcept;
    static Posted Answered(PZLMsgBox::EN_QUIET answer) noexcept;
    bool MayWait(std::chrono::milliseconds within) const noexcept;
    bool WaitForRoom(Clock::time_point deadline, int failed) noexcept;
    Job* TakeWithRoom() noexcept;
    Job* TakeByHand() noexcept;
    Job* TakeFreeLocked() noexcept PZ_REQUIRES(box_.msgSync_);
    void GiveRoomBack() noexcept;
    Posted Enqueue(Job& job, Priority priority) noexcept;
    Posted EnqueueByHand(const Job& job, unsigned int level) noexcept;
    void NoteTaken() noexcept;
    void TellOfRoom() noexcept;
    void Release(Job& job) noexcept;
    void ReleaseLocked(Job& job) noexcept PZ_REQUIRES(box_.msgSync_);
    void ReleaseServed(Job& job) noexcept;
    void Execute(Job& job);
    void ExecutePlain(const PlainHead& head);
    void RunFunction(const Place& place, const JobType& type, const void* room);
    void ReportException(const Place& place, const char* what) const noexcept;
    bool StartThread();
    void DetachTimers() noexcept;
    void DropQueued() noexcept;
    void ReportHang(std::chrono::milliseconds waited) const noexcept;
    void NoteFinished() noexcept;
    bool WaitUntilFinished(Clock::time_point deadline);

    const Kind kind_;
    const std::shared_ptr<ClockCore> clock_;  // null: real time
    const WorkerOptions options_;
    char name_[128];
    PZLMsgBox box_;
    unsigned long boxId_ = 0;

    mutable PZMutex mutex_;
    std::condition_variable changed_;             // room, or the end
    std::atomic<bool> accepting_{false};          // written under mutex_
    bool finished_ PZ_GUARDED_BY(mutex_) = true;  // there is no loop
    std::vector<std::shared_ptr<TimerCore>> timers_ PZ_GUARDED_BY(mutex_);
    const std::unique_ptr<Job[]> jobs_;
    unsigned int usedJobs_ PZ_GUARDED_BY(box_.msgSync_) = 0;  // never used from here on
    Job* free_ PZ_GUARDED_BY(box_.msgSync_) = nullptr;
    unsigned int reused_ PZ_GUARDED_BY(box_.msgSync_) = 0;  // of servedJobs_
    unsigned short servedJobs_[kServedJobs];                // free as well: a ring
    std::atomic<unsigned int> served_{0};                   // jobs put there, modulo 2^32
    std::atomic<unsigned int> waitingForRoom_{0};           // threads
    std::atomic<bool> isDropped_{false};                    // what is posted is not run any more
    PZPriorityQueue<QueuedJob> manualQueue_ PZ_GUARDED_BY(mutex_){kCapacity};
    unsigned int manualPending_ PZ_GUARDED_BY(mutex_) = 0;  // reserved or queued

    // What is being run: written by the serving thread, read by the reporter of a hang.
    std::atomic<bool> isRunning_{false};
    std::atomic<const char*> runningFile_{nullptr};
    std::atomic<const char*> runningFunction_{nullptr};
    std::atomic<int> runningLine_{0};

    std::atomic<pthread_t> servingThread_{};
    std::atomic<bool> isServing_{false};  // servingThread_ is valid
    std::atomic<bool> hangReported_{false};
    std::atomic<bool> isExitRequested_{false};
    std::atomic<unsigned int> overruns_{0};

    PZMutex joinMutex_;
    bool isJoined_ PZ_GUARDED_BY(joinMutex_) = true;
    PZThread<WorkerCore> thread_;
    PZHome home_;
};

/// All cores with a thread that was not joined yet.
/// @{
void join_finished_cores() noexcept;
/// Stops the cores, each within its own bound; true when all have ended.
bool stop_all_cores();
/// @}

}  // namespace pz::detail

#endif  // PZ_FRAMEWORK_EASY_WORKERCORE_H
