// Start and stop of the framework, and the name and id of the process.
#include <cstdio>

#include <Framework/Foundation/pz_framework.h>
#include <Framework/Foundation/pz_identity.h>

int main() {
    std::printf("before: \"%s\", id %d\n", pz_GetName(), pz_GetId());
    if (pz_FwInitialize("radio", 7) == 0) return 1;
    std::printf("started: \"%s\", %u characters, id %d\n", pz_GetName(), pz_GetNameLen(),
                pz_GetId());
    std::printf("started twice: %d, the name stays \"%s\"\n", pz_FwInitialize("other", 8),
                pz_GetName());
    pz_FwFinalize();  // end workers before
    std::printf("stopped: \"%s\"\n", pz_GetName());
}
