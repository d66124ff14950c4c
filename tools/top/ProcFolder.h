#ifndef TOOLS_TOP_PROCFOLDER_H
#define TOOLS_TOP_PROCFOLDER_H

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "InspectionReader.h"

/// A thread as the kernel shows it.
struct TaskInfo {
    std::uint32_t tid;       ///< here
    std::uint32_t innerTid;  ///< as the process sees it; another one in a container
    std::string name;
    char state;  ///< R, S, D, T, ...
    int nice;
    std::uint64_t runNs;  ///< processor time so far
};

/// What the kernel tells of a process; nothing where it does not.
class ProcFolder {
public:
    explicit ProcFolder(pid_t pid);

    pid_t Pid() const { return pid_; }

    /// A thread that still has the process's memory: the first one, unless that has ended before
    /// the others.
    pid_t Living() const { return living_; }

    /// When the process was started; 0: it is gone. Tells it from a later one with the same number.
    std::uint64_t StartTime() const;

    std::string Name() const;

    /// The path of its program; empty when it cannot be read.
    std::string Program() const;

    /// The contents of its "maps"; nothing, with errno set, when it may not be read.
    std::optional<std::string> Maps() const;

    std::vector<TaskInfo> Tasks() const;

    std::optional<std::uint64_t> Descriptors() const;
    std::optional<std::uint64_t> DescriptorLimit() const;

    /// Memory that no other process shares.
    std::optional<std::uint64_t> PrivateBytes() const;

    /// True when its message queues are those that this process can open.
    bool HasOurQueues() const;

private:
    pid_t FindLiving() const;
    std::optional<std::string> Contents(const std::string& name) const;

    const pid_t pid_;
    const std::string folder_;
    const pid_t living_;
    const std::string shared_;  // what all threads have, told by one that lives
};

/// Fill of a message queue.
struct QueueFill {
    std::uint32_t waiting;
    std::uint32_t most;
};

/// Nothing when the queue cannot be opened.
std::optional<QueueFill> queue_fill(const std::string& name);

/// The numbers of all processes, ascending.
std::vector<pid_t> all_processes();

#endif  // TOOLS_TOP_PROCFOLDER_H
