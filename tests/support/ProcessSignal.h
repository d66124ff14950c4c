#ifndef PZ_TESTS_SUPPORT_PROCESSSIGNAL_H
#define PZ_TESTS_SUPPORT_PROCESSSIGNAL_H

#include <unistd.h>

#include <cstdlib>

#include "support/Uncopyable.h"

namespace pztest {

/// A pipe that a process makes before its children, by which they and it wait for each other.
class ProcessSignal : private Uncopyable {
public:
    ProcessSignal() {
        if (pipe(ends_) != 0) std::abort();
    }
    ~ProcessSignal() {
        close(ends_[0]);
        close(ends_[1]);
    }

    /// Lets one Wait return, now or later.
    bool Give() const { return write(ends_[1], "x", 1) == 1; }

    bool Wait() const {
        char got = 0;
        return read(ends_[0], &got, 1) == 1;
    }

private:
    int ends_[2] = {-1, -1};
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_PROCESSSIGNAL_H
