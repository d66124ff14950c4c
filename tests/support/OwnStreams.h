#ifndef PZ_TESTS_SUPPORT_OWNSTREAMS_H
#define PZ_TESTS_SUPPORT_OWNSTREAMS_H

#include <sys/types.h>

#include <cstdio>

#include "support/Interposed.h"

// Files that the library opens under names of its own: by open, which can leave links alone, and
// fdopen. For executables that link pz_own_streams, which defines both.

namespace pztest {

extern Interposed<int(const char*, int, mode_t)>
    open_call;  // open, where file offsets have 64 bits
extern PZ_INTERPOSED(fdopen) fdopen_call;

/// A stream in the place of `fd`, which it closes, whose data go to `write`.
FILE* stream_instead(int fd, const char* mode, cookie_write_function_t* write);

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_OWNSTREAMS_H
