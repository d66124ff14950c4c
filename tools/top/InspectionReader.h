#ifndef TOOLS_TOP_INSPECTIONREADER_H
#define TOOLS_TOP_INSPECTIONREADER_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ProcessMemory.h"

/// A number that may not have been readable, or made no sense.
using Count = std::optional<std::uint32_t>;

/// What a worker or timer thread is doing.
struct Activity {
    enum State {
        Idle,      ///< nothing runs
        Running,   ///< this has run for so long
        Changing,  ///< something else at every look: short handlers
        Unknown    ///< makes no sense
    };
    State state = Unknown;
    std::uint64_t object = 0;  ///< dispatcher or timer
    std::uint32_t id = 0;      ///< of the message, or the bits of the event
    bool isEvent = false;
    std::uint32_t forMs = 0;
};

struct BoxInfo {
    std::uint32_t tid;  ///< 0: no thread serves it
    std::uint32_t number;
    Count pending;
    Count mostPending;
    Count events;
    Count mostEvents;
    std::uint32_t served;
    std::uint32_t servedEvents;
    Count refused;
    std::uint32_t longestMs;
    Activity now;
};

struct BandInfo {
    std::uint32_t tid;  ///< 0: no thread
    std::uint32_t active;
    Count nextMs;  ///< from now on; nothing when no timer is active
    std::uint32_t fired;
    std::uint32_t worstLateMs;
    Count medianLateMs;  ///< at most so late; nothing before the first callback
    std::uint32_t longestMs;
    Activity now;
};

struct ThreadInfo {
    std::uint32_t tid;  ///< 0: unknown
    std::uint64_t handle;
    std::optional<std::string> name;
    Count priority;  ///< wide
    std::uint32_t watchTimeMs;
};

struct QueueInfo {
    std::optional<std::string> name;
    bool sends;
    bool receives;
    std::uint32_t sent;
    std::uint32_t received;
    std::uint32_t refused;
};

struct WaitInfo {
    std::uint32_t tid;
    std::uint64_t handle;
    std::uint64_t lock;
    std::string lockName;      ///< empty: none
    bool isShared = false;     ///< with other processes: one of them may hold it
    std::uint64_t holder = 0;  ///< handle; 0: none of this process
    std::uint32_t forMs = 0;
};

struct UsageInfo {
    std::uint32_t tid;  ///< 0: all threads
    std::uint32_t blocks;
    std::uint32_t mostBlocks;
    std::uint32_t bytes;
    std::uint32_t mostBytes;
};

/// What a process shows of itself. Where a list is not complete, the rest could not be read.
struct Inspection {
    std::optional<std::string> name;  ///< nothing before the start of the framework
    std::uint32_t id = 0;
    std::uint32_t pid = 0;  ///< of the process that started the framework, as it sees itself
    std::uint32_t mainTid = 0;
    std::uint64_t mainHandle = 0;
    std::vector<BoxInfo> boxes;
    std::vector<BandInfo> bands;
    std::vector<ThreadInfo> threads;
    std::vector<QueueInfo> queues;
    std::vector<WaitInfo> waits;
    std::vector<std::vector<std::uint32_t>> deadlocks;  ///< kernel ids, each waits for the next one
    std::optional<UsageInfo> heap;                      ///< nothing when no block was accounted yet
    std::vector<UsageInfo> heapThreads;
    bool areBoxesComplete = true;
    bool areBandsComplete = true;
    bool areThreadsComplete = true;
};

enum class ReadResult {
    Done,
    Unreadable,   ///< no such memory, or not a table
    OtherVersion  ///< the table of another library
};

/// Reads the table at the address. Believes nothing: whatever stands there, the answer comes soon
/// and takes bounded memory. `version` becomes the one that was found, unless Unreadable.
ReadResult read_inspection(const ProcessMemory& memory, std::uint64_t table, Inspection& result,
                           std::uint32_t& version);

#endif  // TOOLS_TOP_INSPECTIONREADER_H
