// A process built against another release of the library: it prints its table's version and goes on
// until its standard input ends.

#include <unistd.h>

#include <cstdio>

#include "top_other_library.h"

int main() {
    std::printf("ready %u\n", pz_inspection.version);
    std::fflush(stdout);
    char byte = 0;
    while (read(STDIN_FILENO, &byte, 1) > 0) {
    }
    return 0;
}
