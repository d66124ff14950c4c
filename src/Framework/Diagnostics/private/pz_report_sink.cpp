#include "pz_report_sink.h"

#include <cxxabi.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_time.h>
#include <Framework/private/pz_uncancelled.h>

namespace {

/// One call of a sink, on the stack of the thread that makes it.
struct ST_CALL {
    PZDbgOutput::Sink sink;
    void* user;
    unsigned int round;  // which sink it is: counted by each exchange
    ST_CALL* next;
};

pthread_cond_t callEnded = PTHREAD_COND_INITIALIZER;
PZDbgOutput::Sink currentSink PZ_GUARDED_BY(pz_report_mutex) = nullptr;
void* currentUser PZ_GUARDED_BY(pz_report_mutex) = nullptr;
unsigned int currentRound PZ_GUARDED_BY(pz_report_mutex) = 0;
ST_CALL* calls PZ_GUARDED_BY(pz_report_mutex) = nullptr;  // those that run

thread_local ST_CALL* callOfThread = nullptr;

/// While one lives, the current sink counts as running.
class Running {
public:
    Running() noexcept { Begin(); }
    ~Running() { End(); }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    const ST_CALL& Call() const { return call_; }

private:
    // Not in the constructor and the destructor, which the analysis of locks leaves out.
    void Begin() noexcept {
        const PZMutexLock lock(pz_report_mutex);
        call_ = {currentSink, currentUser, currentRound, calls};
        calls = &call_;
        callOfThread = &call_;
    }
    void End() noexcept {
        callOfThread = nullptr;
        const PZMutexLock lock(pz_report_mutex);
        ST_CALL** link = &calls;
        while (*link != &call_) link = &(*link)->next;
        *link = call_.next;
        pthread_cond_broadcast(&callEnded);
    }

    ST_CALL call_{};
};

bool runs_before_locked(unsigned int round) PZ_REQUIRES(pz_report_mutex) {
    for (const ST_CALL* call = calls; call != nullptr; call = call->next) {
        if (static_cast<int>(call->round - round) < 0) return true;
    }
    return false;
}

long long now_ns() {
    timespec now = {};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0) return 0;
    return pz_ns_of(now);
}

const char* or_empty(const char* text) {
    return text != nullptr ? text : "";
}

bool call_with_record(const ST_CALL& call, const ST_REPORT& report) {
    PZReportLine message;
    std::string_view said(report.text + report.messageAt);
    if (!said.empty() && said.back() == '\n') said.remove_suffix(1);
    message.Add(said);
    char thread[16] = {};
    prctl(PR_GET_NAME, thread);
    const PZDbgOutput::ST_RECORD record = {report.isTagged,
                                           report.tag,
                                           now_ns(),
                                           thread,
                                           static_cast<int>(syscall(SYS_gettid)),
                                           or_empty(report.file),
                                           or_empty(report.func),
                                           report.line,
                                           report.error,
                                           message.Text(),
                                           PZReportObject::Current(PZReportObject::en_PATH),
                                           PZReportObject::Current(PZReportObject::en_THREAD),
                                           PZReportObject::Current(PZReportObject::en_WORKER)};
    return call.sink(record, call.user);
}

}  // namespace

// A forced unwind carries no object: the reference that catches it is null.
__attribute__((no_sanitize("null"))) bool pz_tell_report_sink(const ST_REPORT& report) {
    if (callOfThread != nullptr) return true;
    const Running running;
    if (running.Call().sink == nullptr) return true;
    try {
        return call_with_record(running.Call(), report);
    } catch (abi::__forced_unwind&) {
        throw;  // cancellation: the C library waits for it
    } catch (...) {
        return true;
    }
}

void pz_set_report_sink(PZDbgOutput::Sink sink, void* user) {
    const PZUncancelled whole;
    const PZMutexLock lock(pz_report_mutex);
    currentSink = sink;
    currentUser = user;
    if (sink != nullptr) {
        pz_report_way.fetch_or(kReportsToSink);
    } else {
        pz_report_way.fetch_and(~kReportsToSink);
    }
    ++currentRound;
    if (callOfThread != nullptr) return;
    const unsigned int round = currentRound;
    while (runs_before_locked(round)) lock.Wait(callEnded);
}

void pz_keep_report_sink_in_child() {
    calls = callOfThread;
    if (calls != nullptr) calls->next = nullptr;
    callEnded = PTHREAD_COND_INITIALIZER;
}
