#ifndef PZ_TESTS_SUPPORT_STUCKSTDOUT_H
#define PZ_TESTS_SUPPORT_STUCKSTDOUT_H

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/OwnProcess.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

namespace pztest {

/// A standard output that nobody reads and that is full: a thread that prints waits, until it ends.
/// What was printed meanwhile is thrown away then.
class StuckStdout : private Uncopyable {
public:
    StuckStdout() {
        std::fflush(stdout);
        if (::pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
        const char filler[4096] = {};
        while (::write(pipe_[1], filler, sizeof filler) > 0) {
        }
        if (::fcntl(pipe_[1], F_SETFL, 0) != 0) std::abort();
        saved_ = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3);
        if (saved_ == -1 || ::dup2(pipe_[1], STDOUT_FILENO) == -1) std::abort();
    }
    ~StuckStdout() {
        char thrownAway[4096];
        while (::read(pipe_[0], thrownAway, sizeof thrownAway) > 0) {
        }
        std::fflush(stdout);
        ::dup2(saved_, STDOUT_FILENO);
        ::close(saved_);
        ::close(pipe_[0]);
        ::close(pipe_[1]);
    }

    /// Waits until every thread but the caller's sleeps; false when one does not in time.
    bool WaitUntilOthersSleep() const {
        return wait_until([] {
            const std::string self = std::to_string(::syscall(SYS_gettid));
            for (const std::string& id : own_entries("task")) {
                if (id != self && thread_status(id, "State").substr(0, 1) != "S") return false;
            }
            return true;
        });
    }

private:
    int pipe_[2] = {-1, -1};
    int saved_ = -1;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_STUCKSTDOUT_H
