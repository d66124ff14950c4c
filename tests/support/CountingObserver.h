#ifndef PZ_TESTS_SUPPORT_COUNTINGOBSERVER_H
#define PZ_TESTS_SUPPORT_COUNTINGOBSERVER_H

#include <atomic>

#include <Framework/Pattern/PZSubject.h>

namespace pztest {

/// Counts what it is told of.
class CountingObserver : public PZObserver_ {
public:
    unsigned int OnNotify(unsigned int /*id*/, void* /*data*/, unsigned int /*size*/) override {
        ++calls;
        return 0;
    }

    std::atomic<int> calls{0};
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_COUNTINGOBSERVER_H
