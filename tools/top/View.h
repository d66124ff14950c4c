#ifndef TOOLS_TOP_VIEW_H
#define TOOLS_TOP_VIEW_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Reading.h"

/// A thread of the process, registered or not.
struct ThreadView {
    std::uint32_t tid = 0;  ///< here; 0: unknown
    std::string name;
    Count priority;                   ///< wide; nothing for one that is not registered
    std::optional<int> nice;          ///< nothing for one that has ended
    char state = '?';                 ///< as the kernel names it; 'X' for one that has ended
    std::optional<double> share;      ///< of one processor, percent
    std::uint32_t watchTimeMs = 0;    ///< 0: not watched
    std::optional<BoxInfo> box;       ///< of a worker
    std::optional<double> perSecond;  ///< messages and events served
    bool hangs = false;               ///< what it runs takes longer than its watch time
};

struct BandView {
    std::string name;
    BandInfo band;
    bool hangs = false;
};

struct QueueView {
    QueueInfo queue;
    std::optional<QueueFill> fill;
};

struct HeapView {
    std::string name;  ///< of the thread
    UsageInfo usage;
};

struct WaitView {
    std::uint32_t tid = 0;  ///< here
    std::string name;
    std::string lock;  ///< its name, or its address
    std::uint32_t forMs = 0;
    std::uint32_t holderTid = 0;  ///< here; 0: unknown
    std::string holder;           ///< who holds the lock
};

/// A process as it is shown: what two readings of it tell together.
struct ProcessView {
    pid_t pid = 0;
    std::string name;
    std::uint32_t id = 0;
    bool isForked = false;  ///< its framework was started by the process that it was forked from
    std::optional<std::uint64_t> descriptors;
    std::optional<std::uint64_t> descriptorLimit;
    std::optional<std::uint64_t> privateBytes;
    std::vector<ThreadView> threads;
    std::vector<BandView> bands;
    std::vector<QueueView> queues;
    std::optional<UsageInfo> heap;
    std::vector<HeapView> heapThreads;
    std::vector<WaitView> waits;
    std::vector<std::vector<ThreadView>> deadlocks;
    bool isComplete = true;  ///< false: some lists could not be followed to their ends
};

/// A row of the list of processes.
struct ProcessRow {
    pid_t pid = 0;
    std::string name;
    std::optional<std::uint32_t> id;  ///< nothing for another version
    std::uint32_t version = 0;
    std::uint32_t workers = 0;
    std::uint32_t pending = 0;
    std::optional<double> perSecond;
    std::uint32_t timers = 0;
    Activity worst;           ///< the handler that has run for longest
    std::string worstThread;  ///< who runs it
    bool hangs = false;
    bool isComplete = true;
};

/// `before` may be null: then there are no shares and rates.
ProcessView view_of(const Reading* before, const Reading& now);
std::vector<ProcessRow> rows_of(const MachineReading* before, const MachineReading& now);

enum class SortKey { Name, Load, Pending, Refused };

/// Moves what stands out to the front, the largest first; names ascend.
void sort_threads(ProcessView& view, SortKey key);
void sort_rows(std::vector<ProcessRow>& rows, SortKey key);

#endif  // TOOLS_TOP_VIEW_H
