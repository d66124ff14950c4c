#include "support/ChildProcess.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace pztest {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void run_body(const std::function<int()>& body) {
    const int status = body();
    std::fflush(nullptr);
    _exit(status);
}

int wait_for(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) == -1) {
        if (errno != EINTR) std::abort();
    }
    return status;
}

/// Reads until the pipe ends or the time is up; false when the time was up.
bool read_until_end(int fd, Clock::time_point end, std::string& text) {
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) return false;
        pollfd entry = {fd, POLLIN, 0};
        if (poll(&entry, 1, static_cast<int>(left)) <= 0) continue;
        char buffer[4096];
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got == 0) return true;
        if (got > 0) text.append(buffer, static_cast<size_t>(got));
    }
}

}  // namespace

ChildResult run_in_child(const std::function<int()>& body, unsigned int limitSeconds) {
    std::fflush(nullptr);
    int fds[2];
    if (::pipe(fds) != 0) std::abort();
    const pid_t pid = ::fork();
    if (pid == -1) std::abort();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        dup2(fds[1], STDERR_FILENO);
        ::close(fds[0]);
        ::close(fds[1]);
        run_body(body);
    }
    ::close(fds[1]);
    ChildResult result = {false, 0, ""};
    const auto end = Clock::now() + std::chrono::seconds(limitSeconds);
    if (!read_until_end(fds[0], end, result.output)) kill(pid, SIGKILL);
    ::close(fds[0]);
    const int status = wait_for(pid);
    result.exited = WIFEXITED(status);
    result.status = result.exited ? WEXITSTATUS(status) : WTERMSIG(status);
    return result;
}

ChildProcess::ChildProcess(const std::function<int()>& body) : pid_(-1) {
    std::fflush(nullptr);
    pid_ = ::fork();
    if (pid_ == -1) std::abort();
    if (pid_ == 0) run_body(body);
}

ChildProcess::~ChildProcess() {
    if (pid_ == -1) return;
    kill(pid_, SIGKILL);
    wait_for(pid_);
}

int ChildProcess::Wait() {
    const int status = wait_for(pid_);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace pztest
