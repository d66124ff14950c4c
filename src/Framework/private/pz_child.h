#ifndef PZ_FRAMEWORK_PRIVATE_PZ_CHILD_H
#define PZ_FRAMEWORK_PRIVATE_PZ_CHILD_H

#include <pthread.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

// A child process between its fork and its program. It is a copy of one thread: whatever lock
// another thread of the parent held at that moment (of the system log, a stream, memory, the
// locale) is held in the child for ever. It may only make system calls.

/// Forks for a program: 0 in the child, in which no cancellation of the parent's thread takes
/// effect any more; else as fork.
inline pid_t pz_fork_for_program() noexcept {
    int state = PTHREAD_CANCEL_ENABLE;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    const pid_t pid = ::fork();
    if (pid != 0) pthread_setcancelstate(state, nullptr);
    return pid;
}

/// Ends a child that could not execute `program`, for the reason in errno, with status 255 and the
/// line that perror prints: in one write, past the stream and its lock, and in English.
[[noreturn]] inline void pz_end_child_without_program(const char* program) noexcept {
    const char* const reason = strerrordesc_np(errno);
    const char* const parts[] = {program, ": ", reason != nullptr ? reason : "Unknown error", "\n"};
    constexpr int kParts = 4;
    iovec line[kParts];
    for (int i = 0; i < kParts; ++i) {
        line[i] = {const_cast<char*>(parts[i]), std::strlen(parts[i])};
    }
    [[maybe_unused]] const ssize_t written = ::writev(STDERR_FILENO, line, kParts);
    ::_exit(-1);  // the exit handlers and unwritten output are the parent's
}

#endif  // PZ_FRAMEWORK_PRIVATE_PZ_CHILD_H
