#ifndef PZ_FRAMEWORK_FOUNDATION_PZTHREAD_H
#define PZ_FRAMEWORK_FOUNDATION_PZTHREAD_H

#include <cxxabi.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Wrapper/pz_stdlib.h>

/// Runs the life of an object on a thread of its own, registered with PZThreadMng.
///
/// The object's class T supplies the phases, all called on the new thread:
///
///     int  Initialize();   // 0 continues; anything else ends the thread at once
///     void MainProc();     // the thread's loop: its return ends the thread
///     void Finalize();     // after MainProc has returned
///
/// The thread is registered before Initialize, and stays registered after its end until WaitExit.
/// If there is no memory for its record (reported), it runs unregistered.
///
/// Before:    call pz_FwInitialize first: the new thread may make singletons, whose list has no
///            lock (see PZSingletonFinalizer).
/// Threads:   Start, WaitExit and SetPriority belong to one controlling thread. WaitExit cannot
///            stop the thread: the owner makes MainProc return first.
/// Ownership: the owner object is not owned and must outlive the thread. Destruction neither stops
///            nor joins the thread: call WaitExit before.
/// Failures:  reported and answered with a result; only the constructor throws (std::bad_alloc). An
///            exception thrown by a phase ends the thread quietly, without the phases that follow;
///            cancellation and pthread_exit pass through.
template <typename T>
class PZThread {
public:
    /// `watchTime` (milliseconds) is what the thread is registered with. No thread is made yet.
    PZThread(T* owner, unsigned int watchTime)
        : self_(this), owner_(owner), watchTime_(watchTime), sync_(std::make_unique<PZSync>()) {}

    virtual ~PZThread() = default;

    PZThread(const PZThread&) = delete;
    PZThread& operator=(const PZThread&) = delete;

    /// Creates the thread. The kernel shows the first 15 characters of `name`; null is "no_name",
    /// 128 characters or more are cut to 127; getName's result is a valid argument. False, and
    /// reported, when a thread exists already (it is left alone), there is no owner, or the system
    /// refuses (Start may be tried again).
    bool Start(const char* name) {
        if (isStarted() || owner_ == nullptr) {
            PZ_REPORT_ERROR("error [%s]\n", Printable(name));
            return false;
        }
        // Written here for the last time: from now on both threads read it.
        if (name != name_) {
            pz_strncpy(name_, sizeof name_, name != nullptr ? name : "no_name", sizeof name_ - 1);
        }

        if (pthread_create(&handle_, nullptr, WrappedEntry, &self_) != 0) {
            handle_ = kNoThread;  // its value is undefined now
            PZ_REPORT_ERROR("PZThread::Start() failed !! [%s]\r\n", Printable(name));
            return false;
        }
        char kernelName[16];
        pz_strncpy(kernelName, sizeof kernelName, name_, sizeof kernelName - 1);
        pthread_setname_np(handle_, kernelName);  // a failure does no harm
        return true;
    }

    /// The thread's entry; `arg` is the address of a pointer to the PZThread. Always null.
    // A forced unwind carries no object. The reference that catches it is therefore null, which
    // the undefined-behaviour sanitizer would take for a mistake.
    __attribute__((no_sanitize("null"))) static void* WrappedEntry(void* arg) {
        if (arg == nullptr) return nullptr;
        PZThread* const thread = *static_cast<PZThread**>(arg);
        try {
            thread->Register();
            thread->RunPhases();
        } catch (abi::__forced_unwind&) {
            throw;  // cancellation, pthread_exit: the C library waits for it
        } catch (...) {
            // Ends the thread, no more.
        }
        return nullptr;
    }

    /// Waits without limit for the thread's end and unregisters it; then it can be started again.
    /// The result of the join: 0 on success, else its error number (reported; the thread is
    /// forgotten anyway). 0 at once when there is no thread.
    int WaitExit() {
        const int result = Join();
        if (result != 0) {
            PZ_REPORT_ERROR_ON(THREAD, name_, "pthread_join failed !! ret[%d] errno[%d : %s]\n",
                               result, pz_get_last_err(), pz_get_last_err_string());
        }
        return result;
    }

    /// WaitExit without its report, for an owner that reports in its own words. Leaves in errno
    /// what the join left there.
    int Join() {
        if (!isStarted()) return 0;
        const int result = pthread_join(handle_, nullptr);
        const int error = errno;
        Unregister();
        handle_ = kNoThread;
        tid_ = kNoTid;
        errno = error;
        return result;
    }

    /// The thread's wide priority, see PZThreadMng::GetPriority; -1, with a report, while the
    /// thread does not run.
    int GetPriority() { return GetPriority(handle_); }

    /// Sets the thread's wide priority, see PZThreadMng::SetPriority. Waits up to 50 ms for a
    /// thread that was just created. False, and reported, when there is none by then.
    bool SetPriority(int priority) {
        constexpr int kPolls = 5;
        constexpr unsigned int kPollMs = 10;
        for (int poll = 0; tid_ == kNoTid && poll < kPolls; ++poll) {
            pz_msleep(kPollMs);
        }
        const int tid = tid_;
        if (tid == kNoTid) {
            PZ_REPORT_ERROR_ON(THREAD, name_,
                               "invalid thread id\n");  // the kernel refuses it below
        }
        return PZThreadMng::GetInstance()->SetPriority(handle_, priority,
                                                       static_cast<unsigned int>(tid));
    }

    /// The name that Start stored last (at most 127 characters), empty before; a buffer of 128
    /// bytes inside the object.
    const char* getName() const noexcept { return name_; }

    /// True from a successful Start until WaitExit, also when the thread has ended meanwhile.
    bool isStarted() const noexcept { return handle_ != kNoThread; }

private:
    static constexpr pthread_t kNoThread = static_cast<pthread_t>(-1);
    static constexpr int kNoTid = -1;

    static const char* Printable(const char* name) { return name != nullptr ? name : "(null)"; }

    // On the new thread. Its handle is taken from pthread_self: pthread_create may not have stored
    // it for the controlling thread yet. What it owes to others must not fail for its own record:
    // it continues without one.
    void Register() {
        tid_ = static_cast<int>(syscall(SYS_gettid));
        const pthread_t handle = pthread_self();
        try {
            const int priority = GetPriority(handle);
            PZThreadMng* const registry = PZThreadMng::GetInstance();
            registry->registerThreadInfo(handle, name_, priority, watchTime_);
            registry->claimThreadInfo(handle, this);
        } catch (const std::bad_alloc&) {
            PZ_REPORT_ERROR_ON(THREAD, name_,
                               "failed to allocate memory\n");  // there was no registry yet
        }
    }

    void Unregister() {
        try {
            PZThreadMng::GetInstance()->releaseThreadInfo(handle_, this, tid_);
        } catch (const std::bad_alloc&) {
            // There is no registry, and so no record.
        }
    }

    void RunPhases() {
        if (owner_->Initialize() != 0) return;
        owner_->MainProc();
        owner_->Finalize();
    }

    int GetPriority(pthread_t handle) {
        const int tid = tid_;
        if (tid == kNoTid) {
            PZ_REPORT_ERROR_ON(THREAD, name_, "invalid thread id\n");
            return -1;
        }
        return PZThreadMng::GetInstance()->GetPriority(handle, static_cast<unsigned int>(tid));
    }

    PZThread* self_;  // its address is the argument of WrappedEntry
    T* const owner_;
    char name_[128] = {};
    pthread_t handle_ = kNoThread;  // changed by the controlling thread only
    std::atomic<int> tid_{kNoTid};  // kernel thread id; set by the new thread, -1 again by WaitExit
    const unsigned int watchTime_;
    const std::unique_ptr<PZSync> sync_;  // for users that need one each; nothing takes it yet
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZTHREAD_H
