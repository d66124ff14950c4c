#include <cstdio>

#include "Screen.h"

int run_screen(Watcher& /*watcher*/, unsigned int /*intervalMs*/) {
    std::fputs("pz-top: was built without a screen; use --once or --json\n", stderr);
    return kExitUsage;
}
