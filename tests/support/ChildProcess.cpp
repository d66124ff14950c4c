#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "support/WaitUntil.h"

namespace pztest {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void run_body(const std::function<int()>& body) {
    const int status = body();
    std::fflush(nullptr);
    _exit(status);
}

/// Waits until the child ends, or, with WUNTRACED, stops.
int wait_for(pid_t pid, int options = 0) {
    int status = 0;
    while (waitpid(pid, &status, options) == -1) {
        if (errno != EINTR) std::abort();
    }
    return status;
}

/// Lets a descriptor write to a file; an empty name leaves it as it is.
bool redirect(int fd, const std::string& path, int flags) {
    if (path.empty()) return true;
    const int file = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | flags, 0600);
    return file != -1 && ::dup2(file, fd) == fd;
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

std::function<int()> program(std::vector<std::string> command, ProgramOutput output) {
    return [command = std::move(command), output = std::move(output)] {
        const int emptied = output.error == output.out ? 0 : O_TRUNC;
        if (!redirect(STDOUT_FILENO, output.out, O_TRUNC)) return 126;
        if (!redirect(STDERR_FILENO, output.error, emptied)) return 126;
        std::vector<char*> words;
        for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
        words.push_back(nullptr);
        ::execv(words[0], words.data());
        return 127;
    };
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

void ChildProcess::Signal(int signal) const {
    if (kill(pid_, signal) != 0) std::abort();
}

void ChildProcess::Stop() const {
    Signal(SIGSTOP);
    if (!WIFSTOPPED(wait_for(pid_, WUNTRACED))) std::abort();
}

bool ChildProcess::HasEnded() const {
    siginfo_t info = {};
    const auto id = static_cast<id_t>(pid_);
    return waitid(P_PID, id, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_;
}

int ChildProcess::Wait() {
    const int status = wait_for(std::exchange(pid_, -1));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int ChildProcess::Wait(std::chrono::seconds limit) {
    if (!wait_until([this] { return HasEnded(); }, limit)) Signal(SIGKILL);
    return Wait();
}

}  // namespace pztest
