#include "WorkerCore.h"

#include <cxxabi.h>

#include <algorithm>
#include <ctime>
#include <exception>
#include <vector>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Wrapper/pz_stdlib.h>

#include "TimerCore.h"

namespace pz::detail {

namespace {

constexpr long long kMsPerSecond = 1000;
constexpr long long kNsPerMs = 1000000;
constexpr std::chrono::milliseconds kNone(0);
constexpr std::chrono::milliseconds kGrace(100);
constexpr std::chrono::hours kLongest(24 * 365 * 30);

/// A clock that costs next to nothing; a few milliseconds behind.
long long coarse_ms() noexcept {
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return now.tv_sec * kMsPerSecond + now.tv_nsec / kNsPerMs;
}

/// The cores with a thread. Never destroyed: a worker that hangs outlives everything.
struct ST_CORES {
    std::mutex mutex;
    std::vector<std::shared_ptr<WorkerCore>> all;  // guarded by mutex
};

ST_CORES& cores() noexcept {
    alignas(ST_CORES) static unsigned char memory[sizeof(ST_CORES)];
    static ST_CORES* const instance = new (memory) ST_CORES;
    return *instance;
}

void forget_core(const WorkerCore* core) noexcept {
    std::shared_ptr<WorkerCore> forgotten;  // destroyed after the lock
    const std::lock_guard<std::mutex> lock(cores().mutex);
    auto& all = cores().all;
    const auto found = std::find_if(all.begin(), all.end(),
                                    [core](const auto& other) { return other.get() == core; });
    if (found == all.end()) return;
    forgotten = std::move(*found);
    all.erase(found);
}

/// Null behind the last one.
std::shared_ptr<WorkerCore> core_at(std::size_t index) noexcept {
    const std::lock_guard<std::mutex> lock(cores().mutex);
    return index < cores().all.size() ? cores().all[index] : nullptr;
}

}  // namespace

const char* base_name(const char* file) noexcept {
    const char* base = file;
    for (const char* at = file; *at != '\0'; ++at) {
        if (*at == '/') base = at + 1;
    }
    return base;
}

Clock::time_point deadline_after(std::chrono::milliseconds within) noexcept {
    return Clock::now() + std::clamp<std::chrono::milliseconds>(within, kNone, kLongest);
}

WorkerCore::WorkerCore(Kind kind, const char* name, const WorkerOptions& options,
                       std::shared_ptr<ClockCore> clock)
    : kind_(kind),
      clock_(std::move(clock)),
      options_(options),
      name_(),
      jobs_(new Job[kJobs]),
      thread_(this, static_cast<unsigned int>(std::max<long long>(options.watch_time.count(), 0))) {
    pz_strncpy(name_, sizeof name_, name != nullptr ? name : "no_name", sizeof name_ - 1);
    accepting_ = IsManual();
    finished_ = !IsManual();
}

WorkerCore::~WorkerCore() {
    DropQueued();
}

bool WorkerCore::Start() {
    boxId_ = box_.Registory(this);
    if (boxId_ == ~0UL) {
        PZ_REPORT_ERROR("worker [%s]: no memory\n", name_);
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(cores().mutex);
        cores().all.push_back(shared_from_this());
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        finished_ = false;
    }
    if (!thread_.Start(name_)) {
        NoteFinished();
        forget_core(this);
        return false;
    }
    {
        const std::lock_guard<std::mutex> lock(joinMutex_);
        isJoined_ = false;
    }
    constexpr unsigned int kStartLimitMs = 3000;
    if (box_.InitWait(kStartLimitMs) != 0) {
        PZ_REPORT_ERROR("worker [%s] does not serve\n", name_);
        box_.Exit();
        return false;
    }
    if (options_.priority) thread_.SetPriority(*options_.priority);
    const std::lock_guard<std::mutex> lock(mutex_);
    accepting_ = !finished_;
    return accepting_;
}

void WorkerCore::MainProc() {
    /// Told also when a handler ends its thread.
    class Serving {
    public:
        explicit Serving(WorkerCore& core) : core_(core) {
            core_.servingThread_ = pthread_self();
            core_.isServing_ = true;
        }
        ~Serving() {
            core_.isServing_ = false;
            core_.NoteFinished();
        }
        Serving(const Serving&) = delete;
        Serving& operator=(const Serving&) = delete;

    private:
        WorkerCore& core_;
    };
    const Serving serving(*this);
    box_.Loop(options_.number);
}

void WorkerCore::NoteFinished() noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    finished_ = true;
    accepting_ = false;
    changed_.notify_all();
}

bool WorkerCore::IsOwnThread() const noexcept {
    return isServing_.load() && pthread_equal(servingThread_.load(), pthread_self()) != 0;
}

bool WorkerCore::IsRunning() const noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    return accepting_;
}

Job* WorkerCore::Reserve(std::chrono::milliseconds within, const Place& place,
                         Posted& answer) noexcept {
    std::unique_lock<std::mutex> lock(mutex_);
    answer = Posted::stopped;
    if (!accepting_) return nullptr;
    answer = Posted::full;
    if (!HasRoomLocked() && !WaitForRoomLocked(lock, within)) {
        if (!accepting_) answer = Posted::stopped;
        return nullptr;
    }
    Job* const job = TakeFreeLocked();
    if (job == nullptr) return nullptr;
    pending_.fetch_add(1);
    job->place = place;
    return job;
}

/// False when there is no room in time, or no more service.
bool WorkerCore::WaitForRoomLocked(std::unique_lock<std::mutex>& lock,
                                   std::chrono::milliseconds within) {
    if (within <= std::chrono::milliseconds::zero() || IsManual() || IsOwnThread()) return false;
    waitingForRoom_.fetch_add(1);
    changed_.wait_until(lock, deadline_after(within),
                        [this] { return HasRoomLocked() || !accepting_; });
    waitingForRoom_.fetch_sub(1);
    return accepting_ && HasRoomLocked();
}

Job* WorkerCore::TakeFreeLocked() noexcept {
    if (free_ == nullptr) free_ = returned_.exchange(nullptr, std::memory_order_acquire);
    if (free_ == nullptr) {
        if (usedJobs_ == kJobs) return nullptr;
        Job& fresh = jobs_[usedJobs_++];
        fresh.state.store(en_STATE_FREE, std::memory_order_relaxed);
        return &fresh;
    }
    Job* const job = free_;
    free_ = job->next;
    return job;
}

// Never takes the lock: the serving thread does not wait for those who post.
void WorkerCore::Release(Job& job) noexcept {
    job.state.store(en_STATE_FREE, std::memory_order_relaxed);
    Job* head = returned_.load(std::memory_order_relaxed);
    do {
        job.next = head;
    } while (!returned_.compare_exchange_weak(head, &job, std::memory_order_release,
                                              std::memory_order_relaxed));
}

Posted WorkerCore::Commit(Job& job, const JobType& type, Priority priority) noexcept {
    job.type = &type;
    Posted answer = Posted::stopped;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (accepting_) {
            job.state.store(en_STATE_QUEUED);
            if (EnqueueLocked(job, priority)) return Posted::ok;
            answer = Posted::full;
            // The box may have kept the message all the same: the job stays out of use until then.
            int expected = en_STATE_QUEUED;
            if (!job.state.compare_exchange_strong(expected, en_STATE_CANCELLED)) {
                return Posted::ok;
            }
        }
    }
    type.drop(job.room);
    if (answer == Posted::stopped) GiveBack(job);
    return answer;
}

bool WorkerCore::EnqueueLocked(Job& job, Priority priority) noexcept {
    const auto index = static_cast<unsigned int>(&job - jobs_.get());
    const unsigned int level = std::min(static_cast<unsigned int>(priority), 255U);
    try {
        if (IsManual()) {
            PZPriorityQueue<QueuedJob>::que entry;
            entry.index = index;
            entry.priority = level;
            manualQueue_.push(entry);
            return true;
        }
        PZIMsgBox::ST_PUSH_MSG_DATA message = {boxId_, index, level, nullptr, 0};
        return box_.PushMsg(message) == 0;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void WorkerCore::GiveBack(Job& job) noexcept {
    NoteTaken();
    Release(job);
}

/// A job is no longer pending: there is room for one more.
void WorkerCore::NoteTaken() noexcept {
    pending_.fetch_sub(1);
    if (waitingForRoom_.load() == 0) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    changed_.notify_all();
}

void WorkerCore::OnReceiveMsg(unsigned int msgId, const void* /*buff*/, unsigned int /*size*/) {
    if (msgId < kJobs) Execute(jobs_[msgId]);
}

void WorkerCore::OnReceiveEvent(unsigned int /*bits*/) {}

bool WorkerCore::RunOne() {
    Job* job = nullptr;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (manualQueue_.empty()) return false;
        job = &jobs_[manualQueue_.top().index];
        manualQueue_.pop();
    }
    const bool isNested = isServing_;
    servingThread_ = pthread_self();
    isServing_ = true;
    const long long startMs = NowMs();
    Execute(*job);
    if (NowMs() - startMs > options_.watch_time.count()) ++overruns_;
    isServing_ = isNested;
    return true;
}

void WorkerCore::Execute(Job& job) {
    NoteTaken();
    /// Gives the job back, also when the handler ends its thread.
    class Taken {
    public:
        Taken(WorkerCore& core, Job& job) : core_(core), job_(job) {
            int expected = en_STATE_QUEUED;
            hasFunction_ = job.state.compare_exchange_strong(expected, en_STATE_TAKEN);
        }
        ~Taken() {
            if (hasFunction_) job_.type->drop(job_.room);
            core_.isRunning_.store(false, std::memory_order_relaxed);
            core_.Release(job_);
        }
        Taken(const Taken&) = delete;
        Taken& operator=(const Taken&) = delete;

        bool HasFunction() const { return hasFunction_; }

    private:
        WorkerCore& core_;
        Job& job_;
        bool hasFunction_;
    };
    const Taken taken(*this, job);
    if (taken.HasFunction()) RunFunction(job);
}

// A forced unwind carries no object: the reference that catches it is null.
__attribute__((no_sanitize("null"))) void WorkerCore::RunFunction(const Job& job) {
    runningFile_.store(job.place.file, std::memory_order_relaxed);
    runningFunction_.store(job.place.function, std::memory_order_relaxed);
    runningLine_.store(job.place.line, std::memory_order_relaxed);
    runningSinceMs_.store(coarse_ms(), std::memory_order_relaxed);
    isRunning_.store(true, std::memory_order_release);
    try {
        job.type->run(const_cast<unsigned char*>(job.room));
    } catch (abi::__forced_unwind&) {
        throw;  // cancellation, pthread_exit: the C library waits for it
    } catch (const std::exception& e) {
        ReportException(job.place, e.what());
    } catch (...) {
        ReportException(job.place, "something that is no std::exception");
    }
}

void WorkerCore::ReportException(const Place& place, const char* what) const noexcept {
    PZ_REPORT_ERROR("worker [%s]: what was posted by %s()@%s(%d) threw: %s\n", name_,
                    place.function, base_name(place.file), place.line, what);
}

void WorkerCore::RequestStop() noexcept {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        accepting_ = false;
        changed_.notify_all();
    }
    DetachTimers();
    if (!IsManual() && !isExitRequested_.exchange(true)) box_.Exit();
}

void WorkerCore::DetachTimers() noexcept {
    std::vector<std::shared_ptr<TimerCore>> timers;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        timers.swap(timers_);
    }
    for (const auto& timer : timers) timer->Detach();
}

bool WorkerCore::Keep(const std::shared_ptr<TimerCore>& timer) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!accepting_) return false;
    try {
        timers_.push_back(timer);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool WorkerCore::Forget(const TimerCore& timer) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(timers_.begin(), timers_.end(),
                                    [&timer](const auto& kept) { return kept.get() == &timer; });
    if (found == timers_.end()) return false;
    timers_.erase(found);
    return true;
}

long long WorkerCore::NowMs() const {
    if (clock_ != nullptr) return clock_->NowMs();
    return static_cast<long long>(PZTickCount::GetInstance()->GetPerformanceTime());
}

bool WorkerCore::Stop(std::chrono::milliseconds within) {
    RequestStop();
    if (IsOwnThread()) return false;
    if (IsManual()) {
        while (RunOne()) {
        }
        return true;
    }
    bool finished = false;
    {
        std::unique_lock<std::mutex> lock(mutex_);
        finished = changed_.wait_until(lock, deadline_after(within), [this] { return finished_; });
    }
    if (finished) return JoinIfFinished();
    DropQueued();
    if (!hangReported_.exchange(true)) ReportHang(within);
    return false;
}

bool WorkerCore::JoinIfFinished() noexcept {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (!finished_) return false;
    }
    {
        const std::lock_guard<std::mutex> lock(joinMutex_);
        if (!isJoined_) thread_.WaitExit();
        isJoined_ = true;
    }
    forget_core(this);
    return true;
}

/// Destroys the functions that wait, without running them.
void WorkerCore::DropQueued() noexcept {
    unsigned int used = 0;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        used = usedJobs_;
    }
    for (unsigned int i = 0; i < used; ++i) {
        Job& job = jobs_[i];
        int expected = en_STATE_QUEUED;
        if (job.state.compare_exchange_strong(expected, en_STATE_CANCELLED)) {
            job.type->drop(job.room);
        }
    }
}

void WorkerCore::ReportHang(std::chrono::milliseconds waited) const noexcept {
    const auto waitedMs = static_cast<long long>(waited.count());
    if (!isRunning_.load(std::memory_order_acquire)) {
        PZ_REPORT_ERROR("worker [%s] has not ended within %lld ms: no post is being run\n", name_,
                        waitedMs);
        return;
    }
    PZ_REPORT_ERROR(
        "worker [%s] has not ended within %lld ms: what was posted by %s()@%s(%d) has been running "
        "for %lld ms\n",
        name_, waitedMs, runningFunction_.load(), base_name(runningFile_.load()),
        runningLine_.load(), coarse_ms() - runningSinceMs_.load());
}

void join_finished_cores() noexcept {
    std::size_t index = 0;
    while (const auto core = core_at(index)) {
        if (core->IsOwnThread() || !core->JoinIfFinished()) ++index;
    }
}

bool stop_all_cores() {
    join_finished_cores();
    std::size_t index = 0;
    while (const auto core = core_at(index)) {
        const bool hasFailed = core->HasFailedToStop();
        if (core->IsRunning()) {
            PZ_REPORT_ERROR("worker [%s] still runs: it is stopped\n", core->Name());
        }
        // Whoever hung may be about to end.
        if (!core->Stop(hasFailed ? kGrace : core->Options().stop_within)) ++index;
    }
    return index == 0;
}

}  // namespace pz::detail
