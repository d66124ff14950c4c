#include "Framework/Foundation/PZLHeapMng.h"

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZClock.h>
#include <Framework/Foundation/pz_identity.h>

#include "support/Assertions.h"
#include "support/ChildProcess.h"
#include "support/FakeSyslog.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OwnStreams.h"
#include "support/StdoutCapture.h"
#include "support/StuckStdout.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(sem_init, 3);
PZ_INTERPOSE(sem_destroy, 1);
PZ_INTERPOSE(sem_wait, 1);

// The accounts are the process's own and some tests ruin them on purpose: every test has a process
// of its own.

namespace {

constexpr char kCorruption[] = "memory corruption";
constexpr char kDoubleFree[] = "double free at somewhere";
constexpr char kTooMuchFree[] = "too much free";
constexpr size_t kTrailerSize = 8;

/// What stands in front of the caller's data.
struct Header {
    unsigned int guards[2];
    Header* older;
    Header* newer;
    unsigned int size;
    unsigned int threadId;
    void* callers[10];
    char names[10][256];
};

#if __SIZEOF_POINTER__ == 4
constexpr size_t kHeaderSize = 2624;
static_assert(offsetof(Header, older) == 8 && offsetof(Header, newer) == 12);
static_assert(offsetof(Header, size) == 16 && offsetof(Header, threadId) == 20);
static_assert(offsetof(Header, callers) == 24 && offsetof(Header, names) == 64);
#else
constexpr size_t kHeaderSize = 2672;
static_assert(offsetof(Header, older) == 8 && offsetof(Header, newer) == 16);
static_assert(offsetof(Header, size) == 24 && offsetof(Header, threadId) == 28);
static_assert(offsetof(Header, callers) == 32 && offsetof(Header, names) == 112);
#endif
static_assert(sizeof(Header) == kHeaderSize);

Header* header_of(void* data) {
    return reinterpret_cast<Header*>(static_cast<char*>(data) - kHeaderSize);
}

unsigned int this_thread() {
    return static_cast<unsigned int>(syscall(SYS_gettid));
}

void run_in_thread(const std::function<void()>& body) {
    std::thread(body).join();
}

/// A block that was never allocated by the heap: brings the accounts into any state without
/// touching memory that was given back.
class ForgedBlock : private pztest::Uncopyable {
public:
    explicit ForgedBlock(unsigned int size, unsigned int threadId = this_thread())
        : header_(static_cast<Header*>(std::calloc(1, kHeaderSize + size + kTrailerSize))) {
        header_->size = size;
        header_->threadId = threadId;
        std::memset(static_cast<char*>(Data()) + size, 0xEE, kTrailerSize);
    }
    ~ForgedBlock() { std::free(header_); }

    void* Data() const { return reinterpret_cast<char*>(header_) + kHeaderSize; }

    /// As if it followed the newest block, which does not know it: Free reports the list as
    /// inconsistent and leaves it as it was.
    void Follow(void* newest) { header_->older = header_of(newest); }

    /// Leaves the memory to Free, for a block that it accepts.
    void* Surrender() {
        void* data = Data();
        header_ = nullptr;
        return data;
    }

private:
    Header* header_;
};

using Errors = std::vector<std::string>;

/// What the release of `data` reports.
Errors errors_of_free(void* data) {
    pztest::StdoutCapture output;
    Free(data);
    return pztest::error_messages(output.Take());
}

/// True when the release of `data` is not refused, whatever it says about the list.
bool is_accepted(void* data) {
    pztest::StdoutCapture output;
    Free(data);
    return pztest::count_of(output.Take(), "[error] ReleaceMemBlockInf()@") == 0;
}

/// What FinMemMng tells.
struct Report {
    std::string printed;
    std::set<std::string> fileNames;
    std::string file;  // its text, when there is exactly one
};

Report report() {
    const pztest::FakeSyslog syslogFolder;
    pztest::StdoutCapture output;
    FinMemMng();
    Report result = {output.Take(), syslogFolder.Names(), ""};
    if (result.fileNames.size() == 1) result.file = syslogFolder.Content(*result.fileNames.begin());
    return result;
}

std::string leak_report() {
    return report().printed;
}

/// The addresses of the blocks in the leak report, in its order.
std::vector<std::string> reported_addresses() {
    std::istringstream report(leak_report());
    std::vector<std::string> addresses;
    for (std::string line; std::getline(report, line);) {
        std::istringstream fields(line);
        std::string number;
        std::string thread;
        std::string address;
        fields >> number >> thread >> address;
        const bool isRow = number.size() > 1 && std::isdigit(number[1]) != 0;
        if (isRow) addresses.push_back(address);
    }
    return addresses;
}

std::string address_text(const void* address) {
    char text[32];
    std::snprintf(text, sizeof text, "%#010lx", reinterpret_cast<unsigned long>(address));
    return text;
}

std::vector<std::string> addresses(const std::vector<void*>& blocks) {
    std::vector<std::string> texts;
    texts.reserve(blocks.size());
    for (const void* block : blocks) texts.push_back(address_text(block));
    return texts;
}

/// The code that called an allocation function, as its own frame sees it.
struct Site {
    void* data;
    void* caller;  // return address of the function that called Malloc or Realloc
};

void* own_return_address(void* address) {
#ifdef __arm__
    return reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(address) & ~uintptr_t{1});
#else
    return address;
#endif
}

[[gnu::noinline]] Site malloc_here(unsigned int size) {
    void* data = Malloc(size);
    return {data, own_return_address(__builtin_return_address(0))};
}

[[gnu::noinline]] Site realloc_here(void* p, unsigned int size) {
    void* data = Realloc(p, size);
    return {data, own_return_address(__builtin_return_address(0))};
}

volatile int levels_left_behind = 0;

[[gnu::noinline]] Site malloc_deep(int levels) {
    const Site site = levels == 0 ? malloc_here(8) : malloc_deep(levels - 1);
    levels_left_behind = levels;  // keeps the call from becoming a jump
    return site;
}

const char* process_name = "";
PZClock::ST_CLOCK utc = {2024, 3, 2, 5, 7, 8, 9};

}  // namespace

// The tests' own system log is not the machine's.
extern "C" void syslog(int /*priority*/, const char* /*format*/, ...) {}

const char* pz_GetName() {
    return process_name;
}
bool PZClock::GetUtc(ST_CLOCK* clock) {
    *clock = utc;
    return true;
}

TEST(PZLHeapMngTest, GivesMemoryAlignedAsByMalloc) {
    for (unsigned int size = 0; size < 40; ++size) {
        void* p = Malloc(size);
        ASSERT_NE(nullptr, p);
        EXPECT_EQ(0U, reinterpret_cast<uintptr_t>(p) % alignof(std::max_align_t));
        std::memset(p, 0x5A, size);
        Free(p);
    }
}

TEST(PZLHeapMngTest, DescribesABlockInItsHeader) {
    void* p = Malloc(24);
    const Header* header = header_of(p);
    EXPECT_EQ(0xEEEEEEEE, header->guards[0]);
    EXPECT_EQ(0xEEEEEEEE, header->guards[1]);
    EXPECT_EQ(nullptr, header->older);
    EXPECT_EQ(nullptr, header->newer);
    EXPECT_EQ(24U, header->size);
    EXPECT_EQ(this_thread(), header->threadId);
    for (const auto& name : header->names) EXPECT_EQ('\0', name[0]);
    Free(p);
}

TEST(PZLHeapMngTest, PutsEightBytesOf0xEEAfterTheData) {
    void* p = Malloc(3);
    const std::vector<unsigned char> expected(kTrailerSize, 0xEE);
    const auto* trailer = static_cast<unsigned char*>(p) + 3;
    EXPECT_EQ(expected, std::vector<unsigned char>(trailer, trailer + kTrailerSize));
    Free(p);
}

TEST(PZLHeapMngTest, LinksTheBlocksFromTheOldestToTheNewest) {
    void* a = Malloc(1);
    void* b = Malloc(2);
    void* c = Malloc(3);
    EXPECT_EQ(nullptr, header_of(a)->older);
    EXPECT_EQ(header_of(b), header_of(a)->newer);
    EXPECT_EQ(header_of(a), header_of(b)->older);
    EXPECT_EQ(header_of(c), header_of(b)->newer);
    EXPECT_EQ(header_of(b), header_of(c)->older);
    EXPECT_EQ(nullptr, header_of(c)->newer);
    for (void* p : {a, b, c}) Free(p);
}

TEST(PZLHeapMngTest, RecordsTheKernelIdOfEachAllocatingThread) {
    Free(Malloc(1));
    run_in_thread([] {
        void* p = Malloc(1);
        EXPECT_EQ(this_thread(), header_of(p)->threadId);
        Free(p);
    });
}

TEST(PZLHeapMngTest, RecordsTheKernelIdOfTheThreadInAForkedChild) {
    Free(Malloc(1));
    const pztest::ChildResult result = pztest::run_in_child(
        [] { return header_of(Malloc(1))->threadId == this_thread() ? 0 : 1; });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}

TEST(PZLHeapMngTest, TracksABlockOfNoBytes) {
    void* p = Malloc(0);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(addresses({p}), reported_addresses());
    EXPECT_EQ(Errors(), errors_of_free(p));
    EXPECT_EQ("", leak_report());
}

TEST(PZLHeapMngTest, FreesWithoutPrintingAnything) {
    pztest::StdoutCapture output;
    Free(Malloc(100));
    EXPECT_EQ("", output.Take());
}

TEST(PZLHeapMngTest, IgnoresTheReleaseOfNull) {
    pztest::StdoutCapture output;
    Free(nullptr);
    EXPECT_EQ("", output.Take());
}

// Call stacks

TEST(PZLHeapMngTest, RecordsTheDirectCallerOfMallocFirst) {
    const Site site = malloc_here(8);
    // The second entry lies in this test, so the first one lies in malloc_here.
    EXPECT_NE(nullptr, header_of(site.data)->callers[0]);
    EXPECT_EQ(site.caller, header_of(site.data)->callers[1]);
    Free(site.data);
}

TEST(PZLHeapMngTest, RecordsTheDirectCallerOfReallocFirst) {
    const Site site = realloc_here(Malloc(8), 80);
    EXPECT_NE(nullptr, header_of(site.data)->callers[0]);
    EXPECT_EQ(site.caller, header_of(site.data)->callers[1]);
    Free(site.data);
}

TEST(PZLHeapMngTest, RecordsTheDirectCallerOfReallocOfNullFirst) {
    const Site site = realloc_here(nullptr, 80);
    EXPECT_NE(nullptr, header_of(site.data)->callers[0]);
    EXPECT_EQ(site.caller, header_of(site.data)->callers[1]);
    Free(site.data);
}

TEST(PZLHeapMngTest, RecordsTheTenInnermostCallers) {
    const Site site = malloc_deep(20);
    void* const* callers = header_of(site.data)->callers;
    EXPECT_EQ(site.caller, callers[1]);
    EXPECT_NE(nullptr, callers[2]);
    // All return to the same place in malloc_deep. A sanitizer's own frame costs the last one.
    for (int i = 3; i < 9; ++i) EXPECT_EQ(callers[2], callers[i]) << i;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(callers[2], callers[9]);
#endif
    Free(site.data);
}

TEST(PZLHeapMngTest, RecordsTheSameCallersInAForkedChild) {
    const pztest::ChildResult result = pztest::run_in_child([] {
        const Site site = malloc_here(8);
        return header_of(site.data)->callers[1] == site.caller ? 0 : 1;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status);
}

TEST(PZLHeapMngTest, LeavesTheCallersBeyondTheOutermostEmpty) {
    static void* data = nullptr;
    data = malloc_deep(20).data;
    pthread_t thread = {};
    // The stack of a thread is shallow; the block has a full one from before.
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void*) -> void* {
                         data = Realloc(data, 8);
                         return nullptr;
                     },
                     nullptr));
    pthread_join(thread, nullptr);
    void* const* callers = header_of(data)->callers;
    void* const* end = callers + 10;
    void* const* firstEmpty = std::find(callers, end, nullptr);
    EXPECT_NE(callers, firstEmpty);
    EXPECT_NE(end, firstEmpty);
    EXPECT_EQ(end, std::find_if(firstEmpty, end, [](void* caller) { return caller != nullptr; }));
    Free(data);
}

// Overruns

TEST(PZLHeapMngTest, RefusesToFreeABlockThatWasOverrunByOneByte) {
    auto* p = static_cast<unsigned char*>(Malloc(10));
    p[10] = 0;
    pztest::StdoutCapture output;
    Free(p);
    const std::string text = output.Take();
    EXPECT_EQ(Errors{kCorruption}, pztest::error_messages(text));
    EXPECT_TRUE(pztest::has_report(text, "ReleaceMemBlockInf", "PZLHeapMng.cpp", kCorruption));
}

TEST(PZLHeapMngTest, NoticesAChangeOfAnyTrailerByte) {
    for (size_t i = 0; i < kTrailerSize; ++i) {
        auto* p = static_cast<unsigned char*>(Malloc(10));
        p[10 + i] = 0xEF;
        EXPECT_EQ(Errors{kCorruption}, errors_of_free(p)) << i;
        p[10 + i] = 0xEE;
        EXPECT_EQ(Errors(), errors_of_free(p)) << i;
    }
}

TEST(PZLHeapMngTest, NeverExaminesTheGuardWords) {
    void* p = Malloc(10);
    header_of(p)->guards[0] = 0;
    header_of(p)->guards[1] = 0;
    EXPECT_EQ(Errors(), errors_of_free(p));
    EXPECT_EQ("", leak_report());
}

TEST(PZLHeapMngTest, KeepsAnOverrunBlockAndMarksItInTheReport) {
    auto* p = static_cast<unsigned char*>(Malloc(10));
    std::memset(p, 0x5A, 10);
    p[10] = 0;
    EXPECT_EQ(Errors{kCorruption}, errors_of_free(p));
    EXPECT_EQ(0x5A, p[9]);  // the address sanitizer sees to it that this is still ours
    EXPECT_EQ(1U, pztest::count_of(leak_report(), "   000010    NG    ("));
    p[10] = 0xEE;
    EXPECT_EQ(1U, pztest::count_of(leak_report(), "   000010    -    ("));
    EXPECT_EQ(Errors(), errors_of_free(p));
}

TEST(PZLHeapMngTest, RefusesToReallocateAnOverrunBlock) {
    auto* p = static_cast<unsigned char*>(Malloc(10));
    std::memset(p, 0x5A, 10);
    p[10] = 0;
    pztest::StdoutCapture output;
    EXPECT_EQ(nullptr, Realloc(p, 20));
    const std::string text = output.Take();
    EXPECT_EQ(Errors{kCorruption}, pztest::error_messages(text));
    EXPECT_TRUE(pztest::has_report(text, "ReleaceMemBlockInf", "PZLHeapMng.cpp", kCorruption));
    EXPECT_EQ(0x5A, p[9]);
    EXPECT_EQ(10U, header_of(p)->size);
    EXPECT_EQ(addresses({p}), reported_addresses());
}

// Accounts

TEST(PZLHeapMngTest, RefusesABlockLargerThanAllLiveOnesAsADoubleFree) {
    void* p = Malloc(100);
    const ForgedBlock forged(101);
    pztest::StdoutCapture output;
    Free(forged.Data());
    const std::string text = output.Take();
    EXPECT_EQ(Errors{kDoubleFree}, pztest::error_messages(text));
    EXPECT_TRUE(pztest::has_report(text, "ReleaceMemBlockInf", "PZLHeapMng.cpp", kDoubleFree));
    // Nothing was subtracted yet.
    EXPECT_EQ(Errors(), errors_of_free(p));
}

TEST(PZLHeapMngTest, RefusesABlockLargerThanItsThreadsLiveOnesAsADoubleFree) {
    void* ofOther = nullptr;
    run_in_thread([&] { ofOther = Malloc(1000); });
    void* p = Malloc(100);
    const ForgedBlock forged(101);
    pztest::StdoutCapture output;
    Free(forged.Data());
    const std::string text = output.Take();
    EXPECT_EQ(Errors{kDoubleFree}, pztest::error_messages(text));
    EXPECT_TRUE(pztest::has_report(text, "ReleaceMemBlockInf", "PZLHeapMng.cpp", kDoubleFree));
    // The thread's own account is untouched.
    EXPECT_EQ(Errors(), errors_of_free(p));
    // The total has lost the 101 bytes.
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(ofOther));
}

TEST(PZLHeapMngTest, RefusesABlockOfAThreadThatNeverAllocatedAsADoubleFree) {
    void* p = Malloc(100);
    const ForgedBlock forged(1, /*threadId=*/0x7FFFFFFF);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(forged.Data()));
    Free(p);
}

TEST(PZLHeapMngTest, RefusesABlockOfAThreadWithoutLiveBlocksAsTooMuchFree) {
    void* p = Malloc(100);
    const ForgedBlock forged(0, /*threadId=*/0x7FFFFFFF);
    pztest::StdoutCapture output;
    Free(forged.Data());
    const std::string text = output.Take();
    EXPECT_EQ(Errors{kTooMuchFree}, pztest::error_messages(text));
    EXPECT_TRUE(pztest::has_report(text, "ReleaceMemBlockInf", "PZLHeapMng.cpp", kTooMuchFree));
    Free(p);
}

TEST(PZLHeapMngTest, SubtractsTheBytesOfTheThreadBeforeItRefusesTooMuchFree) {
    void* ofOther = nullptr;
    run_in_thread([&] { ofOther = Malloc(1000); });
    void* p = Malloc(100);
    ForgedBlock accepted(40);
    const ForgedBlock tooMany(30);
    const ForgedBlock tooLarge(31);
    accepted.Follow(p);
    EXPECT_TRUE(is_accepted(accepted.Surrender()));  // in p's place: 0 blocks, 60 bytes
    EXPECT_EQ(Errors{kTooMuchFree}, errors_of_free(tooMany.Data()));  // 30 bytes left
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(tooLarge.Data()));
}

TEST(PZLHeapMngTest, ExaminesTheTrailerBeforeTheAccounts) {
    Free(Malloc(1));
    const ForgedBlock forged(10);
    static_cast<char*>(forged.Data())[10] = 0;
    EXPECT_EQ(Errors{kCorruption}, errors_of_free(forged.Data()));
}

TEST(PZLHeapMngTest, ReallocAnswersNullWhenTheAccountsRefuseTheBlock) {
    Free(Malloc(1));
    const ForgedBlock forged(10);
    pztest::StdoutCapture output;
    EXPECT_EQ(nullptr, Realloc(forged.Data(), 20));
    EXPECT_EQ(Errors{kDoubleFree}, pztest::error_messages(output.Take()));
}

TEST(PZLHeapMngTest, ChargesABlockToTheThreadThatAllocatedIt) {
    void* p = Malloc(100);
    void* other = Malloc(1);
    Errors errors = {"not run"};
    run_in_thread([&] {
        void* own = Malloc(1000);  // this thread's account could pay, but must not
        errors = errors_of_free(p);
        EXPECT_EQ(Errors(), errors_of_free(own));
    });
    EXPECT_EQ(Errors(), errors);
    void* keeper = nullptr;
    run_in_thread([&] { keeper = Malloc(1000); });
    const ForgedBlock forged(2);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(forged.Data()));  // the 100 are gone here
    EXPECT_EQ(Errors(), errors_of_free(other));
    static_cast<void>(keeper);
}

TEST(PZLHeapMngTest, ChargesAReallocatedBlockToTheReallocatingThread) {
    void* p = Malloc(100);
    void* moved = nullptr;
    unsigned int thread = 0;
    run_in_thread([&] {
        thread = this_thread();
        moved = Realloc(p, 200);
    });
    EXPECT_EQ(thread, header_of(moved)->threadId);
    const ForgedBlock forged(1);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(forged.Data()));  // nothing is left here
    // The total has lost that byte; the thread's account has all 200.
    void* other = Malloc(1);
    EXPECT_EQ(Errors(), errors_of_free(moved));
    static_cast<void>(other);
}

TEST(PZLHeapMngTest, CountsA201stThreadInTheTotalsOnly) {
    constexpr size_t kThreads = 200;
    std::set<unsigned int> threads;
    unsigned int lastThread = 0;
    // A thread may be given the number of one that has ended.
    const auto malloc_in_new_thread = [&](unsigned int size) {
        void* data = nullptr;
        run_in_thread([&] {
            if (!threads.insert(this_thread()).second) return;
            lastThread = this_thread();
            data = Malloc(size);
        });
        return data;
    };
    while (threads.size() < kThreads) malloc_in_new_thread(2);
    const ForgedBlock ofThe200th(3, lastThread);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(ofThe200th.Data()));  // total: 397

    void* ofThe201st = nullptr;
    while (ofThe201st == nullptr) ofThe201st = malloc_in_new_thread(10);  // total: 407
    ForgedBlock forged(400, lastThread);
    forged.Follow(ofThe201st);
    EXPECT_TRUE(is_accepted(forged.Surrender()));  // total: 7
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(ofThe201st));
}

TEST(PZLHeapMngTest, KeepsItsAccountsUnderManyThreads) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 300;
    std::mutex mutex;
    std::vector<void*> blocks;  // guarded by mutex: allocated here, freed elsewhere
    const auto exchange = [&](void* block) {
        const std::lock_guard<std::mutex> lock(mutex);
        blocks.push_back(block);
        std::swap(blocks.front(), blocks.back());
        void* other = blocks.back();
        blocks.pop_back();
        return other;
    };
    pztest::StdoutCapture output;
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                void* block = exchange(Malloc(static_cast<unsigned int>(i % 7 + t)));
                Free(i % 3 == 0 ? Realloc(block, 50) : block);
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    for (void* block : blocks) Free(block);
    EXPECT_EQ("", output.Take());
    EXPECT_EQ("", leak_report());
    EXPECT_EQ(0U, pz_HeapLiveBlocks());
    const ForgedBlock forged(1);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(forged.Data()));  // the total is 0
}

// The list

TEST(PZLHeapMngTest, UnlinksTheOnlyTheOldestTheNewestAndAnInnerBlock) {
    std::vector<void*> blocks;
    for (unsigned int i = 0; i < 5; ++i) blocks.push_back(Malloc(i));
    EXPECT_EQ(addresses(blocks), reported_addresses());
    pztest::StdoutCapture output;
    Free(blocks[2]);
    Free(blocks[0]);
    Free(blocks[4]);
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(addresses({blocks[1], blocks[3]}), reported_addresses());
    Free(blocks[1]);
    EXPECT_EQ(addresses({blocks[3]}), reported_addresses());
    Free(blocks[3]);
    EXPECT_EQ("", leak_report());
}

namespace {

/// A list of three blocks for the inconsistencies below. The blocks that a test does not free are
/// given back to the C library.
class PZLHeapMngListTest : public testing::Test {
protected:
    void TearDown() override {
        for (void* block : {oldest, middle, newest}) {
            if (block != freed) std::free(header_of(block));
        }
    }

    /// Frees the block and expects one assertion, with the call stack, and nothing else.
    void ExpectAssertionOfFree(void* block) {
        pztest::StdoutCapture output;
        Free(block);
        freed = block;
        const std::string text = output.Take();
        EXPECT_EQ(1U, pztest::assertions_of(text, "Foundation/private/PZLHeapMng.cpp")) << text;
        EXPECT_EQ(1U, pztest::count_of(text, "ASSERT Failed!"));
        EXPECT_EQ(pztest::error_messages(text).size(),
                  pztest::count_of(text, "[error] dumpDirectly()@PZCallStack.cpp"));
    }

    void* oldest = Malloc(1);
    void* middle = Malloc(2);
    void* newest = Malloc(3);
    void* freed = nullptr;
};

}  // namespace

TEST_F(PZLHeapMngListTest, AssertsThatTheOnlyBlockIsTheNewest) {
    header_of(oldest)->newer = nullptr;  // is the oldest indeed
    ExpectAssertionOfFree(oldest);
    EXPECT_EQ("", leak_report());  // unlinked all the same: the list is empty
}

TEST_F(PZLHeapMngListTest, AssertsThatTheOnlyBlockIsTheOldest) {
    header_of(newest)->older = nullptr;  // is the newest indeed
    ExpectAssertionOfFree(newest);
    EXPECT_EQ("", leak_report());
}

TEST_F(PZLHeapMngListTest, AssertsThatABlockWithoutOlderOneIsTheOldest) {
    header_of(middle)->older = nullptr;
    ExpectAssertionOfFree(middle);
    EXPECT_EQ(addresses({newest}), reported_addresses());
    EXPECT_EQ(nullptr, header_of(newest)->older);
}

TEST_F(PZLHeapMngListTest, AssertsThatTheNeighbourOfTheOldestPointsBack) {
    header_of(middle)->older = header_of(newest);
    ExpectAssertionOfFree(oldest);
    EXPECT_EQ(addresses({middle, newest}), reported_addresses());
    EXPECT_EQ(nullptr, header_of(middle)->older);
}

TEST_F(PZLHeapMngListTest, AssertsThatABlockWithoutNewerOneIsTheNewest) {
    header_of(middle)->newer = nullptr;
    ExpectAssertionOfFree(middle);
    EXPECT_EQ(addresses({oldest}), reported_addresses());
    EXPECT_EQ(nullptr, header_of(oldest)->newer);
}

TEST_F(PZLHeapMngListTest, AssertsThatTheNeighbourOfTheNewestPointsBack) {
    header_of(middle)->newer = header_of(oldest);
    ExpectAssertionOfFree(newest);
    EXPECT_EQ(addresses({oldest, middle}), reported_addresses());
    EXPECT_EQ(nullptr, header_of(middle)->newer);
}

TEST_F(PZLHeapMngListTest, AssertsThatTheOlderNeighbourPointsBack) {
    header_of(oldest)->newer = header_of(newest);
    ExpectAssertionOfFree(middle);
    EXPECT_EQ(addresses({oldest, newest}), reported_addresses());
    EXPECT_EQ(header_of(oldest), header_of(newest)->older);
}

TEST_F(PZLHeapMngListTest, AssertsThatTheNewerNeighbourPointsBack) {
    header_of(newest)->older = header_of(oldest);
    ExpectAssertionOfFree(middle);
    EXPECT_EQ(addresses({oldest, newest}), reported_addresses());
    EXPECT_EQ(header_of(newest), header_of(oldest)->newer);
}

TEST_F(PZLHeapMngListTest, AssertsOnceWhenBothNeighboursPointElsewhere) {
    header_of(oldest)->newer = header_of(newest);
    header_of(newest)->older = header_of(oldest);
    ExpectAssertionOfFree(middle);
    EXPECT_EQ(addresses({oldest, newest}), reported_addresses());
}

// Realloc

TEST(PZLHeapMngTest, ReallocKeepsTheContentWhenItGrows) {
    void* p = Malloc(4);
    std::memcpy(p, "abc", 4);
    p = Realloc(p, 100000);
    ASSERT_NE(nullptr, p);
    EXPECT_STREQ("abc", static_cast<char*>(p));
    EXPECT_EQ(100000U, header_of(p)->size);
    EXPECT_EQ(Errors(), errors_of_free(p));  // the trailer stands behind the new end
}

TEST(PZLHeapMngTest, ReallocKeepsTheContentWhenItShrinks) {
    void* p = Malloc(100000);
    std::memcpy(p, "abc", 4);
    p = Realloc(p, 4);
    ASSERT_NE(nullptr, p);
    EXPECT_STREQ("abc", static_cast<char*>(p));
    EXPECT_EQ(4U, header_of(p)->size);
    static_cast<unsigned char*>(p)[4] = 0;
    EXPECT_EQ(Errors{kCorruption}, errors_of_free(p));
}

TEST(PZLHeapMngTest, ReallocMakesTheBlockTheNewest) {
    void* a = Malloc(1);
    void* b = Malloc(2);
    a = Realloc(a, 3);
    EXPECT_EQ(addresses({b, a}), reported_addresses());
    Free(a);
    Free(b);
}

TEST(PZLHeapMngTest, ReallocReplacesTheSizeInTheAccounts) {
    void* p = Realloc(Malloc(1000), 10);
    const ForgedBlock forged(11);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(forged.Data()));
    EXPECT_EQ(Errors(), errors_of_free(p));
}

TEST(PZLHeapMngTest, ReallocOfNullIsMalloc) {
    void* p = Realloc(nullptr, 10);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(10U, header_of(p)->size);
    EXPECT_EQ(this_thread(), header_of(p)->threadId);
    EXPECT_EQ(addresses({p}), reported_addresses());
    EXPECT_EQ(Errors(), errors_of_free(p));
}

TEST(PZLHeapMngTest, ReallocOfNullToNothingIsMallocOfNothing) {
    void* p = Realloc(nullptr, 0);
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(addresses({p}), reported_addresses());
    Free(p);
}

TEST(PZLHeapMngTest, ReallocToNothingReleasesTheBlock) {
    pztest::StdoutCapture output;
    EXPECT_EQ(nullptr, Realloc(Malloc(10), 0));  // the leak sanitizer counts the memory
    EXPECT_EQ("", output.Take());
    EXPECT_EQ("", leak_report());
    const ForgedBlock forged(1);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(forged.Data()));
}

#if __SIZEOF_POINTER__ == 4

TEST(PZLHeapMngTest, MallocAnswersNullWhenHeaderAndTrailerDoNotFit) {
    // Reduced to 32 bits the sums would be small.
    EXPECT_EQ(nullptr, Malloc(0xFFFFFFFF));
    EXPECT_EQ(nullptr, Malloc(0xFFFFFFFF - kHeaderSize - kTrailerSize + 1));
    EXPECT_EQ("", leak_report());
}

TEST(PZLHeapMngTest, ReallocToMoreThanCanBeAddressedAnswersNullAndForgetsTheBlock) {
    void* p = Malloc(10);
    EXPECT_EQ(nullptr, Realloc(p, 0xFFFFFFFF));
    EXPECT_EQ("", leak_report());
    std::free(header_of(p));  // still allocated
}

#endif

// The leak report

TEST(PZLHeapMngReportTest, IsATableOfTheLiveBlocks) {
    InitMemMng();
    void* a = Malloc(16);
    auto* b = static_cast<unsigned char*>(Malloc(1234567));
    b[1234567] = 0;
    header_of(a)->threadId = 0x1A2B;
    for (unsigned int i = 0; i < 10; ++i) {
        header_of(a)->callers[i] = reinterpret_cast<void*>(uintptr_t{0x1000} + i);
    }
    header_of(b)->threadId = 0;
    std::memset(header_of(b)->callers, 0, sizeof header_of(b)->callers);
    header_of(b)->callers[0] = reinterpret_cast<void*>(uintptr_t{0xFEDCBA98});

    const std::string stars = std::string(126, '*') + "\n";
    EXPECT_EQ(stars +
                  "[Memory Leak Info]\n"
                  " [#]       TID    :  Address  :  Size  : Overrun : "
                  "Method(0) : Method(1) : Method(2) : Method(3) : Method(4) : "
                  "Method(5) : Method(6) : Method(7) : Method(8) : Method(9) : \n"
                  "[0000] 0x00001a2b  " +
                  address_text(a) +
                  "   000016    -    "
                  "(0x00001000)    (0x00001001)    (0x00001002)    (0x00001003)    "
                  "(0x00001004)    (0x00001005)    (0x00001006)    (0x00001007)    "
                  "(0x00001008)    (0x00001009)    \n"
                  "[0001] 0000000000  " +
                  address_text(b) +
                  "   1234567    NG    "
                  "(0xfedcba98)    (0000000000)    (0000000000)    (0000000000)    "
                  "(0000000000)    (0000000000)    (0000000000)    (0000000000)    "
                  "(0000000000)    (0000000000)    \n" +
                  stars,
              leak_report());
}

TEST(PZLHeapMngReportTest, IsLeftOutWhenNothingWasEverAllocated) {
    InitMemMng();
    EXPECT_EQ("", leak_report());
}

TEST(PZLHeapMngReportTest, IsLeftOutWhenAllWasFreed) {
    InitMemMng();
    Free(Malloc(1));
    EXPECT_EQ("", leak_report());
}

TEST(PZLHeapMngReportTest, IsLeftOutWhenNothingWasAllocatedSinceTheBeginning) {
    void* early = Malloc(1);
    InitMemMng();
    EXPECT_EQ("", leak_report());
    Free(early);
}

TEST(PZLHeapMngReportTest, IsLeftOutWhenAllSinceTheBeginningWasFreed) {
    void* early = Malloc(1);
    InitMemMng();
    Free(Malloc(2));
    EXPECT_EQ("", leak_report());
    Free(early);
}

TEST(PZLHeapMngReportTest, ListsEarlierBlocksTooWhenOneWasLeft) {
    void* early = Malloc(1);
    InitMemMng();
    void* late = Malloc(2);
    EXPECT_EQ(addresses({early, late}), reported_addresses());
    Free(early);
    Free(late);
}

TEST(PZLHeapMngReportTest, ListsOlderBlocksWhenTheNewestOfTheBeginningWasFreed) {
    void* older = Malloc(1);
    void* newest = Malloc(2);
    InitMemMng();
    Free(newest);
    EXPECT_EQ(addresses({older}), reported_addresses());
    Free(older);
}

TEST(PZLHeapMngReportTest, IsLeftOutWhenTheListIsEmptyThoughItWasNotAtTheBeginning) {
    void* early = Malloc(1);
    InitMemMng();
    Free(early);
    EXPECT_EQ("", leak_report());
}

TEST(PZLHeapMngReportTest, LeavesTheBlocksAsTheyAre) {
    void* p = Malloc(1);
    EXPECT_EQ(addresses({p}), reported_addresses());
    EXPECT_EQ(addresses({p}), reported_addresses());
    EXPECT_EQ(Errors(), errors_of_free(p));
}

// The report file

namespace {

/// Hexadecimal with "0x", filled with zeros to ten characters; 0 has no "0x".
std::string hex(unsigned long value) {
    std::ostringstream digits;
    digits << std::hex << value;
    std::string text = digits.str();
    const size_t width = value != 0 ? 8 : 10;
    if (text.size() < width) text.insert(0, width - text.size(), '0');
    return value != 0 ? "0x" + text : text;
}

std::string hex(const void* address) {
    return hex(reinterpret_cast<unsigned long>(address));
}

std::string decimal(unsigned int value, size_t digits) {
    std::string text = std::to_string(value);
    if (text.size() < digits) text.insert(0, digits - text.size(), '0');
    return text;
}

std::string totals_text(int count, int maxCount, int size, int maxSize) {
    return "[Memory Info Summary]\nCurrent Total Count = " + std::to_string(count) +
           ", Max Total Count = " + std::to_string(maxCount) +
           ", Current Total Size = " + std::to_string(size) +
           ", Max Total Size = " + std::to_string(maxSize) + "\n";
}

constexpr char kThreadsHead[] =
    "\n[Memory Info about Each Thread]\n"
    "   TID   : Current Count : Max Count : Current Size : Max Size\n";
constexpr char kBlocksHead[] =
    "\n[Memory Leak Info]\n#\tTID\t\tAddress\t\tSize\tOverrun"
    "\tMethod(0)\tMethod(1)\tMethod(2)\tMethod(3)\tMethod(4)"
    "\tMethod(5)\tMethod(6)\tMethod(7)\tMethod(8)\tMethod(9)\n";

/// The row of a thread.
std::string thread_text(unsigned int id, unsigned int count, unsigned int maxCount,
                        unsigned int size, unsigned int maxSize) {
    return hex(id) + "     " + decimal(count, 5) + "         " + decimal(maxCount, 5) + "        " +
           decimal(size, 7) + "     " + decimal(maxSize, 7) + "\n";
}

/// The rows of the live blocks, split into their columns.
std::vector<std::vector<std::string>> block_rows(const std::string& file) {
    std::vector<std::vector<std::string>> rows;
    const size_t head = file.find(kBlocksHead);
    if (head == std::string::npos) return rows;
    std::istringstream lines(file.substr(head + sizeof kBlocksHead - 1));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        rows.emplace_back();
        for (std::string field; std::getline(fields, field, '\t');) rows.back().push_back(field);
    }
    return rows;
}

class PZLHeapMngFileTest : public testing::Test {
protected:
    void SetUp() override { InitMemMng(); }

    const unsigned int thread = this_thread();
};

}  // namespace

TEST_F(PZLHeapMngFileTest, TellsTotalsThreadsAndLiveBlocks) {
    void* a = Malloc(16);
    auto* b = static_cast<unsigned char*>(Malloc(1234567));
    b[1234567] = 0;
    Free(Malloc(2000000));
    unsigned int other = 0;
    run_in_thread([&] {
        other = this_thread();
        void* first = Malloc(7);
        void* second = Malloc(8);
        Free(first);
        Free(second);
    });
    header_of(a)->threadId = 0x1A2B;
    for (unsigned int i = 0; i < 10; ++i) {
        header_of(a)->callers[i] = reinterpret_cast<void*>(uintptr_t{0x1000} + i);
    }
    header_of(b)->threadId = 0;
    std::memset(header_of(b)->callers, 0, sizeof header_of(b)->callers);
    header_of(b)->callers[0] = reinterpret_cast<void*>(uintptr_t{0xFEDCBA98});

    EXPECT_EQ(totals_text(2, 4, 1234583, 3234583) + kThreadsHead +
                  thread_text(thread, 2, 3, 1234583, 3234583) + thread_text(other, 0, 2, 0, 15) +
                  kBlocksHead + "0000\t0x00001a2b\t" + hex(a) +
                  "\t000016\t-\t0x00001000\t0x00001001\t0x00001002\t0x00001003\t0x00001004"
                  "\t0x00001005\t0x00001006\t0x00001007\t0x00001008\t0x00001009\n"
                  "0001\t0000000000\t" +
                  hex(b) +
                  "\t1234567\tNG\t0xfedcba98\t0000000000\t0000000000\t0000000000\t0000000000"
                  "\t0000000000\t0000000000\t0000000000\t0000000000\t0000000000\n",
              report().file);
}

TEST_F(PZLHeapMngFileTest, NamesTheCallersOfABlock) {
    const Site site = malloc_here(5);
    const auto rows = block_rows(report().file);
    ASSERT_EQ(1U, rows.size());
    ASSERT_EQ(15U, rows[0].size());
    EXPECT_EQ("0000", rows[0][0]);
    const auto number = [&](size_t column) { return std::stoul(rows[0][column], nullptr, 16); };
    EXPECT_EQ(thread, number(1));
    EXPECT_EQ(reinterpret_cast<unsigned long>(site.data), number(2));
    EXPECT_EQ("000005", rows[0][3]);
    EXPECT_EQ("-", rows[0][4]);
    EXPECT_NE(0UL, number(5));
    EXPECT_EQ(reinterpret_cast<unsigned long>(site.caller), number(6));
    Free(site.data);
}

TEST_F(PZLHeapMngFileTest, NumbersTheBlocksFromTheOldest) {
    const std::vector<void*> blocks = {Malloc(1), Malloc(2), Malloc(3)};
    const auto rows = block_rows(report().file);
    ASSERT_EQ(3U, rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(decimal(static_cast<unsigned int>(i), 4), rows[i].at(0));
        EXPECT_EQ(hex(blocks[i]), rows[i].at(2));
    }
    for (void* block : blocks) Free(block);
}

TEST_F(PZLHeapMngFileTest, TellsThePeaksOfReallocatedBlocks) {
    // The old block is released before the new one is counted: never both.
    void* p = Realloc(Realloc(Malloc(100), 300), 50);
    const std::string expected = totals_text(1, 1, 50, 300) + kThreadsHead +
                                 thread_text(thread, 1, 1, 50, 300) + kBlocksHead;
    EXPECT_EQ(expected, report().file.substr(0, expected.size()));
    Free(p);
}

TEST_F(PZLHeapMngFileTest, ChargesABlockToTheThreadThatAllocatedIt) {
    void* p = Malloc(100);
    void* kept = Malloc(10);
    unsigned int other = 0;
    void* own = nullptr;
    run_in_thread([&] {
        other = this_thread();
        own = Malloc(1000);
        Free(p);
    });
    const std::string expected = totals_text(2, 3, 1010, 1110) + kThreadsHead +
                                 thread_text(thread, 1, 2, 10, 110) +
                                 thread_text(other, 1, 1, 1000, 1000) + kBlocksHead;
    EXPECT_EQ(expected, report().file.substr(0, expected.size()));
    Free(kept);
    Free(own);
}

TEST_F(PZLHeapMngFileTest, TellsWhatARefusedReleaseLeaves) {
    void* ofOther = nullptr;
    unsigned int other = 0;
    run_in_thread([&] {
        other = this_thread();
        ofOther = Malloc(1000);
    });
    void* p = Malloc(100);
    const ForgedBlock forged(101);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(forged.Data()));
    const std::string expected = totals_text(1, 2, 999, 1100) + kThreadsHead +
                                 thread_text(other, 1, 1, 1000, 1000) +
                                 thread_text(thread, 1, 1, 100, 100) + kBlocksHead;
    const std::string file = report().file;
    EXPECT_EQ(expected, file.substr(0, expected.size()));
    EXPECT_EQ(2U, block_rows(file).size());
    static_cast<void>(ofOther);
    static_cast<void>(p);
}

TEST_F(PZLHeapMngFileTest, EndsWithTheHeadLineWhenTheListIsEmpty) {
    void* early = Malloc(5);
    InitMemMng();
    Free(early);
    const ForgedBlock forged(0, /*threadId=*/0x7FFFFFFF);
    EXPECT_EQ(Errors{kTooMuchFree}, errors_of_free(forged.Data()));  // one count too few now
    const Report result = report();
    EXPECT_EQ("", result.printed);
    EXPECT_EQ(totals_text(-1, 1, 0, 5) + kThreadsHead + thread_text(thread, 0, 1, 0, 5) +
                  thread_text(0x7FFFFFFF, 0, 0, 0, 0) + kBlocksHead,
              result.file);
}

TEST_F(PZLHeapMngFileTest, HasARowForEachOf200ThreadsAndNoMore) {
    constexpr size_t kThreads = 200;
    std::set<unsigned int> threads;
    std::vector<void*> blocks;
    while (threads.size() < kThreads + 1) {
        run_in_thread([&] {
            if (threads.insert(this_thread()).second) blocks.push_back(Malloc(2));
        });
    }
    const std::string file = report().file;
    const std::string totals = totals_text(201, 201, 402, 402);
    EXPECT_EQ(totals, file.substr(0, totals.size()));
    EXPECT_EQ(kThreads,
              pztest::count_of(file, "     00001         00001        0000002     0000002\n"));
    EXPECT_EQ(kThreads + 1, block_rows(file).size());
    for (void* block : blocks) Free(block);
}

TEST_F(PZLHeapMngFileTest, IsNotWrittenWithoutAnAllocationSinceTheBeginning) {
    const std::set<std::string> none;
    EXPECT_EQ(none, report().fileNames);  // never any
    Free(Malloc(1));
    EXPECT_EQ(none, report().fileNames);  // all freed
    void* early = Malloc(1);
    InitMemMng();
    EXPECT_EQ(none, report().fileNames);  // none since
    Free(Malloc(2));
    EXPECT_EQ(none, report().fileNames);  // all since freed
    Free(early);
}

TEST_F(PZLHeapMngFileTest, WritingItChangesNoAccount) {
    void* p = Malloc(1);
    const std::string first = report().file;
    EXPECT_NE("", first);
    EXPECT_EQ(first, report().file);
    EXPECT_EQ(nullptr, header_of(p)->newer);
    Free(p);
}

namespace {

/// A report file that is written on while another thread allocates: a hundred blocks for each
/// handing over of data, which tells of fewer.
struct BusyFile {
    std::string text;
    std::vector<void*> added;

    static inline BusyFile* current = nullptr;
    static constexpr size_t kMaxAdded = 3000;  // an endless report ends here

    static ssize_t Write(void* /*cookie*/, const char* data, size_t size) {
        current->text.append(data, size);
        run_in_thread([] {
            for (int i = 0; i < 100 && current->added.size() < kMaxAdded; ++i) {
                current->added.push_back(Malloc(1));
            }
        });
        return static_cast<ssize_t>(size);
    }

    static FILE* Open(int fd, const char* mode) { return pztest::stream_instead(fd, mode, &Write); }
};

}  // namespace

TEST_F(PZLHeapMngFileTest, LeavesOutBlocksThatOtherThreadsAllocateMeanwhile) {
    std::vector<void*> blocks;
    for (unsigned int i = 0; i < 100; ++i) blocks.push_back(Malloc(i));
    const pztest::FakeSyslog syslogFolder;
    BusyFile busy;
    BusyFile::current = &busy;
    pztest::fdopen_call.Replace(&BusyFile::Open);
    pztest::StdoutCapture output;
    FinMemMng();
    pztest::fdopen_call.Replace(nullptr);
    EXPECT_FALSE(busy.added.empty());
    const auto rows = block_rows(busy.text);
    ASSERT_EQ(blocks.size(), rows.size());
    for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(hex(blocks[i]), rows[i].at(2));
    EXPECT_EQ(blocks.size(), pztest::count_of(output.Take(), "    -    (0x"));
    for (void* block : blocks) Free(block);
    for (void* block : busy.added) Free(block);
}

TEST_F(PZLHeapMngFileTest, IsNamedAfterTheProcessAndTheTime) {
    void* p = Malloc(1);
    const auto file_name = [](const char* process) {
        process_name = process;
        const std::set<std::string> names = report().fileNames;
        return names.size() == 1 ? *names.begin() : "(not one file)";
    };
    EXPECT_EQ("HeapList_app240305_0708.txt", file_name("app"));
    EXPECT_EQ("HeapList_240305_0708.txt", file_name(""));
    EXPECT_EQ("HeapList_\u00e9240305_0708.txt", file_name("\u00e9"));
    // 24 characters before the time
    EXPECT_EQ("HeapList_123456789abcdef240305_0708.txt", file_name("123456789abcdef"));
    EXPECT_EQ("HeapList_123456789abcdef240305_0708.txt", file_name("123456789abcdefg"));
    EXPECT_EQ("HeapList_123456789abcdef240305_0708.txt",
              file_name("123456789abcdefghijklmnopqrstuvwxyz0123456789abcdefghijklmnopqr"));
    EXPECT_EQ("HeapList_240305_0708.txt", file_name("\xFF"));  // no UTF-8
    EXPECT_EQ("(not one file)", file_name("no/such"));         // a folder that is missing
    Free(p);
}

TEST_F(PZLHeapMngFileTest, ReplacesThatOfTheSameMinute) {
    const pztest::FakeSyslog syslogFolder;
    const pztest::StdoutCapture output;
    void* p = Malloc(1);
    void* q = Malloc(2);
    FinMemMng();
    Free(q);
    FinMemMng();
    EXPECT_EQ((std::set<std::string>{"HeapList_240305_0708.txt"}), syslogFolder.Names());
    EXPECT_EQ(1U, block_rows(syslogFolder.Content("HeapList_240305_0708.txt")).size());
    Free(p);
}

TEST_F(PZLHeapMngFileTest, IsMissingWhereItsFolderCannotBeMade) {
    const pztest::FakeSyslog syslogFolder;
    void* p = Malloc(1);
    pztest::StdoutCapture output;
    FinMemMng();
    const std::string printed = output.Take();
    pztest::FakeSyslog::Remove();
    FinMemMng();
    const std::string text = output.Take();
    const std::string reason =
        "std library error [" + std::to_string(EACCES) + " : " + std::strerror(EACCES) + "]";
    EXPECT_EQ(Errors{reason}, pztest::error_messages(text));
    ASSERT_LT(printed.size(), text.size());
    EXPECT_EQ(printed, text.substr(text.size() - printed.size()));  // the table, as ever
    Free(p);
}

TEST_F(PZLHeapMngFileTest, IsMissingWithoutMemoryAndTheTableIsPrintedInstead) {
    const pztest::FakeSyslog syslogFolder;
    void* p = Malloc(1);
    for (int skip = 0;; ++skip) {
        pztest::StdoutCapture output;
        bool wasRefused = false;
        {
            const pztest::MemoryShortage shortage(skip);
            FinMemMng();
            wasRefused = shortage.Refused() > 0;
        }
        EXPECT_NE(std::string::npos, output.Take().find("[Memory Leak Info]")) << skip;
        if (!wasRefused) break;
    }
    Free(p);
}

TEST_F(PZLHeapMngFileTest, IsMissingWithoutAReportWhereItCannotBeOpened) {
    const pztest::FakeSyslog syslogFolder;
    void* p = Malloc(1);
    pztest::StdoutCapture output;
    FinMemMng();
    const std::string printed = output.Take();
    pztest::open_call.FailNext(EACCES);
    FinMemMng();
    EXPECT_EQ(printed, output.Take());
    Free(p);
}

TEST_F(PZLHeapMngFileTest, LiesInTheSystemsLogFolder) {
    if (access("/Syslog", W_OK) != 0) GTEST_SKIP() << "cannot write to /Syslog";
    pztest::sync_call.Replace([] {});
    const std::string process = "t" + std::to_string(getpid());
    process_name = process.c_str();
    const std::string path = "/Syslog/HeapList_" + process + "240305_0708.txt";
    void* p = Malloc(1);
    {
        const pztest::StdoutCapture output;
        FinMemMng();
    }
    EXPECT_EQ(1U, block_rows(pztest::read_file(path)).size());
    EXPECT_EQ(0, unlink(path.c_str()));
    Free(p);
}

// The maps beside it

namespace {

/// For a process of its own, as each of these tests has.
void ask_for_maps(const char* value) {
    ASSERT_EQ(0, setenv("PZ_HEAP_MAPS", value, /*overwrite=*/1));
}

/// The names of the files that FinMemMng leaves while one block lives.
std::set<std::string> files_of_a_report() {
    void* const block = Malloc(1);
    const std::set<std::string> names = report().fileNames;
    Free(block);
    return names;
}

bool has_line(const std::string& text, const std::string& line) {
    return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
}

/// "thread 0x0000007b name"
std::string thread_line(unsigned int thread, const std::string& name) {
    char id[32];
    std::snprintf(id, sizeof id, "thread 0x%08x ", thread);
    return id + name;
}

/// True when the map says that the file lies around the address.
bool maps_address(const std::string& map, const void* address) {
    std::istringstream lines(map);
    for (std::string line; std::getline(lines, line);) {
        unsigned long begin = 0;
        unsigned long end = 0;
        const auto at = reinterpret_cast<unsigned long>(address);
        if (std::sscanf(line.c_str(), "%lx-%lx ", &begin, &end) != 2) continue;
        if (begin <= at && at < end) return line.find('/') != std::string::npos;
    }
    return false;
}

}  // namespace

TEST_F(PZLHeapMngFileTest, HasMapsBesideItWhenTheEnvironmentAsksForThem) {
    const std::string maps = "HeapList_240305_0708.maps";
    const std::string text = "HeapList_240305_0708.txt";
    EXPECT_EQ((std::set<std::string>{text}), files_of_a_report());
    for (const char* value : {"", "0", "yes", "10"}) {
        ask_for_maps(value);
        EXPECT_EQ((std::set<std::string>{text}), files_of_a_report()) << value;
    }
    ask_for_maps("1");
    EXPECT_EQ((std::set<std::string>{maps, text}), files_of_a_report());

    const pztest::FakeSyslog syslogFolder;
    const pztest::StdoutCapture output;
    void* const block = Malloc(1);
    FinMemMng();
    const std::string map = syslogFolder.Content(maps);
    EXPECT_TRUE(maps_address(map, header_of(block)->callers[0])) << map;
    Free(block);
    FinMemMng();  // nothing was allocated since: no report, no map
    EXPECT_EQ((std::set<std::string>{maps, text}), syslogFolder.Names());
}

TEST_F(PZLHeapMngFileTest, IsThereWhenItsMapsCannotBeWrittenWhichIsReported) {
    ask_for_maps("1");
    const pztest::FakeSyslog syslogFolder;
    void* const block = Malloc(1);
    pztest::StdoutCapture output;
    std::filesystem::create_directory(syslogFolder.Folder().File("HeapList_240305_0708.maps"));
    FinMemMng();
    const std::string printed = output.Take();
    EXPECT_TRUE(pztest::has_report(printed, "FinMemMng", "PZLHeapMng.cpp",
                                   "std library error [21 : Is a directory] "
                                   "[/Syslog//HeapList_240305_0708.maps]"))
        << printed;
    EXPECT_EQ(1U, block_rows(syslogFolder.Content("HeapList_240305_0708.txt")).size());
    EXPECT_NE(std::string::npos, printed.find("[Memory Leak Info]"));
    Free(block);
}

TEST_F(PZLHeapMngFileTest, DoesNotFollowALinkInThePlaceOfItsMaps) {
    ask_for_maps("1");
    const pztest::TempDir elsewhere;
    const std::string victim = elsewhere.File("victim");
    pztest::write_file(victim, "precious");
    const pztest::FakeSyslog syslogFolder;
    ASSERT_EQ(0, symlink(victim.c_str(),
                         syslogFolder.Folder().File("HeapList_240305_0708.maps").c_str()));
    void* const block = Malloc(1);
    const pztest::StdoutCapture output;
    FinMemMng();
    EXPECT_EQ("precious", pztest::read_file(victim));
    Free(block);
}

TEST(PZLHeapMngMapsTest, NameTheThreadsThatHaveAllocated) {
    const pztest::TempDir dir;
    const std::string path = dir.File("a.maps");
    pztest::write_file(path, "something longer from before\n" + std::string(1000000, 'x'));
    unsigned int ended = 0;
    void* ofEnded = nullptr;
    run_in_thread([&] {
        pthread_setname_np(pthread_self(), "fifteen letters");
        ended = this_thread();
        ofEnded = Malloc(1);
    });
    // Its first block comes before its name, and there is a line feed in that.
    std::atomic<unsigned int> living{0};
    std::atomic<bool> isOver{false};
    std::thread thread([&] {
        Free(Malloc(1));
        pthread_setname_np(pthread_self(), "two\nlines");
        living = this_thread();
        while (!isOver) sched_yield();
    });
    ASSERT_TRUE(pztest::wait_until([&] { return living != 0; }));
    EXPECT_TRUE(pz_HeapWriteMaps(path.c_str()));
    isOver = true;
    thread.join();
    const std::string map = pztest::read_file(path);
    EXPECT_TRUE(maps_address(map, header_of(ofEnded)->callers[0])) << map;
    EXPECT_TRUE(has_line(map, thread_line(ended, "fifteen letters"))) << map;
    EXPECT_TRUE(has_line(map, thread_line(living, "two?lines"))) << map;
    EXPECT_EQ(2U, pztest::count_of(map, "thread 0x")) << map;
    Free(ofEnded);
}

TEST(PZLHeapMngMapsTest, KnowAThreadThatWasNamedAfterItsFirstBlock) {
    const pztest::TempDir dir;
    unsigned int ended = 0;
    std::vector<void*> blocks;
    run_in_thread([&] {
        ended = this_thread();
        blocks.push_back(Malloc(1));
        pthread_setname_np(pthread_self(), "late");
        blocks.push_back(Malloc(1));
    });
    EXPECT_TRUE(pz_HeapWriteMaps(dir.File("a.maps").c_str()));
    const std::string map = pztest::read_file(dir.File("a.maps"));
    EXPECT_TRUE(has_line(map, thread_line(ended, "late"))) << map;
    for (void* const block : blocks) Free(block);
}

TEST(PZLHeapMngMapsTest, AreTheProcessMapAloneBeforeTheFirstBlock) {
    const pztest::TempDir dir;
    EXPECT_TRUE(pz_HeapWriteMaps(dir.File("a.maps").c_str()));
    const std::string map = pztest::read_file(dir.File("a.maps"));
    EXPECT_TRUE(maps_address(map, reinterpret_cast<const void*>(&run_in_thread))) << map;
    EXPECT_EQ(0U, pztest::count_of(map, "thread 0x"));
}

TEST(PZLHeapMngMapsTest, AreReportedWhenTheyCannotBeWritten) {
    const pztest::TempDir dir;
    pztest::StdoutCapture output;
    EXPECT_FALSE(pz_HeapWriteMaps(nullptr));
    EXPECT_TRUE(
        pztest::has_report(output.Take(), "pz_HeapWriteMaps", "PZLHeapMng.cpp", "invalid args"));
    const std::string path = dir.File("no/such");
    EXPECT_FALSE(pz_HeapWriteMaps(path.c_str()));
    EXPECT_TRUE(
        pztest::has_report(output.Take(), "pz_HeapWriteMaps", "PZLHeapMng.cpp",
                           "std library error [2 : No such file or directory] [" + path + "]"));
    EXPECT_FALSE(pz_HeapWriteMaps("/dev/full"));
    EXPECT_TRUE(pztest::has_report(output.Take(), "pz_HeapWriteMaps", "PZLHeapMng.cpp",
                                   "std library error [28 : No space left on device] [/dev/full]"));
}

// The live blocks

TEST(PZLHeapMngTest, CountsTheLiveBlocksAndTheirBytes) {
    EXPECT_EQ(0U, pz_HeapLiveBlocks());
    EXPECT_EQ(0U, pz_HeapLiveBytes());
    void* p = Malloc(100);
    void* const q = Malloc(0);
    EXPECT_EQ(2U, pz_HeapLiveBlocks());
    EXPECT_EQ(100U, pz_HeapLiveBytes());
    p = Realloc(p, 7);
    EXPECT_EQ(2U, pz_HeapLiveBlocks());
    EXPECT_EQ(7U, pz_HeapLiveBytes());
    EXPECT_EQ(nullptr, Realloc(q, 0));
    InitMemMng();
    EXPECT_EQ(1U, pz_HeapLiveBlocks()) << "older ones included";
    FinMemMng();
    EXPECT_EQ(7U, pz_HeapLiveBytes());
    Free(p);
    EXPECT_EQ(0U, pz_HeapLiveBlocks());
    EXPECT_EQ(0U, pz_HeapLiveBytes());
}

TEST(PZLHeapMngTest, CountsTheLiveBlocksOfAllThreads) {
    constexpr unsigned int kThreads = 4;
    std::vector<void*> kept[kThreads];
    std::vector<std::thread> threads;
    for (std::vector<void*>& own : kept) {
        threads.emplace_back([&own] {
            for (unsigned int i = 1; i <= 1000; ++i) {
                void* const block = Malloc(i);
                if (i % 3 == 0) {
                    own.push_back(Realloc(block, 2 * i));
                } else {
                    Free(block);
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    unsigned int blocks = 0;
    unsigned int bytes = 0;
    for (unsigned int i = 3; i <= 1000; i += 3) {
        blocks += kThreads;
        bytes += kThreads * 2 * i;
    }
    EXPECT_EQ(blocks, pz_HeapLiveBlocks());
    EXPECT_EQ(bytes, pz_HeapLiveBytes());
    for (const std::vector<void*>& own : kept) {
        for (void* const block : own) Free(block);
    }
    EXPECT_EQ(0U, pz_HeapLiveBlocks());
    EXPECT_EQ(0U, pz_HeapLiveBytes());
}

// The lock

TEST(PZLHeapMngTest, MakesItsLockInTheFirstMallocOnly) {
    sem_init_call.Reset();
    InitMemMng();
    FinMemMng();
    Free(nullptr);
    EXPECT_EQ(0, sem_init_call.Calls());
    Free(Malloc(1));
    EXPECT_EQ(1, sem_init_call.Calls());
    Free(Malloc(1));
    EXPECT_EQ(1, sem_init_call.Calls());
}

TEST(PZLHeapMngTest, LocksOnceForEachBlockAndNotForTheReport) {
    InitMemMng();
    sem_wait_call.Reset();
    void* p = Malloc(1);
    EXPECT_EQ(1, sem_wait_call.Calls());
    sem_wait_call.Reset();
    InitMemMng();
    void* late = Malloc(2);
    sem_wait_call.Reset();
    EXPECT_EQ(addresses({p, late}), reported_addresses());
    EXPECT_EQ(0, sem_wait_call.Calls());
    Free(late);
    EXPECT_EQ(1, sem_wait_call.Calls());
    Free(p);
}

// How long the children below may take that must not hang.
constexpr std::chrono::seconds kPatience(10);

#ifndef __SANITIZE_THREAD__  // which keeps a lock of its own for each of ours, held in the child
TEST(PZLHeapMngTest, AForkedChildAllocatesWhateverOtherThreadsDidMeanwhile) {
#ifdef __SANITIZE_ADDRESS__
    constexpr int kForks = 20;  // of a quarter of a second each
#else
    constexpr int kForks = 300;
#endif
    std::atomic<bool> isOver{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&isOver] {
            while (!isOver) Free(Realloc(Malloc(10), 20));
        });
    }
    void* const ofParent = Malloc(100);
    int failed = 0;
    for (int i = 0; i < kForks && failed == 0; ++i) {
        pztest::ChildProcess child([ofParent] {
            Free(ofParent);
            void* const own = Realloc(Malloc(1), 2);
            const bool isCharged = header_of(own)->threadId == static_cast<unsigned int>(getpid());
            Free(own);
            return isCharged ? 0 : 1;
        });
        if (child.Wait(kPatience) != 0) ++failed;
    }
    isOver = true;
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, failed);
    Free(ofParent);
}
#endif

TEST(PZLHeapMngTest, AThreadIsNotCancelledInTheMiddleOfAFork) {
    Free(Malloc(1));
    std::atomic<int> status{-1};
    std::thread forking([&status] {
        pthread_cancel(pthread_self());
        const pid_t child = fork();  // nothing else, which might be cancelled
        if (child == 0) _exit(0);
        int cancelState = 0;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
        if (child != -1) status = pztest::ChildProcess(child).Wait(kPatience);
    });
    forking.join();
    EXPECT_EQ(0, status);
    Free(Malloc(1));  // the lock is free
}

TEST(PZLHeapMngTest, KeepsItsLockUntilTheProcessHasEnded) {
    const pztest::ChildResult result = pztest::run_in_child([]() -> int {
        // Older than the lock, so its destructor runs after that of whatever Malloc makes.
        static struct Keeper {
            void* data = nullptr;
            ~Keeper() {
                Free(data);
                Free(Malloc(1));
                if (::write(STDOUT_FILENO, "freed\n", 6) != 6) std::abort();
            }
        } keeper;
        keeper.data = Malloc(1);
        std::exit(0);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("freed\n", result.output);
}

// The address sanitizer takes the unwinding of a cancelled thread for an overrun.
#ifndef __SANITIZE_ADDRESS__
TEST(PZLHeapMngTest, GivesItsLockBackWhenAThreadIsCancelledInsideAReport) {
    const pztest::ChildResult result = pztest::run_in_child([]() -> int {
        static void* overrun = nullptr;
        overrun = Malloc(8);
        static_cast<char*>(overrun)[8] = 'x';
        void* end = nullptr;
        {
            const pztest::StuckStdout stuck;
            pthread_t thread = {};
            if (pthread_create(
                    &thread, nullptr,
                    [](void*) -> void* {
                        Free(overrun);
                        return nullptr;
                    },
                    nullptr) != 0) {
                return 1;
            }
            if (!stuck.WaitUntilOthersSleep()) return 2;
            pthread_cancel(thread);
            pthread_join(thread, &end);
        }
        if (end != PTHREAD_CANCELED) return 3;
        // Another thread gets the lock, and the accounts are as before.
        run_in_thread([] { Free(Malloc(1)); });
        return 0;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(0, result.status) << result.output;
}
#endif

// The sanitizers keep the allocator to themselves; what needs a stand-in for it runs in the other
// builds.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

PZ_INTERPOSE(malloc, 1);
PZ_INTERPOSE(realloc, 2);

namespace {

/// Stands between the heap and the C library for one block, or one size.
struct AllocatorWatch {
    std::atomic<size_t> failingSize{SIZE_MAX};  // answered with null
    std::atomic<const void*> kept{nullptr};     // not given back by free
    std::atomic<int> freesOfKept{0};
    std::function<void()> duringFree;               // runs in the free of the kept one
    std::atomic<const void*> reallocated{nullptr};  // what the latest realloc got
    std::atomic<size_t> reallocSize{SIZE_MAX};
};

AllocatorWatch watch;

void* failing_malloc(size_t size) {
    if (size != watch.failingSize) return malloc_call.Real(size);
    errno = ENOMEM;
    return nullptr;
}

void* watched_realloc(void* p, size_t size) {
    watch.reallocated = p;
    watch.reallocSize = size;
    if (size != watch.failingSize) return realloc_call.Real(p, size);
    errno = ENOMEM;
    return nullptr;
}

class PZLHeapMngAllocatorTest : public testing::Test {
protected:
    void SetUp() override {
        malloc_call.Replace(failing_malloc);
        realloc_call.Replace(watched_realloc);
    }
    void TearDown() override {
        malloc_call.Replace(nullptr);
        realloc_call.Replace(nullptr);
        watch.kept = nullptr;
    }
};

constexpr size_t bytes_of(unsigned int size) {
    return kHeaderSize + size + kTrailerSize;
}

}  // namespace

extern "C" void free(void* ptr) noexcept {
    using Function = void (*)(void*);
    static std::atomic<Function> real{nullptr};
    if (real == nullptr) real = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "free"));
    if (ptr == nullptr || ptr != watch.kept) {
        real.load()(ptr);
        return;
    }
    ++watch.freesOfKept;
    if (watch.duringFree) watch.duringFree();
}

TEST_F(PZLHeapMngAllocatorTest, MallocAnswersNullAndRecordsNothingWithoutMemory) {
    Free(Malloc(1));
    watch.failingSize = bytes_of(321);
    pztest::StdoutCapture output;
    EXPECT_EQ(nullptr, Malloc(321));
    EXPECT_EQ("", output.Take());
    EXPECT_EQ("", leak_report());
    const ForgedBlock forged(1);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(forged.Data()));  // the total is 0
}

TEST_F(PZLHeapMngAllocatorTest, AnswersNullAndTriesAgainWhileItsLockFindsNoMemory) {
    pztest::StdoutCapture output;
    watch.failingSize = sizeof(sem_t);
    void* const first = Malloc(1);
    void* const second = Realloc(nullptr, 1);
    watch.failingSize = SIZE_MAX;
    EXPECT_EQ(nullptr, first);
    EXPECT_EQ(nullptr, second);
    const Errors refused(2, "create error : errno[12 : Cannot allocate memory]");
    EXPECT_EQ(refused, pztest::error_messages(output.Take()));
    EXPECT_EQ("", leak_report());

    sem_wait_call.Reset();
    void* const p = Malloc(1);
    EXPECT_EQ(1, sem_wait_call.Calls());
    EXPECT_EQ(1U, pz_HeapLiveBlocks());
    Free(p);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZLHeapMngAllocatorTest, AForkNeedsNoLockThatFoundNoMemory) {
    pztest::StdoutCapture output;
    watch.failingSize = sizeof(sem_t);
    void* const refused = Malloc(1);
    const pid_t child = fork();
    watch.failingSize = SIZE_MAX;
    if (child == 0) {
        void* const own = Malloc(1);
        _exit(own != nullptr && pz_HeapLiveBlocks() == 1 ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(nullptr, refused);
    EXPECT_EQ(0U, pztest::count_of(output.Take(), "handle is not created"));
}

TEST_F(PZLHeapMngAllocatorTest, ReallocOfNullAnswersNullWithoutMemory) {
    watch.failingSize = bytes_of(321);
    EXPECT_EQ(nullptr, Realloc(nullptr, 321));
    EXPECT_EQ("", leak_report());
}

TEST_F(PZLHeapMngAllocatorTest, ReallocAnswersNullWithoutMemoryAndNoLongerTracksTheOldBlock) {
    void* p = Malloc(4);
    std::memcpy(p, "abc", 4);
    watch.failingSize = bytes_of(321);
    watch.kept = header_of(p);
    pztest::StdoutCapture output;
    EXPECT_EQ(nullptr, Realloc(p, 321));
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(header_of(p), watch.reallocated);
    EXPECT_EQ("", leak_report());
    EXPECT_STREQ("abc", static_cast<char*>(p));  // the memory stays taken
    EXPECT_EQ(0, watch.freesOfKept);
    watch.kept = nullptr;
    std::free(header_of(p));
}

TEST_F(PZLHeapMngAllocatorTest, ReallocAsksForHeaderDataAndTrailer) {
    void* p = Malloc(4);
    const void* block = header_of(p);
    p = Realloc(p, 50);
    EXPECT_EQ(block, watch.reallocated);
    EXPECT_EQ(bytes_of(50), watch.reallocSize);
    Free(p);
}

TEST_F(PZLHeapMngAllocatorTest, ReallocToNothingReallocatesToNothing) {
    void* p = Malloc(4);
    const void* block = header_of(p);
    EXPECT_EQ(nullptr, Realloc(p, 0));
    EXPECT_EQ(block, watch.reallocated);
    EXPECT_EQ(0U, watch.reallocSize);
}

TEST_F(PZLHeapMngAllocatorTest, ARefusedReallocLeavesTheMemoryAlone) {
    auto* p = static_cast<unsigned char*>(Malloc(4));
    p[4] = 0;
    watch.reallocated = nullptr;
    const pztest::StdoutCapture output;
    EXPECT_EQ(nullptr, Realloc(p, 50));
    EXPECT_EQ(nullptr, watch.reallocated);
}

TEST_F(PZLHeapMngAllocatorTest, FreeGivesTheBlockBackOnce) {
    void* p = Malloc(4);
    watch.kept = header_of(p);
    Free(p);
    EXPECT_EQ(1, watch.freesOfKept);
    watch.kept = nullptr;
    std::free(header_of(p));
}

TEST_F(PZLHeapMngAllocatorTest, NeverGivesBackARefusedBlock) {
    auto* p = static_cast<unsigned char*>(Malloc(4));
    p[4] = 0;
    watch.kept = header_of(p);
    EXPECT_EQ(Errors{kCorruption}, errors_of_free(p));
    EXPECT_EQ(0, watch.freesOfKept);
}

TEST_F(PZLHeapMngAllocatorTest, GivesBackABlockThatLeftAnInconsistentList) {
    void* p = Malloc(4);
    void* other = Malloc(4);
    header_of(other)->older = nullptr;
    watch.kept = header_of(p);
    const pztest::StdoutCapture output;
    Free(p);
    EXPECT_EQ(1, watch.freesOfKept);
}

TEST_F(PZLHeapMngAllocatorTest, ReportsTheSecondFreeOfABlock) {
    void* p = Malloc(4);
    watch.kept = header_of(p);  // its memory stays readable
    Free(p);
    EXPECT_EQ(Errors{kDoubleFree}, errors_of_free(p));
    EXPECT_EQ(1, watch.freesOfKept);
}

TEST_F(PZLHeapMngAllocatorTest, ReportsTheSecondFreeOfABlockWhoseMemoryWasReusedAsCorruption) {
    void* p = Malloc(4);
    watch.kept = header_of(p);
    Free(p);
    std::memset(p, 0, 4 + kTrailerSize);
    EXPECT_EQ(Errors{kCorruption}, errors_of_free(p));
    EXPECT_EQ(1, watch.freesOfKept);
}

TEST_F(PZLHeapMngAllocatorTest, WritesTheMapsWithoutMemory) {
    const pztest::TempDir dir;
    const std::string path = dir.File("a.maps");
    void* const block = Malloc(1);
    malloc_call.FailNext(ENOMEM, INT_MAX);
    realloc_call.FailNext(ENOMEM, INT_MAX);
    const bool isWritten = pz_HeapWriteMaps(path.c_str());
    malloc_call.Reset();
    realloc_call.Reset();
    Free(block);
    EXPECT_TRUE(isWritten);
    EXPECT_EQ(1U, pztest::count_of(pztest::read_file(path), "thread 0x"));
}

TEST_F(PZLHeapMngAllocatorTest, FreesOutsideItsLock) {
    static std::atomic<bool> otherWasThrough{false};
    void* p = Malloc(4);
    watch.kept = header_of(p);
    watch.duringFree = [] {
        std::thread other([] {
            Free(Malloc(1));
            otherWasThrough = true;
        });
        EXPECT_TRUE(pztest::wait_until([] { return otherWasThrough.load(); }));
        other.join();
    };
    Free(p);
    EXPECT_EQ(1, watch.freesOfKept);
    EXPECT_TRUE(otherWasThrough);
    watch.duringFree = nullptr;
}

#endif
