#include "QueueFolder.h"

#include <sys/statfs.h>

std::optional<std::vector<std::string>> list_queues(const Machine& machine) {
    constexpr unsigned long kFileSystemOfQueues = 0x19800202;
    // A folder that only stands where the queues should be mounted is empty. A saved file tree
    // holds its copy in another file system.
    struct statfs info;
    if (machine.IsLive() && (statfs(kQueueFolder, &info) != 0 ||
                             static_cast<unsigned long>(info.f_type) != kFileSystemOfQueues)) {
        return std::nullopt;
    }
    return machine.List(kQueueFolder);
}
