#include "Framework/Foundation/pz_framework.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <new>

#include <Framework/Diagnostics/PZSupervisor.h>
#include <Framework/Foundation/PZLHeapMng.h>
#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/pz_identity.h>
#include <Framework/SharedMemory/PZSharedMemoryFinalizer.h>
#include <Framework/Utility/PZLTimerMng.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_standard_descriptors.h>

#include "../../Diagnostics/private/PZInspection.h"
#include "pz_identity_record.h"

namespace {

/// Touched by the main thread only.
struct ST_FRAMEWORK {
    bool initialized;
    PZLTimerMng* timerMng;  // neither is owned: both die with the other singletons
    PZThreadMng* threadMng;
};

ST_FRAMEWORK framework;

void open_log() {
    const PZStandardDescriptorsTaken taken;  // the log's connection stays open
    // The log keeps the pointer: the stored name stays where it is as long as the process lives.
    openlog(pz_GetName(), LOG_PID | LOG_CONS | LOG_NDELAY, LOG_USER);
}

/// Which process and thread started the framework: that thread is in no registry.
void show_process() {
    pz_inspect_set(pz_inspection.mainThread, reinterpret_cast<const void*>(pthread_self()));
    pz_inspect_set(pz_inspection.mainTid, pz_get_current_thread_id());
    pz_inspect_set(pz_inspection.pid, getpid());
}

/// What the thread manager answers to its start; 0 when a manager cannot be had.
int start_managers() try {
    framework.threadMng = PZThreadMng::GetInstance();
    if (framework.threadMng == nullptr) return 0;
    framework.timerMng = PZLTimerMng::GetTimerMng();
    if (framework.timerMng == nullptr) return 0;
    return framework.threadMng->initialize();
} catch (const std::bad_alloc&) {
    return 0;
}

}  // namespace

int pz_FwInitialize(const char* name, int id) {
    if (framework.initialized) return 1;

    InitMemMng();
    pz_SetIdentity(name, id);
    show_process();
    open_log();
    const int result = start_managers();
    if (result == 0) {
        // Not started, so this leaves everything in place: the next start goes on with it.
        pz_FwFinalize();
        return 0;
    }
    framework.initialized = true;
    return result;
}

void pz_FwFinalize() {
    if (!framework.initialized) return;

    PZSupervisor::Stop();
    framework.timerMng = nullptr;
    if (framework.threadMng != nullptr) {
        framework.threadMng->finalize();
        framework.threadMng = nullptr;
    }
    PZSingletonFinalizer::finalize();
    PZSharedMemoryFinalizer::finalize();
    closelog();
    FinMemMng();
    framework.initialized = false;
}
