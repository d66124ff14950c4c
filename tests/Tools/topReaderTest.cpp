#include <unistd.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/pz_inspection.h>

#include "top/InspectionReader.h"
#include "top/ProcessMemory.h"
#include "top/Table.h"
#include "top/TableFinder.h"
#include "top/Text.h"
#include "top/View.h"

// What pz-top believes of a table, and what not.

namespace {

using Table = ST_INSPECTION<PZInspectionCopy>;
using Box = ST_INSPECTED_BOX<PZInspectionCopy>;
using Band = ST_INSPECTED_BAND<PZInspectionCopy>;
using Thread = ST_INSPECTED_THREAD<PZInspectionCopy>;
using Wait = ST_INSPECTED_WAIT<PZInspectionCopy>;

std::uint32_t coarse_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return static_cast<std::uint32_t>(now.tv_sec) * 1000U +
           static_cast<std::uint32_t>(now.tv_nsec) / 1000000U;
}

/// Memory that a test has made; everything else cannot be read.
class FakeMemory : public ProcessMemory {
public:
    bool Read(std::uint64_t address, void* to, std::size_t size) const override {
        ++reads;
        if (onRead) onRead();
        const auto next = parts_.upper_bound(address);
        if (next == parts_.begin()) return false;
        const auto& [start, bytes] = *std::prev(next);
        if (address - start > bytes.size() || bytes.size() - (address - start) < size) return false;
        std::memcpy(to, bytes.data() + (address - start), size);
        return true;
    }

    template <typename T>
    void Put(std::uint64_t address, const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        std::vector<char> bytes(sizeof value);
        std::memcpy(bytes.data(), &value, sizeof value);
        parts_[address] = bytes;
    }

    void PutText(std::uint64_t address, const std::string& text, std::size_t size) {
        std::vector<char> bytes(size);
        std::memcpy(bytes.data(), text.data(), std::min(text.size(), size));
        parts_[address] = bytes;
    }

    mutable int reads = 0;
    std::function<void()> onRead;

private:
    std::map<std::uint64_t, std::vector<char>> parts_;
};

constexpr std::uint64_t kTable = 0x1000;
constexpr std::uint64_t kFirst = 0x2000;
constexpr std::uint64_t kSecond = 0x3000;

Table empty_table() {
    Table table = {};
    std::memcpy(table.magic, PZ_INSPECTION_MAGIC, sizeof table.magic);
    table.version = PZ_INSPECTION_VERSION;
    table.size = sizeof table;
    table.pointerSize = 8;
    table.boxSize = sizeof(Box);
    table.bandSize = sizeof(Band);
    table.threadSize = sizeof(Thread);
    table.queueSize = sizeof(ST_INSPECTED_QUEUE<PZInspectionCopy>);
    table.waitSize = sizeof(Wait);
    table.lockType = 8;
    table.lockName = 12;
    table.lockOwner = 48;
    return table;
}

Box box_of(std::uint32_t tid, std::uint64_t next) {
    Box box = {};
    box.kind = PZ_INSPECTED_BOX_KIND;
    box.tid = tid;
    box.next = next;
    return box;
}

class topReaderTest : public testing::Test {
protected:
    ReadResult Read() {
        memory.Put(kTable, table);
        return read_inspection(memory, kTable, seen, version);
    }

    FakeMemory memory;
    Table table = empty_table();
    Inspection seen;
    std::uint32_t version = 0;
};

}  // namespace

TEST_F(topReaderTest, ReadsAnEmptyTable) {
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_TRUE(seen.boxes.empty());
    EXPECT_TRUE(seen.areBoxesComplete);
    EXPECT_FALSE(seen.name);
    EXPECT_FALSE(seen.heap);
}

TEST_F(topReaderTest, RefusesAnotherVersionAndTellsIt) {
    table.version = 2;
    EXPECT_EQ(ReadResult::OtherVersion, Read());
    EXPECT_EQ(2U, version);
}

TEST_F(topReaderTest, RefusesATableWithABadMarkOrBadSizes) {
    table.magic[0] = 'p';
    EXPECT_EQ(ReadResult::Unreadable, Read());
    table = empty_table();
    table.pointerSize = 5;
    EXPECT_EQ(ReadResult::Unreadable, Read());
    table = empty_table();
    table.boxSize = sizeof(Box) - 1;
    EXPECT_EQ(ReadResult::Unreadable, Read());
    EXPECT_EQ(ReadResult::Unreadable, read_inspection(memory, kTable + 64, seen, version));
    EXPECT_EQ(ReadResult::Unreadable, read_inspection(memory, 0, seen, version));
    EXPECT_EQ(ReadResult::Unreadable, read_inspection(memory, ~0ULL, seen, version));
}

TEST_F(topReaderTest, ReadsListsOldestFirst) {
    table.boxes = kFirst;
    memory.Put(kFirst, box_of(2, kSecond));
    memory.Put(kSecond, box_of(1, 0));
    EXPECT_EQ(ReadResult::Done, Read());
    ASSERT_EQ(2U, seen.boxes.size());
    EXPECT_EQ(1U, seen.boxes[0].tid);
    EXPECT_EQ(2U, seen.boxes[1].tid);
    EXPECT_EQ(Activity::Idle, seen.boxes[0].now.state);
}

TEST_F(topReaderTest, StopsInAListThatLeadsBackToItself) {
    table.boxes = kFirst;
    memory.Put(kFirst, box_of(1, kSecond));
    memory.Put(kSecond, box_of(2, kFirst));
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_FALSE(seen.areBoxesComplete);
    EXPECT_EQ(2U, seen.boxes.size());
}

TEST_F(topReaderTest, StopsInAListWithoutEnd) {
    table.boxes = kFirst;
    std::vector<Box> boxes;
    for (std::uint64_t i = 0; i < 5000; ++i) {
        memory.Put(kFirst + i * sizeof(Box), box_of(1, kFirst + (i + 1) * sizeof(Box)));
    }
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_FALSE(seen.areBoxesComplete);
    EXPECT_EQ(4096U, seen.boxes.size());
}

TEST_F(topReaderTest, StopsAtARecordOfAnotherKindOrOneThatCannotBeRead) {
    table.boxes = kFirst;
    table.bands = kFirst;
    table.threads = 0x9000;
    memory.Put(kFirst, box_of(1, 0));
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_TRUE(seen.areBoxesComplete);
    EXPECT_FALSE(seen.areBandsComplete);
    EXPECT_FALSE(seen.areThreadsComplete);
}

TEST_F(topReaderTest, FollowsAListThatChangesMeanwhileOnceMore) {
    table.boxes = kFirst;
    Box left = box_of(1, kSecond);
    left.kind = 0;
    memory.Put(kFirst, left);
    memory.Put(kSecond, box_of(2, 0));
    memory.Put(kTable, table);
    // The record that has left was the head; by now the table says so.
    memory.onRead = [this] {
        if (memory.reads != 3) return;
        table.boxes = kSecond;
        memory.Put(kTable, table);
    };
    EXPECT_EQ(ReadResult::Done, read_inspection(memory, kTable, seen, version));
    EXPECT_TRUE(seen.areBoxesComplete);
    ASSERT_EQ(1U, seen.boxes.size());
    EXPECT_EQ(2U, seen.boxes[0].tid);
}

TEST_F(topReaderTest, TellsForHowLongAHandlerRuns) {
    table.boxes = kFirst;
    Box box = box_of(1, 0);
    box.dispatcher = 0xABC;
    box.messageId = 42;
    box.beganMs = coarse_ms() - 3000;
    memory.Put(kFirst, box);
    EXPECT_EQ(ReadResult::Done, Read());
    const Activity& now = seen.boxes[0].now;
    EXPECT_EQ(Activity::Running, now.state);
    EXPECT_EQ(0xABCU, now.object);
    EXPECT_EQ(42U, now.id);
    EXPECT_LE(3000U, now.forMs);
    EXPECT_GT(60000U, now.forMs);
}

TEST_F(topReaderTest, DoesNotBelieveAHandlerThatChangesBetweenTwoReads) {
    table.boxes = kFirst;
    Box box = box_of(1, 0);
    box.dispatcher = 0xABC;
    box.beganMs = coarse_ms() - 3000;
    memory.Put(kFirst, box);
    memory.Put(kTable, table);
    memory.onRead = [this, box]() mutable {
        ++box.served;
        memory.Put(kFirst, box);
    };
    EXPECT_EQ(ReadResult::Done, read_inspection(memory, kTable, seen, version));
    EXPECT_EQ(Activity::Changing, seen.boxes[0].now.state);
}

TEST_F(topReaderTest, TakesImpossibleValuesAsUnknown) {
    table.boxes = kFirst;
    Box box = box_of(1, 0);
    box.dispatcher = 0xABC;
    box.beganMs = coarse_ms() + 60000;
    ST_INSPECTED_POSTS<PZInspectionCopy> posts = {};
    posts.posted = 258;  // one of them runs
    posts.mostEvents = 0xFFFF;
    table.boxPosts = static_cast<std::uint32_t>(-16);
    memory.Put(kFirst, box);
    memory.Put(kFirst - 16, posts);
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_FALSE(seen.boxes[0].pending);
    EXPECT_FALSE(seen.boxes[0].mostEvents);
    EXPECT_EQ(0U, seen.boxes[0].events);
    EXPECT_EQ(Activity::Unknown, seen.boxes[0].now.state);
}

TEST_F(topReaderTest, FindsTheMedianOfTheLateness) {
    table.bands = kFirst;
    Band band = {};
    band.kind = PZ_INSPECTED_BAND_KIND;
    band.worstLateMs = 400;
    band.lateness[0] = 4;
    band.lateness[2] = 1;
    band.lateness[7] = 6;
    memory.Put(kFirst, band);
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_EQ(400U, seen.bands[0].medianLateMs) << "in the last class: not later than the worst";
    band.lateness[2] = 3;
    memory.Put(kFirst, band);
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_EQ(2U, seen.bands[0].medianLateMs);
    std::memset(band.lateness, 0, sizeof band.lateness);
    memory.Put(kFirst, band);
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_FALSE(seen.bands[0].medianLateMs);
}

TEST_F(topReaderTest, NamesOnlyWaitsThatHaveLastedADeadlock) {
    table.waits = kFirst;
    table.waitSize = sizeof(Wait);
    table.waitCount = 2;
    struct {
        Wait waits[2];
    } entries = {};
    entries.waits[0] = {0x5000, 0xA, 11, coarse_ms() - 5000};
    entries.waits[1] = {0x6000, 0xB, 12, coarse_ms() - 5000};
    struct {
        std::uint64_t handle;
        std::uint32_t type;
        char name[36];
        std::uint64_t owner;
    } lock = {0, 1, {}, 0xB};
    static_assert(sizeof lock == 56);
    memory.Put(kFirst, entries);
    memory.Put(0x5000, lock);
    lock.owner = 0xA;
    memory.Put(0x6000, lock);
    EXPECT_EQ(ReadResult::Done, Read());
    ASSERT_EQ(2U, seen.waits.size());
    EXPECT_EQ(0xBU, seen.waits[0].holder);
    ASSERT_EQ(1U, seen.deadlocks.size());
    EXPECT_EQ((std::vector<std::uint32_t>{11, 12}), seen.deadlocks[0]);

    entries.waits[1].sinceMs = coarse_ms();
    memory.Put(kFirst, entries);
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_EQ(2U, seen.waits.size());
    EXPECT_TRUE(seen.deadlocks.empty()) << "it may be over by now";
}

TEST_F(topReaderTest, ShowsNamesWithoutWhatATerminalWouldObey) {
    table.threads = kFirst;
    table.name = 0x7000;
    memory.PutText(0x7000, "ra\033[2Jdio", 64);
    Thread thread = {};
    thread.kind = PZ_INSPECTED_THREAD_KIND;
    thread.name = 0x8000;
    thread.priority = 0xFFFFFFFF;
    memory.Put(kFirst, thread);
    memory.PutText(0x8000, std::string(256, 'x'), 256);
    EXPECT_EQ(ReadResult::Done, Read());
    EXPECT_EQ("ra?[2Jdio", seen.name);
    EXPECT_EQ(std::string(256, 'x'), seen.threads[0].name);
    EXPECT_FALSE(seen.threads[0].priority);
}

TEST(topTextTest, KeepsLettersOfAllScriptsAndNothingElse) {
    EXPECT_EQ("Gr\xC3\xBC\xC3\x9F \xE0\xB8\x81 \xE2\x82\xAC \xF0\x9F\x98\x80",
              printable("Gr\xC3\xBC\xC3\x9F \xE0\xB8\x81 \xE2\x82\xAC \xF0\x9F\x98\x80"));
    EXPECT_EQ("a?b", printable("a\x7F"
                               "b"));
    EXPECT_EQ("??", printable("\xC2\x9B")) << "a control character";
    EXPECT_EQ("???", printable("\xE2\x80\xAE")) << "writes backwards";
    EXPECT_EQ("???", printable("\xED\xA0\x80")) << "half a pair";
    EXPECT_EQ("??", printable("\xC0\x80")) << "too long";
    EXPECT_EQ("?", printable("\xE2"));
    EXPECT_EQ("\"a\\\"b\\\\\"", json_string("a\"b\\"));
}

TEST(topTextTest, WritesDurationsAndSizesWithTheirUnits) {
    EXPECT_EQ("999 ms", duration(999));
    EXPECT_EQ("1.5 s", duration(1500));
    EXPECT_EQ("2.0 min", duration(120000));
    EXPECT_EQ("3.0 h", duration(10800000));
    EXPECT_EQ("1023 B", bytes(1023));
    EXPECT_EQ("1.5 KiB", bytes(1536));
    EXPECT_EQ("2.0 MiB", bytes(2097152));
    EXPECT_EQ("5.0 GiB", bytes(5ULL << 30));
}

TEST(topViewTest, CountsRatesAcrossTheWrapAndOnlyInOneProcess) {
    Reading before;
    before.pid = 5;
    before.startTime = 100;
    before.atNs = 0;
    before.inspection.boxes.resize(1);
    before.inspection.boxes[0].tid = 6;
    before.inspection.boxes[0].served = 0xFFFFFFFF;
    Reading now = before;
    now.atNs = 2000000000;
    now.inspection.boxes[0].served = 9;
    now.tasks = {{6, 6, "worker", 'S', 0, 0}};
    EXPECT_EQ(5.0, view_of(&before, now).threads[0].perSecond);
    EXPECT_FALSE(view_of(nullptr, now).threads[0].perSecond);
    before.startTime = 99;
    EXPECT_FALSE(view_of(&before, now).threads[0].perSecond) << "another process of that number";
}

/// A process whose only thread, 6 in its own container, is a worker with a watch time of 500 ms.
Reading reading_of_a_worker(uint32_t task, const char* name) {
    Reading now;
    now.tasks = {{task, 6, "worker", 'S', 0, 0}};
    now.inspection.threads = {{6, 1, name, 251, 500}};
    now.inspection.boxes.resize(1);
    now.inspection.boxes[0].tid = 6;
    return now;
}

TEST(topViewTest, AHandlerHangsWhenItRunsLongerThanTheWatchTime) {
    Reading now = reading_of_a_worker(6, "worker");
    now.inspection.boxes[0].now = {Activity::Running, 1, 1, false, 500};
    EXPECT_FALSE(view_of(nullptr, now).threads[0].hangs);
    now.inspection.boxes[0].now.forMs = 501;
    EXPECT_TRUE(view_of(nullptr, now).threads[0].hangs);
    now.inspection.threads[0].watchTimeMs = 0;
    EXPECT_FALSE(view_of(nullptr, now).threads[0].hangs) << "nobody watches it";
}

TEST(topViewTest, KnowsTheThreadsOfAContainerByTheirInnerNumbers) {
    const Reading now = reading_of_a_worker(1006, "audio");
    const ProcessView view = view_of(nullptr, now);
    ASSERT_EQ(1U, view.threads.size());
    EXPECT_EQ(1006U, view.threads[0].tid);
    EXPECT_EQ("audio", view.threads[0].name);
    EXPECT_TRUE(view.threads[0].box);
}

TEST(topViewTest, ShowsTheHungHandlerOfAProcessBeforeALongerOneWithinItsWatchTime) {
    MachineReading machine;
    machine.processes.resize(1);
    Inspection& seen = machine.processes[0].inspection;
    seen.threads = {{6, 1, "patient", 251, 60000}, {7, 2, "audio", 251, 500}};
    seen.boxes.resize(2);
    seen.boxes[0].tid = 6;
    seen.boxes[0].now = {Activity::Running, 1, 1, false, 30000};
    seen.boxes[1].tid = 7;
    seen.boxes[1].now = {Activity::Running, 1, 1, false, 900};
    const ProcessRow row = rows_of(nullptr, machine)[0];
    EXPECT_TRUE(row.hangs);
    EXPECT_EQ("audio", row.worstThread);
    EXPECT_EQ(2U, row.workers);
}

TEST(topFinderTest, TakesOnlyTheBeginningsOfTheProgramAndOfTheLibrary) {
    std::istringstream maps(
        "5500000000-5500001000 r--p 00000000 08:01 11  /opt/my app\n"
        "5500001000-5500002000 r-xp 00001000 08:01 11  /opt/my app\n"
        "7f0000000000-7f0000001000 r--p 00000000 08:01 12  /usr/lib/libc.so.6\n"
        "7f1000000000-7f1000001000 r--p 00000000 08:01 13  /lib/libpzframework.so.1.0.0 (deleted)\n"
        "7f2000000000-7f2000001000 rw-p 00000000 00:00 0\n"
        "7f3000000000-7f3000001000 rw-p 00000000 00:00 0  [heap]\n");
    const auto candidates = library_candidates(maps, "/opt/my app");
    ASSERT_EQ(2U, candidates.size());
    EXPECT_EQ(0x5500000000U, candidates[0].address);
    EXPECT_EQ(0x7f1000000000U, candidates[1].address);
}

TEST(topFinderTest, FindsASymbolInTheMemoryOfThisProcess) {
    std::ifstream maps("/proc/self/maps");
    const std::string program = std::filesystem::read_symlink("/proc/self/exe");
    const LiveMemory memory(getpid());
    std::vector<std::uint64_t> found;
    for (const MappedFile& file : library_candidates(maps, program)) {
        const auto address = find_symbol(memory, file.address, "pz_inspection");
        if (address) found.push_back(*address);
        EXPECT_FALSE(find_symbol(memory, file.address, "pz_inspectio"));
    }
    // A program that names the table has it in itself: there it lives, not in the library.
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(&pz_inspection), found.front());
}
