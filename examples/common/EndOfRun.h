#ifndef EXAMPLES_ENDOFRUN_H
#define EXAMPLES_ENDOFRUN_H

#include <pthread.h>
#include <signal.h>

/// Lets the main thread wait for the end of the work or for Ctrl-C, whichever comes first.
///
/// Make it on the main thread before any other thread starts: the signals that it waits for are
/// blocked in the threads that are made after it.
class EndOfRun {
public:
    EndOfRun();

    EndOfRun(const EndOfRun&) = delete;
    EndOfRun& operator=(const EndOfRun&) = delete;

    /// The work is done. Any thread may call it.
    void Finish() const;

    /// True when the work is done; false on Ctrl-C or a request to terminate.
    bool Wait() const;

private:
    sigset_t signals_;
    pthread_t waiter_;
};

#endif  // EXAMPLES_ENDOFRUN_H
