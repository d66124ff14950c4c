// The thread registry: names, watch times and states of the process's threads, and their
// priorities on the wide scale from 177 (most urgent) to 255.
//
// Framework threads register themselves; here the main thread does so, too.
#include <pthread.h>

#include <cstdio>
#include <vector>

#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/pz_framework.h>

int main() {
    if (pz_FwInitialize("registry", 1) == 0) return 1;
    PZThreadMng* const threads = PZThreadMng::GetInstance();
    const unsigned long self = pthread_self();
    threads->registerThreadInfo(self, "main", threads->get_wide_priority(0), 2500);

    char label[256];
    if (!threads->getLabel(self, label)) return 1;
    std::printf("label: %s\n", label);
    std::printf("watch time: %u ms\n", threads->getWatchTime(self));

    std::vector<unsigned long> running;
    threads->getActiveThreadList(running);
    std::printf("running, with the five timer threads: %zu\n", running.size());
    threads->notifyToWaiting();  // around a blocking call of the application
    threads->getActiveThreadList(running);
    std::printf("while main waits: %zu\n", running.size());
    threads->notifyToRunning();

    std::printf("nice 0 is priority %d\n", threads->get_wide_priority(0));
    std::printf("priority 200 is nice %d\n", threads->get_narrow_priority(200));

    std::printf("unregistered: %s\n", threads->unregisterThreadInfo(self) ? "yes" : "no");
    std::printf("label afterwards: %s\n", threads->getLabel(self, label) ? label : "none");
    pz_FwFinalize();
}
