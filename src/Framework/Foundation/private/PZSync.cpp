#include "Framework/Foundation/PZSync.h"

#include <fcntl.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/private/pz_numbers.h>
#include <Framework/private/pz_probes.h>
#include <Framework/private/pz_time.h>

#include "../../Diagnostics/private/PZInspection.h"
#include "../../Diagnostics/private/PZNamedPath.h"
#include "pz_deadline.h"
#include "pz_tsan.h"

namespace {

constexpr unsigned int kFree = 1;  // value of a semaphore that nobody holds

// Results of Lock.
constexpr unsigned int kAcquired = 0;
constexpr unsigned int kTimedOut = 1;
constexpr unsigned int kError = 2;

/// Makes the semaphore "/name", or opens it as it is; null with errno set when that fails.
sem_t* open_semaphore(const char* name) {
    char* path = nullptr;  // whole, however long: the system says what it thinks of it
    if (asprintf(&path, "/%s", name) == -1) {
        errno = ENOMEM;
        return nullptr;
    }
    sem_t* const semaphore = sem_open(path, O_CREAT, 0777, kFree);
    const int error = errno;
    std::free(path);
    errno = error;
    return semaphore != SEM_FAILED ? semaphore : nullptr;
}

int wait_until(sem_t* semaphore, const PZDeadline& deadline) {
    return deadline.clock == CLOCK_REALTIME
               ? sem_timedwait(semaphore, &deadline.time)
               : sem_clockwait(semaphore, deadline.clock, &deadline.time);
}

/// True when a thread that waits now would have to sleep.
bool is_held(sem_t* semaphore) {
    int value = 0;
    return sem_getvalue(semaphore, &value) == 0 && value <= 0;
}

/// Waits for the semaphore, on and on through interruptions: 0, or the error number.
int wait_for(sem_t* semaphore, unsigned int timeout) {
    int result = 0;
    if (timeout == kNoTimeLimit) {
        do {
            result = sem_wait(semaphore);
        } while (result != 0 && errno == EINTR);
    } else {
        const PZDeadline deadline = pz_deadline_after(timeout);
        do {
            result = wait_until(semaphore, deadline);
        } while (result != 0 && errno == EINTR);
    }
    return result == 0 ? 0 : errno;
}

void report_not_created(const PZSync* lock, const char* operation, int line) {
    const PZNamedPath named(lock);
    PZDbgOutput::DbgPrint(__FILE__, operation, line, PZDbgOutput::en_TAG_ERROR,
                          "handle is not created\n");
    PZCallStack::dumpDirectly(kReportedFrames);
}

}  // namespace

PZSync::PZSync() : PZSync("", en_TYPE_UNNAMED) {
    static_assert(offsetof(PZSync, handle_) == 0,
                  "record layout, and pz_lock_memory.h looks there");
#if __SIZEOF_POINTER__ == 4
    static_assert(offsetof(PZSync, type_) == 4, "record layout");
    static_assert(offsetof(PZSync, name_) == 8, "record layout");
    static_assert(offsetof(PZSync, owner_) == 40, "record layout");
    static_assert(offsetof(PZSync, nest_) == 44, "record layout");
    static_assert(sizeof(PZSync) == 48, "record layout");
#endif
    static_assert(offsetof(PZSync, type_) == kInspectedLockType, "as pz_inspection says");
    static_assert(offsetof(PZSync, name_) == kInspectedLockName, "as pz_inspection says");
    static_assert(offsetof(PZSync, owner_) == kInspectedLockOwner, "as pz_inspection says");
}

PZSync::PZSync(const char* name, EN_TYPE type)
    : handle_(nullptr), type_(type), name_(), owner_(0), nest_(0) {
    if (name == nullptr) {
        const PZNamedPath named(this);
        PZ_REPORT_ERROR("invalid arg : name is null\n");
        return;
    }
    std::memcpy(name_, name, strnlen(name, sizeof name_));
    switch (type) {
        case en_TYPE_NAMED:
            handle_ = open_semaphore(name);
            break;
        case en_TYPE_UNNAMED:
            handle_ = static_cast<sem_t*>(std::malloc(sizeof(sem_t)));
            break;
        default:
            const PZNamedPath named(this);
            PZ_REPORT_ERROR("invalid arg\n");
            return;
    }
    if (handle_ == nullptr) {
        const PZNamedPath named(this);
        PZ_REPORT_ERROR("create error : errno[%d : %s]\n", pz_get_last_err(),
                        pz_get_last_err_string());
        return;
    }
    if (type == en_TYPE_UNNAMED && sem_init(handle_, 0, kFree) != 0) {
        const PZNamedPath named(this);
        PZ_REPORT_ERROR("sem_init : errno[%d : %s]\n", pz_get_last_err(), pz_get_last_err_string());
        std::free(handle_);
        handle_ = nullptr;
        return;
    }
    pz_tsan_created(handle_);
}

PZSync::~PZSync() {
    if (handle_ == nullptr) return;
    pz_tsan_destroyed(handle_);
    if (type_ == en_TYPE_NAMED) {
        sem_close(handle_);  // not unlinked: other processes may hold it, or come to it later
        return;
    }
    sem_destroy(handle_);
    std::free(handle_);
}

unsigned int PZSync::Wait(unsigned int timeout, int error) {
    if (handle_ == nullptr) {
        report_not_created(this, "Lock", __LINE__);
        return kError;
    }
    if (error == EINTR) {
        const bool limited = timeout != kNoTimeLimit;
        pz_tsan_waiting(handle_, limited);
        if (is_held(handle_)) {
            const PZInspectedLockWait shown(this);
            PZ_PROBE(lock_wait, this, timeout);
            error = wait_for(handle_, timeout);
            PZ_PROBE(lock_got, this, error);
        } else {
            error = wait_for(handle_, timeout);
        }
        pz_tsan_waited(handle_, limited, error == 0);
    }
    if (error == 0) {
        owner_.store(pthread_self(), std::memory_order_relaxed);
        return kAcquired;
    }
    if (error == ETIMEDOUT && timeout != kNoTimeLimit) return kTimedOut;
    const PZNamedPath named(this);
    PZ_REPORT_ERROR_OF("Lock", "create error : errno[%d : %s]\n", error, std::strerror(error));
    return kError;
}

bool PZSync::MayPost() {
    if (handle_ == nullptr) {
        report_not_created(this, "Unlock", __LINE__);
        return false;
    }
    pz_tsan_unlocking(handle_);
    return true;
}
