#include "Program.h"

#include <cstdio>

#include <Framework/Easy/Framework.h>

int tell_usage(const char* usage, bool isBad) {
    std::fputs(usage, isBad ? stderr : stdout);
    return isBad ? kExitUsage : 0;
}

int run_in_framework(const char* name, int id, const std::function<int(const EndOfRun&)>& work) {
    const EndOfRun end;  // before the framework starts its threads
    const pz::Framework framework(name, id);
    if (!framework) {
        std::fprintf(stderr, "%s: the framework does not start\n", name);
        return kExitFailed;
    }
    return work(end);
}
