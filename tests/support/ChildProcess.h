#ifndef PZ_TESTS_SUPPORT_CHILDPROCESS_H
#define PZ_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "support/Uncopyable.h"

namespace pztest {

/// How a child process ended.
struct ChildResult {
    bool exited;         ///< false: killed by a signal, or by the time limit
    int status;          ///< exit status, or the signal's number
    std::string output;  ///< standard output and standard error
};

/// Runs `body` in a forked child, whose exit status is its result, and waits at most
/// `limitSeconds` (then the child is killed). For behaviour that needs a process of its own.
ChildResult run_in_child(const std::function<int()>& body, unsigned int limitSeconds = 60);

/// Where the outputs of a program go: files that are made or emptied; without a name, where the
/// test's go.
struct ProgramOutput {
    std::string out = {};
    std::string error = {};  ///< may be the same file
};

/// The body of a child that becomes a program: its path and its arguments.
std::function<int()> program(std::vector<std::string> command, ProgramOutput output = {});

/// A child process that runs beside the test until Wait. A forked one prints where the test does.
class ChildProcess : private Uncopyable {
public:
    explicit ChildProcess(const std::function<int()>& body);
    /// Takes over a child of this process that somebody else has made.
    explicit ChildProcess(pid_t pid) : pid_(pid) {}
    ~ChildProcess();  // kills it when it still runs

    pid_t Pid() const { return pid_; }

    void Signal(int signal) const;

    /// Stops it, and waits until it stands still; SIGCONT lets it go on.
    void Stop() const;

    /// Whether it has ended; Wait tells how.
    bool HasEnded() const;

    /// Waits for its end: the exit status, or -1 when it did not exit by itself.
    int Wait();

    /// The same; -1 after `limit`, and then it is killed.
    int Wait(std::chrono::seconds limit);

private:
    pid_t pid_;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_CHILDPROCESS_H
