// The shared lock: two processes that know the same name exclude each other.
//
// They count in common memory. The semaphore stays in the system until somebody removes it.
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <Framework/Foundation/PZSyncGuard.h>
#include <Framework/SharedMemory/PZSharedSyncObject.h>

namespace {

void count_in(volatile int* number, const std::string& name) {
    const PZSharedSyncObject lock(name.c_str());
    for (int i = 0; i < 5000; ++i) {
        const PZSyncGuard guard(lock);
        *number = *number + 1;
    }
}

}  // namespace

int main() {
    const std::string name = "small_lock_" + std::to_string(getpid());
    void* const memory =
        mmap(nullptr, sizeof(int), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) return 1;
    auto* const number = static_cast<int*>(memory);

    const pid_t other = fork();
    if (other == -1) return 1;
    count_in(number, name);
    if (other == 0) _exit(0);

    int status = -1;
    waitpid(other, &status, 0);
    std::printf("counted: %d\n", *number);
    sem_unlink(("/" + name).c_str());
    return status;
}
