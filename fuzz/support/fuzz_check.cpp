#include "support/fuzz_check.h"

#include <cstdio>
#include <cstdlib>

void pzfuzz::fuzz_check(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "FINDING: %s\n", what);
    std::abort();
}
