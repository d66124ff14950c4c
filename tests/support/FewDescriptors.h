#ifndef PZ_TESTS_SUPPORT_FEWDESCRIPTORS_H
#define PZ_TESTS_SUPPORT_FEWDESCRIPTORS_H

#include <sys/resource.h>
#include <unistd.h>

#include "support/Uncopyable.h"

namespace pztest {

/// While one lives, the process can open `more` descriptors only. The numbers below those that are
/// open must all be taken.
class FewDescriptors : private Uncopyable {
public:
    explicit FewDescriptors(unsigned int more) {
        getrlimit(RLIMIT_NOFILE, &normal_);
        const int firstFree = dup(STDIN_FILENO);
        close(firstFree);
        const rlimit few = {static_cast<rlim_t>(firstFree) + more, normal_.rlim_max};
        setrlimit(RLIMIT_NOFILE, &few);
    }
    ~FewDescriptors() { setrlimit(RLIMIT_NOFILE, &normal_); }

private:
    rlimit normal_ = {};
};

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_FEWDESCRIPTORS_H
