// The file guard: two processes take turns at a file.
//
// Makes and removes files in the current folder: the counted number, and two key files.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include <Framework/Communication/PZFileGuard.h>

namespace {

constexpr int kRounds = 200;

int stored_number() {
    int number = 0;
    std::ifstream("number") >> number;
    return number;
}

bool count_in_file(PZFileGuard& guard) {
    for (int i = 0; i < kRounds; ++i) {
        if (!guard.lock()) return false;
        const int number = stored_number();
        std::ofstream("number") << number + 1;
        guard.unlock();
    }
    return true;
}

int application_side() {
    PZFileGuard guard("./", "number");
    return guard.initForApp() && count_in_file(guard) ? 0 : 1;
}

/// Makes the guard, and takes it away at the end.
int system_side() {
    PZFileGuard guard("./", "number");
    if (!guard.initForSystem()) return 1;
    const pid_t other = fork();
    if (other == 0) _exit(application_side());
    const bool isCounted = count_in_file(guard);
    int status = -1;
    return waitpid(other, &status, 0) == other && status == 0 && isCounted ? 0 : 1;
}

}  // namespace

int main() {
    const int result = system_side();
    std::printf("counted: %d\n", stored_number());
    for (const char* file : {"number", "number_mutex", "number_initflag"}) unlink(file);
    return result;
}
