#include "Framework/Foundation/PZLMsgBox.h"

#include <poll.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZWatchDog.h>

#include "support/Assertions.h"
#include "support/ChildProcess.h"
#include "support/CountedWaits.h"
#include "support/Gate.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/RecordingDispatcher.h"
#include "support/StdoutCapture.h"
#include "support/StuckStdout.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(epoll_wait, 4);
PZ_INTERPOSE(sem_init, 3);
PZ_INTERPOSE(sem_post, 1);
PZ_INTERPOSE(read, 3);
PZ_INTERPOSE(write, 3);

namespace {

using pztest::Gate;
using pztest::into_waits;
using pztest::out_waits;
using pztest::RecordingDispatcher;
using pztest::StdoutCapture;
using pztest::wait_until;
using Log = RecordingDispatcher::Log;
using Record = PZIMsgBox::ST_PUSH_MSG_DATA;

constexpr unsigned int kSuccess = 0;
constexpr unsigned int kFailure = 1;
constexpr unsigned int kBadParameter = 2;
constexpr unsigned int kFull = 3;
constexpr unsigned long kNoIdentifier = ~0UL;
constexpr unsigned int kCapacity = 256;
constexpr unsigned int kLongWaitMs = 60000;

constexpr unsigned int kOrdinary = 1;  // a priority that is no emergency
constexpr unsigned int kHoldMsg = 1000;

}  // namespace

extern "C" {

// A full box reports at each attempt: keep a stress test out of the machine's system log.
void syslog(int /*pri*/, const char* /*fmt*/, ...) {}
}

namespace {

/// The loop's wait reads a counter; nobody else here reads that many bytes.
constexpr size_t kWaitSize = 8;

// Work of the test on the loop's thread, at the moment the loop waits for the next time.
std::function<void()> wait_hook;
std::atomic<bool> wait_hook_armed{false};

ssize_t run_hook_and_wait(int fd, void* data, size_t size) {
    if (size == kWaitSize && wait_hook_armed.exchange(false)) wait_hook();
    return read_call.Real(fd, data, size);
}

std::atomic<int> signals_before_wait{-1};

/// Counts the signals that are there when the loop waits for the first time.
ssize_t count_signals_and_wait(int fd, void* data, size_t size) {
    if (size == kWaitSize && signals_before_wait == -1) {
        pollfd signal = {fd, POLLIN, 0};
        signals_before_wait = ::poll(&signal, 1, 0);
    }
    return read_call.Real(fd, data, size);
}

std::atomic<int> failing_waits{0};

ssize_t fail_wait(int fd, void* data, size_t size) {
    if (size == kWaitSize && failing_waits > 0) {
        --failing_waits;
        errno = EBADF;
        return -1;
    }
    return read_call.Real(fd, data, size);
}

std::string bad_parameter_text(const void* buff, unsigned int size) {
    char text[64];
    std::snprintf(text, sizeof text, "param is NG [0x%08lx][%u]",
                  reinterpret_cast<unsigned long>(buff), size);
    return text;
}

Log times(size_t count, const std::string& entry) {
    return std::vector<std::string>(count, entry);
}

class PZLMsgBoxTest : public testing::Test {
protected:
    PZLMsgBoxTest() : id(box.Registory(&unit)) {
        unit.OnMessage(kHoldMsg, [this](const auto&) { gate.Pass(); });
    }

    ~PZLMsgBoxTest() override {
        gate.Open();
        EndLoop();
        epoll_wait_call.Reset();
        read_call.Reset();
        write_call.Reset();
    }

    void StartLoop(unsigned int workerId = 7) {
        loop = std::thread([this, workerId] { loopResult = box.Loop(workerId); });
        ASSERT_EQ(0, box.InitWait(kLongWaitMs));
    }

    /// Starts the loop and waits until it sleeps.
    void StartSleepingLoop() {
        std::atomic<bool> sleeps{false};
        AtNextWait([&] { sleeps = true; });
        StartLoop();
        ASSERT_TRUE(wait_until([&] { return sleeps.load(); }));
    }

    /// Starts the loop and holds it in the handler of an ordinary message: what is posted next
    /// waits for the loop's next pass.
    void StartAndHoldLoop(unsigned int workerId = 7) {
        StartLoop(workerId);
        ASSERT_EQ(kSuccess, Post(kHoldMsg));
        ASSERT_TRUE(gate.WaitForArrival());
        unit.Forget();
    }

    /// Lets a held loop go on and ends it: it has served everything then.
    Log ServeAll() {
        gate.Open();
        EndLoop();
        return unit.Received();
    }

    void EndLoop() {
        if (!loop.joinable()) return;
        box.Exit();
        loop.join();
    }

    unsigned int Post(unsigned int msgId, unsigned int priority = kOrdinary) {
        Record record = {id, msgId, priority, nullptr, 0};
        return box.PushMsg(record);
    }

    void AtNextWait(std::function<void()> hook) {
        wait_hook = std::move(hook);
        wait_hook_armed = true;
        read_call.Replace(run_hook_and_wait);
    }

    void FillWithMessages() {
        for (unsigned int i = 0; i < kCapacity; ++i) ASSERT_EQ(kSuccess, Post(i));
    }
    void FillWithEvents() {
        for (unsigned int i = 0; i < kCapacity; ++i) ASSERT_EQ(kSuccess, box.SetEvent(i, id));
    }

    PZLMsgBox box;
    RecordingDispatcher unit;
    const unsigned long id;
    Gate gate;
    std::thread loop;
    std::atomic<int> loopResult{-1};
};

// Small operations

TEST_F(PZLMsgBoxTest, InitDoesNothingAndAnswers0) {
    EXPECT_EQ(0, box.Init());
}

TEST_F(PZLMsgBoxTest, CheckTrailAnswers1ToTheValue0Only) {
    EXPECT_EQ(1, box.CheckTrail(0));
    EXPECT_EQ(0, box.CheckTrail(1));
    EXPECT_EQ(0, box.CheckTrail(0xFFFFFFFF));
}

TEST_F(PZLMsgBoxTest, IsUsedAndDestroyedThroughItsInterface) {
    EXPECT_TRUE((std::is_base_of_v<PZIMsgBox, PZLMsgBox>));
    EXPECT_TRUE(std::has_virtual_destructor_v<PZIMsgBox>);
    EXPECT_TRUE(std::has_virtual_destructor_v<PZIDispatcher>);
    const std::unique_ptr<PZIMsgBox> other = std::make_unique<PZLMsgBox>();
    EXPECT_EQ(1, other->CheckTrail(0));
}

// Registration

TEST_F(PZLMsgBoxTest, RegistoryAnswersTheDispatchersAddress) {
    EXPECT_EQ(reinterpret_cast<unsigned long>(static_cast<PZIDispatcher*>(&unit)), id);
}

TEST_F(PZLMsgBoxTest, RegistoryRefusesNull) {
    EXPECT_EQ(kNoIdentifier, box.Registory(nullptr));
}

TEST_F(PZLMsgBoxTest, RegistoryRefusesADispatcherThatIsRegistered) {
    EXPECT_EQ(kNoIdentifier, box.Registory(&unit));
}

TEST_F(PZLMsgBoxTest, RegistersADispatcherAgainAfterItHasLeft) {
    box.Unregistory(id);
    EXPECT_EQ(id, box.Registory(&unit));
}

TEST_F(PZLMsgBoxTest, RegistersADispatcherInTwoBoxes) {
    PZLMsgBox other;
    EXPECT_EQ(id, other.Registory(&unit));
}

TEST_F(PZLMsgBoxTest, UnregistoryOfAnUnknownIdentifierChangesNothing) {
    box.Unregistory(id + 1);
    box.Unregistory(0);
    box.Unregistory(kNoIdentifier);
    EXPECT_EQ(kNoIdentifier, box.Registory(&unit));  // still registered
}

// Start of the loop

TEST_F(PZLMsgBoxTest, InitWaitAnswers0WhenTheLoopServes) {
    loop = std::thread([this] { box.Loop(1); });
    EXPECT_EQ(0, box.InitWait(kLongWaitMs));
}

TEST_F(PZLMsgBoxTest, InitWaitAnswers1WhenTheTimeIsUp) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(1, box.InitWait(30));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(29));
}

TEST_F(PZLMsgBoxTest, InitWaitAnswers1WhenTheWaitFails) {
    const StdoutCapture capture;
    epoll_wait_call.FailNext(EBADF);
    EXPECT_EQ(1, box.InitWait(kLongWaitMs));
}

TEST_F(PZLMsgBoxTest, InitWaitIsAnsweredOncePerLoop) {
    StartLoop();
    EXPECT_EQ(1, box.InitWait(0));
}

TEST_F(PZLMsgBoxTest, TellsTheWatchdogOfTheWaitForTheLoop) {
    pztest::reset_waits();
    box.InitWait(0);
    EXPECT_EQ(1, into_waits);
    EXPECT_EQ(1, out_waits);
}

TEST_F(PZLMsgBoxTest, TellsTheWatchdogOfTheLoopsWait) {
    std::atomic<int> intoWaitsInside{0};
    std::atomic<int> outWaitsInside{0};
    AtNextWait([&] {
        intoWaitsInside = into_waits.load();
        outWaitsInside = out_waits.load();
    });
    pztest::reset_waits();
    loop = std::thread([this] { box.Loop(1); });
    EXPECT_TRUE(wait_until([&] { return intoWaitsInside != 0; }));
    box.Exit();
    loop.join();
    EXPECT_EQ(1, intoWaitsInside);
    EXPECT_EQ(0, outWaitsInside);
    EXPECT_EQ(1, into_waits);
    EXPECT_EQ(1, out_waits);
}

TEST_F(PZLMsgBoxTest, LoopEndsAtOnceWhenItCannotSayThatItServes) {
    write_call.FailNext(EBADF);
    EXPECT_EQ(0, box.Loop(1));
    EXPECT_EQ(1, box.InitWait(0));
}

TEST_F(PZLMsgBoxTest, DiscardsMessagesThatWerePostedBeforeTheLoop) {
    ASSERT_EQ(kSuccess, Post(1));
    ASSERT_EQ(kSuccess, Post(2, 0));
    StartLoop();
    ASSERT_EQ(kSuccess, Post(3));
    EXPECT_EQ((Log{"msg 3"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, DiscardsEventsThatWerePostedBeforeTheLoop) {
    ASSERT_EQ(kSuccess, box.SetEvent(1, id));
    StartLoop();
    ASSERT_EQ(kSuccess, box.SetEvent(2, id));
    EXPECT_EQ((Log{"evt 2"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, HasRoomAgainAfterDiscarding) {
    FillWithMessages();
    FillWithEvents();
    StartAndHoldLoop();
    FillWithMessages();
    FillWithEvents();
}

// Copies that are never released. The leak check does not count what can be reached from here, to
// the very end.
std::vector<const void*>& copies_left = *new std::vector<const void*>;

void push_and_leave(PZLMsgBox& box, Record& record) {
    ASSERT_EQ(kSuccess, box.PushMsg(record));
    copies_left.push_back(record.Buff);
}

TEST_F(PZLMsgBoxTest, DoesNotReleaseThePayloadsOfDiscardedMessages) {
    const char payload[] = "early";
    auto dying = std::make_unique<PZLMsgBox>();
    Record record = {id, 1, kOrdinary, payload, sizeof payload};
    push_and_leave(*dying, record);
    dying->Exit();
    ASSERT_EQ(0, dying->Loop(1));
    for (unsigned int i = 0; i < kCapacity; ++i) {
        Record later = {id, 1, kOrdinary, "later", 6};
        push_and_leave(*dying, later);
        ASSERT_NE(record.Buff, later.Buff);
    }
    dying.reset();
    EXPECT_STREQ(payload, static_cast<const char*>(record.Buff));
}

TEST_F(PZLMsgBoxTest, DoesNotReleaseThePayloadsOfMessagesThatAreQueuedWhenItDies) {
    const char payload[] = "late";
    auto dying = std::make_unique<PZLMsgBox>();
    Record record = {id, 1, kOrdinary, payload, sizeof payload};
    push_and_leave(*dying, record);
    dying.reset();
    EXPECT_STREQ(payload, static_cast<const char*>(record.Buff));
}

TEST_F(PZLMsgBoxTest, DoesNotDestroyItsDispatchers) {
    auto dying = std::make_unique<PZLMsgBox>();
    dying->Registory(&unit);
    dying.reset();
    EXPECT_TRUE(unit.Received().empty());  // alive
}

// Posting

TEST_F(PZLMsgBoxTest, HandsAMessageToTheAddressedDispatcher) {
    RecordingDispatcher other;
    const unsigned long otherId = box.Registory(&other);
    StartLoop();
    Record record = {otherId, 5, kOrdinary, nullptr, 0};
    ASSERT_EQ(kSuccess, box.PushMsg(record));
    ASSERT_EQ(kSuccess, Post(6));
    EXPECT_EQ((Log{"msg 6"}), ServeAll());
    EXPECT_EQ((Log{"msg 5"}), other.Received());
}

TEST_F(PZLMsgBoxTest, HandsAnEventToTheAddressedDispatcher) {
    RecordingDispatcher other;
    const unsigned long otherId = box.Registory(&other);
    StartLoop();
    ASSERT_EQ(kSuccess, box.SetEvent(0x80000001, otherId));
    ASSERT_EQ(kSuccess, box.SetEvent(2, id));
    EXPECT_EQ((Log{"evt 2"}), ServeAll());
    EXPECT_EQ((Log{"evt 2147483649"}), other.Received());
}

TEST_F(PZLMsgBoxTest, RunsHandlersOnTheLoopsThread) {
    std::atomic<std::thread::id> handler{};
    unit.OnMessage(1, [&](const auto&) { handler = std::this_thread::get_id(); });
    StartLoop();
    const std::thread::id expected = loop.get_id();
    ASSERT_EQ(kSuccess, Post(1));
    ServeAll();
    EXPECT_EQ(expected, handler.load());
}

TEST_F(PZLMsgBoxTest, AcceptsMessagesWithoutPayloadWhateverTheirSizeSays) {
    std::vector<RecordingDispatcher::Message> seen;
    unit.OnMessage(1, [&](const auto& message) { seen.push_back(message); });
    StartLoop();
    for (const unsigned int size : {0U, 1000U}) {
        Record record = {id, 1, kOrdinary, nullptr, size};
        EXPECT_EQ(kSuccess, box.PushMsg(record));
        EXPECT_EQ(nullptr, record.Buff);
    }
    ServeAll();
    ASSERT_EQ(2U, seen.size());
    EXPECT_EQ(nullptr, seen[0].buff);
    EXPECT_EQ(0U, seen[0].size);
    EXPECT_EQ(nullptr, seen[1].buff);
    EXPECT_EQ(1000U, seen[1].size);
}

TEST_F(PZLMsgBoxTest, CopiesPayloadsOf1To256Bytes) {
    std::vector<std::string> seen;
    unit.OnMessage(1, [&](const auto& message) {
        seen.emplace_back(static_cast<const char*>(message.buff), message.size);
    });
    StartAndHoldLoop();
    std::vector<std::string> sent;
    for (const unsigned int size : {1U, 2U, 255U, 256U}) {
        sent.emplace_back(size, static_cast<char>('a' + size % 26));
        std::string payload = sent.back();
        Record record = {id, 1, kOrdinary, payload.data(), size};
        EXPECT_EQ(kSuccess, box.PushMsg(record)) << size;
        payload.assign(size, '-');  // the caller's own: the box does not see it any more
    }
    ServeAll();
    EXPECT_EQ(sent, seen);
}

TEST_F(PZLMsgBoxTest, WritesTheAddressOfItsCopyIntoTheCallersRecord) {
    std::atomic<const void*> handed{nullptr};
    unit.OnMessage(1, [&](const auto& message) { handed = message.buff; });
    StartAndHoldLoop();
    const char payload[] = "x";
    Record record = {id, 1, kOrdinary, payload, sizeof payload};
    ASSERT_EQ(kSuccess, box.PushMsg(record));

    const void* const copy = record.Buff;
    EXPECT_NE(static_cast<const void*>(payload), copy);
    EXPECT_EQ(0, std::memcmp(payload, copy, sizeof payload));
    EXPECT_EQ(id, record.SID);
    EXPECT_EQ(1U, record.MsgID);
    EXPECT_EQ(kOrdinary, record.Priority);
    EXPECT_EQ(sizeof payload, record.BuffSize);
    ServeAll();
    EXPECT_EQ(copy, handed);
}

TEST_F(PZLMsgBoxTest, KeepsThePayloadUntilTheHandlerHasReturned) {
    // The handler of each message fills the box with others: none of them gets the copy in service.
    const std::string payload(256, 'p');
    bool kept = true;
    unit.OnMessage(1, [&](const auto& message) {
        const std::string other(256, 'o');
        for (unsigned int i = 0; i < kCapacity; ++i) {
            Record record = {id, 2, kOrdinary, other.data(), 256};
            EXPECT_EQ(kSuccess, box.PushMsg(record));
        }
        kept = kept && payload == std::string(static_cast<const char*>(message.buff), message.size);
    });
    StartLoop();
    for (int i = 0; i < 3; ++i) {
        Record record = {id, 1, kOrdinary, payload.data(), 256};
        ASSERT_EQ(kSuccess, box.PushMsg(record));
        ASSERT_TRUE(unit.WaitForCount(static_cast<size_t>(i + 1) * (kCapacity + 1)));
    }
    ServeAll();
    EXPECT_TRUE(kept);
}

TEST_F(PZLMsgBoxTest, RefusesPayloadsOf0BytesAndOfMoreThan256) {
    const std::array<char, 300> payload = {};
    for (const unsigned int size : {0U, 257U, 0x7FFFFFFFU}) {
        const StdoutCapture capture;
        Record record = {id, 1, kOrdinary, payload.data(), size};
        EXPECT_EQ(kBadParameter, box.PushMsg(record)) << size;
    }
    StartLoop();
    EXPECT_TRUE(ServeAll().empty());
}

TEST_F(PZLMsgBoxTest, ReportsARefusedPayloadWithTenFramesOfTheCallStack) {
    StdoutCapture capture;
    const std::array<char, 300> payload = {};
    Record record = {id, 1, kOrdinary, payload.data(), 257};
    ASSERT_EQ(kBadParameter, box.PushMsg(record));

    const std::string output = capture.Take();
    const std::string text = bad_parameter_text(payload.data(), 257);
    EXPECT_TRUE(pztest::has_report(output, "PushMsg", "PZLMsgBox.cpp", text)) << output;
    const auto messages = pztest::error_messages(output);
    ASSERT_EQ(11U, messages.size()) << output;
    EXPECT_EQ(text, messages[0]);
    EXPECT_EQ(10U, pztest::count_of(output, "dumpDirectly()@PZCallStack.cpp"));
    EXPECT_EQ(payload.data(), record.Buff);
}

TEST_F(PZLMsgBoxTest, ReportsARefusedEmptyPayload) {
    StdoutCapture capture;
    const char payload = 0;
    Record record = {id, 1, kOrdinary, &payload, 0};
    ASSERT_EQ(kBadParameter, box.PushMsg(record));
    EXPECT_TRUE(pztest::has_report(capture.Take(), "PushMsg", "PZLMsgBox.cpp",
                                   bad_parameter_text(&payload, 0)));
}

TEST_F(PZLMsgBoxTest, RefusesABadPayloadBeforeItLooksForRoom) {
    FillWithMessages();
    const StdoutCapture capture;
    Record record = {id, 1, kOrdinary, "x", 0};
    EXPECT_EQ(kBadParameter, box.PushMsg(record));
}

TEST_F(PZLMsgBoxTest, RefusesThe257thMessage) {
    StartAndHoldLoop(42);
    FillWithMessages();
    const char payload = 0;
    Record record = {id, 999, kOrdinary, &payload, 1};
    {
        StdoutCapture capture;
        EXPECT_EQ(kFull, box.PushMsg(record));
        const std::string output = capture.Take();
        EXPECT_TRUE(pztest::has_report(output, "PushMsg", "PZLMsgBox.cpp",
                                       "msg queue is full : worker[42]"));
        EXPECT_EQ(1U, pztest::error_messages(output).size());
    }
    EXPECT_EQ(&payload, record.Buff);
    const Log served = ServeAll();
    EXPECT_EQ(kCapacity, served.size());
    EXPECT_EQ("msg 255", served.back());
}

TEST_F(PZLMsgBoxTest, AcceptsAMessageAgainWhenOneWasServed) {
    std::atomic<unsigned int> result{99};
    unit.OnMessage(0, [&](const auto&) { result = Post(999); });
    StartAndHoldLoop();
    FillWithMessages();
    ServeAll();
    EXPECT_EQ(kSuccess, result);
}

TEST_F(PZLMsgBoxTest, RefusesThe257thEvent) {
    StartAndHoldLoop(43);
    FillWithEvents();
    {
        StdoutCapture capture;
        EXPECT_EQ(kFull, box.SetEvent(999, id));
        const std::string output = capture.Take();
        EXPECT_TRUE(
            pztest::has_report(output, "SetEvent", "PZLMsgBox.cpp", "event is full : worker[43]"));
        EXPECT_EQ(1U, pztest::error_messages(output).size());
    }
    const Log served = ServeAll();
    EXPECT_EQ(kCapacity, served.size());
    EXPECT_EQ("evt 255", served.back());
}

TEST_F(PZLMsgBoxTest, CountsMessagesAndEventsApart) {
    StartAndHoldLoop();
    FillWithMessages();
    FillWithEvents();
    EXPECT_EQ(2 * kCapacity, ServeAll().size());
}

TEST_F(PZLMsgBoxTest, NamesWorker0WhileNoLoopHasRun) {
    FillWithMessages();
    FillWithEvents();
    StdoutCapture capture;
    EXPECT_EQ(kFull, Post(1));
    EXPECT_EQ(kFull, box.SetEvent(1, id));
    EXPECT_EQ((Log{"msg queue is full : worker[0]", "event is full : worker[0]"}),
              pztest::error_messages(capture.Take()));
}

TEST_F(PZLMsgBoxTest, PrintsTheWorkerNumberAsASignedNumber) {
    StartAndHoldLoop(0xFFFFFFFF);
    FillWithEvents();
    StdoutCapture capture;
    EXPECT_EQ(kFull, box.SetEvent(1, id));
    EXPECT_EQ((Log{"event is full : worker[-1]"}), pztest::error_messages(capture.Take()));
}

TEST_F(PZLMsgBoxTest, ReportsAPayloadThatFindsNoMemoryAndQueuesNothing) {
    StartAndHoldLoop();
    const char payload = 0;
    Record record = {id, 1, kOrdinary, &payload, 1};
    {
        StdoutCapture capture;
        unsigned int result = kSuccess;
        {
            const pztest::MemoryShortage shortage;
            result = box.PushMsg(record);
        }
        EXPECT_EQ(kFailure, result);
        const std::string output = capture.Take();
        EXPECT_TRUE(
            pztest::has_report(output, "PushMsg", "PZLMsgBox.cpp", "failed to allocate memory"));
        EXPECT_EQ(1U, pztest::error_messages(output).size());
    }
    EXPECT_EQ(&payload, record.Buff);
    EXPECT_TRUE(ServeAll().empty());
}

/// Fills the box by `post`, whose every allocation fails once; what was accepted, in order.
template <typename Post>
std::vector<unsigned int> fill_with_little_memory(Post post) {
    std::vector<unsigned int> accepted;
    for (unsigned int i = 0; accepted.size() < kCapacity; ++i) {
        unsigned int result = kSuccess;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(static_cast<int>(i % 3));
            result = post(i);
            refused = shortage.Refused();
        }
        EXPECT_EQ(refused == 0 ? kSuccess : kFailure, result);
        if (result == kSuccess) accepted.push_back(i);
        if (i > 10 * kCapacity) break;
    }
    return accepted;
}

TEST_F(PZLMsgBoxTest, AnswersEveryPostThatFindsNoMemoryAndServesTheOthers) {
    StartAndHoldLoop();
    const StdoutCapture capture;
    Log expected;
    for (const unsigned int i : fill_with_little_memory([this](unsigned int number) {
             Record record = {id, number, kOrdinary, &number, sizeof number};
             const unsigned int result = box.PushMsg(record);
             EXPECT_EQ(result == kFailure, record.Buff == &number);
             return result;
         })) {
        expected.push_back("msg " + std::to_string(i));
    }
    ASSERT_EQ(kCapacity, expected.size());
    EXPECT_EQ(expected, ServeAll());
}

TEST_F(PZLMsgBoxTest, AnswersEveryEventThatFindsNoMemoryAndServesTheOthers) {
    StartAndHoldLoop();
    const StdoutCapture capture;
    Log expected;
    for (const unsigned int i :
         fill_with_little_memory([this](unsigned int bits) { return box.SetEvent(bits, id); })) {
        expected.push_back("evt " + std::to_string(i));
    }
    ASSERT_EQ(kCapacity, expected.size());
    EXPECT_EQ(expected, ServeAll());
}

TEST_F(PZLMsgBoxTest, RefusesADispatcherThatFindsNoMemory) {
    RecordingDispatcher other;
    StdoutCapture capture;
    unsigned long result = 0;
    {
        const pztest::MemoryShortage shortage;
        result = box.Registory(&other);
    }
    EXPECT_EQ(kNoIdentifier, result);
    const std::string output = capture.Take();
    EXPECT_TRUE(
        pztest::has_report(output, "Registory", "PZLMsgBox.cpp", "failed to allocate memory"));
    EXPECT_NE(kNoIdentifier, box.Registory(&other));
    box.Unregistory(reinterpret_cast<unsigned long>(static_cast<PZIDispatcher*>(&other)));
}

TEST_F(PZLMsgBoxTest, IsMadeWithoutMemoryAndAnswersFailures) {
    const StdoutCapture capture;
    alignas(PZLMsgBox) unsigned char room[sizeof(PZLMsgBox)];
    PZLMsgBox* poor = nullptr;
    {
        const pztest::MemoryShortage shortage;
        poor = new (room) PZLMsgBox;
    }
    Record record = {id, 1, kOrdinary, "x", 2};
    EXPECT_EQ(kFailure, poor->PushMsg(record));
    EXPECT_STREQ("x", static_cast<const char*>(record.Buff));
    EXPECT_EQ(kFailure, poor->SetEvent(1, id));
    EXPECT_EQ(0, poor->Exit());
    EXPECT_EQ(0, poor->Loop(1));
    EXPECT_EQ(1, poor->InitWait(0));
    poor->~PZLMsgBox();
}

TEST_F(PZLMsgBoxTest, IsMadeWithoutMemoryForALockAndAnswersFailures) {
    const StdoutCapture capture;
    for (int lock = 0; lock < 2; ++lock) {
        sem_init_call.FailNext(ENOMEM, 1, lock);
        PZLMsgBox poor;
        Record record = {id, 1, kOrdinary, "x", 2};
        EXPECT_EQ(kFailure, poor.PushMsg(record));
        EXPECT_STREQ("x", static_cast<const char*>(record.Buff));
        EXPECT_EQ(kFailure, poor.SetEvent(1, id));
        EXPECT_EQ(0, poor.Exit());
        EXPECT_EQ(0, poor.Loop(1));
        EXPECT_EQ(1, poor.InitWait(0));
    }
}

/// Expects that a post fails, with one report, because the loop cannot be woken.
void expect_not_woken(const char* operation, const std::function<unsigned int()>& post) {
    StdoutCapture capture;
    write_call.FailNext(EBADF);
    EXPECT_EQ(kFailure, post());
    const std::string output = capture.Take();
    EXPECT_TRUE(pztest::has_report(output, operation, "PZLMsgBox.cpp", "SetEvent failed"));
    EXPECT_EQ(1U, pztest::error_messages(output).size());
}

TEST_F(PZLMsgBoxTest, KeepsAMessageQueuedWhenTheLoopCannotBeWoken) {
    StartSleepingLoop();
    expect_not_woken("PushMsg", [this] {
        Record record = {id, 1, kOrdinary, "x", 2};
        return box.PushMsg(record);
    });
    EXPECT_EQ((Log{"msg 1"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, KeepsAnEventQueuedWhenTheLoopCannotBeWoken) {
    StartSleepingLoop();
    expect_not_woken("SetEvent", [this] { return box.SetEvent(1, id); });
    EXPECT_EQ((Log{"evt 1"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, WakesTheLoopWithTheNextPostForThoseThatCouldNotWakeIt) {
    StartSleepingLoop();
    {
        const StdoutCapture capture;
        write_call.FailNext(EBADF, 2);
        EXPECT_EQ(kFailure, Post(1));
        EXPECT_EQ(kFailure, Post(2));
    }
    EXPECT_EQ(0U, unit.Count());
    EXPECT_EQ(kSuccess, Post(3));
    EXPECT_TRUE(unit.WaitForCount(3));
    EXPECT_EQ((Log{"msg 1", "msg 2", "msg 3"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, AnswersThatItCannotWakeALoopThatDoesNotRun) {
    const StdoutCapture capture;
    write_call.FailNext(EBADF, 2);
    EXPECT_EQ(kFailure, Post(1));
    EXPECT_EQ(kFailure, box.SetEvent(1, id));
    EXPECT_EQ(kSuccess, Post(2));

    box.Exit();
    ASSERT_EQ(0, box.Loop(1));
    write_call.FailNext(EBADF);
    EXPECT_EQ(kFailure, Post(3));
}

/// Passes the first write on when the test lets it.
Gate* write_gate = nullptr;
std::atomic<bool> write_is_held{false};
std::atomic<bool> held_write_is_done{false};

ssize_t hold_first_write(int fd, const void* data, size_t size) {
    if (write_is_held.exchange(true)) return write_call.Real(fd, data, size);
    write_gate->Pass();
    const ssize_t result = write_call.Real(fd, data, size);
    held_write_is_done = true;
    return result;
}

TEST_F(PZLMsgBoxTest, WaitsInItsDestructorForAPostThatIsAboutToWakeItsLoop) {
    auto dying = std::make_unique<PZLMsgBox>();
    RecordingDispatcher other;
    const unsigned long otherId = dying->Registory(&other);
    std::thread otherLoop([&dying] { dying->Loop(8); });
    ASSERT_EQ(0, dying->InitWait(kLongWaitMs));
    Record first = {otherId, 1, kOrdinary, nullptr, 0};
    ASSERT_EQ(kSuccess, dying->PushMsg(first));
    ASSERT_TRUE(other.WaitForCount(1));

    unsigned int result = kFailure;
    std::atomic<bool> waited{false};
    write_gate = &gate;
    write_is_held = false;
    held_write_is_done = false;
    write_call.Replace(hold_first_write);
    // A loop that has not gone to sleep since the first message needs no wake-up for the next.
    std::thread poster([&] {
        while (!write_is_held) {
            Record record = {otherId, 2, kOrdinary, nullptr, 0};
            result = dying->PushMsg(record);
        }
    });
    ASSERT_TRUE(gate.WaitForArrival());
    dying->Exit();  // serves what the held post has put in, and ends
    otherLoop.join();
    std::thread destroyer([&] {
        dying.reset();
        waited = held_write_is_done.load();
    });
    // Time for a destructor that does not wait to show itself.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    gate.Open();
    poster.join();
    destroyer.join();
    EXPECT_EQ(kSuccess, result);
    EXPECT_TRUE(waited);
    EXPECT_GE(other.Count(), 2U);
}

/// A box in memory that is taken away with it: who touches it afterwards ends the process.
class BoxOnAPage : private pztest::Uncopyable {
public:
    BoxOnAPage()
        : page_(::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)),
          box_(new (page_) PZLMsgBox) {}
    ~BoxOnAPage() {
        box_->~PZLMsgBox();
        ::munmap(page_, kSize);
    }
    PZLMsgBox* operator->() const { return box_; }

private:
    static constexpr size_t kSize = 4096;
    static_assert(sizeof(PZLMsgBox) <= kSize, "one page");

    void* const page_;
    PZLMsgBox* const box_;
};

thread_local bool waits_after_its_unlock = false;
std::atomic<bool> post_is_in{false};
std::atomic<bool> box_is_gone{false};

/// Gives the lock back, and keeps the thread that has asked for it until the box is gone.
int unlock_and_wait(sem_t* sem) {
    const int result = sem_post_call.Real(sem);
    if (waits_after_its_unlock) {
        waits_after_its_unlock = false;
        post_is_in = true;
        EXPECT_TRUE(wait_until([] { return box_is_gone.load(); }));
    }
    return result;
}

/// Runs `post` while the loop is in a handler, and destroys the box between the post's unlocking
/// and its end: another thread may do that when it sees that the post was served.
template <typename Post>
unsigned int answer_of_a_post_whose_box_goes(const Post& post) {
    auto dying = std::make_unique<BoxOnAPage>();
    PZLMsgBox& box = *dying->operator->();
    Gate gate;
    RecordingDispatcher unit;
    unit.OnMessage(kHoldMsg, [&gate](const auto&) { gate.Pass(); });
    const unsigned long id = box.Registory(&unit);
    std::thread loop([&box] { box.Loop(8); });
    EXPECT_EQ(0, box.InitWait(kLongWaitMs));
    Record hold = {id, kHoldMsg, kOrdinary, nullptr, 0};
    EXPECT_EQ(kSuccess, box.PushMsg(hold));
    EXPECT_TRUE(gate.WaitForArrival());

    post_is_in = false;
    box_is_gone = false;
    unsigned int answer = kFailure;
    sem_post_call.Replace(unlock_and_wait);
    std::thread poster([&] {
        waits_after_its_unlock = true;
        answer = post(box, id);
    });
    EXPECT_TRUE(wait_until([] { return post_is_in.load(); }));
    gate.Open();
    EXPECT_TRUE(unit.WaitForCount(2));
    box.Exit();
    loop.join();
    dying.reset();
    box_is_gone = true;
    poster.join();
    sem_post_call.Reset();
    return answer;
}

TEST_F(PZLMsgBoxTest, IsNotTouchedByAMessageThatItHasServedBeforeThePostEnds) {
    EXPECT_EQ(kSuccess, answer_of_a_post_whose_box_goes([](PZLMsgBox& dying, unsigned long unitId) {
                  Record record = {unitId, 1, kOrdinary, "x", 2};
                  return dying.PushMsg(record);
              }));
}

TEST_F(PZLMsgBoxTest, IsNotTouchedByAnEventThatItHasServedBeforeThePostEnds) {
    EXPECT_EQ(kSuccess, answer_of_a_post_whose_box_goes([](PZLMsgBox& dying, unsigned long unitId) {
                  return dying.SetEvent(1, unitId);
              }));
}

TEST_F(PZLMsgBoxTest, NeedsNoWakeUpForALoopThatServes) {
    StartAndHoldLoop();
    write_call.Reset();
    write_call.FailNext(EBADF, 2);
    EXPECT_EQ(kSuccess, Post(1));
    EXPECT_EQ(kSuccess, box.SetEvent(2, id));
    EXPECT_EQ(0, write_call.Calls());
    write_call.Reset();
    EXPECT_EQ((Log{"evt 2", "msg 1"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, AcceptsPostsOfSeveralRecordsFromOneHandlerToAnotherBox) {
    PZLMsgBox other;
    RecordingDispatcher otherUnit;
    const unsigned long otherId = other.Registory(&otherUnit);
    std::thread otherLoop([&other] { other.Loop(8); });
    ASSERT_EQ(0, other.InitWait(kLongWaitMs));
    unit.OnMessage(1, [&](const auto&) {
        Record record = {otherId, 2, kOrdinary, nullptr, 0};
        other.PushMsg(record);
        other.SetEvent(3, otherId);
    });
    StartLoop();
    ASSERT_EQ(kSuccess, Post(1));
    ServeAll();
    other.Exit();
    otherLoop.join();
    EXPECT_EQ(2U, otherUnit.Received().size());
}

// Order of service

TEST_F(PZLMsgBoxTest, ServesOneOrdinaryMessageAfterTheEmergenciesAndTheEvents) {
    unit.OnMessage(2, [&](const auto&) {
        Post(9, 0);
        box.SetEvent(10, id);
    });
    unit.OnEvent(1, [&] { Post(8, 0); });
    StartAndHoldLoop();
    Post(1, 5);
    Post(2, 3);
    box.SetEvent(1, id);
    Post(3, 0);
    box.SetEvent(2, id);
    Post(4, 0);
    Post(5, 3);

    EXPECT_EQ((Log{"msg 3", "msg 4",            // all emergencies
                   "evt 1", "msg 8", "evt 2",   // every event after the emergencies so far
                   "msg 2",                     // one ordinary message
                   "msg 9", "evt 10", "msg 5",  // the next pass
                   "msg 1"}),
              ServeAll());
}

TEST_F(PZLMsgBoxTest, ServesAnEmergencyThatAnEmergencyPostsBeforeTheEvents) {
    unit.OnMessage(1, [&](const auto&) { Post(2, 0); });
    StartAndHoldLoop();
    box.SetEvent(1, id);
    Post(1, 0);
    EXPECT_EQ((Log{"msg 1", "msg 2", "evt 1"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, ServesEventsThatEventsPostInTheSamePass) {
    unit.OnEvent(1, [&] { box.SetEvent(3, id); });
    StartAndHoldLoop();
    Post(1);
    box.SetEvent(1, id);
    box.SetEvent(2, id);
    EXPECT_EQ((Log{"evt 1", "evt 2", "evt 3", "msg 1"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, ServesLowPriorityValuesFirstAndEqualsInTheOrderTheyCame) {
    StartAndHoldLoop();
    Post(1, 255);
    Post(2, 7);
    Post(3, 7);
    Post(4, 1);
    Post(5, 7);
    Post(6, 254);
    EXPECT_EQ((Log{"msg 4", "msg 2", "msg 3", "msg 5", "msg 6", "msg 1"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, OrdersPriority256WithTheEmergenciesButServesItAsAnOrdinaryMessage) {
    StartAndHoldLoop();
    box.SetEvent(1, id);
    Post(1, 256);
    Post(2, 0);  // an emergency behind it: has to wait for the pass that follows
    Post(3, 1);
    EXPECT_EQ((Log{"evt 1", "msg 1", "msg 2", "msg 3"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, OrdersByTheLow8BitsOfThePriority) {
    StartAndHoldLoop();
    Post(1, 5);
    Post(2, 0x104);
    Post(3, 0xFFFFFF03);
    EXPECT_EQ((Log{"msg 3", "msg 2", "msg 1"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, AcceptsAnyNumberOfEmergenciesFromTheirOwnHandler) {
    constexpr unsigned int kChain = 70000;
    unsigned int posted = 1;
    unsigned int failures = 0;
    unit.OnMessage(1, [&](const auto&) {
        if (posted == kChain) return;
        ++posted;
        if (Post(1, 0) != kSuccess) ++failures;
    });
    StartLoop();
    ASSERT_EQ(kSuccess, Post(1, 0));
    ASSERT_TRUE(unit.WaitForCount(kChain));
    ASSERT_EQ(kSuccess, Post(2));
    EXPECT_TRUE(unit.WaitForCount(kChain + 1));
    EndLoop();
    EXPECT_EQ(0U, failures);
}

TEST_F(PZLMsgBoxTest, AHandlerThatThrowsLeavesNoLockTakenAndNoPayloadAllocated) {
    unit.OnMessage(1, [](const auto&) { throw 1; });
    loop = std::thread([this] {
        EXPECT_THROW(box.Loop(1), int);
        loopResult = 0;
    });
    ASSERT_EQ(0, box.InitWait(kLongWaitMs));
    Record record = {id, 1, kOrdinary, "x", 2};  // released, or the leak check tells
    ASSERT_EQ(kSuccess, box.PushMsg(record));
    ASSERT_TRUE(wait_until([this] { return loopResult == 0; }));
    loop.join();
    box.Unregistory(id);
    EXPECT_EQ(id, box.Registory(&unit));
}

// Dispatchers that come and go

TEST_F(PZLMsgBoxTest, DropsWhatIsAddressedToNobodyWithoutAReport) {
    StartAndHoldLoop();
    StdoutCapture capture;
    for (const unsigned long nobody : {0UL, id + 1, kNoIdentifier}) {
        Record record = {nobody, 1, kOrdinary, "x", 2};  // its copy is released all the same
        ASSERT_EQ(kSuccess, box.PushMsg(record));
        ASSERT_EQ(kSuccess, box.SetEvent(1, nobody));
    }
    EXPECT_TRUE(ServeAll().empty());
    EXPECT_EQ("", capture.Take());
}

TEST_F(PZLMsgBoxTest, DropsWhatIsQueuedForADispatcherThatHasLeft) {
    RecordingDispatcher other;
    const unsigned long otherId = box.Registory(&other);
    AtNextWait([&] {
        Record record = {otherId, 1, kOrdinary, "x", 2};
        box.PushMsg(record);
        box.SetEvent(1, otherId);
        Post(2);
        box.Unregistory(otherId);
    });
    StartLoop();
    EXPECT_TRUE(unit.WaitForCount(1));
    ServeAll();
    EXPECT_TRUE(other.Received().empty());
}

TEST_F(PZLMsgBoxTest, ANewDispatcherAtTheSameAddressGetsWhatIsQueuedForTheOldOne) {
    alignas(RecordingDispatcher) unsigned char place[sizeof(RecordingDispatcher)];
    auto* const old = new (place) RecordingDispatcher;
    const unsigned long oldId = box.Registory(old);
    StartAndHoldLoop();
    Record record = {oldId, 1, kOrdinary, nullptr, 0};
    ASSERT_EQ(kSuccess, box.PushMsg(record));
    ASSERT_EQ(kSuccess, box.SetEvent(2, oldId));
    RecordingDispatcher* successor = nullptr;
    unsigned long newId = 0;
    // Other threads would wait for the handler that holds the loop.
    unit.OnMessage(3, [&](const auto&) {
        box.Unregistory(oldId);
        old->~RecordingDispatcher();
        successor = new (place) RecordingDispatcher;
        newId = box.Registory(successor);
    });
    ASSERT_EQ(kSuccess, Post(3, 0));  // before the others
    ServeAll();
    EXPECT_EQ(oldId, newId);
    ASSERT_NE(nullptr, successor);
    EXPECT_EQ((Log{"evt 2", "msg 1"}), successor->Received());
    box.Unregistory(newId);
    successor->~RecordingDispatcher();
}

TEST(PZLMsgBoxReportTest, AllPostsWaitWhileTheReportOfARefusedOneCannotBePrinted) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        PZLMsgBox box;
        RecordingDispatcher unit;
        const unsigned long id = box.Registory(&unit);
        Record record = {id, 1, kOrdinary, nullptr, 0};
        for (unsigned int i = 0; i < kCapacity; ++i) {
            if (box.PushMsg(record) != kSuccess) return 1;
        }
        std::atomic<unsigned int> refused{kSuccess};
        std::atomic<bool> isPosted{false};
        std::thread refusedPoster;
        std::thread poster;
        {
            const pztest::StuckStdout stuck;
            refusedPoster = std::thread([&] {
                Record more = record;
                refused = box.PushMsg(more);
            });
            if (!stuck.WaitUntilOthersSleep()) return 2;
            poster = std::thread([&] {
                box.SetEvent(1, id);  // for which there is room
                isPosted = true;
            });
            if (!stuck.WaitUntilOthersSleep()) return 3;
            if (isPosted) std::_Exit(4);
        }
        refusedPoster.join();
        poster.join();
        return refused == kFull ? 0 : 5;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status) << child.output;
}

TEST_F(PZLMsgBoxTest, AHandlerMayUnregisterItself) {
    unit.OnMessage(1, [&](const auto&) { box.Unregistory(id); });
    StartAndHoldLoop();
    Post(1);
    Post(2);
    box.SetEvent(3, id);  // served before the messages
    EXPECT_EQ((Log{"evt 3", "msg 1"}), ServeAll());
}

/// Leaves the box and dies with its first event.
class MortalDispatcher : public PZIDispatcher {
public:
    MortalDispatcher(PZIMsgBox& box, bool& destroyed) : box_(box), destroyed_(destroyed) {}
    ~MortalDispatcher() override { destroyed_ = true; }

    void OnReceiveMsg(unsigned int /*MsgID*/, const void* /*Buff*/, unsigned int /*s*/) override {}
    void OnReceiveEvent(unsigned int /*bits*/) override {
        box_.Unregistory(reinterpret_cast<unsigned long>(static_cast<PZIDispatcher*>(this)));
        delete this;
    }

private:
    PZIMsgBox& box_;
    bool& destroyed_;
};

TEST_F(PZLMsgBoxTest, AHandlerMayDestroyItsOwnDispatcher) {
    bool destroyed = false;
    const unsigned long mortalId = box.Registory(new MortalDispatcher(box, destroyed));
    StartLoop();
    ASSERT_EQ(kSuccess, box.SetEvent(1, mortalId));
    ASSERT_EQ(kSuccess, box.SetEvent(2, mortalId));  // dropped
    ServeAll();
    EXPECT_TRUE(destroyed);
}

TEST_F(PZLMsgBoxTest, AHandlerMayUnregisterOthers) {
    RecordingDispatcher other;
    const unsigned long otherId = box.Registory(&other);
    unit.OnMessage(1, [&](const auto&) { box.Unregistory(otherId); });
    StartAndHoldLoop();
    Post(1, 0);
    Record record = {otherId, 2, kOrdinary, "x", 2};
    ASSERT_EQ(kSuccess, box.PushMsg(record));
    ASSERT_EQ(kSuccess, box.SetEvent(1, otherId));
    ServeAll();
    EXPECT_TRUE(other.Received().empty());
}

TEST_F(PZLMsgBoxTest, AHandlerMayRegisterOthersAndPostToThem) {
    RecordingDispatcher other;
    unit.OnEvent(1, [&] {
        const unsigned long otherId = box.Registory(&other);
        Record record = {otherId, 2, kOrdinary, "x", 2};
        box.PushMsg(record);
        box.SetEvent(3, otherId);
    });
    StartLoop();
    ASSERT_EQ(kSuccess, box.SetEvent(1, id));
    ServeAll();
    EXPECT_EQ((Log{"evt 3", "msg 2"}), other.Received());
}

TEST_F(PZLMsgBoxTest, AHandlerMayPostToItsOwnBoxAgainAndAgain) {
    constexpr unsigned int kRounds = 1000;
    std::atomic<unsigned int> rounds{0};
    unit.OnMessage(1, [&](const auto&) {
        if (++rounds < kRounds) Post(1);
    });
    StartLoop();
    ASSERT_EQ(kSuccess, Post(1));
    EXPECT_EQ(times(kRounds, "msg 1"), ServeAll());
}

TEST_F(PZLMsgBoxTest, AHandlerThatFillsItsOwnBoxIsRefusedAndGoesOn) {
    std::atomic<unsigned int> refused{0};
    unit.OnMessage(1, [&](const auto&) {
        const StdoutCapture capture;
        for (unsigned int i = 0; i < kCapacity + 3; ++i) {
            if (Post(2) == kFull) ++refused;
        }
    });
    StartLoop();
    ASSERT_EQ(kSuccess, Post(1));
    EXPECT_EQ(kCapacity + 1, ServeAll().size());
    EXPECT_EQ(3U, refused);
}

TEST_F(PZLMsgBoxTest, OthersPostWhileAHandlerRuns) {
    StartAndHoldLoop();
    EXPECT_EQ(kSuccess, Post(1));
    EXPECT_EQ(kSuccess, box.SetEvent(1, id));
}

TEST_F(PZLMsgBoxTest, UnregistoryByAnotherThreadWaitsForTheRunningHandler) {
    std::atomic<bool> handlerIsDone{false};
    std::atomic<bool> leaving{false};
    std::atomic<bool> left{false};
    std::atomic<bool> leftTooEarly{false};
    unit.OnMessage(1, [&](const auto&) {
        wait_until([&] { return leaving.load(); });
        // Time for an Unregistory that does not wait to show itself.
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        leftTooEarly = left.load();
        handlerIsDone = true;
    });
    StartLoop();
    ASSERT_EQ(kSuccess, Post(1));
    ASSERT_TRUE(unit.WaitForCount(1));
    std::thread leaver([&] {
        leaving = true;
        box.Unregistory(id);
        left = true;
        EXPECT_TRUE(handlerIsDone);
    });
    leaver.join();
    EXPECT_FALSE(leftTooEarly);
}

TEST_F(PZLMsgBoxTest, RegistoryByAnotherThreadWaitsForTheRunningHandler) {
    RecordingDispatcher other;
    std::atomic<bool> handlerIsDone{false};
    std::atomic<bool> coming{false};
    unit.OnEvent(1, [&] {
        wait_until([&] { return coming.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        handlerIsDone = true;
    });
    StartLoop();
    ASSERT_EQ(kSuccess, box.SetEvent(1, id));
    ASSERT_TRUE(unit.WaitForCount(1));
    coming = true;
    EXPECT_NE(kNoIdentifier, box.Registory(&other));
    EXPECT_TRUE(handlerIsDone);
}

// End of the loop

TEST_F(PZLMsgBoxTest, ExitAndLoopAnswer0) {
    StartLoop();
    EXPECT_EQ(0, box.Exit());
    loop.join();
    EXPECT_EQ(0, loopResult);
}

TEST_F(PZLMsgBoxTest, ServesEverythingThatWasPostedBeforeExit) {
    StartAndHoldLoop();
    FillWithMessages();
    FillWithEvents();
    box.Exit();
    gate.Open();
    loop.join();
    EXPECT_EQ(2 * kCapacity, unit.Received().size());
}

TEST_F(PZLMsgBoxTest, ServesWhatHandlersPostAfterExitWhileWorkIsPending) {
    unit.OnMessage(1, [&](const auto&) { Post(2); });
    StartAndHoldLoop();
    Post(1);
    box.Exit();
    gate.Open();
    loop.join();
    EXPECT_EQ((Log{"msg 1", "msg 2"}), unit.Received());
}

TEST_F(PZLMsgBoxTest, ServesAMessageThatComesBetweenTheLoopsTestAndAnExit) {
    // Both signals are there when the wait begins: it sees the exit first.
    AtNextWait([this] {
        Post(1);
        box.Exit();
    });
    loop = std::thread([this] { box.Loop(1); });
    loop.join();
    EXPECT_EQ((Log{"msg 1"}), unit.Received());
}

TEST_F(PZLMsgBoxTest, ServesAnEventThatComesBetweenTheLoopsTestAndAnExit) {
    AtNextWait([this] {
        box.SetEvent(1, id);
        box.Exit();
    });
    loop = std::thread([this] { box.Loop(1); });
    loop.join();
    EXPECT_EQ((Log{"evt 1"}), unit.Received());
}

TEST_F(PZLMsgBoxTest, ServesAMessageThatComesBetweenTheLoopsTestAndItsWait) {
    AtNextWait([this] { Post(1); });
    StartLoop();
    EXPECT_TRUE(unit.WaitForCount(1));
}

TEST_F(PZLMsgBoxTest, WaitsForExitAfterAWakeUpWithoutWork) {
    ASSERT_EQ(kSuccess, Post(1));  // discarded by the loop; its signal stays
    StartLoop();
    ASSERT_EQ(kSuccess, Post(2));
    EXPECT_TRUE(unit.WaitForCount(1));
    EXPECT_EQ(-1, loopResult);
}

TEST_F(PZLMsgBoxTest, AnExitThatFoundNoLoopEndsTheNextOne) {
    box.Exit();
    EXPECT_EQ(0, box.Loop(1));
}

TEST_F(PZLMsgBoxTest, ASecondExitStaysPendingForTheNextLoop) {
    StartLoop();
    box.Exit();
    box.Exit();
    loop.join();
    EXPECT_EQ(0, box.Loop(1));
}

TEST_F(PZLMsgBoxTest, LoopsAgainAfterExit) {
    StartLoop();
    EndLoop();
    StartLoop();
    ASSERT_EQ(kSuccess, Post(1));
    EXPECT_EQ((Log{"msg 1"}), ServeAll());
}

TEST_F(PZLMsgBoxTest, LeavesNoSignalOfAMessageForTheNextLoop) {
    ASSERT_EQ(kSuccess, Post(1));  // discarded, but it has set the message event
    box.Exit();
    ASSERT_EQ(0, box.Loop(1));  // sees the exit first
    read_call.Replace(count_signals_and_wait);
    StartLoop();
    ASSERT_TRUE(wait_until([] { return signals_before_wait != -1; }));
    EXPECT_EQ(0, signals_before_wait);
}

TEST_F(PZLMsgBoxTest, ReportsAFailedWaitAsAnAssertionAndCarriesOn) {
    StdoutCapture capture;
    failing_waits = 1;
    read_call.Replace(fail_wait);
    StartLoop();
    ASSERT_EQ(kSuccess, Post(1));
    EXPECT_EQ((Log{"msg 1"}), ServeAll());

    const std::string output = capture.Take();
    EXPECT_EQ(1U, pztest::assertions_of(output, "Foundation/private/PZLMsgBox.cpp")) << output;
    EXPECT_EQ(1U, pztest::count_of(output, "ASSERT Failed!"));
    EXPECT_GT(pztest::count_of(output, "dumpDirectly()@PZCallStack.cpp"), 2U);
}

TEST_F(PZLMsgBoxTest, KeepsServingWhileItsWaitsFail) {
    StdoutCapture capture;
    failing_waits = 5;
    read_call.Replace(fail_wait);
    StartLoop();
    ASSERT_TRUE(wait_until([] { return failing_waits == 0; }));
    ASSERT_EQ(kSuccess, Post(1));
    EXPECT_EQ((Log{"msg 1"}), ServeAll());
    EXPECT_EQ(5U, pztest::count_of(capture.Take(), "ASSERT Failed!"));
}

// Many posters

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr unsigned int kMessagesPerPoster = 30000;
constexpr unsigned int kFloodPerPoster = 20000;
#else
constexpr unsigned int kMessagesPerPoster = 100000;
constexpr unsigned int kFloodPerPoster = 30000;
#endif
constexpr unsigned int kPosters = 8;

/// As many as PZ_LOAD_MESSAGES says, for the whole load:
///     PZ_LOAD_MESSAGES=1000000 PZLMsgBoxTest --gtest_filter='*InOrderOn*'
unsigned int messages_per_poster() {
    const char* const wanted = std::getenv("PZ_LOAD_MESSAGES");
    return wanted != nullptr ? static_cast<unsigned int>(std::strtoul(wanted, nullptr, 10))
                             : kMessagesPerPoster;
}

/// While one lives, this thread and those that it starts run on one processor.
class OneProcessor : private pztest::Uncopyable {
public:
    OneProcessor() {
        EXPECT_EQ(0, sched_getaffinity(0, sizeof before_, &before_));
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(sched_getcpu(), &one);
        EXPECT_EQ(0, sched_setaffinity(0, sizeof one, &one));
    }
    ~OneProcessor() { EXPECT_EQ(0, sched_setaffinity(0, sizeof before_, &before_)); }

private:
    cpu_set_t before_ = {};
};

/// Checks that every poster's sequence comes whole and in order.
class SequenceChecker : public PZIDispatcher {
public:
    void OnReceiveMsg(unsigned int poster, const void* buff, unsigned int size) override {
        unsigned int sequence = 0;
        if (size != sizeof sequence) {
            ++misplaced_;
            return;
        }
        std::memcpy(&sequence, buff, sizeof sequence);
        Take(poster, sequence);
    }
    void OnReceiveEvent(unsigned int bits) override { Take(bits >> 24U, bits & 0xFFFFFFU); }

    unsigned int Misplaced() const { return misplaced_; }
    unsigned int Next(unsigned int poster) const { return next_.at(poster); }

private:
    void Take(unsigned int poster, unsigned int sequence) {
        if (next_.at(poster)++ != sequence) ++misplaced_;
    }

    std::array<unsigned int, kPosters> next_ = {};  // on the loop's thread until it has ended
    unsigned int misplaced_ = 0;
};

/// Repeats a post while the box is full. A post that could not wake the loop is in the box.
template <typename Post>
void post_until_accepted(Post post) {
    while (post() == kFull) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

class PZLMsgBoxLoadTest : public testing::Test {
protected:
    /// Runs `post(poster, sequence)` on all posters at once and checks that nothing got lost.
    template <typename Post>
    void Run(unsigned int postsPerPoster, Post post) {
        std::thread loop([this] { box.Loop(1); });
        ASSERT_EQ(0, box.InitWait(kLongWaitMs));
        {
            const StdoutCapture capture;  // of many reports "full"
            std::vector<std::thread> posters;
            for (unsigned int poster = 0; poster < kPosters; ++poster) {
                posters.emplace_back([=] {
                    for (unsigned int i = 0; i < postsPerPoster; ++i) {
                        post_until_accepted([=] { return post(poster, i); });
                    }
                });
            }
            for (auto& poster : posters) poster.join();
            box.Exit();
            loop.join();
        }
        EXPECT_EQ(0U, checker.Misplaced());
        for (unsigned int poster = 0; poster < kPosters; ++poster) {
            EXPECT_EQ(postsPerPoster, checker.Next(poster)) << "poster " << poster;
        }
    }

    unsigned int PostMessage(unsigned int poster, unsigned int priority, unsigned int sequence) {
        Record record = {id, poster, priority, &sequence, sizeof sequence};
        return box.PushMsg(record);
    }

    PZLMsgBox box;
    SequenceChecker checker;
    const unsigned long id = box.Registory(&checker);
};

TEST_F(PZLMsgBoxLoadTest, ServesEveryMessageOfManyPostersInOrderOnOneLevel) {
    Run(messages_per_poster(), [this](unsigned int poster, unsigned int sequence) {
        return PostMessage(poster, kOrdinary, sequence);
    });
}

TEST_F(PZLMsgBoxLoadTest, ServesEveryMessageOfManyPostersInOrderOnOneProcessor) {
    const OneProcessor one;
    Run(messages_per_poster(), [this](unsigned int poster, unsigned int sequence) {
        return PostMessage(poster, kOrdinary, sequence);
    });
}

TEST_F(PZLMsgBoxLoadTest, ServesEveryMessageOfManyPostersInOrderOnALevelOfTheirOwn) {
    Run(messages_per_poster(), [this](unsigned int poster, unsigned int sequence) {
        return PostMessage(poster, poster + 1, sequence);
    });
}

TEST_F(PZLMsgBoxLoadTest, ServesEveryEmergencyOfManyPostersInOrder) {
    Run(kFloodPerPoster, [this](unsigned int poster, unsigned int sequence) {
        return PostMessage(poster, 0, sequence);
    });
}

TEST_F(PZLMsgBoxLoadTest, ServesEveryEventOfManyPostersInOrder) {
    Run(kFloodPerPoster, [this](unsigned int poster, unsigned int sequence) {
        return box.SetEvent((poster << 24U) | sequence, id);
    });
}

}  // namespace
