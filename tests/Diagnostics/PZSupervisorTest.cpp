#include "Framework/Diagnostics/PZSupervisor.h"

#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Foundation/PZIDispatcher.h>
#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Pattern/PZSubject.h>
#include <Framework/Utility/PZLTimerMng.h>

#include "support/CallbackTimer.h"
#include "support/ChildProcess.h"
#include "support/Gate.h"
#include "support/InstructionAt.h"
#include "support/MemoryShortage.h"
#include "support/OwnProcess.h"
#include "support/StdoutCapture.h"
#include "support/TestQueue.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

namespace {

using pztest::Gate;
using pztest::wait_until;

constexpr unsigned int kIntervalMs = 10;
constexpr unsigned int kShortMs = 50;     // a watch time that is meant to be exceeded
constexpr unsigned int kLongMs = 600000;  // one that is not
constexpr unsigned int kOrdinary = 128;
constexpr unsigned int kFull = 3;
constexpr int kCapacity = 256;

/// What a callback was told, with copies of what is valid only meanwhile.
struct Told : PZSupervisor::ST_FINDING {
    explicit Told(const ST_FINDING& finding) : ST_FINDING(finding), name(finding.threadName) {
        for (int i = 0; callStack != nullptr && i < callStack->size(); ++i) {
            addresses.push_back(callStack->getAddress(i));
            lines.emplace_back(callStack->getSymbol(i));
        }
    }
    bool Has(const void* address) const {
        return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
    }

    std::string name;
    std::vector<const void*> addresses;
    std::vector<std::string> lines;
};

/// Everything that was told.
class Record {
public:
    static void OnFinding(const PZSupervisor::ST_FINDING& finding, void* user) {
        auto* const record = static_cast<Record*>(user);
        const std::lock_guard<std::mutex> lock(record->mutex_);
        record->told_.emplace_back(finding);
        ++record->count_;
    }

    std::vector<Told> All() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return told_;
    }
    size_t Count() const { return count_; }
    bool WaitForCount(size_t count) const {
        return wait_until([this, count] { return Count() >= count; });
    }

private:
    mutable std::mutex mutex_;
    std::vector<Told> told_;
    std::atomic<size_t> count_{0};
};

/// Where the caller goes on: stands in the call stack as long as the caller's call runs.
#define CALLER pztest::instruction_at(__builtin_return_address(0))

/// A worker whose handler does what the test wants.
class TestWorker : public PZIDispatcher {
public:
    using Handler = std::function<void()>;

    TestWorker(const char* name, unsigned int watchTimeMs, unsigned int number, Handler handler)
        : handler_(std::move(handler)), worker_(1, watchTimeMs, number) {
        isStarted_ = worker_.Start(name) == 0;
        id_ = worker_.GetMsgBox()->Registory(this);
    }
    ~TestWorker() override { worker_.End(0); }

    bool IsStarted() const { return isStarted_; }
    unsigned int Post(unsigned int msgId) {
        PZIMsgBox::ST_PUSH_MSG_DATA message = {id_, msgId, kOrdinary, nullptr, 0};
        return worker_.GetMsgBox()->PushMsg(message);
    }
    unsigned int PostEvent(unsigned int bits) { return worker_.GetMsgBox()->SetEvent(bits, id_); }

    void OnReceiveMsg(unsigned int, const void*, unsigned int) override { handler_(); }
    void OnReceiveEvent(unsigned int) override { handler_(); }

    const PZIDispatcher* Dispatcher() const { return this; }
    int Tid() const { return tid_; }
    pthread_t Handle() const { return handle_; }
    void NoteThread() {
        tid_ = gettid();
        handle_ = pthread_self();
    }

private:
    Handler handler_;
    std::atomic<int> tid_{0};
    std::atomic<pthread_t> handle_{0};
    PZWorker worker_;
    bool isStarted_ = false;
    unsigned long id_ = 0;
};

/// One whose handler waits at a gate.
class HangingWorker {
public:
    explicit HangingWorker(const char* name = "hanging", unsigned int watchTimeMs = kShortMs,
                           unsigned int number = 7)
        : worker_(name, watchTimeMs, number, [this] { Hang(); }) {}
    ~HangingWorker() { gate_.Open(); }

    /// Posts a message, and returns when its handler hangs.
    bool HangIn(unsigned int msgId) {
        return worker_.IsStarted() && worker_.Post(msgId) == 0 && gate_.WaitForArrival();
    }
    bool HangInEvent(unsigned int bits) {
        return worker_.PostEvent(bits) == 0 && gate_.WaitForArrival();
    }
    void Release() { gate_.Open(); }
    TestWorker& Worker() { return worker_; }
    const void* Caller() const { return caller_; }

private:
    [[gnu::noinline]] void Hang() {
        caller_ = CALLER;
        worker_.NoteThread();
        gate_.Pass();
    }

    Gate gate_;
    std::atomic<const void*> caller_{nullptr};
    TestWorker worker_;  // ends first
};

/// An observer that waits at a gate.
struct HangingObserver : PZObserver_ {
    [[gnu::noinline]] unsigned int OnNotify(unsigned int, void*, unsigned int) override {
        caller = CALLER;
        gate.Pass();
        return 0;
    }
    Gate gate;
    std::atomic<const void*> caller{nullptr};
};

/// A thread of the program that is no worker, and does what the test wants.
class OwnThread {
public:
    OwnThread(const char* name, std::function<void()> main, unsigned int watchTimeMs = kShortMs)
        : main_(std::move(main)), thread_(this, watchTimeMs) {
        isStarted_ = thread_.Start(name);
    }

    bool IsStarted() const { return isStarted_; }
    void Join() { thread_.WaitExit(); }
    int Tid() const { return tid_; }

    // Phases of the thread.
    int Initialize() { return 0; }
    void MainProc() {
        tid_ = gettid();
        main_();
    }
    void Finalize() {}

private:
    const std::function<void()> main_;
    std::atomic<int> tid_{0};
    PZThread<OwnThread> thread_;
    bool isStarted_ = false;
};

/// Keeps a signal from the calling thread.
class BlockedSignal : private pztest::Uncopyable {
public:
    explicit BlockedSignal(int signal) {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, signal);
        pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    }
    ~BlockedSignal() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

private:
    sigset_t before_ = {};
};

class PZSupervisorTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_NE(0, pz_FwInitialize("supervised", 1)); }
    void TearDown() override { PZSupervisor::Stop(); }

    bool Start(int stackSignal = PZSupervisor::kNoCallStack) {
        return PZSupervisor::Start(&Record::OnFinding, &record, kIntervalMs, stackSignal);
    }

    /// Waits until the supervision has looked at the process a few times more: until it has told
    /// of a worker that begins to hang now.
    void WaitForLooks() {
        HangingWorker probe("probe", kShortMs, 99);
        ASSERT_TRUE(probe.HangIn(1));
        const auto toldOfProbe = [this](bool isOver) {
            const std::vector<Told> told = record.All();
            return std::any_of(told.begin(), told.end(), [isOver](const Told& one) {
                return one.name == "probe" && one.isOver == isOver;
            });
        };
        ASSERT_TRUE(wait_until([&] { return toldOfProbe(false); }));
        probe.Release();
        ASSERT_TRUE(wait_until([&] { return toldOfProbe(true); }));
    }

    /// What was told of threads of this name.
    std::vector<Told> ToldOf(const std::string& name) const {
        std::vector<Told> told = record.All();
        told.erase(std::remove_if(told.begin(), told.end(),
                                  [&](const Told& one) { return one.name != name; }),
                   told.end());
        return told;
    }

    /// The same when so much has been told and a few looks more have told nothing else.
    std::vector<Told> ToldInAll(const std::string& name, size_t count) {
        EXPECT_TRUE(wait_until([&] { return ToldOf(name).size() == count; }));
        WaitForLooks();
        return ToldOf(name);
    }

    Record record;
};

int signal_that_is_free() {
    return SIGRTMIN + 7;
}

void notify_all(PZSubject& subject) {
    subject.NotifyObserver(1, nullptr, 0, en_NTF_ALL);
}

/// Posts to a worker that hangs until its box is full; false when it was full before.
bool fill(TestWorker& worker) {
    for (int i = 0; i < kCapacity; ++i) {
        if (worker.Post(2) != 0) return false;
    }
    return true;
}

/// Posts to a full box.
unsigned int post_too_much(TestWorker& worker) {
    const pztest::StdoutCapture capture;  // of the report
    return worker.Post(3);
}

/// A thread that was joined is listed a moment longer.
bool supervision_ends() {
    return wait_until([] { return pztest::threads_named("pz_supervisor").empty(); });
}

void (*action_of(int signal))(int) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    return action.sa_handler;
}

}  // namespace

TEST_F(PZSupervisorTest, TellsOfAHandlerThatHangsOnceWhenItBeginsAndOnceWhenItIsOver) {
    ASSERT_TRUE(Start());
    HangingWorker hanging;
    ASSERT_TRUE(hanging.HangIn(4711));
    ASSERT_TRUE(record.WaitForCount(1));
    WaitForLooks();
    std::vector<Told> told = ToldOf("hanging");
    ASSERT_EQ(1U, told.size());
    EXPECT_EQ(PZSupervisor::en_HANDLER, told[0].kind);
    EXPECT_FALSE(told[0].isOver);
    EXPECT_EQ(hanging.Worker().Tid(), told[0].tid);
    EXPECT_EQ(7, told[0].worker);
    EXPECT_EQ(hanging.Worker().Dispatcher(), told[0].object);
    EXPECT_EQ(hanging.Worker().Dispatcher(), told[0].dispatcher);
    EXPECT_EQ(4711U, told[0].messageId);
    EXPECT_FALSE(told[0].isEvent);
    EXPECT_GT(told[0].durationMs, kShortMs);
    EXPECT_EQ(kShortMs, told[0].watchTimeMs);
    EXPECT_EQ(nullptr, told[0].callStack);

    hanging.Release();
    told = ToldInAll("hanging", 2);
    ASSERT_EQ(2U, told.size());
    EXPECT_EQ(PZSupervisor::en_HANDLER, told[1].kind);
    EXPECT_TRUE(told[1].isOver);
    EXPECT_EQ(4711U, told[1].messageId);
    EXPECT_EQ(7, told[1].worker);
    EXPECT_GE(told[1].durationMs, told[0].durationMs);
}

TEST_F(PZSupervisorTest, TellsOfAnEventHandlerThatHangsWithItsBits) {
    ASSERT_TRUE(Start());
    HangingWorker hanging;
    ASSERT_TRUE(hanging.HangInEvent(0x50));
    ASSERT_TRUE(record.WaitForCount(1));
    const Told told = record.All()[0];
    EXPECT_EQ(PZSupervisor::en_HANDLER, told.kind);
    EXPECT_TRUE(told.isEvent);
    EXPECT_EQ(0x50U, told.messageId);
}

TEST_F(PZSupervisorTest, DoesNotTellOfAWorkerThatIsBusyAndDoesNotHang) {
    constexpr unsigned int kWatchMs = 1000;
    ASSERT_TRUE(Start());
    std::atomic<bool> isEnough{false};
    TestWorker* self = nullptr;
    TestWorker busy("busy", kWatchMs, 1, [&] {
        pz_msleep(1);
        if (!isEnough) self->Post(1);
    });
    self = &busy;
    ASSERT_EQ(0U, busy.Post(1));
    HangingWorker hanging("hanging", kWatchMs, 2);
    ASSERT_TRUE(hanging.HangIn(1));  // hangs while the other one is busy
    ASSERT_TRUE(record.WaitForCount(1));
    isEnough = true;
    EXPECT_EQ("hanging", record.All()[0].name);
    EXPECT_EQ(1U, record.Count());
}

TEST_F(PZSupervisorTest, TellsOfTwoHandlersThatHangOneAfterTheOther) {
    ASSERT_TRUE(Start());
    TestWorker slow("slow", kShortMs, 1, [this] {
        const size_t before = ToldOf("slow").size();
        wait_until([&] { return ToldOf("slow").size() > before; });
    });
    ASSERT_EQ(0U, slow.Post(1));
    ASSERT_TRUE(wait_until([this] { return ToldOf("slow").size() == 2; }));
    ASSERT_EQ(0U, slow.Post(2));
    ASSERT_TRUE(wait_until([this] { return ToldOf("slow").size() == 4; }));
    const std::vector<Told> told = ToldOf("slow");
    for (size_t i = 0; i < told.size(); ++i) {
        EXPECT_EQ(i / 2 + 1, told[i].messageId);
        EXPECT_EQ(i % 2 == 1, told[i].isOver);
    }
}

TEST_F(PZSupervisorTest, TellsOfATimerCallbackThatHangs) {
    ASSERT_TRUE(Start());
    Gate gate;
    std::atomic<unsigned long> thread{0};
    std::atomic<unsigned int> usualMs{0};
    pztest::CallbackTimer timer([&](pztest::TimerInfo*) {
        usualMs = PZThreadMng::GetInstance()->getWatchTime(pthread_self());
        PZThreadMng::GetInstance()->setWatchTime(pthread_self(), kShortMs);
        thread = pthread_self();
        gate.Pass();
        return 0;
    });
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    PZLTimerMng::TimerSubInfo* const band = timers->AddTimer(&timer, 1);
    ASSERT_NE(nullptr, band);
    ASSERT_TRUE(record.WaitForCount(1));
    gate.Open();
    ASSERT_TRUE(record.WaitForCount(2));
    timers->RemoveTimer(band, &timer);
    PZThreadMng::GetInstance()->setWatchTime(thread, usualMs);

    const std::vector<Told> told = record.All();
    ASSERT_EQ(2U, told.size());
    EXPECT_EQ(PZSupervisor::en_TIMER, told[0].kind);
    EXPECT_EQ(0U, told[0].name.find("ZLTimerSubMng_")) << told[0].name;
    EXPECT_EQ(static_cast<const PZLTimerBase*>(&timer), told[0].object);
    EXPECT_EQ(nullptr, told[0].dispatcher);
    EXPECT_EQ(-1, told[0].worker);
    EXPECT_EQ(kShortMs, told[0].watchTimeMs);
    EXPECT_LE(kShortMs, told[0].durationMs);
    EXPECT_GT(60000U, told[0].durationMs);
    EXPECT_FALSE(told[0].isOver);
    EXPECT_TRUE(told[1].isOver);
    EXPECT_EQ(4000U, usualMs);
}

TEST_F(PZSupervisorTest, TellsOfAnObserverOfAReceivedMessageThatHangs) {
    struct Observer : PZObserver_ {
        unsigned int OnNotify(unsigned int, void*, unsigned int) override {
            PZThreadMng::GetInstance()->setWatchTime(pthread_self(), kShortMs);
            tid = gettid();
            gate.Pass();
            return 0;
        }
        Gate gate;
        std::atomic<int> tid{0};
    } observer;
    ASSERT_TRUE(Start());
    const pztest::QueueName name;
    PZMsgQ::PZMessageQueue<1> receiver;
    PZMsgQ::PZMessageQueue<0> sender;
    ASSERT_TRUE(receiver.open({name.Get(), &observer}));
    ASSERT_TRUE(sender.open({name.Get()}));
    ASSERT_EQ(0, sender.send("x", 1, 1));
    ASSERT_TRUE(record.WaitForCount(1));
    observer.gate.Open();
    ASSERT_TRUE(record.WaitForCount(2));
    sender.close();
    receiver.close();

    const std::vector<Told> told = record.All();
    ASSERT_EQ(2U, told.size());
    EXPECT_EQ(PZSupervisor::en_OBSERVER, told[0].kind);
    EXPECT_EQ("mq_" + name.Text(), told[0].name);
    EXPECT_EQ(observer.tid, told[0].tid);
    EXPECT_EQ(kShortMs, told[0].watchTimeMs);
    EXPECT_NE(nullptr, told[0].object);
    EXPECT_TRUE(told[1].isOver);
    EXPECT_EQ(told[0].object, told[1].object);
}

TEST_F(PZSupervisorTest, TellsOfAnObserverThatAThreadOfTheProgramNotifiesAndThatHangs) {
    ASSERT_TRUE(Start(signal_that_is_free()));
    HangingObserver observer;
    PZSubject subject;
    subject.AddObserver(&observer);
    OwnThread thread("notifying", [&subject] { notify_all(subject); });
    ASSERT_TRUE(thread.IsStarted());
    ASSERT_TRUE(record.WaitForCount(1));
    WaitForLooks();
    EXPECT_EQ(1U, ToldOf("notifying").size());
    observer.gate.Open();
    ASSERT_TRUE(wait_until([this] { return ToldOf("notifying").size() == 2; }));
    thread.Join();
    WaitForLooks();
    subject.RemoveObserver(&observer);

    const std::vector<Told> told = ToldOf("notifying");
    ASSERT_EQ(2U, told.size());
    EXPECT_EQ(PZSupervisor::en_OBSERVER, told[0].kind);
    EXPECT_EQ(&subject, told[0].object);
    EXPECT_EQ(thread.Tid(), told[0].tid);
    EXPECT_EQ(-1, told[0].worker);
    EXPECT_EQ(nullptr, told[0].dispatcher);
    EXPECT_EQ(kShortMs, told[0].watchTimeMs);
    EXPECT_GT(told[0].durationMs, kShortMs);
    EXPECT_TRUE(told[0].Has(observer.caller));
    EXPECT_FALSE(told[0].isOver);
    EXPECT_EQ(PZSupervisor::en_OBSERVER, told[1].kind);
    EXPECT_EQ(&subject, told[1].object);
    EXPECT_TRUE(told[1].isOver);
    EXPECT_GE(told[1].durationMs, told[0].durationMs);
}

TEST_F(PZSupervisorTest, TellsOfAnObserverThatNotifiesWithoutEndItself) {
    ASSERT_TRUE(Start());
    PZSubject subject;
    std::atomic<bool> isEnough{false};
    struct Nesting : PZObserver_ {
        Nesting(PZSubject& s, std::atomic<bool>& e) : subject(s), isEnough(e) {}
        unsigned int OnNotify(unsigned int id, void*, unsigned int) override {
            while (id == 1 && !isEnough) subject.NotifyObserver(2, nullptr, 0, en_NTF_ALL);
            return 0;
        }
        PZSubject& subject;
        std::atomic<bool>& isEnough;
    } observer(subject, isEnough);
    subject.AddObserver(&observer);
    OwnThread thread("nesting", [&subject] { notify_all(subject); });
    ASSERT_TRUE(thread.IsStarted());
    ASSERT_TRUE(record.WaitForCount(1));
    isEnough = true;
    ASSERT_TRUE(record.WaitForCount(2));
    thread.Join();
    subject.RemoveObserver(&observer);
    EXPECT_EQ("nesting", record.All()[0].name);
    EXPECT_EQ(&subject, record.All()[0].object);
}

TEST_F(PZSupervisorTest, DoesNotTellOfAThreadThatNotifiesAllTheTime) {
    constexpr unsigned int kWatchMs = 1000;  // enough for more than one notification
    ASSERT_TRUE(Start());
    PZSubject subject;
    struct Quick : PZObserver_ {
        unsigned int OnNotify(unsigned int, void*, unsigned int) override { return 0; }
    } observer;
    subject.AddObserver(&observer);
    std::atomic<bool> isEnough{false};
    const auto notify = [&] {
        while (!isEnough) notify_all(subject);
    };
    OwnThread thread("busy", notify, kWatchMs);
    ASSERT_TRUE(thread.IsStarted());
    HangingWorker hanging("hanging", kWatchMs, 2);
    ASSERT_TRUE(hanging.HangIn(1));  // while the other one notifies
    ASSERT_TRUE(record.WaitForCount(1));
    isEnough = true;
    thread.Join();
    subject.RemoveObserver(&observer);
    EXPECT_EQ("hanging", record.All()[0].name);
    EXPECT_EQ(1U, record.Count());
}

TEST_F(PZSupervisorTest, TellsOfTheObserversOfAHandlerAsOfTheHandlerOnly) {
    ASSERT_TRUE(Start());
    HangingObserver observer;
    PZSubject subject;
    subject.AddObserver(&observer);
    TestWorker worker("handling", kShortMs, 3, [&subject] { notify_all(subject); });
    ASSERT_EQ(0U, worker.Post(8));
    ASSERT_TRUE(record.WaitForCount(1));
    WaitForLooks();
    observer.gate.Open();
    ASSERT_TRUE(wait_until([this] { return ToldOf("handling").size() == 2; }));
    WaitForLooks();
    subject.RemoveObserver(&observer);
    for (const Told& told : ToldOf("handling")) EXPECT_EQ(PZSupervisor::en_HANDLER, told.kind);
    EXPECT_EQ(2U, ToldOf("handling").size());
}

TEST_F(PZSupervisorTest, WatchesASubjectInThePlaceOfOneThatIsGone) {
    constexpr int kMore = 100;  // than are watched
    ASSERT_TRUE(Start());
    HangingObserver observer;
    std::vector<std::unique_ptr<PZSubject>> many;
    for (int i = 0; i < kMore; ++i) {
        many.push_back(std::make_unique<PZSubject>());
        many.back()->AddObserver(&observer);
    }
    for (const auto& subject : many) subject->RemoveObserver(&observer);
    many.clear();
    PZSubject subject;
    subject.AddObserver(&observer);
    OwnThread thread("late", [&subject] { notify_all(subject); });
    ASSERT_TRUE(thread.IsStarted());
    ASSERT_TRUE(record.WaitForCount(1));
    observer.gate.Open();
    thread.Join();
    subject.RemoveObserver(&observer);
    EXPECT_EQ(&subject, record.All()[0].object);
}

TEST_F(PZSupervisorTest, WatchesThe64SubjectsThatGotTheirFirstObserverFirst) {
    constexpr size_t kWatched = 64;
    ASSERT_TRUE(Start());
    HangingObserver observer;
    std::vector<PZSubject> subjects(kWatched + 1);
    for (PZSubject& subject : subjects) subject.AddObserver(&observer);
    PZSubject& last = subjects[kWatched - 1];
    PZSubject& oneMore = subjects[kWatched];

    OwnThread unseen("unseen", [&oneMore] { notify_all(oneMore); });
    ASSERT_TRUE(unseen.IsStarted());
    ASSERT_TRUE(observer.gate.WaitForArrival());
    OwnThread seen("seen", [&last] { notify_all(last); });
    ASSERT_TRUE(seen.IsStarted());
    ASSERT_TRUE(record.WaitForCount(1));
    WaitForLooks();
    observer.gate.Open();
    unseen.Join();
    seen.Join();
    for (PZSubject& subject : subjects) subject.RemoveObserver(&observer);
    EXPECT_EQ(&last, ToldOf("seen")[0].object);
    EXPECT_TRUE(ToldOf("unseen").empty());
}

TEST_F(PZSupervisorTest, TellsOfAThreadThatWaitsTooLongForALock) {
    ASSERT_TRUE(Start());
    PZSync lock;
    auto held = std::make_unique<PZSyncLock>(lock);
    OwnThread thread("waiting", [&lock] { const PZSyncLock own(lock); });
    ASSERT_TRUE(thread.IsStarted());
    ASSERT_TRUE(record.WaitForCount(1));
    held.reset();
    ASSERT_TRUE(record.WaitForCount(2));
    thread.Join();

    const std::vector<Told> told = record.All();
    ASSERT_EQ(2U, told.size());
    EXPECT_EQ(PZSupervisor::en_LOCK, told[0].kind);
    EXPECT_EQ("waiting", told[0].name);
    EXPECT_EQ(thread.Tid(), told[0].tid);
    EXPECT_EQ(&lock, told[0].object);
    EXPECT_EQ(-1, told[0].worker);
    EXPECT_EQ(kShortMs, told[0].watchTimeMs);
    EXPECT_GT(told[0].durationMs, kShortMs);
    EXPECT_FALSE(told[0].isOver);
    EXPECT_EQ(PZSupervisor::en_LOCK, told[1].kind);
    EXPECT_TRUE(told[1].isOver);
}

TEST_F(PZSupervisorTest, TellsOfTheHandlerInWhichAWorkerWaitsForALock) {
    ASSERT_TRUE(Start());
    PZSync lock;
    TestWorker blocked("blocked", kShortMs, 5, [&lock] { const PZSyncLock own(lock); });
    auto held = std::make_unique<PZSyncLock>(lock);
    ASSERT_EQ(0U, blocked.Post(31));
    ASSERT_TRUE(record.WaitForCount(2));
    held.reset();
    ASSERT_TRUE(record.WaitForCount(4));
    const std::vector<Told> told = record.All();
    for (const PZSupervisor::EN_KIND kind : {PZSupervisor::en_HANDLER, PZSupervisor::en_LOCK}) {
        EXPECT_EQ(2, std::count_if(told.begin(), told.end(), [&](const Told& one) {
                      return one.kind == kind && one.worker == 5 && one.messageId == 31 &&
                             one.dispatcher == blocked.Dispatcher();
                  }));
    }
}

TEST_F(PZSupervisorTest, TellsOfABoxThatRefusesPosts) {
    ASSERT_TRUE(Start());
    HangingWorker flooded("flooded", kLongMs, 3);
    ASSERT_TRUE(flooded.HangIn(1));
    ASSERT_TRUE(fill(flooded.Worker()));
    WaitForLooks();
    EXPECT_EQ(0U, ToldOf("flooded").size());  // full, but nothing was refused
    ASSERT_EQ(kFull, post_too_much(flooded.Worker()));
    std::vector<Told> told = ToldInAll("flooded", 1);
    ASSERT_EQ(1U, told.size());  // it is still full
    EXPECT_EQ(PZSupervisor::en_REFUSAL, told[0].kind);
    EXPECT_EQ(1U, told[0].refused);
    EXPECT_EQ(3, told[0].worker);
    EXPECT_EQ(1U, told[0].messageId);
    EXPECT_EQ(flooded.Worker().Dispatcher(), told[0].dispatcher);
    EXPECT_EQ(flooded.Worker().Tid(), told[0].tid);
    EXPECT_FALSE(told[0].isOver);

    flooded.Release();
    told = ToldInAll("flooded", 2);
    ASSERT_EQ(2U, told.size());
    EXPECT_EQ(PZSupervisor::en_REFUSAL, told[1].kind);
    EXPECT_TRUE(told[1].isOver);
}

TEST_F(PZSupervisorTest, TellsOfABoxThatWasRefusingBeforeTheStart) {
    HangingWorker flooded("flooded", kLongMs, 3);
    ASSERT_TRUE(flooded.HangIn(1));
    ASSERT_TRUE(fill(flooded.Worker()));
    ASSERT_EQ(kFull, post_too_much(flooded.Worker()));
    ASSERT_TRUE(Start());
    ASSERT_TRUE(record.WaitForCount(1));
    EXPECT_EQ(PZSupervisor::en_REFUSAL, record.All()[0].kind);
}

TEST_F(PZSupervisorTest, DoesNotTellOfThreadsWithoutAWatchTime) {
    ASSERT_TRUE(Start());
    HangingWorker unwatched("unwatched", 0, 1);
    ASSERT_TRUE(unwatched.HangIn(1));
    WaitForLooks();
    EXPECT_EQ(0U, ToldOf("unwatched").size());
}

TEST_F(PZSupervisorTest, AThreadMayBeRenamedWhileItHangs) {
    ASSERT_TRUE(Start());
    HangingWorker hanging("first name");
    ASSERT_TRUE(hanging.HangIn(1));
    ASSERT_TRUE(record.WaitForCount(1));
    for (int i = 0; i < 100; ++i) {
        const std::string label = "name " + std::to_string(i);
        PZThreadMng::GetInstance()->setLabel(hanging.Worker().Handle(), label.c_str());
        pz_msleep(1);
    }
    hanging.Release();
    ASSERT_TRUE(record.WaitForCount(2));
    EXPECT_EQ("first name", record.All()[0].name);
    EXPECT_EQ("first name", record.All()[1].name);  // as it was told
}

TEST_F(PZSupervisorTest, TellsOfManyThreadsThatHangTogether) {
    constexpr size_t kThreads = 40;  // more than are kept at a time
    constexpr size_t kAtATime = 32;
    ASSERT_TRUE(Start());
    std::vector<std::unique_ptr<HangingWorker>> workers;
    for (size_t i = 0; i < kThreads; ++i) {
        workers.push_back(std::make_unique<HangingWorker>(("many_" + std::to_string(i)).c_str()));
        ASSERT_TRUE(workers[i]->HangIn(1));
    }
    ASSERT_TRUE(record.WaitForCount(kAtATime));
    EXPECT_EQ(kAtATime, record.Count());
    const auto told = [this](bool isOver) {
        std::vector<std::string> names;
        for (const Told& one : record.All()) {
            if (one.isOver == isOver) names.push_back(one.name);
        }
        return names;
    };
    // Those that were told make room for the rest.
    for (const std::string& name : told(false)) {
        workers[std::stoul(name.substr(std::string("many_").size()))]->Release();
    }
    ASSERT_TRUE(wait_until([&] { return told(false).size() == kThreads; }));
    for (const auto& worker : workers) worker->Release();
    ASSERT_TRUE(wait_until([&] { return told(true).size() == kThreads; }));

    size_t open = 0;
    size_t mostOpen = 0;
    for (const Told& one : record.All()) {
        one.isOver ? --open : ++open;
        mostOpen = std::max(mostOpen, open);
    }
    EXPECT_EQ(kAtATime, mostOpen);
    for (const bool isOver : {false, true}) {
        std::vector<std::string> names = told(isOver);
        std::sort(names.begin(), names.end());
        EXPECT_EQ(names.end(), std::adjacent_find(names.begin(), names.end()));
    }
}

TEST_F(PZSupervisorTest, GivesTheCallStackOfTheThreadThatHangs) {
    ASSERT_TRUE(Start(PZSupervisor::kAnySignal));
    HangingWorker hanging;
    ASSERT_TRUE(hanging.HangIn(1));
    ASSERT_TRUE(record.WaitForCount(1));
    hanging.Release();
    ASSERT_TRUE(record.WaitForCount(2));
    const std::vector<Told> told = record.All();
    ASSERT_NE(nullptr, told[0].callStack);
    EXPECT_TRUE(told[0].Has(hanging.Caller())) << testing::PrintToString(told[0].lines);
    EXPECT_TRUE(std::all_of(told[0].lines.begin(), told[0].lines.end(),
                            [](const std::string& line) { return !line.empty(); }));
    // The way into the signal handler is left out.
    EXPECT_EQ(std::string::npos, told[0].lines[0].find("libpzframework")) << told[0].lines[0];
    EXPECT_EQ(nullptr, told[1].callStack);
}

TEST_F(PZSupervisorTest, GivesTheCallStackOfAThreadInsideMallocAndInsideTheFrameworksLocks) {
    constexpr int kRounds = 20;
    ASSERT_TRUE(Start(PZSupervisor::kAnySignal));
    std::atomic<size_t> round{0};
    std::atomic<const void*> caller{nullptr};
    TestWorker* self = nullptr;
    TestWorker working("working", kShortMs, 1, [&] {
        // Every round is told of while it works.
        const auto work = [&]() __attribute__((noinline)) {
            caller = CALLER;
            while (record.Count() < 2 * round + 1) {
                std::free(std::malloc(1000 + static_cast<size_t>(std::rand()) % 100000));
                PZThreadMng::GetInstance()->getWatchTime(pthread_self());
                std::vector<unsigned long> active;
                PZThreadMng::GetInstance()->getActiveThreadList(active);
            }
        };
        work();
        caller.load();
    });
    self = &working;
    for (round = 0; round < kRounds; ++round) {
        ASSERT_EQ(0U, self->Post(1));
        ASSERT_TRUE(record.WaitForCount(2 * round + 2));
    }
    const std::vector<Told> told = record.All();
    for (size_t i = 0; i < told.size(); i += 2) {
        ASSERT_NE(nullptr, told[i].callStack) << i;
#ifdef __arm__  // few functions of the C library have unwind tables there
        EXPECT_FALSE(told[i].addresses.empty()) << i;
#else
        EXPECT_TRUE(told[i].Has(caller)) << i << ": " << testing::PrintToString(told[i].lines);
#endif
    }
}

TEST_F(PZSupervisorTest, TellsWithoutACallStackWhenTheThreadBlocksTheSignal) {
    const int signal = signal_that_is_free();
    ASSERT_TRUE(Start(signal));
    Gate gate;
    TestWorker blocking("blocking", kShortMs, 1, [&] {
        const BlockedSignal blocked(signal);
        gate.Pass();
    });
    ASSERT_EQ(0U, blocking.Post(1));
    ASSERT_TRUE(record.WaitForCount(1));
    EXPECT_EQ(nullptr, record.All()[0].callStack);
    // The signal still waits for that thread. It must not end the process, which is its default.
    ASSERT_TRUE(PZSupervisor::Stop());
    EXPECT_EQ(SIG_DFL, action_of(signal));
    gate.Open();
}

TEST_F(PZSupervisorTest, ALateAnswerIsNotTakenForThatOfAnotherThread) {
    const int signal = signal_that_is_free();
    ASSERT_TRUE(Start(signal));
    Gate gate;
    std::atomic<bool> isUnblocked{false};
    TestWorker late("late", kShortMs, 1, [&] {
        {
            const BlockedSignal blocked(signal);
            gate.Pass();
        }  // gets its signal here
        isUnblocked = true;
    });
    ASSERT_EQ(0U, late.Post(1));
    ASSERT_TRUE(record.WaitForCount(1));
    gate.Open();
    ASSERT_TRUE(wait_until([&] { return isUnblocked.load(); }));
    HangingWorker hanging;
    ASSERT_TRUE(hanging.HangIn(1));
    ASSERT_TRUE(wait_until([this] { return ToldOf("hanging").size() == 1; }));
    const Told told = ToldOf("hanging")[0];
    ASSERT_NE(nullptr, told.callStack);
    EXPECT_TRUE(told.Has(hanging.Caller())) << testing::PrintToString(told.lines);
}

TEST_F(PZSupervisorTest, RefusesASignalThatTheProcessUses) {
    const int signal = signal_that_is_free();
    const pztest::StdoutCapture capture;
    for (void (*const action)(int) : {+[](int) {}, SIG_IGN}) {
        struct sigaction used = {};
        used.sa_handler = action;
        struct sigaction before = {};
        sigaction(signal, &used, &before);
        EXPECT_FALSE(Start(signal));
        EXPECT_EQ(action, action_of(signal));
        sigaction(signal, &before, nullptr);
    }
    {
        const BlockedSignal blocked(signal);  // for a signalfd, say
        EXPECT_FALSE(Start(signal));
    }
    EXPECT_FALSE(Start(SIGKILL));
    EXPECT_FALSE(Start(1000));
    EXPECT_EQ(SIG_DFL, action_of(signal));
    EXPECT_TRUE(Start(signal));
    EXPECT_NE(SIG_DFL, action_of(signal));
    EXPECT_TRUE(PZSupervisor::Stop());
    EXPECT_EQ(SIG_DFL, action_of(signal));
}

TEST_F(PZSupervisorTest, TakesNoSignalOfFaults) {
    const pztest::StdoutCapture capture;
    // A handler that returns would bring the process back to the faulty instruction, for ever.
    for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS}) {
        struct sigaction fatal = {};
        fatal.sa_handler = SIG_DFL;
        struct sigaction before = {};  // sanitizers have some
        sigaction(signal, &fatal, &before);
        EXPECT_FALSE(Start(signal)) << signal;
        EXPECT_EQ(SIG_DFL, action_of(signal)) << signal;
        PZSupervisor::Stop();
        sigaction(signal, &before, nullptr);
    }
}

TEST_F(PZSupervisorTest, LeavesASignalAloneThatTheProcessHasTakenMeanwhile) {
    const int signal = signal_that_is_free();
    ASSERT_TRUE(Start(signal));
    void (*const own)(int) = +[](int) { std::abort(); };
    struct sigaction used = {};
    used.sa_handler = own;
    sigaction(signal, &used, nullptr);
    HangingWorker hanging;
    ASSERT_TRUE(hanging.HangIn(1));
    ASSERT_TRUE(record.WaitForCount(1));
    EXPECT_EQ(nullptr, record.All()[0].callStack);
    EXPECT_TRUE(PZSupervisor::Stop());
    EXPECT_EQ(own, action_of(signal));
    used.sa_handler = SIG_DFL;
    sigaction(signal, &used, nullptr);
}

TEST_F(PZSupervisorTest, TellsNothingMoreAfterStopAndBeginsFromTheBeginningAfterStart) {
    ASSERT_TRUE(Start());
    HangingWorker hanging;
    ASSERT_TRUE(hanging.HangIn(1));
    ASSERT_TRUE(record.WaitForCount(1));
    EXPECT_TRUE(PZSupervisor::Stop());
    EXPECT_TRUE(supervision_ends());
    const size_t count = record.Count();
    EXPECT_EQ(1U, count);  // what is not over is not told
    ASSERT_TRUE(Start());
    EXPECT_EQ(1U, pztest::threads_named("pz_supervisor").size());
    ASSERT_TRUE(record.WaitForCount(count + 1));
    EXPECT_FALSE(record.All()[count].isOver);
}

TEST_F(PZSupervisorTest, EndsWithTheFramework) {
    const int signal = signal_that_is_free();
    ASSERT_TRUE(Start(signal));
    pz_FwFinalize();
    EXPECT_TRUE(supervision_ends());
    EXPECT_EQ(SIG_DFL, action_of(signal));
    EXPECT_FALSE(PZSupervisor::Stop());
}

TEST_F(PZSupervisorTest, RefusesAnIncompleteOrSecondStartAndAStopWithoutAStart) {
    const pztest::StdoutCapture capture;
    EXPECT_FALSE(PZSupervisor::Start(nullptr, nullptr, kIntervalMs));
    EXPECT_FALSE(PZSupervisor::Start(&Record::OnFinding, &record, 0));
    EXPECT_FALSE(PZSupervisor::Stop());
    EXPECT_TRUE(Start());
    EXPECT_FALSE(Start());
    EXPECT_TRUE(PZSupervisor::Stop());
    EXPECT_FALSE(PZSupervisor::Stop());
}

TEST_F(PZSupervisorTest, NeitherStartsNorStopsFromItsCallback) {
    struct Answers {
        std::atomic<int> calls{0};
        bool stopped = true;
        bool started = true;
    } answers;
    const auto callback = [](const PZSupervisor::ST_FINDING&, void* user) {
        auto* const own = static_cast<Answers*>(user);
        const pztest::StdoutCapture capture;
        own->stopped = PZSupervisor::Stop();
        own->started = PZSupervisor::Start(&Record::OnFinding, nullptr, 1);
        ++own->calls;
    };
    ASSERT_TRUE(PZSupervisor::Start(callback, &answers, kIntervalMs));
    HangingWorker hanging;
    ASSERT_TRUE(hanging.HangIn(1));
    ASSERT_TRUE(wait_until([&] { return answers.calls > 0; }));
    EXPECT_TRUE(PZSupervisor::Stop());
    EXPECT_FALSE(answers.stopped);
    EXPECT_FALSE(answers.started);
}

TEST_F(PZSupervisorTest, WatchesNothingWhileItsCallbackRuns) {
    struct Slow {
        Record& record;
        Gate gate;
    } slow{record, {}};
    const auto callback = [](const PZSupervisor::ST_FINDING& finding, void* user) {
        auto* const own = static_cast<Slow*>(user);
        Record::OnFinding(finding, &own->record);
        own->gate.Pass();
    };
    ASSERT_TRUE(PZSupervisor::Start(callback, &slow, kIntervalMs));
    HangingWorker first("first");
    ASSERT_TRUE(first.HangIn(1));
    ASSERT_TRUE(slow.gate.WaitForArrival());
    {
        HangingWorker second("second", kShortMs, 8);
        ASSERT_TRUE(second.HangIn(1));
        // Far longer than a supervision that watches needs to tell of it.
        std::this_thread::sleep_for(std::chrono::milliseconds(4 * kShortMs));
    }
    slow.gate.Open();
    WaitForLooks();
    EXPECT_TRUE(ToldOf("second").empty());
    EXPECT_TRUE(PZSupervisor::Stop());
}

TEST_F(PZSupervisorTest, AStopThatWaitsForTheCallbackKeepsNobodyElse) {
    struct Held {
        Gate gate;
        bool started = true;
    } held;
    const auto callback = [](const PZSupervisor::ST_FINDING&, void* user) {
        static_cast<Held*>(user)->gate.Pass();
    };
    ASSERT_TRUE(PZSupervisor::Start(callback, &held, kIntervalMs));
    HangingWorker hanging;
    ASSERT_TRUE(hanging.HangIn(1));
    ASSERT_TRUE(held.gate.WaitForArrival());
    std::atomic<bool> isStopped{false};
    std::thread stopping([&] { isStopped = PZSupervisor::Stop(); });
    {
        const pztest::StdoutCapture capture;
        EXPECT_FALSE(Start());
    }
    EXPECT_FALSE(isStopped);
    held.gate.Open();
    stopping.join();
    EXPECT_TRUE(isStopped);
}

TEST_F(PZSupervisorTest, WithoutMemoryOrDescriptorsNothingIsStarted) {
    const int signal = signal_that_is_free();
    for (int skip = 0;; ++skip) {
        bool isStarted = false;
        int refused = 0;
        {
            const pztest::StdoutCapture capture;
            const pztest::MemoryShortage shortage(skip);
            isStarted = Start(signal);
            refused = shortage.Refused();
        }
        if (refused == 0) {
            EXPECT_TRUE(isStarted);
            break;
        }
        EXPECT_FALSE(isStarted) << skip;
        EXPECT_EQ(SIG_DFL, action_of(signal)) << skip;
        EXPECT_TRUE(supervision_ends()) << skip;
    }
}

TEST_F(PZSupervisorTest, TellsWithoutMemoryToo) {
    std::atomic<int> calls{0};
    const auto count = [](const PZSupervisor::ST_FINDING&, void* user) {
        ++*static_cast<std::atomic<int>*>(user);
    };
    ASSERT_TRUE(PZSupervisor::Start(count, &calls, kIntervalMs, PZSupervisor::kAnySignal));
    HangingWorker hanging("hanging", kLongMs);
    ASSERT_TRUE(hanging.HangIn(1));
    bool isTold = false;
    {
        const pztest::GeneralMemoryShortage shortage;
        PZThreadMng::GetInstance()->setWatchTime(hanging.Worker().Handle(), kShortMs);
        isTold = wait_until([&] { return calls == 1; });
        hanging.Release();
        isTold = isTold && wait_until([&] { return calls == 2; });
    }
    EXPECT_TRUE(isTold);
}

// The thread sanitizer keeps signals back while a thread reads, and cannot start threads in a child
// of a process with threads.
#ifndef __SANITIZE_THREAD__
TEST_F(PZSupervisorTest, ASystemCallThatCanGoOnGoesOnAfterTheCallStack) {
    ASSERT_TRUE(Start(PZSupervisor::kAnySignal));
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    std::atomic<ssize_t> result{0};
    TestWorker reading("reading", kShortMs, 1, [&] {
        char byte = 0;
        result = read(ends[0], &byte, 1);
    });
    ASSERT_EQ(0U, reading.Post(1));
    ASSERT_TRUE(record.WaitForCount(1));
    ASSERT_EQ(1, write(ends[1], "x", 1));
    ASSERT_TRUE(record.WaitForCount(2));
    EXPECT_NE(nullptr, record.All()[0].callStack);
    EXPECT_EQ(1, result);
    close(ends[0]);
    close(ends[1]);
}

TEST_F(PZSupervisorTest, ASleepEndsEarlyOnceForEachFinding) {
    ASSERT_TRUE(Start(PZSupervisor::kAnySignal));
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    std::atomic<unsigned int> begun{0};
    std::atomic<unsigned int> interrupted{0};
    TestWorker sleeping("sleeping", kLongMs, 1, [&] {
        sleeping.NoteThread();
        ++begun;
        if (sleep(60) != 0) ++interrupted;
        pollfd pending = {ends[0], POLLIN, 0};
        while (poll(&pending, 1, -1) == -1 && errno == EINTR) ++interrupted;
        char byte = 0;
        EXPECT_EQ(1, read(ends[0], &byte, 1));
    });
    PZThreadMng* const registry = PZThreadMng::GetInstance();
    for (unsigned int finding = 1; finding <= 2; ++finding) {
        ASSERT_EQ(0U, sleeping.Post(1));
        ASSERT_TRUE(wait_until([&] {
            return begun == finding &&
                   pztest::thread_status(std::to_string(sleeping.Tid()), "State") == "S (sleeping)";
        }));
        registry->setWatchTime(sleeping.Handle(), kShortMs);  // from now on it hangs
        ASSERT_TRUE(wait_until([&] {
            return interrupted == finding && ToldOf("sleeping").size() == 2 * finding - 1;
        }));
        if (finding == 2) WaitForLooks();
        EXPECT_EQ(finding, interrupted);
        ASSERT_EQ(1, write(ends[1], "x", 1));
        ASSERT_TRUE(wait_until([&] { return ToldOf("sleeping").size() == 2 * finding; }));
        registry->setWatchTime(sleeping.Handle(), kLongMs);
    }
    close(ends[0]);
    close(ends[1]);
}

TEST_F(PZSupervisorTest, AForkedChildMayStartItsOwn) {
    const int signal = signal_that_is_free();
    ASSERT_TRUE(Start(signal));
    WaitForLooks();  // a thread that is just being made holds locks
    const size_t before = record.Count();
    const pztest::ChildResult child = pztest::run_in_child([&] {
        if (PZSupervisor::Stop()) return 1;  // its parent's
        if (!Start(signal)) return 2;
        HangingWorker hanging;
        if (!hanging.HangIn(1) || !record.WaitForCount(before + 1)) return 3;
        if (!record.All()[before].Has(hanging.Caller())) return 4;
        return PZSupervisor::Stop() ? 0 : 5;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(0, child.status) << child.output;
    EXPECT_TRUE(PZSupervisor::Stop());
}

TEST_F(PZSupervisorTest, AForkedChildMakesBoxesWhateverTheSupervisionWasDoing) {
    constexpr unsigned long kRecords = 50000;  // keep the supervision busy in the table
    PZThreadMng* const registry = PZThreadMng::GetInstance();
    HangingWorker hanging;
    ASSERT_TRUE(PZSupervisor::Start(&Record::OnFinding, &record, 1));
    ASSERT_TRUE(hanging.HangIn(1));
    for (unsigned long handle = 1; handle <= kRecords; ++handle) {
        ASSERT_TRUE(registry->registerThreadInfo(handle, "filler", 251, 0));
    }
    for (int i = 0; i < 30; ++i) {
        pztest::ChildProcess child([] {
            alarm(30);  // instead of waiting for ever
            const PZLMsgBox box;
            return 0;
        });
        ASSERT_EQ(0, child.Wait()) << i;
    }
    for (unsigned long handle = kRecords; handle > 0; --handle) {  // the last one is found first
        registry->unregisterThreadInfo(handle);
    }
}

TEST_F(PZSupervisorTest, AProcessEndsWhileItRuns) {
    const pztest::ChildResult child = pztest::run_in_child([&] {
        if (!Start(PZSupervisor::kAnySignal)) return 1;
        auto* const hanging = new HangingWorker;
        if (!hanging->HangIn(1) || !record.WaitForCount(1)) return 2;
        std::exit(17);  // exit handlers and destructors of static objects run
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(17, child.status) << child.output;
}
#endif
