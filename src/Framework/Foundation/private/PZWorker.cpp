#include "Framework/Foundation/PZWorker.h"

#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/PZThread.h>

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
    // A thread object that is there refuses when its thread runs and starts again otherwise.
    if (thread_ == nullptr) thread_ = new PZThread<PZWorker>(this, watchTime_);
    if (!thread_->Start(name)) return -1;
    return msgBox_->InitWait(kStartLimitMs) == 0 ? 0 : -1;
}

void PZWorker::End(unsigned int /*timeout*/) {
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
    msgBox_->Loop(workerNo_);
}

void PZWorker::Finalize() {}
