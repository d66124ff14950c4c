#include "pz_thread_id.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

thread_local unsigned int knownThreadId = 0;  // 0: not asked for yet

void forget_thread_id() {
    knownThreadId = 0;
}

// When the library is loaded: before those handlers of the application that may allocate.
const bool isToldOfForks = pthread_atfork(nullptr, nullptr, &forget_thread_id) == 0;

}  // namespace

unsigned int pz_this_thread_id() {
    if (knownThreadId == 0 || !isToldOfForks) {
        knownThreadId = static_cast<unsigned int>(syscall(SYS_gettid));
    }
    return knownThreadId;
}
