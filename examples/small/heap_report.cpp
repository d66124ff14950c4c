// The accounted heap: what is not released by the end is reported.
//
// The framework lists the blocks on the standard output when it stops, with the addresses of their
// callers. It also writes them to a file below /Syslog, whose totals are printed (and the file
// removed) here; the list itself goes to /dev/null.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZLHeapMng.h>
#include <Framework/Foundation/PZStorage.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

void stop_quietly() {
    std::fflush(stdout);
    const int terminal = dup(STDOUT_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDOUT_FILENO);
    pz_FwFinalize();
    dup2(terminal, STDOUT_FILENO);
    close(nowhere);
    close(terminal);
}

}  // namespace

int main() {
    const std::string name = "heap" + std::to_string(getpid());
    if (pz_FwInitialize(name.c_str(), 1) == 0) return 1;
    void* const kept = Malloc(100);
    void* used = Malloc(50);
    used = Realloc(used, 200);  // a block of its own: it is counted again
    Free(used);
    stop_quietly();

    PZFileSys search;  // the name carries the time
    PZFileSys::ST_FIND_DATA found = {};
    if (!search.FindFirst(("/Syslog/HeapList_" + name + "*").c_str(), found)) return 1;
    const std::string path = std::string("/Syslog/") + found.name;
    PZStorage report(path.c_str(), "rb");
    char line[256];
    for (int i = 0; i < 2 && report.ReadLine(line, sizeof line) == 0; ++i) std::printf("%s", line);
    report.Close();

    Free(kept);  // late, but no mistake
    return PZFileSys::Delete(path.c_str(), false) ? 0 : 1;
}
