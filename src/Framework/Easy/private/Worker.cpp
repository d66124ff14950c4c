#include "Framework/Easy/Worker.h"

#include <Framework/Diagnostics/PZReport.h>

#include "WorkerCore.h"

namespace pz {

namespace detail {

Posting::Posting(WorkerCore* core, std::chrono::milliseconds within, const Place& place) noexcept
    : core_(core) {
    if (core_ != nullptr) job_ = core_->Reserve(within, place, answer_);
}

Posting::~Posting() {
    if (job_ != nullptr) core_->GiveBack(*job_);
}

Posted Posting::Commit(const JobType& type, Priority priority) noexcept {
    Job& job = *std::exchange(job_, nullptr);
    return core_->Commit(job, type, priority);
}

Posted post_plain(WorkerCore* core, const PlainHead& head, const void* function, std::size_t size,
                  Priority priority, std::chrono::milliseconds within) noexcept {
    if (core == nullptr) return Posted::stopped;
    return core->PostPlain(head, function, size, priority, within);
}

Posted refused(const WorkerCore* core, Posted answer, const Place& place) noexcept {
    const char* const why = answer == Posted::empty ? "an empty function" : "no room";
    PZ_REPORT_ERROR("worker [%s] refuses a post of %s()@%s(%d): %s\n",
                    core != nullptr ? core->Name() : "", place.function, base_name(place.file),
                    place.line, why);
    return answer;
}

bool is_own_thread(const WorkerCore* core) noexcept {
    return core != nullptr && core->IsOwnThread();
}

// Told under the lock: once the waiting thread has it, the reply is gone.
void Reply::Finish(CallError outcome) noexcept {
    const std::lock_guard<std::mutex> lock(mutex_);
    outcome_ = outcome;
    finished_.notify_all();
}

CallError Reply::Wait(WorkerCore* core) {
    if (core->IsManual()) {
        while (!IsFinished() && core->RunOne()) {
        }
    }
    std::unique_lock<std::mutex> lock(mutex_);
    finished_.wait(lock, [this] { return outcome_.has_value(); });
    return *outcome_;
}

bool Reply::IsFinished() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return outcome_.has_value();
}

namespace {

/// A core whose thread serves; null, reported, when it cannot be had.
std::shared_ptr<WorkerCore> start_core(const char* name, const WorkerOptions& options) noexcept {
    try {
        join_finished_cores();
        auto core = std::make_shared<WorkerCore>(WorkerCore::Kind::thread, name, options);
        core->Start();
        return core;
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("worker [%s]: no memory\n", name != nullptr ? name : "no_name");
        return nullptr;
    }
}

}  // namespace

}  // namespace detail

Worker::Worker(const char* name, const Options& options) noexcept
    : core_(detail::start_core(name, options)) {}

Worker::Worker(std::shared_ptr<detail::WorkerCore> core) noexcept : core_(std::move(core)) {}

Worker::Worker(Worker&& other) noexcept = default;

Worker& Worker::operator=(Worker&& other) noexcept {
    if (this != &other) {
        const Worker former(std::move(*this));
        core_ = std::move(other.core_);
    }
    return *this;
}

Worker::~Worker() {
    if (core_ == nullptr) return;
    const bool isLeft = core_->HasFailedToStop();
    static_cast<void>(stop(isLeft ? std::chrono::milliseconds(0) : core_->Options().stop_within));
}

Worker::operator bool() const noexcept {
    return core_ != nullptr && core_->IsRunning();
}

bool Worker::stop(std::chrono::milliseconds within) {
    return core_ == nullptr || core_->Stop(within);
}

bool Worker::stop() {
    return core_ == nullptr || stop(core_->Options().stop_within);
}

std::chrono::milliseconds Worker::now() const {
    return std::chrono::milliseconds(core_ != nullptr ? core_->NowMs() : 0);
}

const char* Worker::name() const noexcept {
    return core_ != nullptr ? core_->Name() : "";
}

std::size_t Worker::pending() const noexcept {
    return core_ != nullptr ? core_->Pending() : 0;
}

PZIMsgBox* Worker::box() const noexcept {
    return core_ != nullptr ? core_->Box() : nullptr;
}

}  // namespace pz
