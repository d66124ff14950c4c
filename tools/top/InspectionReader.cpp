#include "InspectionReader.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <type_traits>

#include <Framework/Diagnostics/pz_inspection.h>

#include "Text.h"

namespace {

using Table = ST_INSPECTION<PZInspectionCopy>;
using Link = ST_INSPECTED_LINK<PZInspectionCopy>;
using Box = ST_INSPECTED_BOX<PZInspectionCopy>;
using Posts = ST_INSPECTED_POSTS<PZInspectionCopy>;
using Band = ST_INSPECTED_BAND<PZInspectionCopy>;
using Thread = ST_INSPECTED_THREAD<PZInspectionCopy>;
using Queue = ST_INSPECTED_QUEUE<PZInspectionCopy>;
using Wait = ST_INSPECTED_WAIT<PZInspectionCopy>;
using Heap = ST_INSPECTED_HEAP<PZInspectionCopy>;

constexpr unsigned int kMostRecords = 4096;  // of one list
constexpr unsigned int kMostEntries = 1024;  // of one array
constexpr int kTries = 3;                    // for a list that changes while it is read
constexpr std::uint32_t kMostPending = 256;
constexpr std::uint32_t kSettledMs = 20;  // longer than a tick of the coarse clock
constexpr std::uint32_t kSharedLock = 0;

std::uint32_t milliseconds_of(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<std::uint32_t>(now.tv_sec) * 1000U +
           static_cast<std::uint32_t>(now.tv_nsec) / 1000000U;
}

/// What has passed since a stamp, read after it; nothing when it lies in the future.
Count since(std::uint32_t stampMs) {
    const std::uint32_t passed = milliseconds_of(CLOCK_MONOTONIC_COARSE) - stampMs;
    return passed <= 0x7FFFFFFFU ? Count(passed) : Count();
}

Count at_most(std::uint32_t value, std::uint32_t limit) {
    return value <= limit ? Count(value) : Count();
}

/// Text of a field of `Size` bytes; nothing when it cannot be read.
template <std::size_t Size>
std::optional<std::string> text_at(const ProcessMemory& memory, std::uint64_t address) {
    std::array<char, Size> field = {};
    if (address == 0 || !memory.Read(address, field.data(), Size)) return {};
    return printable(std::string(field.data(), strnlen(field.data(), Size)));
}

Activity activity_of(bool isSame, std::uint64_t object, std::uint32_t beganMs) {
    Activity now;
    if (object == 0) {
        now.state = isSame ? Activity::Idle : Activity::Changing;
        return now;
    }
    const Count passed = since(beganMs);
    if (!isSame || !passed) {
        now.state = isSame ? Activity::Unknown : Activity::Changing;
        return now;
    }
    now.state = Activity::Running;
    now.object = object;
    now.forMs = *passed;
    return now;
}

/// The time on which half of the callbacks or more were called, from their classes.
Count median_of(const Band& band) {
    std::uint32_t all = 0;
    for (const std::uint32_t count : band.lateness) all += count;
    if (all == 0) return {};
    std::uint32_t sum = 0;
    std::size_t place = 0;
    while ((sum += band.lateness[place]) * 2 < all) ++place;
    const bool isLast = place + 1 == std::size(PZ_INSPECTED_LATENESS_MS);
    return isLast ? band.worstLateMs : std::min(band.worstLateMs, PZ_INSPECTED_LATENESS_MS[place]);
}

/// The parts of a table, read once.
class Reader {
public:
    Reader(const ProcessMemory& memory, std::uint64_t address, const Table& table,
           Inspection& result)
        : memory_(memory), address_(address), table_(table), result_(result) {}

    void ReadAll() {
        result_.name = text_at<64>(memory_, table_.name);
        result_.id = table_.id;
        result_.pid = table_.pid;
        result_.mainTid = table_.mainTid;
        result_.mainHandle = table_.mainThread;
        result_.areBoxesComplete =
            ReadList(&Table::boxes, PZ_INSPECTED_BOX_KIND, result_.boxes, &Reader::BoxOf);
        result_.areBandsComplete =
            ReadList(&Table::bands, PZ_INSPECTED_BAND_KIND, result_.bands, &Reader::BandOf);
        result_.areThreadsComplete =
            ReadList(&Table::threads, PZ_INSPECTED_THREAD_KIND, result_.threads, &Reader::ThreadOf);
        ReadQueues();
        ReadWaits();
        ReadHeap();
    }

private:
    /// Follows a list. A record that leaves it meanwhile leads astray: then everything is read once
    /// more. False when the end was not reached.
    template <typename Record, typename Info>
    bool ReadList(std::uint64_t Table::*head, std::uint32_t kind, std::vector<Info>& infos,
                  Info (Reader::*infoOf)(const Record& before, const Record& after) const) const {
        std::uint64_t first = table_.*head;
        for (int i = 0; i < kTries; ++i) {
            infos.clear();
            if (FollowList(first, kind, infos, infoOf)) {
                std::reverse(infos.begin(), infos.end());  // the oldest was the last one
                return true;
            }
            if (const auto again = read_as<Table>(memory_, address_)) first = (*again).*head;
        }
        return false;
    }

    template <typename Record, typename Info>
    bool FollowList(std::uint64_t address, std::uint32_t kind, std::vector<Info>& infos,
                    Info (Reader::*infoOf)(const Record& before, const Record& after) const) const {
        std::set<std::uint64_t> seen;
        while (address != 0) {
            if (infos.size() == kMostRecords || !seen.insert(address).second) return false;
            const auto before = read_as<Record>(memory_, address);
            const auto after = read_as<Record>(memory_, address);
            if (!before || !after || before->kind != kind || after->kind != kind) return false;
            infos.push_back((this->*infoOf)(*before, *after));
            if constexpr (std::is_same_v<Record, Box>) AddPosts(address, *before, infos.back());
            address = after->next;
        }
        return true;
    }

    BoxInfo BoxOf(const Box& before, const Box& box) const {
        const bool isSame =
            before.served == box.served && before.servedEvents == box.servedEvents &&
            before.dispatcher == box.dispatcher && before.messageId == box.messageId &&
            before.isEvent == box.isEvent && before.beganMs == box.beganMs;
        BoxInfo info = {};
        info.tid = box.tid;
        info.number = box.number;
        info.served = box.served;
        info.servedEvents = box.servedEvents;
        info.longestMs = box.longestMs;
        info.now = activity_of(isSame, box.dispatcher, box.beganMs);
        info.now.id = box.messageId;
        info.now.isEvent = box.isEvent != 0;
        return info;
    }

    /// What posts have left; the box may go on meanwhile.
    void AddPosts(std::uint64_t address, const Box& before, BoxInfo& info) const {
        if (table_.boxPosts == 0) return;
        const auto distance = static_cast<std::int32_t>(table_.boxPosts);
        const auto posts =
            read_as<Posts>(memory_, address + static_cast<std::uint64_t>(std::int64_t{distance}));
        const auto box = read_as<Box>(memory_, address);
        if (!posts || !box) return;
        const std::uint32_t isInHandler = box->dispatcher != 0 && box->isEvent == 0 ? 1 : 0;
        const std::uint32_t pending = posts->posted - box->served - isInHandler;
        info.pending = at_most(pending, kMostPending);
        // Of a box that goes on the numbers are of two moments.
        if (!info.pending && before.served != box->served) info.pending = 0;
        info.mostPending = at_most(posts->mostPending, kMostPending);
        info.events = at_most(posts->events, kMostPending);
        info.mostEvents = at_most(posts->mostEvents, kMostPending);
        info.refused = posts->refused;
    }

    BandInfo BandOf(const Band& before, const Band& band) const {
        const bool isSame = before.fired == band.fired && before.timer == band.timer &&
                            before.beganMs == band.beganMs;
        Count nextMs;
        if (band.active != 0) {
            const std::uint32_t left = band.nextTick - milliseconds_of(CLOCK_MONOTONIC);
            nextMs = left <= 0x7FFFFFFFU ? left : 0;
        }
        return {band.tid,         band.active,
                nextMs,           band.fired,
                band.worstLateMs, median_of(band),
                band.longestMs,   activity_of(isSame, band.timer, band.beganMs)};
    }

    ThreadInfo ThreadOf(const Thread& /*before*/, const Thread& thread) const {
        constexpr std::uint32_t kLowestPriority = 255;
        return {thread.tid, thread.handle, text_at<256>(memory_, thread.name),
                at_most(thread.priority, kLowestPriority), thread.watchTimeMs};
    }

    /// The entries of an array whose entries have this size in the process.
    template <typename Record>
    std::vector<Record> ReadArray(std::uint64_t address, std::uint32_t size,
                                  std::uint32_t count) const {
        std::vector<Record> records;
        if (address == 0 || size < sizeof(Record)) return records;
        for (std::uint32_t i = 0; i < std::min(count, kMostEntries); ++i) {
            const auto record = read_as<Record>(memory_, address + std::uint64_t{i} * size);
            if (!record) break;
            records.push_back(*record);
        }
        return records;
    }

    void ReadQueues() {
        for (const Queue& queue :
             ReadArray<Queue>(table_.queues, table_.queueSize, table_.queueCount)) {
            if (queue.queue == 0) continue;
            result_.queues.push_back({text_at<33>(memory_, queue.queue + table_.queueName),
                                      (queue.sides & PZ_INSPECTED_QUEUE_SENDS) != 0,
                                      (queue.sides & PZ_INSPECTED_QUEUE_RECEIVES) != 0, queue.sent,
                                      queue.received, queue.refused});
        }
    }

    std::uint64_t ReadPointer(std::uint64_t address) const {
        if (table_.pointerSize == 4) {
            return read_as<std::uint32_t>(memory_, address).value_or(0);
        }
        return read_as<std::uint64_t>(memory_, address).value_or(0);
    }

    // The entries are read before and after what the locks say of themselves: a thread that has
    // waited all the time was waiting when its lock was looked at.
    void ReadWaits() {
        const auto entries = ReadArray<Wait>(table_.waits, table_.waitSize, table_.waitCount);
        std::vector<WaitInfo> waits;
        for (const Wait& entry : entries) {
            waits.push_back({entry.tid, entry.handle, entry.lock, {}, false, 0, 0});
            if (entry.tid != 0 && entry.lock != 0) Describe(waits.back());
        }
        const auto after = ReadArray<Wait>(table_.waits, table_.waitSize, table_.waitCount);
        for (std::size_t i = 0; i < std::min(entries.size(), after.size()); ++i) {
            const Count passed = since(entries[i].sinceMs);
            if (waits[i].tid == 0 || waits[i].lock == 0 || !passed) continue;
            if (std::memcmp(&entries[i], &after[i], sizeof(Wait)) != 0) continue;
            waits[i].forMs = *passed;
            result_.waits.push_back(waits[i]);
        }
        FindDeadlocks();
    }

    void Describe(WaitInfo& wait) const {
        wait.lockName = text_at<32>(memory_, wait.lock + table_.lockName).value_or("");
        const auto type = read_as<std::uint32_t>(memory_, wait.lock + table_.lockType);
        wait.isShared = type && *type == kSharedLock;
        wait.holder = ReadPointer(wait.lock + table_.lockOwner);
    }

    /// Threads that wait for each other in a circle. A wait that has only just begun may be over.
    void FindDeadlocks() {
        std::map<std::uint64_t, const WaitInfo*> byHandle;
        for (const WaitInfo& wait : result_.waits) {
            if (wait.forMs >= kSettledMs) byHandle[wait.handle] = &wait;
        }
        std::set<std::uint64_t> done;
        for (const auto& [handle, wait] : byHandle) {
            std::vector<std::uint64_t> path;
            std::uint64_t at = handle;
            while (byHandle.count(at) != 0 && done.insert(at).second) {
                path.push_back(at);
                at = byHandle[at]->holder;
            }
            const auto start = std::find(path.begin(), path.end(), at);
            if (start == path.end()) continue;
            std::vector<std::uint32_t> circle;
            for (auto it = start; it != path.end(); ++it) circle.push_back(byHandle[*it]->tid);
            result_.deadlocks.push_back(circle);
        }
    }

    static UsageInfo UsageOf(std::uint32_t tid, const ST_INSPECTED_USAGE<PZInspectionCopy>& usage) {
        return {tid, usage.blocks, usage.mostBlocks, usage.bytes, usage.mostBytes};
    }

    void ReadHeap() {
        if (table_.heap == 0) return;
        const auto heap = read_as<Heap>(memory_, table_.heap);
        if (!heap) return;
        result_.heap = UsageOf(0, heap->total);
        for (const auto& thread : heap->threads) {
            if (thread.tid == 0) break;
            result_.heapThreads.push_back(UsageOf(thread.tid, thread.usage));
        }
    }

    const ProcessMemory& memory_;
    const std::uint64_t address_;
    const Table& table_;
    Inspection& result_;
};

/// True when every record is as long as it is known here, or longer.
bool are_sizes_known(const Table& table) {
    return table.size >= sizeof table && (table.pointerSize == 4 || table.pointerSize == 8) &&
           table.boxSize >= sizeof(Box) && table.bandSize >= sizeof(Band) &&
           table.threadSize >= sizeof(Thread) && table.queueSize >= sizeof(Queue) &&
           table.waitSize >= sizeof(Wait);
}

}  // namespace

ReadResult read_inspection(const ProcessMemory& memory, std::uint64_t table, Inspection& result,
                           std::uint32_t& version) {
    struct Beginning {
        char magic[8];
        std::uint32_t version;
    };
    const auto beginning = read_as<Beginning>(memory, table);
    if (!beginning || std::memcmp(beginning->magic, PZ_INSPECTION_MAGIC, 8) != 0) {
        return ReadResult::Unreadable;
    }
    version = beginning->version;
    if (version != PZ_INSPECTION_VERSION) return ReadResult::OtherVersion;
    const auto copy = read_as<Table>(memory, table);
    if (!copy || !are_sizes_known(*copy)) return ReadResult::Unreadable;
    result = {};
    Reader(memory, table, *copy, result).ReadAll();
    return ReadResult::Done;
}
