#ifndef PZ_FRAMEWORK_EASY_WORKER_H
#define PZ_FRAMEWORK_EASY_WORKER_H

/// @file
/// A thread that runs what is posted to it.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include <Framework/Easy/Place.h>
#include <Framework/Easy/Timer.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/PZApi.h>

class PZIMsgBox;

namespace pz {

/// What became of a post.
enum class Posted {
    ok,       ///< it will be run
    full,     ///< no room, or no memory: nothing is posted
    stopped,  ///< the worker does not run, or ends: nothing is posted
    empty     ///< an empty std::function or null pointer (reported): nothing is posted
};

/// What is run first. Values between these are valid too; above 255 they count as 255. Posts of
/// equal priority are run in their order.
enum class Priority : unsigned int {
    emergency = 0,
    high = 64,
    normal = 128,
    low = 192,
    lowest = 255
};

/// Why a call has no result.
enum class CallError {
    none,        ///< it has one
    own_thread,  ///< called on the worker's own thread, which would wait for itself
    stopped,     ///< the worker does not run, or ended before the call was run
    failed       ///< the function threw (reported)
};

/// What a call came to: a value, or the reason why there is none.
template <typename T>
class [[nodiscard]] Called {
public:
    /// Without a value.
    Called(CallError error) : error_(error) {}  // NOLINT(google-explicit-constructor)
    /// With one.
    explicit Called(std::optional<T> value) : value_(std::move(value)) {}

    /// Whether there is a value.
    explicit operator bool() const noexcept { return value_.has_value(); }
    /// The value; there must be one.
    /// @{
    T& operator*() { return *value_; }
    const T& operator*() const { return *value_; }
    T* operator->() { return &*value_; }
    const T* operator->() const { return &*value_; }
    /// @}
    /// The value, or `other` when there is none.
    T value_or(T other) const { return value_.value_or(std::move(other)); }
    /// CallError::none when there is a value.
    CallError error() const noexcept { return error_; }

private:
    std::optional<T> value_{};
    CallError error_ = CallError::none;
};

/// The same for a function without a result.
template <>
class [[nodiscard]] Called<void> {
public:
    /// None: the function has returned.
    Called(CallError error) : error_(error) {}  // NOLINT(google-explicit-constructor)

    /// Whether the function has returned.
    explicit operator bool() const noexcept { return error_ == CallError::none; }
    /// CallError::none when it has.
    CallError error() const noexcept { return error_; }

private:
    CallError error_;
};

/// Options of a worker. A priority or watch time that is out of range counts as the nearest that is
/// not.
struct WorkerOptions {
    /// Without one, the worker has the priority of the thread that makes it.
    std::optional<EN_WORKER_PRIORITY> priority{};
    /// A function that runs longer counts as hanging for PZSupervisor and pz-top; 0: never.
    std::chrono::milliseconds watch_time{4000};
    /// How long the destructor waits at most; 0 and less does not wait.
    std::chrono::milliseconds stop_within{3000};
    /// Names the worker in the reports of its message box.
    unsigned int number = 0;
};

namespace detail {

/// How a stored function is run and destroyed, whatever its type.
struct JobType {
    void (*run)(void* room);
    void (*drop)(void* room) noexcept;
};

/// A place of a worker's pool for one posted function.
struct Job {
    static constexpr std::size_t kRoom = 200;  // bytes; larger functions are allocated
    static constexpr std::size_t kAlignment = alignof(std::max_align_t);

    Job* next;
    const JobType* type;
    Place place;
    std::atomic<int> state;  // the worker's business
    alignas(kAlignment) unsigned char room[kRoom];
};

template <typename F>
constexpr bool fits_in_room() {
    if (alignof(F) > Job::kAlignment) return false;
    return sizeof(F) <= Job::kRoom;
}

/// A posted function that is nothing but bytes: it lies in the message itself, after this.
struct PlainHead {
    const JobType* type;
    Place place;
};
static_assert(sizeof(PlainHead) % alignof(void*) == 0, "the function after it is aligned");

/// Whether a copy of its bytes is the function, and nothing need be destroyed.
template <typename F>
constexpr bool is_plain() {
    if (!fits_in_room<F>()) return false;
    return std::is_trivially_copyable_v<F> && alignof(F) <= alignof(void*);
}

/// The function itself is in the room.
template <typename F>
struct StoredHere {
    static F* Get(void* room) { return std::launder(static_cast<F*>(room)); }
    template <typename G>
    static bool Put(void* room, G&& function) {
        new (room) F(std::forward<G>(function));
        return true;
    }
    static void Run(void* room) { (*Get(room))(); }
    static void Drop(void* room) noexcept { Get(room)->~F(); }
    static constexpr JobType kType = {&Run, &Drop};
};

/// The room holds the address of the function.
template <typename F>
struct StoredElsewhere {
    static F* Get(void* room) { return *std::launder(static_cast<F**>(room)); }
    template <typename G>
    static bool Put(void* room, G&& function) {
        F* const stored = new (std::nothrow) F(std::forward<G>(function));
        if (stored == nullptr) return false;
        new (room) F*(stored);
        return true;
    }
    static void Run(void* room) { (*Get(room))(); }
    static void Drop(void* room) noexcept { delete Get(room); }
    static constexpr JobType kType = {&Run, &Drop};
};

template <typename F>
using Stored = std::conditional_t<fits_in_room<F>(), StoredHere<F>, StoredElsewhere<F>>;

template <typename F, typename = void>
struct can_be_empty : std::false_type {};
template <typename F>
struct can_be_empty<F,
                    std::void_t<decltype(static_cast<bool>(std::declval<const F&>() == nullptr))>>
    : std::true_type {};

/// True for a std::function without a target and for a null pointer.
template <typename F>
bool is_empty(const F& function) {
    if constexpr (can_be_empty<F>::value) {
        return function == nullptr;
    } else {
        return false;
    }
}

/// True for a null pointer.
template <typename F>
bool is_null(const F& function) {
    if constexpr (std::is_pointer_v<F>) {
        return is_empty(function);
    } else {
        return false;
    }
}

/// What a call of the function answers.
template <typename F>
struct ResultOf {
    static_assert(std::is_invocable_v<F&>, "what is called takes no arguments");
    using Type = std::decay_t<std::invoke_result_t<F&>>;
};

class WorkerCore;

/// The worker's part of a post: a place in the pool, between asking for it and handing it in.
class PZ_API Posting {
public:
    /// Waits for room until `within` is over, at most.
    Posting(WorkerCore* core, std::chrono::milliseconds within, const Place& place) noexcept;
    /// Releases the place, unless it was handed in.
    ~Posting();

    Posting(const Posting&) = delete;
    Posting& operator=(const Posting&) = delete;

    /// Null when there is none; `answer` tells why.
    Job* job() const noexcept { return job_; }
    Posted answer() const noexcept { return answer_; }

    /// Hands the job in: its function is the worker's now, whatever the answer.
    Posted Commit(const JobType& type, Priority priority) noexcept;

private:
    WorkerCore* const core_;
    Job* job_ = nullptr;
    Posted answer_ = Posted::stopped;
};

/// Posts the `size` bytes of a function.
PZ_API Posted post_plain(WorkerCore* core, const PlainHead& head, const void* function,
                         std::size_t size, Priority priority,
                         std::chrono::milliseconds within) noexcept;

/// Reports a post that is refused, and answers it.
PZ_API Posted refused(const WorkerCore* core, Posted answer, const Place& place) noexcept;

/// Posts `function`; what is refused is not reported.
template <typename F>
Posted post(WorkerCore* core, F&& function, Priority priority, std::chrono::milliseconds within,
            const Place& place) {
    using Function = std::decay_t<F>;
    static_assert(std::is_invocable_v<Function&>, "what is posted is called without arguments");
    if (is_empty<Function>(function)) return refused(core, Posted::empty, place);
    if constexpr (is_plain<Function>()) {
        static_assert(std::is_constructible_v<Function, F>,
                      "what is posted can be copied or moved");
        // Field by field: the line was just written with four bytes, and read with eight it is
        // late.
        const PlainHead head = {&StoredHere<Function>::kType,
                                {place.file, place.function, place.line}};
        const Function& bytes = function;  // the object itself, or a pointer to the function
        return post_plain(core, head, &bytes, sizeof bytes, priority, within);
    } else {
        Posting posting(core, within, place);
        if (posting.job() == nullptr) return posting.answer();
        try {
            if (!Stored<Function>::Put(posting.job()->room, std::forward<F>(function))) {
                return Posted::full;
            }
        } catch (const std::bad_alloc&) {
            return Posted::full;
        }
        return posting.Commit(Stored<Function>::kType, priority);
    }
}

/// Where a caller waits for the end of what it has posted.
class PZ_API Reply {
public:
    Reply() = default;

    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    /// For the thread that serves.
    void Finish(CallError outcome) noexcept;
    /// For the thread that waits, with `core` once it is posted there.
    CallError Wait(WorkerCore* core);

private:
    bool IsFinished();

    std::mutex mutex_{};  // Clang's analysis does not know it
    std::condition_variable finished_{};
    std::optional<CallError> outcome_{};  // guarded by mutex_
};

/// Whether the calling thread is the one that serves.
PZ_API bool is_own_thread(const WorkerCore* core) noexcept;

/// Runs a caller's function for it, and tells it the outcome in any case.
template <typename Body>
class CallJob {
public:
    CallJob(Body& body, Reply& reply) : body_(&body), reply_(&reply) {}
    CallJob(CallJob&& other) noexcept
        : body_(other.body_),
          reply_(std::exchange(other.reply_, nullptr)),
          outcome_(other.outcome_) {}
    CallJob(const CallJob&) = delete;
    CallJob& operator=(const CallJob&) = delete;
    ~CallJob() {
        if (reply_ != nullptr) reply_->Finish(outcome_);
    }

    void operator()() {
        outcome_ = CallError::failed;
        (*body_)();
        outcome_ = CallError::none;
    }

private:
    Body* body_;
    Reply* reply_;
    CallError outcome_ = CallError::stopped;
};

/// Has `body` run on the worker's thread and waits for that.
template <typename Body>
CallError call(WorkerCore* core, Body& body, const Place& place) {
    if (is_own_thread(core)) return CallError::own_thread;
    Reply reply;
    const Posted posted = post(core, CallJob<Body>(body, reply), Priority::normal,
                               std::chrono::milliseconds::max(), place);
    return posted == Posted::ok ? reply.Wait(core) : CallError::stopped;
}

}  // namespace detail

/// A thread with a message box that runs what is posted to it, one function after the other.
///
///     pz::Worker tuner("tuner");
///     tuner.post([this, khz] { tune(khz); });
///
/// Life:       runs from its constructor to its destructor; make a pz::Framework first. The
///             destructor serves what is posted, for at most `stop_within`; see stop. As a member
///             it comes after those that its functions use.
///             A forked child leaves it alone.
/// Threads:    any thread may call anything, and so may a function that the worker runs. The worker
///             must outlive the calls on it.
/// Ownership:  a posted function is moved or copied into the worker, and destroyed on the worker's
///             thread after it has run. If it is never run, the stop that gives up destroys it.
/// Cost:       256 posts have room. A function of up to 200 bytes is stored in the worker; a larger
///             one is allocated. One that is trivially copyable is posted fastest.
/// Exceptions: one that leaves a posted function is reported, and the worker continues. None leaves
///             an operation here, except from copying a function when it is posted (a lack of
///             memory there is answered).
/// Failures:   answered, and reported where an operation says so.
class PZ_API Worker {
public:
    /// Another name of WorkerOptions.
    using Options = WorkerOptions;

    /// Starts the thread. The kernel shows the first 15 characters of `name`, reports show 127;
    /// null is "no_name". A worker that could not be started (reported; no thread or no memory) is
    /// false, and answers every post with Posted::stopped.
    [[nodiscard]] explicit Worker(const char* name, const Options& options = Options()) noexcept;

    /// stop(options.stop_within). What a hanging handler uses of the worker stays. After a stop
    /// that has failed, the destructor does not wait again.
    ///
    /// When a function of the worker destroys it, the thread ends after that function has returned
    /// and what is posted by then has been run.
    ~Worker();

    /// A worker that was moved from is false, and answers every post with Posted::stopped.
    Worker(Worker&& other) noexcept;
    /// Stops the worker that was here before.
    Worker& operator=(Worker&& other) noexcept;

    /// Whether posts are taken.
    explicit operator bool() const noexcept;

    /// Has `function` run on the worker's thread. Never waits. Posted::full and Posted::empty are
    /// reported.
    template <typename F>
    Posted post(F&& function, Priority priority = Priority::normal,
                const Place& place = Place::here()) {
        const Posted posted = detail::post(core_.get(), std::forward<F>(function), priority,
                                           std::chrono::milliseconds::zero(), place);
        return posted == Posted::full ? detail::refused(core_.get(), posted, place) : posted;
    }

    /// Like post, but waits for room: Posted::full when there is none `within` the time (not
    /// reported). 0 and less does not wait. The worker's own thread does not wait either, because
    /// only it makes room.
    template <typename F>
    [[nodiscard]] Posted post_wait(F&& function, std::chrono::milliseconds within,
                                   Priority priority = Priority::normal,
                                   const Place& place = Place::here()) {
        return detail::post(core_.get(), std::forward<F>(function), priority, within, place);
    }

    /// Has `function` run on the worker's thread, waits for that without a time limit, and answers
    /// its result. The function is not copied. A reference is answered as a copy.
    ///
    /// Answered with an error, at once, on the worker's own thread and when the worker does not
    /// run; with CallError::stopped also when a stop gives up meanwhile. A null pointer and an
    /// empty std::function are answered with CallError::failed (reported).
    template <typename F>
    auto call(F&& function, const Place& place = Place::here())
        -> Called<typename detail::ResultOf<F>::Type> {
        using Result = typename detail::ResultOf<F>::Type;
        if (detail::is_null<std::decay_t<F>>(function)) {
            detail::refused(core_.get(), Posted::empty, place);
            return CallError::failed;
        }
        if constexpr (std::is_void_v<Result>) {
            return detail::call(core_.get(), function, place);
        } else {
            std::optional<Result> result;
            auto body = [&] { result.emplace(function()); };
            const CallError error = detail::call(core_.get(), body, place);
            if (error != CallError::none) return error;
            return Called<Result>(std::move(result));
        }
    }

    /// Has `function` run on the worker's thread every `period`, first after one period. A period
    /// of less than 1 ms is refused. So are, as in after, an empty function and a worker that does
    /// not run. The timer is false then (reported).
    template <typename F>
    [[nodiscard]] Timer every(std::chrono::milliseconds period, F&& function,
                              Priority priority = Priority::normal,
                              const Place& place = Place::here()) {
        return MakeTimer(std::forward<F>(function), {period, true, priority, place});
    }

    /// Has `function` run once, after `delay`; 0 and less runs it at once, as a post. It is not
    /// lost if there is no room then.
    template <typename F>
    [[nodiscard]] Timer after(std::chrono::milliseconds delay, F&& function,
                              Priority priority = Priority::normal,
                              const Place& place = Place::here()) {
        return MakeTimer(std::forward<F>(function), {delay, false, priority, place});
    }

    /// The time of the worker's timers, which runs steadily from some start. A worker of a test has
    /// the time of the test's clock.
    std::chrono::milliseconds now() const;

    /// Takes no more posts, ends its timers, runs what is posted, and ends the thread: true when it
    /// has ended `within` the time, or before.
    ///
    /// Otherwise false, with one report that names the worker, the place where the running handler
    /// was posted, and how long it has been running. The calling thread destroys what is still
    /// posted; it is not run. What the handler uses of the worker stays until it has returned. A
    /// later call waits once more. A time of 0 and less does not wait.
    ///
    /// On the worker's own thread: false at once, without a report; the worker ends as described.
    [[nodiscard]] bool stop(std::chrono::milliseconds within);

    /// stop(options.stop_within).
    [[nodiscard]] bool stop();

    /// The name given to the constructor; "" for a worker that was moved from.
    const char* name() const noexcept;

    /// Whether the calling thread is the worker's own.
    bool is_own_thread() const noexcept { return detail::is_own_thread(core_.get()); }

    /// Posts that wait to be run, messages of units included.
    std::size_t pending() const noexcept;

    /// The message box, for units (PZUnitFrame). Lives as long as the worker; null when there is
    /// none. Units share the room with the posts.
    PZIMsgBox* box() const noexcept;

    /// For the other classes of this layer.
    const std::shared_ptr<detail::WorkerCore>& core() const noexcept { return core_; }

protected:
    /// A worker that runs elsewhere, see pz::test::SyncWorker.
    explicit Worker(std::shared_ptr<detail::WorkerCore> core) noexcept;

private:
    template <typename F>
    Timer MakeTimer(F&& function, const detail::TimerRequest& request) {
        if (detail::is_empty<std::decay_t<F>>(function)) {
            detail::refused(core_.get(), Posted::empty, request.place);
            return Timer();
        }
        return Timer(
            detail::start_timer(core_, detail::timer_function(std::forward<F>(function)), request));
    }

    std::shared_ptr<detail::WorkerCore> core_;  // null: no memory, or moved from
};

}  // namespace pz

#endif  // PZ_FRAMEWORK_EASY_WORKER_H
