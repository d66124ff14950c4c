#ifndef PZ_TESTS_SUPPORT_CHILDPROCESS_H
#define PZ_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>

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

/// A forked child that runs beside the test until Wait; its standard output is the test's.
class ChildProcess {
public:
    explicit ChildProcess(const std::function<int()>& body);
    ~ChildProcess();  // kills it when it still runs

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t Pid() const { return pid_; }

    /// Waits for its end: the exit status, or -1 when it did not exit by itself.
    int Wait();

private:
    pid_t pid_;
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_CHILDPROCESS_H
