#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZERRNOKEEPER_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZERRNOKEEPER_H

#include <cerrno>

/// Gives the calling thread its errno back at the end of the scope: a caller may still ask for its
/// own last error after it has reported something.
class PZErrnoKeeper {
public:
    PZErrnoKeeper() noexcept : errno_(errno) {}
    ~PZErrnoKeeper() { errno = errno_; }

    PZErrnoKeeper(const PZErrnoKeeper&) = delete;
    PZErrnoKeeper& operator=(const PZErrnoKeeper&) = delete;

private:
    const int errno_;
};

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PRIVATE_PZERRNOKEEPER_H
