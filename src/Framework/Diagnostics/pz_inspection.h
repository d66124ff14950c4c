#ifndef PZ_FRAMEWORK_DIAGNOSTICS_PZ_INSPECTION_H
#define PZ_FRAMEWORK_DIAGNOSTICS_PZ_INSPECTION_H

/// @file
/// What a process shows of itself to readers from outside, such as pz-top or a debugger.
///
/// The library keeps one table, `pz_inspection`, found by that name in its symbol table. From there
/// lists lead to one record for each box, timer band and registered thread. Two arrays hold the
/// open queues and the threads that are waiting for a lock. Nothing has to be switched on, and a
/// process that hangs is read like any other.
///
/// Layout:   the same on 32-bit and 64-bit machines, little-endian. Every field is as wide as it
///           says and lies at a multiple of its width; an address has 8 bytes everywhere. The
///           layout is a template over its form: PZInspectionLive is what the library writes,
///           PZInspectionCopy what a reader has copied from another process.
/// Changes:  another layout has another `version`; a reader refuses versions that it does not know.
///           A record may get fields after its last one without that: the table has the size of
///           each record.
/// Time:     milliseconds of CLOCK_MONOTONIC, their low 32 bits. Stamps are those of the coarse
///           clock, up to one kernel tick (1 to 10 ms) old.
/// Threads:  a field has one writer at a time: the thread that does the work anyway. Single fields
///           are whole, records are not: a reader may find fields of two moments. Records leave
///           their list before their memory is released, and their `kind` becomes 0 then; a reader
///           without the lists' lock checks that, and counts its steps.

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <Framework/PZApi.h>

/// An address as the library writes it.
struct alignas(8) PZInspectionAddress {
    std::atomic<const void*> pointer{nullptr};  ///< null: none
#if __SIZEOF_POINTER__ == 4
    std::uint32_t upperHalf = 0;
#endif
};

/// The form of the table in the process that it describes.
struct PZInspectionLive {
    using Address = PZInspectionAddress;     ///< 64 bits
    using U16 = std::atomic<std::uint16_t>;  ///< 16 bits
    using U32 = std::atomic<std::uint32_t>;  ///< 32 bits
};

/// The form of a copy that was read from a process.
struct PZInspectionCopy {
    using Address = std::uint64_t;  ///< 64 bits
    using U16 = std::uint16_t;      ///< 16 bits
    using U32 = std::uint32_t;      ///< 32 bits
};

/// Marks of the records, the characters "PZBX", "PZBD", "PZTH" in memory.
/// @{
constexpr std::uint32_t PZ_INSPECTED_BOX_KIND = 0x58425A50;
constexpr std::uint32_t PZ_INSPECTED_BAND_KIND = 0x44425A50;
constexpr std::uint32_t PZ_INSPECTED_THREAD_KIND = 0x48545A50;
/// @}

/// The beginning of every record that stands in a list.
template <typename Form>
struct alignas(8) ST_INSPECTED_LINK {
    typename Form::Address next{};  ///< record; 0: the last one
    typename Form::U32 kind{};      ///< PZ_INSPECTED_..._KIND; 0 when it has left its list
    typename Form::U32 tid{};       ///< kernel id of the thread that works here; 0: none
};

/// A worker's message box, as its loop sees it. The worker's name is that of its thread.
template <typename Form>
struct alignas(8) ST_INSPECTED_BOX : ST_INSPECTED_LINK<Form> {
    typename Form::Address dispatcher{};  ///< whose handler runs now; 0: none
    typename Form::U32 messageId{};       ///< what it was called with: MsgID, or the bits
    typename Form::U32 beganMs{};         ///< when it was called
    typename Form::U32 longestMs{};       ///< longest handler that has returned
    typename Form::U32 served{};          ///< messages that have been handled, or dropped; wraps
    typename Form::U32 servedEvents{};    ///< events likewise
    typename Form::U16 number{};          ///< of the worker; its lower half
    typename Form::U16 isEvent{};         ///< 1: the handler runs for the bits of an event
};

/// The posting side of the same box. It lies apart from what the loop writes.
template <typename Form>
struct ST_INSPECTED_POSTS {
    typename Form::U32 posted{};        ///< messages; those not served are pending, or run; wraps
    typename Form::U32 refused{};       ///< posts of messages and events that did not answer 0
    typename Form::U16 events{};        ///< pending, of 256
    typename Form::U16 mostEvents{};    ///< that were pending at once
    typename Form::U16 mostPending{};   ///< messages likewise, of 256
    typename Form::U16 refusedKnown{};  ///< lower half of `refused` when somebody last looked
};

/// Upper ends, in milliseconds, of the classes that a band counts its lateness in; what is later
/// than the last one belongs to the last class.
constexpr std::uint32_t PZ_INSPECTED_LATENESS_MS[8] = {0, 1, 2, 4, 8, 16, 64, 256};

/// A timer thread and its timers.
template <typename Form>
struct alignas(8) ST_INSPECTED_BAND : ST_INSPECTED_LINK<Form> {
    typename Form::U32 active{};  ///< timers
    /// The tick of the next check, when a timer is active: the next expiry, or that of a timer that
    /// was removed meanwhile.
    typename Form::U32 nextTick{};
    typename Form::U32 fired{};  ///< callbacks that have returned; wraps
    typename Form::U32
        worstLateMs{};               ///< of all callbacks: from expiry to call, whole milliseconds
    typename Form::Address timer{};  ///< whose callback runs now; 0: none
    typename Form::U32 beganMs{};    ///< when it was called
    typename Form::U32 longestMs{};  ///< longest callback that has returned
    /// Callbacks by their lateness. All are halved when one would overflow: relations, no counts.
    typename Form::U16 lateness[8]{};
};

/// A registered thread.
template <typename Form>
struct alignas(8) ST_INSPECTED_THREAD : ST_INSPECTED_LINK<Form> {
    typename Form::Address handle{};   ///< pthread_t
    typename Form::Address name{};     ///< char[256], zero-terminated
    typename Form::U32 priority{};     ///< wide priority, all ones when unknown
    typename Form::U32 watchTimeMs{};  ///< what runs longer than this hangs; 0: not watched
};

/// Which sides of a queue an object may use.
/// @{
constexpr std::uint32_t PZ_INSPECTED_QUEUE_SENDS = 1;
constexpr std::uint32_t PZ_INSPECTED_QUEUE_RECEIVES = 2;
/// @}

/// An open message queue. Messages that end a receiver's thread are not counted.
template <typename Form>
struct alignas(8) ST_INSPECTED_QUEUE {
    typename Form::Address queue{};    ///< PZMessageQueue<2>; 0: the entry is free
    typename Form::U32 sides{};        ///< PZ_INSPECTED_QUEUE_...
    typename Form::U32 sent{};         ///< messages that the queue took; wraps
    typename Form::U32 received{};     ///< wraps
    typename Form::U32 refused{};      ///< sends that did not answer 0
    typename Form::U32 tid{};          ///< kernel id of the thread that receives; 0: none does
    typename Form::U32 beganMs{};      ///< when its observers were called
    typename Form::U32 isNotifying{};  ///< 1: they run now
};

/// A thread that waits for a PZSync, noted only when it has to sleep.
template <typename Form>
struct alignas(8) ST_INSPECTED_WAIT {
    typename Form::Address lock{};    ///< PZSync; 0 when `tid` is
    typename Form::Address handle{};  ///< pthread_t of the waiting thread
    typename Form::U32 tid{};         ///< kernel id of the waiting thread; 0: the entry is free
    typename Form::U32 sinceMs{};     ///< when it began to wait
};

/// Live blocks and their bytes, with the peaks.
template <typename Form>
struct ST_INSPECTED_USAGE {
    typename Form::U32 blocks{};      ///< live
    typename Form::U32 mostBlocks{};  ///< at once
    typename Form::U32 bytes{};       ///< of the live blocks
    typename Form::U32 mostBytes{};   ///< at once
};

/// What one thread has allocated.
template <typename Form>
struct ST_INSPECTED_HEAP_THREAD {
    typename Form::U32 tid{};          ///< 0: the entry is free, and so are all after it
    ST_INSPECTED_USAGE<Form> usage{};  ///< of its blocks
};

/// The accounted heap, with 200 threads.
template <typename Form>
struct ST_INSPECTED_HEAP {
    ST_INSPECTED_USAGE<Form> total{};               ///< of the process
    ST_INSPECTED_HEAP_THREAD<Form> threads[200]{};  ///< in the order of their first blocks
};

constexpr std::uint32_t PZ_INSPECTION_VERSION = 1;  ///< changes with the layout
/// What the table begins with.
constexpr char PZ_INSPECTION_MAGIC[8] = {'P', 'Z', 'I', 'N', 'S', 'P', 'E', 'C'};
constexpr std::uint32_t PZ_INSPECTED_QUEUES = 32;  ///< further ones are not shown
constexpr std::uint32_t PZ_INSPECTED_WAITS = 32;   ///< likewise

/// The table.
template <typename Form>
struct alignas(8) ST_INSPECTION {
    char magic[8];                  ///< PZ_INSPECTION_MAGIC
    std::uint32_t version;          ///< PZ_INSPECTION_VERSION
    std::uint32_t size;             ///< of the table
    std::uint32_t pointerSize;      ///< 4 or 8, of everything that is not part of the table
    std::uint32_t boxSize;          ///< of one record each
    std::uint32_t bandSize;         ///< likewise
    std::uint32_t threadSize;       ///< likewise
    std::uint32_t queueSize;        ///< likewise
    std::uint32_t waitSize;         ///< likewise
    std::uint32_t queueCount;       ///< entries of the array
    std::uint32_t waitCount;        ///< entries of the array
    std::uint32_t heapThreadCount;  ///< entries of the array
    std::uint32_t lockType;         ///< where a PZSync has its type: 0 shared with other processes
    std::uint32_t lockName;         ///< char[32]
    std::uint32_t lockOwner;        ///< pthread_t, 0: free
    typename Form::U32 boxPosts{};  ///< from a box to its ST_INSPECTED_POSTS, modulo 2^32
    std::uint32_t queueName;        ///< where a PZMessageQueue<2> has its name: char[33]
    typename Form::U32 pid{};       ///< of the process that started the framework; 0: none did
    typename Form::U32 mainTid{};   ///< kernel id of the thread that did
    typename Form::U32 id{};        ///< of the process, as given to the start
    typename Form::U32 reserved{};  ///< 0: the addresses lie at multiples of 8
    typename Form::Address mainThread{};  ///< its pthread_t
    typename Form::Address name{};        ///< of the process: char[64]; 0 before the start
    typename Form::Address boxes{};       ///< lists: the first record
    typename Form::Address bands{};       ///< likewise
    typename Form::Address threads{};     ///< likewise
    typename Form::Address queues{};      ///< arrays: the first record
    typename Form::Address waits{};       ///< likewise
    typename Form::Address heap{};        ///< ST_INSPECTED_HEAP; 0 before the first accounted block
};

/// The table of this process. To be read, from outside; the library writes it.
extern "C" PZ_API ST_INSPECTION<PZInspectionLive> pz_inspection;

/// True when a copy has the layout of the table.
template <template <typename> class Record>
constexpr bool pz_inspection_forms_agree() {
    return sizeof(Record<PZInspectionLive>) == sizeof(Record<PZInspectionCopy>) &&
           alignof(Record<PZInspectionLive>) == alignof(Record<PZInspectionCopy>);
}

static_assert(sizeof(PZInspectionAddress) == 8);
static_assert(pz_inspection_forms_agree<ST_INSPECTED_BOX>());
static_assert(pz_inspection_forms_agree<ST_INSPECTED_POSTS>());
static_assert(pz_inspection_forms_agree<ST_INSPECTED_BAND>());
static_assert(pz_inspection_forms_agree<ST_INSPECTED_THREAD>());
static_assert(pz_inspection_forms_agree<ST_INSPECTED_QUEUE>());
static_assert(pz_inspection_forms_agree<ST_INSPECTED_WAIT>());
static_assert(pz_inspection_forms_agree<ST_INSPECTED_HEAP>());
static_assert(pz_inspection_forms_agree<ST_INSPECTION>());
static_assert(sizeof(ST_INSPECTED_BOX<PZInspectionLive>) == 48);
static_assert(sizeof(ST_INSPECTED_POSTS<PZInspectionLive>) == 16);
static_assert(sizeof(ST_INSPECTED_BAND<PZInspectionLive>) == 64);
static_assert(sizeof(ST_INSPECTED_THREAD<PZInspectionLive>) == 40);
static_assert(sizeof(ST_INSPECTED_QUEUE<PZInspectionLive>) == 40);
static_assert(sizeof(ST_INSPECTED_WAIT<PZInspectionLive>) == 24);
static_assert(sizeof(ST_INSPECTED_HEAP<PZInspectionLive>) == 16 + 200 * 20);
static_assert(sizeof(ST_INSPECTION<PZInspectionLive>) == 152);
static_assert(offsetof(ST_INSPECTION<PZInspectionLive>, mainThread) == 88);
static_assert(offsetof(ST_INSPECTION<PZInspectionCopy>, mainThread) == 88);

#endif  // PZ_FRAMEWORK_DIAGNOSTICS_PZ_INSPECTION_H
