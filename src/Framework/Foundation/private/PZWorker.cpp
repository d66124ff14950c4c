#include "Framework/Foundation/PZWorker.h"

#include <new>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/private/pz_probes.h>

namespace {

constexpr unsigned int kStartLimitMs = 3000;
constexpr int kNoThreadPriority = 256;  // outside the wide scale

}  // namespace

PZWorker::PZWorker(int /*id*/, unsigned int watchTime, unsigned int workerNo)
    : msgBox_(std::make_unique<PZLMsgBox>()),
      thread_(nullptr),
      watchTime_(watchTime),
      workerNo_(workerNo) {}

// The thread object stays: a thread that was not joined may still use it.
PZWorker::~PZWorker() = default;

int PZWorker::Start(const char* name) {
    const PZReportObject named(PZReportObject::en_WORKER, name);
    // A loop that nobody could wake or end is not begun.
    if (!msgBox_->MakeEvents() || !MakeThreadObject()) return -1;
    if (!thread_->Start(name)) return -1;
    return msgBox_->InitWait(kStartLimitMs) == 0 ? 0 : -1;
}

/// False, and reported, without memory.
bool PZWorker::MakeThreadObject() {
    // One that is there refuses to start when its thread runs, and starts again otherwise.
    if (thread_ != nullptr) return true;
    try {
        thread_ = new PZThread<PZWorker>(this, watchTime_);
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR_OF("Start", "failed to allocate memory\n");
    }
    return thread_ != nullptr;
}

void PZWorker::End(unsigned int /*timeout*/) {
    if (thread_ != nullptr && thread_->isStarted() && msgBox_->IsOfParent()) return;
    msgBox_->Exit();
    if (thread_ == nullptr) return;
    if (thread_->WaitExit() != 0) return;
    delete thread_;
    thread_ = nullptr;
}

bool PZWorker::SetPriority(EN_WORKER_PRIORITY p) const {
    return thread_ != nullptr && thread_->SetPriority(p);
}

int PZWorker::GetPriority() const {
    return thread_ != nullptr ? thread_->GetPriority() : kNoThreadPriority;
}

PZIMsgBox* PZWorker::GetMsgBox() const {
    return msgBox_.get();
}

const char* PZWorker::getName() const {
    return thread_ != nullptr ? thread_->getName() : "";
}

int PZWorker::Initialize() {
    return msgBox_->Init();
}

void PZWorker::MainProc() {
    const PZReportObject self(PZReportObject::en_WORKER, getName());  // in all that it reports
    PZ_PROBE(worker_start, msgBox_.get(), workerNo_, getName());
    msgBox_->Loop(workerNo_);
    PZ_PROBE(worker_end, msgBox_.get(), workerNo_);
}

void PZWorker::Finalize() {}
