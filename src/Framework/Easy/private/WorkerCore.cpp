#include "WorkerCore.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <exception>
#include <utility>
#include <vector>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_rare.h>
#include <Framework/private/pz_scope_end.h>

#include "TimerCore.h"

namespace pz::detail {

namespace {

constexpr std::chrono::milliseconds kNone(0);
constexpr std::chrono::milliseconds kGrace(100);
constexpr std::chrono::milliseconds kLookAgain(10);
constexpr std::chrono::milliseconds kLongest(kLongestMs);
constexpr int kMostFailed = 16;  // attempts to post, one right after the other

/// As the box counts it.
unsigned int level_of(Priority priority) noexcept {
    return std::min(static_cast<unsigned int>(priority), 255U);
}

/// What is out of range counts as the nearest that is not.
WorkerOptions with_bounds(WorkerOptions options) noexcept {
    constexpr std::chrono::milliseconds kMostWatchTime(~0U);
    options.watch_time = std::clamp(options.watch_time, kNone, kMostWatchTime);
    if (options.priority) {
        options.priority =
            std::clamp(*options.priority, en_WORKER_PRIORITY_HIGHEST, en_WORKER_PRIORITY_LOWEST);
    }
    return options;
}

/// The cores with a thread. Never destroyed: a worker that hangs outlives everything.
struct ST_CORES {
    PZMutex mutex;
    std::vector<std::shared_ptr<WorkerCore>> all PZ_GUARDED_BY(mutex);
};

ST_CORES& cores() noexcept {
    alignas(ST_CORES) static unsigned char memory[sizeof(ST_CORES)];
    static ST_CORES* const instance = new (memory) ST_CORES;
    return *instance;
}

void forget_core(const WorkerCore* core) noexcept {
    std::shared_ptr<WorkerCore> forgotten;  // destroyed after the lock
    const PZMutexLock lock(cores().mutex);
    auto& all = cores().all;
    const auto found = std::find_if(all.begin(), all.end(),
                                    [core](const auto& other) { return other.get() == core; });
    if (found == all.end()) return;
    forgotten = std::move(*found);
    all.erase(found);
}

/// Null after the last one.
std::shared_ptr<WorkerCore> core_at(std::size_t index) noexcept {
    const PZMutexLock lock(cores().mutex);
    return index < cores().all.size() ? cores().all[index] : nullptr;
}

}  // namespace

const char* base_name(const char* file) noexcept {
    if (file == nullptr) return "";
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
      options_(with_bounds(options)),
      name_(),
      jobs_(new Job[kJobs]),
      thread_(this, static_cast<unsigned int>(options_.watch_time.count())) {
    pz_strncpy(name_, sizeof name_, name != nullptr ? name : "no_name", sizeof name_ - 1);
    accepting_ = IsManual();
    finished_ = !IsManual();
}

WorkerCore::~WorkerCore() {
    DropQueued();
}

void WorkerCore::Start() {
    boxId_ = box_.Registory(this);
    if (boxId_ == ~0UL) {
        PZ_REPORT_ERROR("worker [%s]: no memory\n", name_);
        return;
    }
    {
        // Before others see it: they forget what has finished.
        const PZMutexLock lock(mutex_);
        finished_ = false;
    }
    {
        const PZMutexLock lock(cores().mutex);
        cores().all.push_back(shared_from_this());
    }
    if (!StartThread()) {
        NoteFinished();
        forget_core(this);
        return;
    }
    constexpr unsigned int kStartLimitMs = 3000;
    if (box_.InitWait(kStartLimitMs) != 0) {
        PZ_REPORT_ERROR("worker [%s] does not serve\n", name_);
        box_.Exit();
        return;
    }
    if (options_.priority) thread_.SetPriority(*options_.priority);
    const PZMutexLock lock(mutex_);
    accepting_ = !finished_;
}

bool WorkerCore::StartThread() {
    const PZMutexLock lock(joinMutex_);
    isJoined_ = !thread_.Start(name_);
    return !isJoined_;
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
    const PZMutexLock lock(mutex_);
    finished_ = true;
    accepting_ = false;
    changed_.notify_all();
}

bool WorkerCore::IsOwnThread() const noexcept {
    return isServing_.load() && pthread_equal(servingThread_.load(), pthread_self()) != 0;
}

bool WorkerCore::IsRunning() const noexcept {
    const PZMutexLock lock(mutex_);
    return accepting_;
}

__attribute__((always_inline)) inline Posted WorkerCore::PushPlain(const PlainHead& head,
                                                                   const void* function,
                                                                   std::size_t size,
                                                                   Priority priority) noexcept {
    static_assert(sizeof head == PZLMsgBox::kQuietHead);
    PZIMsgBox::ST_PUSH_MSG_DATA message = {boxId_, kPlain, level_of(priority), function,
                                           static_cast<unsigned int>(size)};
    return Answered(box_.PushQuietly(message, &head, accepting_, false));
}

Posted WorkerCore::PostPlain(const PlainHead& head, const void* function, std::size_t size,
                             Priority priority, std::chrono::milliseconds within) noexcept {
    if (pz_is_rare(IsManual())) return PostPlainByHand(head, function, size, priority);
    if (within > kNone) return PostPlainWithin(head, function, size, priority, within);
    return PushPlain(head, function, size, priority);
}

/// Waits for room when there is none.
Posted WorkerCore::PostPlainWithin(const PlainHead& head, const void* function, std::size_t size,
                                   Priority priority, std::chrono::milliseconds within) noexcept {
    const Posted answer = PushPlain(head, function, size, priority);
    if (answer != Posted::full || !MayWait(within)) return answer;

    const Clock::time_point deadline = deadline_after(within);
    for (int failed = 0; WaitForRoom(deadline, failed); ++failed) {
        const Posted again = PushPlain(head, function, size, priority);
        if (again != Posted::full) return again;
    }
    return accepting_ ? Posted::full : Posted::stopped;
}

/// What the box answers, in the words of a post.
Posted WorkerCore::Answered(PZLMsgBox::EN_QUIET answer) noexcept {
    static_assert(static_cast<int>(Posted::ok) == PZLMsgBox::en_QUIET_OK);
    static_assert(static_cast<int>(Posted::full) == PZLMsgBox::en_QUIET_FULL);
    static_assert(static_cast<int>(Posted::stopped) == PZLMsgBox::en_QUIET_CLOSED);
    return static_cast<Posted>(answer);
}

/// The same for a manual core: in a job.
Posted WorkerCore::PostPlainByHand(const PlainHead& head, const void* function, std::size_t size,
                                   Priority priority) noexcept {
    Posted answer = Posted::stopped;
    Job* const kept = Reserve(kNone, head.place, answer);
    if (kept == nullptr) return answer;
    std::memcpy(kept->room, function, size);
    return Commit(*kept, *head.type, priority);
}

Job* WorkerCore::Reserve(std::chrono::milliseconds within, const Place& place,
                         Posted& answer) noexcept {
    const bool mayWait = MayWait(within);
    // The clock is not read without need: that costs as much as all the rest.
    const Clock::time_point deadline = mayWait ? deadline_after(within) : Clock::time_point();
    int failed = 0;
    do {
        answer = Posted::stopped;
        if (!accepting_) return nullptr;
        answer = Posted::full;
        Job* const job = IsManual() ? TakeByHand() : TakeWithRoom();
        if (job != nullptr) {
            job->place = place;
            return job;
        }
    } while (mayWait && WaitForRoom(deadline, failed++));
    if (!accepting_) answer = Posted::stopped;
    return nullptr;
}

bool WorkerCore::MayWait(std::chrono::milliseconds within) const noexcept {
    return within > kNone && !IsManual() && !IsOwnThread();
}

/// False when there is no room in time, or the service has ended. `failed`: how often there was
/// room, but another thread took it, or memory was short. After many times there is a pause first.
bool WorkerCore::WaitForRoom(Clock::time_point deadline, int failed) noexcept {
    const PZMutexLock lock(mutex_);
    waitingForRoom_.fetch_add(1);
    const auto mayGoOn = [this] { return !accepting_ || box_.CountMessages() < kCapacity; };
    bool goesOn = failed < kMostFailed && mayGoOn();
    // The serving thread tells of room without a lock: one that it overlooks is found soon.
    while (!goesOn && Clock::now() < deadline) {
        lock.WaitUntil(changed_, std::min(deadline, Clock::now() + kLookAgain));
        goesOn = mayGoOn();
    }
    waitingForRoom_.fetch_sub(1);
    // Room that another thread has taken meanwhile is no reason to give up: there is time left.
    return accepting_ && goesOn;
}

/// A free job, and room for its message, under one lock: a post takes only one more then.
Job* WorkerCore::TakeWithRoom() noexcept {
    const PZSyncLock lock(box_.msgSync_);
    Job* const job = TakeFreeLocked();
    if (job == nullptr || box_.ReserveLocked()) return job;
    ReleaseLocked(*job);
    return nullptr;
}

Job* WorkerCore::TakeByHand() noexcept {
    const PZMutexLock lock(mutex_);
    if (manualPending_ >= kCapacity) return nullptr;
    const PZSyncLock jobsLock(box_.msgSync_);
    Job* const job = TakeFreeLocked();
    if (job != nullptr) ++manualPending_;
    return job;
}

void WorkerCore::GiveRoomBack() noexcept {
    if (!IsManual()) return box_.GiveReservedBack();
    const PZMutexLock lock(mutex_);
    --manualPending_;
}

std::size_t WorkerCore::Pending() noexcept {
    if (!IsManual()) return box_.CountMessages();
    const PZMutexLock lock(mutex_);
    return manualPending_;
}

Job* WorkerCore::TakeFreeLocked() noexcept {
    if (free_ != nullptr) return std::exchange(free_, free_->next);
    if (reused_ != served_.load(std::memory_order_acquire)) {
        return &jobs_[servedJobs_[reused_++ % kServedJobs]];
    }
    if (usedJobs_ == kJobs) return nullptr;
    Job& fresh = jobs_[usedJobs_++];
    fresh.state.store(en_STATE_FREE, std::memory_order_relaxed);
    return &fresh;
}

void WorkerCore::ReleaseLocked(Job& job) noexcept {
    job.state.store(en_STATE_FREE, std::memory_order_relaxed);
    job.next = free_;
    free_ = &job;
}

void WorkerCore::Release(Job& job) noexcept {
    const PZSyncLock lock(box_.msgSync_);
    ReleaseLocked(job);
}

// Never takes the lock: the serving thread does not wait for those who post. It alone writes here,
// and there is an entry for each job.
void WorkerCore::ReleaseServed(Job& job) noexcept {
    job.state.store(en_STATE_FREE, std::memory_order_relaxed);
    const unsigned int served = served_.load(std::memory_order_relaxed);
    servedJobs_[served % kServedJobs] = static_cast<unsigned short>(&job - jobs_.get());
    served_.store(served + 1, std::memory_order_release);
}

Posted WorkerCore::Commit(Job& job, const JobType& type, Priority priority) noexcept {
    job.type = &type;
    job.state.store(en_STATE_QUEUED, std::memory_order_release);
    const Posted answer = Enqueue(job, priority);
    if (answer == Posted::ok) return answer;
    // A stop that gives up may have destroyed the function already.
    int expected = en_STATE_QUEUED;
    if (job.state.compare_exchange_strong(expected, en_STATE_TAKEN)) type.drop(job.room);
    Release(job);
    return answer;
}

/// Into the room that was reserved.
Posted WorkerCore::Enqueue(Job& job, Priority priority) noexcept {
    if (IsManual()) return EnqueueByHand(job, level_of(priority));
    PZIMsgBox::ST_PUSH_MSG_DATA message = {boxId_, static_cast<unsigned int>(&job - jobs_.get()),
                                           level_of(priority), nullptr, 0};
    return Answered(box_.PushQuietly(message, nullptr, accepting_, true));
}

Posted WorkerCore::EnqueueByHand(const Job& job, unsigned int level) noexcept {
    const PZMutexLock lock(mutex_);
    try {
        if (accepting_) {
            PZPriorityQueue<QueuedJob>::que entry;
            entry.index = static_cast<unsigned int>(&job - jobs_.get());
            entry.priority = level;
            manualQueue_.push(entry);
            return Posted::ok;
        }
    } catch (const std::bad_alloc&) {
        --manualPending_;
        return Posted::full;
    }
    --manualPending_;
    return Posted::stopped;
}

void WorkerCore::GiveBack(Job& job) noexcept {
    GiveRoomBack();
    NoteTaken();
    Release(job);
}

/// There is room for one more.
__attribute__((always_inline)) inline void WorkerCore::NoteTaken() noexcept {
    if (pz_is_rare(waitingForRoom_.load() != 0)) TellOfRoom();
}

void WorkerCore::TellOfRoom() noexcept {
    const PZMutexLock lock(mutex_);
    changed_.notify_all();
}

void WorkerCore::OnReceiveEvent(unsigned int /*bits*/) {}

bool WorkerCore::RunOne() {
    Job* job = nullptr;
    {
        const PZMutexLock lock(mutex_);
        if (manualQueue_.empty()) return false;
        job = &jobs_[manualQueue_.top().index];
        manualQueue_.pop();
        --manualPending_;
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

// A forced unwind carries no object: the reference that catches it is null. That is so in all
// functions that this one is inlined into.
__attribute__((always_inline, no_sanitize("null"))) inline void WorkerCore::RunFunction(
    const Place& place, const JobType& type, const void* room) {
    runningFile_.store(place.file, std::memory_order_relaxed);
    runningFunction_.store(place.function, std::memory_order_relaxed);
    runningLine_.store(place.line, std::memory_order_relaxed);
    isRunning_.store(true, std::memory_order_release);
    try {
        type.run(const_cast<void*>(room));
    } catch (abi::__forced_unwind&) {
        throw;  // cancellation, pthread_exit: the C library waits for it
    } catch (const std::exception& e) {
        ReportException(place, e.what());
    } catch (...) {
        ReportException(place, "something that is no std::exception");
    }
}

__attribute__((no_sanitize("null"))) void WorkerCore::Execute(Job& job) {
    NoteTaken();
    int expected = en_STATE_QUEUED;
    const bool hasFunction = job.state.compare_exchange_strong(expected, en_STATE_TAKEN);
    // Gives the job back, also when the handler ends its thread.
    const PZScopeEnd taken([this, &job, hasFunction] {
        if (hasFunction) job.type->drop(job.room);
        isRunning_.store(false, std::memory_order_relaxed);
        if (IsManual()) return Release(job);
        ReleaseServed(job);
    });
    if (hasFunction) RunFunction(job.place, *job.type, job.room);
}

__attribute__((always_inline, no_sanitize("null"))) inline void WorkerCore::ExecutePlain(
    const PlainHead& head) {
    NoteTaken();
    if (isDropped_.load(std::memory_order_relaxed)) return;
    // Told also when the handler ends its thread.
    const PZScopeEnd running([this] { isRunning_.store(false, std::memory_order_relaxed); });
    RunFunction(head.place, *head.type, &head + 1);
}

__attribute__((no_sanitize("null"))) void WorkerCore::OnReceiveMsg(unsigned int msgId,
                                                                   const void* buff,
                                                                   unsigned int /*size*/) {
    if (msgId == kPlain) return ExecutePlain(*static_cast<const PlainHead*>(buff));
    if (msgId < kJobs) Execute(jobs_[msgId]);
}

void WorkerCore::ReportException(const Place& place, const char* what) const noexcept {
    PZ_REPORT_ERROR("worker [%s]: what was posted by %s()@%s(%d) threw: %s\n", name_,
                    place.function, base_name(place.file), place.line, what);
}

void WorkerCore::RequestStop() noexcept {
    {
        const PZMutexLock lock(mutex_);
        accepting_ = false;
        changed_.notify_all();
    }
    DetachTimers();
    if (!IsManual() && !isExitRequested_.exchange(true)) box_.Exit();
}

void WorkerCore::DetachTimers() noexcept {
    std::vector<std::shared_ptr<TimerCore>> timers;
    {
        const PZMutexLock lock(mutex_);
        timers.swap(timers_);
    }
    for (const auto& timer : timers) timer->Detach();
}

bool WorkerCore::Keep(const std::shared_ptr<TimerCore>& timer) noexcept {
    const PZMutexLock lock(mutex_);
    if (!accepting_) return false;
    try {
        timers_.push_back(timer);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool WorkerCore::Forget(const TimerCore& timer) noexcept {
    const PZMutexLock lock(mutex_);
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
    if (IsOfParent()) return true;
    RequestStop();
    if (IsOwnThread()) return false;
    if (IsManual()) {
        while (RunOne()) {
        }
        return true;
    }
    if (WaitUntilFinished(deadline_after(within))) return JoinIfFinished();
    DropQueued();
    if (!hangReported_.exchange(true)) ReportHang(within);
    return false;
}

bool WorkerCore::WaitUntilFinished(Clock::time_point deadline) {
    const PZMutexLock lock(mutex_);
    while (!finished_ && lock.WaitUntil(changed_, deadline)) {
    }
    return finished_;
}

bool WorkerCore::JoinIfFinished() noexcept {
    if (IsOfParent()) return false;
    {
        const PZMutexLock lock(mutex_);
        if (!finished_) return false;
    }
    {
        const PZMutexLock lock(joinMutex_);
        if (!isJoined_) thread_.WaitExit();
        isJoined_ = true;
    }
    forget_core(this);
    return true;
}

/// Destroys the functions that wait, without running them. Nothing is accepted any more: after the
/// lock every job is either seen as queued, or refused and destroyed by its poster.
void WorkerCore::DropQueued() noexcept {
    isDropped_ = true;
    unsigned int used = 0;
    {
        const PZSyncLock lock(box_.msgSync_);
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
        runningLine_.load(), static_cast<long long>(box_.HandlerRunsForMs()));
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
    std::size_t left = 0;
    while (const auto core = core_at(index)) {
        if (core->IsOfParent()) {
            ++index;
            continue;
        }
        const bool hasFailed = core->HasFailedToStop();
        if (core->IsRunning()) {
            PZ_REPORT_ERROR("worker [%s] still runs: it is stopped\n", core->Name());
        }
        // One that hung may be about to end.
        if (!core->Stop(hasFailed ? kGrace : core->Options().stop_within)) {
            ++index;
            ++left;
        }
    }
    return left == 0;
}

}  // namespace pz::detail
