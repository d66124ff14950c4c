#include "Framework/Foundation/PZSync.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>

#include "pz_deadline.h"

namespace {

constexpr unsigned int kInfinite = 0xFFFFFFFFU;
constexpr unsigned int kAcquired = 0;
constexpr unsigned int kTimedOut = 1;
constexpr unsigned int kError = 2;
constexpr int kDumpDepth = 10;

/// Waits for the semaphore, also after interruptions: 0, or the error number.
int wait_for(sem_t* handle, unsigned int timeout) {
    int result = 0;
    if (timeout == kInfinite) {
        while ((result = sem_wait(handle)) != 0 && errno == EINTR) {
        }
    } else {
        const timespec deadline = pz_deadline_after(timeout);
        while ((result = sem_timedwait(handle, &deadline)) != 0 && errno == EINTR) {
        }
    }
    return result == 0 ? 0 : errno;
}

}  // namespace

PZSync::PZSync() : handle_(nullptr), type_(en_TYPE_UNNAMED), name_(), owner_(0), nest_(0) {
    handle_ = static_cast<sem_t*>(std::malloc(sizeof(sem_t)));
    if (handle_ == nullptr) {
        PZ_REPORT_ERROR("create error : errno[%d : %s]\n", errno, std::strerror(errno));
        return;
    }
    if (sem_init(handle_, 0, 1) != 0) {
        PZ_REPORT_ERROR("sem_init : errno[%d : %s]\n", errno, std::strerror(errno));
        std::free(handle_);
        handle_ = nullptr;
    }
}

PZSync::PZSync(const char* name, EN_TYPE type)
    : handle_(nullptr), type_(type), name_(), owner_(0), nest_(0) {
    if (name == nullptr) {
        PZ_REPORT_ERROR("invalid arg : name is null\n");
        return;
    }
    std::memcpy(name_, name, strnlen(name, sizeof name_));
    switch (type) {
        case en_TYPE_UNNAMED:
            handle_ = static_cast<sem_t*>(std::malloc(sizeof(sem_t)));
            if (handle_ == nullptr) {
                PZ_REPORT_ERROR("create error : errno[%d : %s]\n", errno, std::strerror(errno));
            } else if (sem_init(handle_, 0, 1) != 0) {
                PZ_REPORT_ERROR("sem_init : errno[%d : %s]\n", errno, std::strerror(errno));
                std::free(handle_);
                handle_ = nullptr;
            }
            break;
        case en_TYPE_NAMED:
            handle_ = sem_open((std::string("/") + name).c_str(), O_CREAT, 0777, 1);
            if (handle_ == SEM_FAILED) {
                PZ_REPORT_ERROR("create error : errno[%d : %s]\n", errno, std::strerror(errno));
                handle_ = nullptr;
            }
            break;
        default:
            PZ_REPORT_ERROR("invalid arg\n");
            break;
    }
}

PZSync::~PZSync() {
    if (handle_ == nullptr) return;
    if (type_ == en_TYPE_NAMED) {
        sem_close(handle_);
        return;
    }
    sem_destroy(handle_);
    std::free(handle_);
}

unsigned int PZSync::Lock(unsigned int timeout) {
    if (handle_ == nullptr) {
        PZ_REPORT_ERROR("handle is not created\n");
        PZCallStack::dumpDirectly(kDumpDepth);
        return kError;
    }
    const pthread_t self = pthread_self();
    if (owner_.load(std::memory_order_relaxed) == self) {
        ++nest_;
        return kAcquired;
    }
    const int error = wait_for(handle_, timeout);
    if (error == ETIMEDOUT && timeout != kInfinite) return kTimedOut;
    if (error != 0) {
        PZ_REPORT_ERROR("create error : errno[%d : %s]\n", error, std::strerror(error));
        return kError;
    }
    owner_.store(self, std::memory_order_relaxed);
    return kAcquired;
}

void PZSync::Unlock() {
    if (handle_ == nullptr) {
        PZ_REPORT_ERROR("handle is not created\n");
        PZCallStack::dumpDirectly(kDumpDepth);
        return;
    }
    if (nest_ > 0) {
        --nest_;
        return;
    }
    owner_.store(0, std::memory_order_relaxed);
    sem_post(handle_);
}
