#ifndef TOOLS_TOP_READING_H
#define TOOLS_TOP_READING_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "InspectionReader.h"
#include "ProcFolder.h"

/// What came of looking at a process.
enum class Look {
    Done,
    Gone,          ///< there is no such process, or no more
    NotAllowed,    ///< the kernel refuses
    NoLibrary,     ///< it does not use the library
    Unreadable,    ///< it does, but its table makes no sense
    OtherVersion,  ///< its library is of another version
    TooWide        ///< a 64-bit process, and this one is not
};

/// One look at a process.
struct Reading {
    pid_t pid = 0;
    std::uint64_t startTime = 0;
    std::uint64_t atNs = 0;  ///< CLOCK_MONOTONIC
    std::string name;        ///< of the framework, or else of the program
    Inspection inspection;
    std::uint32_t version = 0;  ///< of the table

    // Of the machine; only for one process, not for the list.
    std::vector<TaskInfo> tasks;
    std::optional<std::uint64_t> descriptors;
    std::optional<std::uint64_t> descriptorLimit;
    std::optional<std::uint64_t> privateBytes;
    std::map<std::string, QueueFill> queueFills;
};

/// Looks into the process: what its library shows, and with `isWhole` what the kernel tells.
Look read_process(pid_t pid, bool isWhole, Reading& reading);

/// The processes of the machine that use the library, as far as they may be looked at.
struct MachineReading {
    std::vector<Reading> processes;
    std::vector<Reading> others;    ///< of another version
    std::vector<pid_t> notAllowed;  ///< may or may not use the library
};

MachineReading read_machine();

#endif  // TOOLS_TOP_READING_H
