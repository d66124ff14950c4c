#include "Framework/Foundation/PZLHeapMng.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>
#include <type_traits>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/pz_identity.h>
#include <Framework/Utility/PZLSysFileOut.h>
#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/pz_cp_conv.h>
#include <Framework/Wrapper/pz_stdlib.h>
#include <Framework/private/pz_numbers.h>
#include <Framework/private/pz_probes.h>
#include <Framework/private/pz_time.h>

#include "../../Diagnostics/private/PZInspection.h"
#include "../../private/pz_callers.h"
#include "../../private/pz_thread_id.h"
#include "../../private/pz_uncancelled.h"
#include "pz_heap_maps.h"
#include "pz_lock_memory.h"

namespace {

constexpr unsigned int kGuardWord = 0xEEEEEEEE;
constexpr unsigned char kTrailerByte = 0xEE;
constexpr size_t kTrailerSize = 8;
constexpr int kCallers = 10;
constexpr int kCallerNameSize = 256;
constexpr int kThreads = 200;

struct ST_MEM_BLOCK;

/// The report follows the links and reads the accounts without the lock: of a thread that still
/// allocates meanwhile it sees each block whole or not at all.
using Link = std::atomic<ST_MEM_BLOCK*>;
using Count = std::atomic<unsigned int>;

/// What precedes the caller's data; the trailer follows them.
struct ST_MEM_BLOCK {
    unsigned int guards[2];  // written for a reader of memory dumps, never examined
    Link older;
    Link newer;
    unsigned int size;                      // of the caller's data
    unsigned int threadId;                  // kernel id of the allocating thread
    void* callers[kCallers];                // return addresses, the direct caller first
    char names[kCallers][kCallerNameSize];  // reserved for the callers' names: empty
};

constexpr size_t kPointer = sizeof(void*);
constexpr size_t kHeaderSize = kPointer == 4 ? 2624 : 2672;
static_assert(offsetof(ST_MEM_BLOCK, guards) == 0);
static_assert(offsetof(ST_MEM_BLOCK, older) == 8);
static_assert(offsetof(ST_MEM_BLOCK, newer) == 8 + kPointer);
static_assert(offsetof(ST_MEM_BLOCK, size) == 8 + 2 * kPointer);
static_assert(offsetof(ST_MEM_BLOCK, threadId) == 12 + 2 * kPointer);
static_assert(offsetof(ST_MEM_BLOCK, callers) == 16 + 2 * kPointer);
static_assert(offsetof(ST_MEM_BLOCK, names) == (kPointer == 4 ? 64 : 112));
static_assert(Link::is_always_lock_free && Count::is_always_lock_free);
static_assert(sizeof(ST_MEM_BLOCK) == kHeaderSize);
static_assert(kHeaderSize % alignof(std::max_align_t) == 0, "the data are aligned as by malloc");

/// Live blocks and their requested bytes, with the peaks.
struct ST_USAGE {
    Count count;
    Count maxCount;
    Count size;
    Count maxSize;

    void Add(unsigned int bytes) {
        size += bytes;
        maxSize = std::max(maxSize.load(), size.load());
        ++count;
        maxCount = std::max(maxCount.load(), count.load());
    }
};

struct ST_THREAD_USAGE {
    Count threadId;  // kernel id; 0: the entry is free, and so are all after it
    ST_USAGE usage;
};

/// The accounts of the process. Guarded by heap_lock(), but for the mark, which belongs to the
/// thread that starts and stops the framework.
struct ST_HEAP {
    Link head;                 // oldest live block
    Link tail;                 // newest live block
    const ST_MEM_BLOCK* mark;  // the tail when the measured period began; compared, never followed
    ST_USAGE total;
    ST_THREAD_USAGE threads[kThreads];
};

ST_HEAP heap;

using PZInspectedHeap = ST_INSPECTED_HEAP<PZInspectionLive>;
static_assert(offsetof(ST_HEAP, threads) - offsetof(ST_HEAP, total) ==
              offsetof(PZInspectedHeap, threads));
static_assert(sizeof(ST_THREAD_USAGE) == sizeof(PZInspectedHeap::threads[0]));
static_assert(sizeof heap.threads == sizeof(PZInspectedHeap::threads));

/// Beside the entries of the accounts.
char threadNames[kThreads][sizeof ST_HEAP_THREAD::name];

std::atomic<bool> hasLock{false};

/// Throws std::bad_alloc, reported, when there is no memory for it.
PZSync* make_lock() {
    alignas(PZSync) static unsigned char memory[sizeof(PZSync)];
    hasLock = true;  // before it is there: a fork waits for it then
    auto* const lock = new (memory) PZSync;
    if (!pz_has_semaphore(*lock)) throw std::bad_alloc();
    pz_inspect_set(pz_inspection.heap, &heap.total);
    return lock;
}

/// Made on first use: an application that never allocates here has no lock. Never destroyed:
/// static objects that are older than the first block may release theirs while the process ends.
/// Where there is a block, there is a lock: only the first Malloc can throw, and the next one tries
/// again.
PZSync& heap_lock() {
    static PZSync* const lock = make_lock();
    return *lock;
}

/// False before the first Malloc, and while there is no memory for the lock.
bool is_lock_there() noexcept try {
    if (hasLock) heap_lock();
    return hasLock;
} catch (const std::bad_alloc&) {
    return false;
}

/// A forked child gets the lock free and the list whole: no other thread is at them meanwhile.
///
/// The handlers are registered when the library is loaded. So before a fork they run
/// after those of the application, whose own locks its threads may hold while they allocate.
/// @{
bool isHeldForFork = false;  // set under the lock, and true from then on

void before_fork() PZ_NO_THREAD_SAFETY_ANALYSIS {
    const PZUncancelled whole;  // a fork is not cancelled half way
    if (is_lock_there() && heap_lock().Lock(kNoTimeLimit) == 0) isHeldForFork = true;
}

void after_fork() PZ_NO_THREAD_SAFETY_ANALYSIS {
    if (isHeldForFork) heap_lock().Unlock();
}

[[maybe_unused]] const bool isToldOfForks =
    pthread_atfork(&before_fork, &after_fork, &after_fork) == 0;
/// @}

unsigned char* data_of(ST_MEM_BLOCK* block) {
    return reinterpret_cast<unsigned char*>(block) + kHeaderSize;
}

const unsigned char* data_of(const ST_MEM_BLOCK* block) {
    return reinterpret_cast<const unsigned char*>(block) + kHeaderSize;
}

ST_MEM_BLOCK* block_of(void* data) {
    return reinterpret_cast<ST_MEM_BLOCK*>(static_cast<unsigned char*>(data) - kHeaderSize);
}

bool is_overrun(const ST_MEM_BLOCK* block) {
    const unsigned char* trailer = data_of(block) + block->size;
    return std::any_of(trailer, trailer + kTrailerSize,
                       [](unsigned char byte) { return byte != kTrailerByte; });
}

/// The entry of the thread, taken from the free ones on first sight; null when all are taken.
ST_THREAD_USAGE* find_thread_locked(unsigned int threadId) PZ_REQUIRES(heap_lock()) {
    for (ST_THREAD_USAGE& entry : heap.threads) {
        if (entry.threadId == 0) entry.threadId = threadId;
        if (entry.threadId == threadId) return &entry;
    }
    return nullptr;
}

/// Charges the thread, and asks for its name at its peaks of 1, 2, 4 ... blocks: the one that
/// starts a thread may name it after its first block.
void charge_locked(ST_THREAD_USAGE& thread, unsigned int bytes) PZ_REQUIRES(heap_lock()) {
    const unsigned int peakBefore = thread.usage.maxCount;
    thread.usage.Add(bytes);
    const unsigned int peak = thread.usage.maxCount;
    if (peak != peakBefore && (peak & peakBefore) == 0) {
        prctl(PR_GET_NAME, threadNames[&thread - heap.threads]);
    }
}

void append_locked(ST_MEM_BLOCK* block) PZ_REQUIRES(heap_lock()) {
    ST_MEM_BLOCK* const older = heap.tail;
    block->older = older;
    block->newer = nullptr;
    (older != nullptr ? older->newer : heap.head) = block;
    heap.tail = block;
}

/// An inconsistent list is reported, and the block leaves it all the same.
void unlink_locked(ST_MEM_BLOCK* block) PZ_REQUIRES(heap_lock()) {
    ST_MEM_BLOCK* const older = block->older;
    ST_MEM_BLOCK* const newer = block->newer;
    Link& fromOlder = older != nullptr ? older->newer : heap.head;
    Link& fromNewer = newer != nullptr ? newer->older : heap.tail;
    if (fromOlder != block || fromNewer != block) PZ_REPORT_ASSERTION();
    fromOlder = newer;
    fromNewer = older;
}

/// Records the memory as a live block of the calling thread, allocated by the code that
/// goes on at `returnAddress`.
///
/// The column "Method(0)" of the report is the caller of Malloc or Realloc. So exactly three frames
/// lie below it: the capture, this function and Malloc or Realloc. This one stays a call of its
/// own, and neither ends in a call that the compiler could turn into a jump.
[[gnu::noinline]] void register_block(ST_MEM_BLOCK* block, unsigned int size,
                                      const void* returnAddress) {
    constexpr int kInnerReturns = 2;  // into this function, and into Malloc or Realloc
    void* returns[kInnerReturns + kCallers];
    const int count = pz_take_callers(returns, kInnerReturns + kCallers);
    if (count > kInnerReturns && returns[kInnerReturns] == returnAddress) {
        void** const end = std::copy(returns + kInnerReturns, returns + count, block->callers);
        std::fill(end, std::end(block->callers), nullptr);
    } else {
        constexpr int kInnerFrames = 3;
        PZCallStack stack;
        stack.take(kInnerFrames + kCallers, false);
        // A sanitizer's stand-in for backtrace() adds a frame of its own.
        const bool hasExtraFrame = stack.getAddress(kInnerFrames) != returnAddress &&
                                   stack.getAddress(kInnerFrames + 1) == returnAddress;
        const int first = hasExtraFrame ? kInnerFrames + 1 : kInnerFrames;
        for (int i = 0; i < kCallers; ++i) block->callers[i] = stack.getAddress(first + i);
    }

    for (unsigned int& guard : block->guards) guard = kGuardWord;
    block->size = size;
    block->threadId = pz_this_thread_id();
    for (auto& name : block->names) name[0] = '\0';
    std::memset(data_of(block) + size, kTrailerByte, kTrailerSize);

    const PZSyncLock lock(heap_lock());
    append_locked(block);
    heap.total.Add(size);
    ST_THREAD_USAGE* thread = find_thread_locked(block->threadId);
    if (thread != nullptr) charge_locked(*thread, size);
}

/// Takes the block out of the accounts and the list. False when it is refused: it stays in the
/// list, and what was subtracted before stays subtracted.
bool ReleaceMemBlockInf(ST_MEM_BLOCK* block) PZ_REQUIRES(heap_lock()) {
    if (is_overrun(block)) {
        PZ_REPORT_ERROR("memory corruption\n");
        return false;
    }
    if (block->size > heap.total.size) {
        PZ_REPORT_ERROR("double free at somewhere\n");
        return false;
    }
    heap.total.size -= block->size;
    --heap.total.count;

    ST_THREAD_USAGE* thread = find_thread_locked(block->threadId);
    if (thread != nullptr) {
        ST_USAGE& usage = thread->usage;
        if (block->size > usage.size) {
            PZ_REPORT_ERROR("double free at somewhere\n");
            return false;
        }
        usage.size -= block->size;
        if (usage.count == 0) {
            PZ_REPORT_ERROR("too much free\n");
            return false;
        }
        --usage.count;
    }
    unlink_locked(block);
    return true;
}

bool release_block(ST_MEM_BLOCK* block) {
    const PZSyncLock lock(heap_lock());
    return ReleaceMemBlockInf(block);
}

/// Bytes of a whole block. False when they are more than can be addressed.
bool block_bytes(unsigned int size, size_t& bytes) {
    return !__builtin_add_overflow(size, kHeaderSize + kTrailerSize, &bytes);
}

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};

/// A block that is not registered yet: a thread may be cancelled while it waits for the lock.
using NewBlock = std::unique_ptr<ST_MEM_BLOCK, FreeDeleter>;

/// Null when there is no memory.
NewBlock new_block(unsigned int size) {
    size_t bytes = 0;
    if (!block_bytes(size, bytes)) return nullptr;
    return NewBlock(static_cast<ST_MEM_BLOCK*>(std::malloc(bytes)));
}

/// The same for the memory of a live block. Null when the block is refused, for a `size` of 0, and
/// when there is no memory; then the old block is no longer tracked and its memory stays taken.
NewBlock resized_block(ST_MEM_BLOCK* block, unsigned int size) {
    if (!release_block(block)) return nullptr;
    PZ_PROBE(heap_release, data_of(block), block->size);
    size_t bytes = 0;  // frees the memory
    if (size != 0 && !block_bytes(size, bytes)) return nullptr;
    void* memory = std::realloc(block, bytes);
    return NewBlock(size != 0 ? static_cast<ST_MEM_BLOCK*>(memory) : nullptr);
}

const char* overrun_mark(const ST_MEM_BLOCK* block) {
    return is_overrun(block) ? "NG" : "-";
}

/// The report shows counts and sizes as signed numbers.
int printed(unsigned int quantity) {
    return static_cast<int>(quantity);
}

/// Calls `visit` for each live block, the oldest first and `newest` last: blocks that other threads
/// add meanwhile would keep the report from ever ending.
template <typename Visitor>
void for_each_live_block(const ST_MEM_BLOCK* newest, const Visitor& visit) {
    const ST_MEM_BLOCK* block = newest != nullptr ? heap.head.load() : nullptr;
    while (block != nullptr) {
        visit(*block);
        block = block != newest ? block->newer.load() : nullptr;
    }
}

void write_totals(PZLSysFileOut& file) {
    const ST_USAGE& total = heap.total;
    file.FWrite(
        "[Memory Info Summary]\nCurrent Total Count = %d, Max Total Count = %d, "
        "Current Total Size = %d, Max Total Size = %d\n",
        printed(total.count), printed(total.maxCount), printed(total.size), printed(total.maxSize));
}

void write_threads(PZLSysFileOut& file) {
    file.FWrite(
        "\n[Memory Info about Each Thread]\n"
        "   TID   : Current Count : Max Count : Current Size : Max Size\n");
    for (const ST_THREAD_USAGE& entry : heap.threads) {
        if (entry.threadId == 0) return;
        const ST_USAGE& usage = entry.usage;
        file.FWrite("%#010x     %05d         %05d        %07d     %07d\n", entry.threadId.load(),
                    printed(usage.count), printed(usage.maxCount), printed(usage.size),
                    printed(usage.maxSize));
    }
}

void write_live_blocks(PZLSysFileOut& file, const ST_MEM_BLOCK* newest) {
    file.FWrite("\n[Memory Leak Info]\n#\tTID\t\tAddress\t\tSize\tOverrun");
    for (int i = 0; i < kCallers; ++i) file.FWrite("\tMethod(%d)", i);
    file.FWrite("\n");
    int number = 0;
    for_each_live_block(newest, [&](const ST_MEM_BLOCK& block) {
        file.FWrite("%04d\t%#010x\t%#010lx\t%06u\t%s", number++, block.threadId,
                    pz_address_of(data_of(&block)), block.size, overrun_mark(&block));
        for (const void* caller : block.callers) file.FWrite("\t%#010lx", pz_address_of(caller));
        file.FWrite("\n");
    });
}

bool write_maps(const char* path, int flags) {
    ST_HEAP_THREAD threads[kThreads];
    size_t count = 0;
    if (is_lock_there()) {
        const PZSyncLock lock(heap_lock());
        for (; count < kThreads && heap.threads[count].threadId != 0; ++count) {
            threads[count].id = heap.threads[count].threadId;
            std::memcpy(threads[count].name, threadNames[count], sizeof threads[count].name);
        }
    }
    return pz_write_heap_maps(path, flags, threads, count);
}

/// Tells those who trace the heap of memory that is given out; the memory.
inline void* shown_to_probes(void* data, unsigned int size) {
    PZ_PROBE(heap_allocate, data, size);
    return data;
}

}  // namespace

/// Knows where the report is.
struct PZHeapReport {
    static void WriteMapsBeside(const PZLSysFileOut& file) {
        constexpr unsigned int kSize = std::extent_v<decltype(file.path_)>;
        char path[4 * kSize] = {};  // a character takes 4 bytes at most
        const auto length = static_cast<int>(pz_wcsnlen(file.path_, kSize));
        pz_wctomb(path, sizeof path, file.path_, length, XCP_UTF8);
        char* const extension = std::strrchr(path, '.');
        if (extension == nullptr) return;
        std::memcpy(extension, ".maps", sizeof ".maps");
        if (write_maps(path, O_NOFOLLOW)) return;
        PZDbgOutput::DbgPrintStdErr(__FILE__, "FinMemMng", __LINE__, "[%s]\n", path);
    }
};

namespace {

/// A file of its own for every minute and process name; without one when it cannot be opened.
void write_report_file(const ST_MEM_BLOCK* newest) {
    PZString name(L"HeapList_");
    name.Append(pz_GetName());
    PZLSysFileOut file(L"/Syslog/", name.ToWCHAR(), L"txt", false, 0, -1);
    if (!file.Open()) return;
    write_totals(file);
    write_threads(file);
    write_live_blocks(file, newest);
    const char* const maps = secure_getenv("PZ_HEAP_MAPS");
    if (maps != nullptr && std::strcmp(maps, "1") == 0) PZHeapReport::WriteMapsBeside(file);
    file.Close();
}

void print_line_of_stars() {
    constexpr int kStars = 126;
    for (int i = 0; i < kStars; ++i) std::putchar('*');
    std::putchar('\n');
}

void print_block(unsigned int number, const ST_MEM_BLOCK& block) {
    std::printf("[%04u] %#010x  %#010lx   %06lu    %s    ", number, block.threadId,
                pz_address_of(data_of(&block)), static_cast<unsigned long>(block.size),
                overrun_mark(&block));
    for (const void* caller : block.callers) std::printf("(%#010lx)    ", pz_address_of(caller));
    std::putchar('\n');
}

/// The table of all live blocks on the standard output, the oldest first.
void print_live_blocks(const ST_MEM_BLOCK* newest) {
    print_line_of_stars();
    std::printf("[Memory Leak Info]\n [#]       TID    :  Address  :  Size  : Overrun : ");
    for (int i = 0; i < kCallers; ++i) std::printf("Method(%d) : ", i);
    std::putchar('\n');
    unsigned int number = 0;
    for_each_live_block(newest, [&](const ST_MEM_BLOCK& block) { print_block(number++, block); });
    print_line_of_stars();
    std::fflush(stdout);
}

}  // namespace

void InitMemMng() {
    heap.mark = heap.tail;
}

void FinMemMng() {
    const ST_MEM_BLOCK* const newest = heap.tail;
    if (newest == heap.mark) return;
    try {
        write_report_file(newest);
    } catch (const std::bad_alloc&) {
        // As where the file cannot be opened: the table below tells.
    }
    if (newest != nullptr) print_live_blocks(newest);
}

unsigned int pz_HeapLiveBlocks() {
    return heap.total.count;
}

unsigned int pz_HeapLiveBytes() {
    return heap.total.size;
}

bool pz_HeapWriteMaps(const char* path) {
    if (path == nullptr) {
        PZ_REPORT_ERROR("invalid args\n");
        return false;
    }
    if (write_maps(path, 0)) return true;
    PZ_REPORT_ERRNO("[%s]\n", path);
    return false;
}

void* Malloc(unsigned int size) try {
    NewBlock block = new_block(size);
    if (block == nullptr) return nullptr;
    register_block(block.get(), size, __builtin_return_address(0));
    return shown_to_probes(data_of(block.release()), size);
} catch (const std::bad_alloc&) {
    return nullptr;  // no lock
}

void Free(void* p) {
    if (p == nullptr) return;
    ST_MEM_BLOCK* block = block_of(p);
    if (!release_block(block)) return;
    PZ_PROBE(heap_release, data_of(block), block->size);
    std::free(block);
}

void* Realloc(void* p, unsigned int size) try {
    NewBlock block = p == nullptr ? new_block(size) : resized_block(block_of(p), size);
    if (block == nullptr) return nullptr;
    register_block(block.get(), size, __builtin_return_address(0));
    return shown_to_probes(data_of(block.release()), size);
} catch (const std::bad_alloc&) {
    return nullptr;  // no lock
}
