#include <mqueue.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/pz_inspection.h>
#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZWatchDog.h>

#include "Communication/Queues.h"
#include "support/Assertions.h"
#include "support/CancelledThread.h"
#include "support/ChildProcess.h"
#include "support/CountedWaits.h"
#include "support/CountingObserver.h"
#include "support/Gate.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/TestQueue.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(sem_init, 3);
PZ_INTERPOSE(mq_timedsend, 5);
PZ_INTERPOSE(mq_receive, 4);
PZ_INTERPOSE(pthread_create, 4, EAGAIN);
PZ_INTERPOSE(pthread_join, 2, EINVAL);
PZ_INTERPOSE(nanosleep, 2);

namespace {

using pztest::open_descriptors;
using pztest::RawQueue;
using pztest::StdoutCapture;
using pztest::wait_until;

using Messages = std::vector<std::string>;

/// Keeps what it is called with, and does what the test wants.
class Recorder : public PZObserver_ {
public:
    struct Call {
        unsigned int id;
        unsigned int size;
        std::string data;  // all 1024 bytes that may be read
    };

    unsigned int OnNotify(unsigned int id, void* data, unsigned int size) override {
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back({id, size, std::string(static_cast<char*>(data), 1024)});
        }
        if (action) action();
        return 0;
    }

    std::vector<Call> Calls() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    size_t Count() const { return Calls().size(); }

    /// The first byte of each payload.
    std::string Order() const {
        std::string order;
        for (const Call& call : Calls()) order += call.data[0];
        return order;
    }

    std::function<void()> action;  // set before open

private:
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
};

bool reported_from(const std::string& output, const char* function, const std::string& message) {
    return pztest::has_report(output, function, "PZMessageQueue.cpp", message);
}

unsigned int assertions_in(const std::string& output) {
    return pztest::assertions_of(output, "Communication/private/PZMessageQueue.cpp");
}

std::string filled(const std::string& bytes) {
    return bytes + std::string(1024 - bytes.size(), '\0');
}

/// Waits until `bytes` are printed: collects what the capture holds meanwhile.
bool await_print(StdoutCapture& out, std::string& printed, const std::string& bytes) {
    return wait_until([&] {
        printed += out.Take();
        return printed.find(bytes) != std::string::npos;
    });
}

class PZMessageQueueReceiverTest : public testing::Test {
protected:
    PZMessageQueueReceiverTest() { Reset(); }

    ~PZMessageQueueReceiverTest() override {
        Reset();
        receiver.reset();
        PZSingletonFinalizer::finalize();
    }

    static void Reset() {
        mq_timedsend_call.Reset();
        mq_receive_call.Reset();
        pthread_create_call.Reset();
        pthread_join_call.Reset();
        nanosleep_call.Reset();
    }

    bool Open() { return receiver->open({name.Get(), &observer}); }

    /// Opens, and lets the observer stay in its call for a first message until the gate opens.
    void HoldTheFirst(Sender& sender) {
        observer.action = [this] { gate.Pass(); };
        ASSERT_TRUE(Open());
        ASSERT_TRUE(sender.open({name.Get()}));
        ASSERT_EQ(0, sender.send("a", 1, 255));
        ASSERT_TRUE(gate.WaitForArrival());
    }

    bool AwaitCount(size_t count) const {
        return wait_until([&] { return observer.Count() >= count; });
    }

    bool AwaitEnd() const {
        return wait_until([&] { return !name.Exists(); });
    }

    pztest::QueueName name;
    pztest::Gate gate;
    Recorder observer;
    std::unique_ptr<Receiver> receiver = std::make_unique<Receiver>();
};

// Opening.

TEST_F(PZMessageQueueReceiverTest, NeedsANameAndAnObserver) {
    StdoutCapture out;
    EXPECT_FALSE(receiver->open({nullptr, &observer}));
    EXPECT_TRUE(reported_from(out.Take(), "open", "invalid args"));
    EXPECT_FALSE(receiver->open({name.Get(), nullptr}));
    const std::string printed = out.Take();
    EXPECT_TRUE(reported_from(printed, "open", "invalid args"));
    EXPECT_EQ(0U, pztest::count_of(printed, "ASSERT Failed!"));
    EXPECT_FALSE(name.Exists());
    EXPECT_EQ(0, pthread_create_call.Calls());
}

TEST_F(PZMessageQueueReceiverTest, ReportsAQueueThatCannotBeOpened) {
    const pztest::QueueName tooLong(33);
    StdoutCapture out;
    EXPECT_FALSE(receiver->open({tooLong.Get(), &observer}));
    const Messages messages = pztest::error_messages(out.Take());
    ASSERT_LE(2U, messages.size());
    EXPECT_EQ("name is too long.", messages.front());
    EXPECT_EQ("open error", messages.back());
    EXPECT_EQ(0, receiver->RemoveObserver(&observer)) << "nobody is subscribed";
    EXPECT_EQ(0, pthread_create_call.Calls());
}

TEST_F(PZMessageQueueReceiverTest, CreatesAQueueOf64Messages) {
    ASSERT_TRUE(Open());
    EXPECT_EQ(64, RawQueue(name).Attributes().mq_maxmsg);
    EXPECT_EQ(1024, RawQueue(name).Attributes().mq_msgsize);
}

TEST_F(PZMessageQueueReceiverTest, ReceivesOnAThreadOfItsOwnRegisteredUnderItsName) {
    const pztest::QueueName longest(32);
    std::atomic<pthread_t> thread{};
    char label[256] = "";
    char kernelName[16] = "";
    unsigned int watchTime = 0;
    observer.action = [&] {
        thread = pthread_self();
        PZThreadMng::GetInstance()->getLabel(pthread_self(), label);
        watchTime = PZThreadMng::GetInstance()->getWatchTime(pthread_self());
        pthread_getname_np(pthread_self(), kernelName, sizeof kernelName);
    };
    ASSERT_TRUE(receiver->open({longest.Get(), &observer}));
    ASSERT_EQ(0, RawQueue(longest).Send("\001x", 1));
    ASSERT_TRUE(AwaitCount(1));
    receiver->close();
    EXPECT_EQ("mq_" + longest.Text(), label);
    EXPECT_EQ(("mq_" + longest.Text()).substr(0, 15), kernelName);
    EXPECT_EQ(4000U, watchTime);
    EXPECT_EQ(0, pthread_equal(thread, pthread_self()));
    EXPECT_FALSE(PZThreadMng::GetInstance()->getLabel(thread, label)) << "no longer registered";
}

TEST_F(PZMessageQueueReceiverTest, ASecondOpenIsRefusedAndLeavesTheFirstAlone) {
    const pztest::QueueName second;
    Recorder other;
    StdoutCapture out;
    ASSERT_TRUE(Open());
    const int before = open_descriptors();
    EXPECT_FALSE(receiver->open({second.Get(), &other}));
    EXPECT_FALSE(Open());
    EXPECT_EQ((Messages{"open error", "open error"}), pztest::error_messages(out.Take()));
    EXPECT_EQ(before, open_descriptors());
    EXPECT_FALSE(second.Exists());
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    ASSERT_TRUE(AwaitCount(1));
    receiver->close();
    EXPECT_EQ(1U, observer.Count()) << "subscribed once";
}

TEST_F(PZMessageQueueReceiverTest, OpensAlsoWithoutAThreadAndTriesAgain) {
    pthread_create_call.FailNext(EAGAIN);
    StdoutCapture out;
    EXPECT_TRUE(Open());
    EXPECT_TRUE(pztest::has_report(out.Take(), "Start", "PZThread.h",
                                   "PZThread::Start() failed !! [mq_" + name.Text() + "]\r"));
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    const int before = open_descriptors();
    EXPECT_TRUE(Open());
    EXPECT_EQ(before, open_descriptors());
    ASSERT_TRUE(AwaitCount(1));
    receiver->close();
    EXPECT_EQ(1U, observer.Count()) << "subscribed once";
    EXPECT_EQ("", out.Take());
}

TEST_F(PZMessageQueueReceiverTest, CloseAlsoCleansUpWithoutAThread) {
    StdoutCapture out;
    const int before = open_descriptors();
    pthread_create_call.FailNext(EAGAIN);
    EXPECT_TRUE(Open());
    out.Take();
    receiver->close();
    EXPECT_EQ(before, open_descriptors());
    EXPECT_FALSE(name.Exists()) << "no message that would end the next receiver stays behind";
    EXPECT_EQ(0, pthread_join_call.Calls());
    receiver.reset();
    EXPECT_EQ("", out.Take());
}

// Receiving.

TEST_F(PZMessageQueueReceiverTest, HandsPayloadAndReceivedLengthToTheObserver) {
    Sender sender;
    ASSERT_TRUE(Open());
    ASSERT_TRUE(sender.open({name.Get()}));
    ASSERT_EQ(0, sender.send("hello", 5, 128));
    ASSERT_TRUE(AwaitCount(1));
    EXPECT_EQ(0U, observer.Calls()[0].id);
    EXPECT_EQ(9U, observer.Calls()[0].size);
    EXPECT_EQ(filled("hello"), observer.Calls()[0].data);
}

TEST_F(PZMessageQueueReceiverTest, NothingOfAMessageIsLeftForTheNext) {
    ASSERT_TRUE(Open());
    const RawQueue peer(name);
    ASSERT_EQ(0, peer.Send("\001" + std::string(1023, 'p'), 1));
    ASSERT_EQ(0, peer.Send("\001ab", 1));
    ASSERT_EQ(0, peer.Send("\001", 1));
    ASSERT_EQ(0, peer.Send("", 1));
    ASSERT_TRUE(AwaitCount(4));
    const std::vector<Recorder::Call> calls = observer.Calls();
    EXPECT_EQ(1024U, calls[0].size);
    EXPECT_EQ(filled(std::string(1023, 'p')), calls[0].data);
    EXPECT_EQ(3U, calls[1].size);
    EXPECT_EQ(filled("ab"), calls[1].data);
    EXPECT_EQ(1U, calls[2].size);
    EXPECT_EQ(filled(""), calls[2].data);
    EXPECT_EQ(0U, calls[3].size) << "an empty message has no type that could end the thread";
    EXPECT_EQ(filled(""), calls[3].data);
}

TEST_F(PZMessageQueueReceiverTest, TellsTheWatchdogWhileItWaits) {
    pztest::reset_waits();
    ASSERT_TRUE(Open());
    ASSERT_TRUE(wait_until([] { return mq_receive_call.Calls() == 1; }));
    EXPECT_EQ(1, pztest::into_waits);
    EXPECT_EQ(0, pztest::out_waits);
    receiver->close();
    EXPECT_EQ(1, pztest::into_waits);
    EXPECT_EQ(1, pztest::out_waits);
}

TEST_F(PZMessageQueueReceiverTest, HandsOnEveryTypeButQuit) {
    ASSERT_TRUE(Open());
    const RawQueue peer(name);
    ASSERT_EQ(0, peer.Send("\007a", kMostUrgent));
    ASSERT_TRUE(AwaitCount(1));
    ASSERT_EQ(0, peer.Send("\377b", kMostUrgent));
    ASSERT_TRUE(AwaitCount(2));
    EXPECT_EQ("ab", observer.Order());
}

TEST_F(PZMessageQueueReceiverTest, TakesTheMostUrgentMessageNext) {
    Sender sender;
    ASSERT_NO_FATAL_FAILURE(HoldTheFirst(sender));
    ASSERT_EQ(0, sender.send("b", 1, 10));
    ASSERT_EQ(0, sender.send("c", 1, 5));
    gate.Open();
    ASSERT_TRUE(AwaitCount(3));
    EXPECT_EQ("acb", observer.Order());
}

TEST_F(PZMessageQueueReceiverTest, AQuitMessageOvertakesWhatWaitsAndEndsTheThread) {
    Sender sender;
    ASSERT_NO_FATAL_FAILURE(HoldTheFirst(sender));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, sender.send("b", 1, 1));
    ASSERT_EQ(0, RawQueue(name).Send(kQuit, kMostUrgent));
    gate.Open();
    ASSERT_TRUE(AwaitEnd()) << "the thread removes the name at its end";
    EXPECT_EQ("a", observer.Order());

    StdoutCapture out;
    EXPECT_FALSE(Open()) << "the thread is not joined yet";
    EXPECT_EQ(Messages{"open error"}, pztest::error_messages(out.Take()));
    receiver->close();
    EXPECT_TRUE(Open());
    EXPECT_EQ("", out.Take());
    EXPECT_TRUE(name.Exists());
}

TEST_F(PZMessageQueueReceiverTest, ReceivesFurtherMessagesAfterAFailedReceive) {
    mq_receive_call.FailNext(EIO, 2);
    StdoutCapture out;
    ASSERT_TRUE(Open());
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    ASSERT_TRUE(AwaitCount(1));
    receiver->close();
    EXPECT_EQ((Messages{"error : errno[5 : Input/output error]",
                        "error : errno[5 : Input/output error]"}),
              pztest::error_messages(out.Take()));
}

std::atomic<int> pauses{0};
std::atomic<int> bracketed_pauses{0};  // those that the watchdog takes for a wait

int count_pauses(const timespec* time, timespec* rest) {
    if (time->tv_sec == 0 && time->tv_nsec == 100000000) {
        ++pauses;
        if (pztest::into_waits == pztest::out_waits + 1) ++bracketed_pauses;
    }
    return nanosleep_call.Real(time, rest);
}

TEST_F(PZMessageQueueReceiverTest, AFailureThatLastsIsNotTriedWithoutPauseAndDoesNotHinderClose) {
    const RawQueue peer(name, 4, 2048);
    pztest::reset_waits();
    pauses = 0;
    bracketed_pauses = 0;
    nanosleep_call.Replace(&count_pauses);
    StdoutCapture out;
    ASSERT_TRUE(Open());
    ASSERT_TRUE(wait_until([] { return mq_receive_call.Calls() >= 3; }));
    receiver->close();
    EXPECT_EQ(mq_receive_call.Calls(), pauses + 1) << "the last one was after close";
    EXPECT_EQ(pauses, bracketed_pauses);
    EXPECT_EQ(pztest::into_waits, pztest::out_waits);
    EXPECT_FALSE(name.Exists());
    for (const std::string& message : pztest::error_messages(out.Take())) {
        EXPECT_EQ("error : errno[90 : Message too long]", message);
    }
}

TEST_F(PZMessageQueueReceiverTest, SignalsDoNotShortenThePauseAfterAFailure) {
    struct sigaction act = {};
    act.sa_handler = [](int) {};
    struct sigaction old = {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &act, &old));
    const RawQueue peer(name, 4, 2048);
    StdoutCapture out;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(Open());
    std::vector<unsigned long> threads;
    ASSERT_TRUE(wait_until([&threads] {
        PZThreadMng::GetInstance()->getActiveThreadList(threads);
        return threads.size() == 1;
    }));
    EXPECT_TRUE(wait_until([&threads] {
        pthread_kill(threads[0], SIGUSR1);
        return mq_receive_call.Calls() >= 4;  // behind three pauses
    }));
    const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - start;
    EXPECT_LE(0.3, passed.count());
    receiver->close();
    sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(PZMessageQueueReceiverTest, AnExceptionOfAnObserverEndsTheThreadAndCloseCleansUp) {
    observer.action = [] { throw std::runtime_error("observer"); };
    const int before = open_descriptors();
    ASSERT_TRUE(Open());
    const RawQueue peer(name);
    ASSERT_EQ(0, peer.Send("\001x", 1));
    ASSERT_TRUE(AwaitCount(1));
    ASSERT_EQ(0, peer.Send("\001y", 1));
    receiver->close();
    EXPECT_EQ("x", observer.Order());
    EXPECT_FALSE(name.Exists());
    EXPECT_EQ(before + 1, open_descriptors());  // the peer
}

TEST_F(PZMessageQueueReceiverTest, ThePhasesOfAQueueThatIsNotOpenDoNothing) {
    StdoutCapture out;
    EXPECT_EQ(0, receiver->Initialize());
    receiver->MainProc();
    receiver->Finalize();
    EXPECT_EQ("", out.Take());
    EXPECT_EQ(0, mq_receive_call.Calls());
}

// Closing.

TEST_F(PZMessageQueueReceiverTest, CloseWakesTheWaitingThreadJoinsItAndRemovesTheName) {
    StdoutCapture out;
    const int before = open_descriptors();
    ASSERT_TRUE(Open());
    ASSERT_TRUE(wait_until([] { return mq_receive_call.Calls() == 1; }));
    receiver->close();
    EXPECT_EQ(1, pthread_join_call.Calls());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_FALSE(name.Exists());
    EXPECT_EQ(0, receiver->RemoveObserver(&observer));
    std::vector<unsigned long> running;
    PZThreadMng::GetInstance()->getActiveThreadList(running);
    EXPECT_EQ(std::vector<unsigned long>{}, running);
    EXPECT_EQ("", out.Take());
}

TEST_F(PZMessageQueueReceiverTest, ClosesAtOnceAfterOpen) {
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(Open());
        receiver->close();
        ASSERT_FALSE(name.Exists());
    }
}

TEST_F(PZMessageQueueReceiverTest, CloseOfAClosedQueueDoesNothing) {
    StdoutCapture out;
    receiver->close();
    ASSERT_TRUE(Open());
    receiver->close();
    const RawQueue next(name, 4, 16);
    receiver->close();
    EXPECT_TRUE(name.Exists()) << "a queue that somebody else has made since";
    EXPECT_EQ(1, pthread_join_call.Calls());
    EXPECT_EQ("", out.Take());
}

TEST_F(PZMessageQueueReceiverTest, DestructionClosesTheQueue) {
    StdoutCapture out;
    const int before = open_descriptors();
    ASSERT_TRUE(Open());
    receiver.reset();
    EXPECT_FALSE(name.Exists());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ("", out.Take());
}

/// The last message that came into a queue, as the thread took it.
std::string last_taken;  // written by the receiving thread, read after its join
unsigned int last_priority = 0;

ssize_t keep_what_is_taken(mqd_t queue, char* bytes, size_t size, unsigned int* priority) {
    const ssize_t length = mq_receive_call.Real(queue, bytes, size, priority);
    last_taken.assign(bytes, length > 0 ? static_cast<size_t>(length) : 0);
    last_priority = *priority;
    return length;
}

TEST_F(PZMessageQueueReceiverTest, TheQuitMessageHasOneZeroByteAndTheHighestPriority) {
    mq_receive_call.Replace(&keep_what_is_taken);
    ASSERT_TRUE(Open());
    receiver->close();
    EXPECT_EQ(std::string("\002\0\0\0\0", 5), last_taken);
    EXPECT_EQ(kMostUrgent, last_priority);
}

TEST_F(PZMessageQueueReceiverTest, TheTableOfTheProcessTellsWhileItsObserversRun) {
    std::atomic<unsigned int> tid{0};
    observer.action = [&] {
        tid = static_cast<unsigned int>(gettid());
        gate.Pass();
    };
    const auto isShown = [&tid](unsigned int isNotifying) {
        const auto* const queues = static_cast<const ST_INSPECTED_QUEUE<PZInspectionLive>*>(
            pz_inspection.queues.pointer.load());
        return std::any_of(queues, queues + pz_inspection.queueCount, [&](const auto& queue) {
            return queue.queue.pointer != nullptr && queue.tid == tid &&
                   queue.isNotifying == isNotifying;
        });
    };
    ASSERT_TRUE(Open());
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    ASSERT_TRUE(gate.WaitForArrival());
    EXPECT_TRUE(isShown(1));
    gate.Open();
    EXPECT_TRUE(wait_until([&] { return isShown(0); }));
    receiver->close();
    EXPECT_FALSE(isShown(0));
}

TEST_F(PZMessageQueueReceiverTest, CloseWaitsForAnObserverAtWork) {
    std::atomic<bool> hasReturned{false};
    observer.action = [&] {
        gate.Pass();
        hasReturned = true;
    };
    ASSERT_TRUE(Open());
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    ASSERT_TRUE(gate.WaitForArrival());
    auto closed = std::async(std::launch::async, [&] {
        receiver->close();
        return hasReturned.load();
    });
    gate.Open();
    EXPECT_TRUE(closed.get());
}

TEST_F(PZMessageQueueReceiverTest, TwoReceiversOfANameTakeEachOthersMessages) {
    Sender sender;
    HoldTheFirst(sender);
    Recorder other;
    Receiver second;
    ASSERT_TRUE(second.open({name.Get(), &other}));
    ASSERT_EQ(0, sender.send("b", 1, 255));
    ASSERT_EQ(0, sender.send("c", 1, 255));
    EXPECT_TRUE(wait_until([&] { return other.Count() == 2; }));
    EXPECT_EQ("bc", other.Order());
    EXPECT_EQ("a", observer.Order());
    second.close();
    EXPECT_FALSE(name.Exists());
    gate.Open();
    receiver->close();
    EXPECT_EQ("a", observer.Order());
}

TEST_F(PZMessageQueueReceiverTest, ClosesAlsoWhenAnotherReceiverOfItsNameTakesItsQuit) {
    const pztest::ChildResult result = pztest::run_in_child(
        [this] {
            pztest::CountingObserver first;
            pztest::CountingObserver second;
            Receiver closed;
            Receiver other;
            if (!closed.open({name.Get(), &first}) || !other.open({name.Get(), &second})) return 1;
            Sender sender;
            if (!sender.open({name.Get()})) return 2;
            // Threads take turns: the one that was served last is the last to get the next message.
            int firstBefore = 0;
            for (int sent = 1; first.calls == firstBefore || second.calls == 0; ++sent) {
                firstBefore = first.calls;
                if (sender.send("a", 1, 255) != 0) return 3;
                if (!wait_until([&] { return first.calls + second.calls == sent; })) return 4;
            }
            closed.close();
            other.close();
            return 0;
        },
        /*limitSeconds=*/20);
    EXPECT_TRUE(result.exited) << "hangs";
    EXPECT_EQ(0, result.status) << result.output;
}

TEST_F(PZMessageQueueReceiverTest, CallsMoreObserversThatAreAdded) {
    Recorder other;
    ASSERT_TRUE(Open());
    EXPECT_EQ(1, receiver->AddObserver(&other));
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    EXPECT_TRUE(AwaitCount(1));
    EXPECT_TRUE(wait_until([&] { return other.Count() == 1; }));
    EXPECT_EQ("x", other.Order());
    EXPECT_EQ(1, receiver->RemoveObserver(&other));
    receiver->close();
}

pztest::Gate* gate_before_receive = nullptr;

ssize_t receive_behind_the_gate(mqd_t queue, char* bytes, size_t size, unsigned int* priority) {
    gate_before_receive->Pass();
    return mq_receive_call.Real(queue, bytes, size, priority);
}

TEST_F(PZMessageQueueReceiverTest, CloseEndsTheThreadAlsoWhenTheQueueIsFull) {
    gate_before_receive = &gate;
    mq_receive_call.Replace(&receive_behind_the_gate);
    StdoutCapture out;
    ASSERT_TRUE(Open());
    ASSERT_TRUE(gate.WaitForArrival());
    const RawQueue peer(name);
    peer.Fill("\001x", 1);
    ASSERT_EQ(64, peer.Count());

    auto closed = std::async(std::launch::async, [this] { receiver->close(); });
    std::string printed;
    EXPECT_TRUE(await_print(out, printed, "que full (" + name.Text() + ") 64/64\n"));
    EXPECT_EQ(64, peer.Count());
    // The thread waits for the gate, so close has no way to end it yet: let it take one message.
    ASSERT_TRUE(wait_until([] { return pthread_join_call.Calls() >= 1; }));
    gate.Open();
    closed.get();
    EXPECT_EQ(63, peer.Count());
    EXPECT_FALSE(name.Exists());
    EXPECT_TRUE(reported_from(printed, "send", "que full (" + name.Text() + ") 64/64"));
}

TEST_F(PZMessageQueueReceiverTest, CloseEndsTheThreadThatHasJustEmptiedTheFullQueue) {
    StdoutCapture out;
    ASSERT_TRUE(Open());
    ASSERT_TRUE(wait_until([] { return mq_receive_call.Calls() == 1; }));
    mq_timedsend_call.FailNext(ETIMEDOUT);
    receiver->close();
    EXPECT_EQ(Messages{"que full (" + name.Text() + ") 64/64"}, pztest::error_messages(out.Take()));
    EXPECT_FALSE(name.Exists());
}

TEST_F(PZMessageQueueReceiverTest, CloseEndsTheThreadOfAQueueWhoseMessagesAreTooSmallForAQuit) {
    const RawQueue peer(name, 4, 1);
    StdoutCapture out;
    ASSERT_TRUE(Open());
    ASSERT_TRUE(wait_until([] { return mq_receive_call.Calls() == 1; }));
    receiver->close();
    EXPECT_EQ(Messages{"error : errno[90 : Message too long]"}, pztest::error_messages(out.Take()));
    EXPECT_FALSE(name.Exists());
}

/// Sends without end from four threads.
class Flood : private pztest::Uncopyable {
public:
    explicit Flood(const pztest::QueueName& name) {
        for (int i = 0; i < 4; ++i) {
            threads_.emplace_back([this, &name] {
                const RawQueue queue(name);
                while (!end_) {
                    if (queue.Send("\001x", 254) == 0) ++sent_;
                }
            });
        }
    }
    ~Flood() {
        end_ = true;
        for (std::thread& thread : threads_) thread.join();
    }

    int Sent() const { return sent_; }

private:
    std::atomic<bool> end_{false};
    std::atomic<int> sent_{0};
    std::vector<std::thread> threads_;
};

TEST_F(PZMessageQueueReceiverTest, ClosesUnderAFloodOfMessages) {
    StdoutCapture out;  // refused quits
    for (int i = 0; i < 10; ++i) {
        const size_t before = observer.Count();
        ASSERT_TRUE(Open());
        const Flood flood(name);
        ASSERT_TRUE(wait_until([&] { return flood.Sent() > 100; }));
        receiver->close();
        EXPECT_FALSE(name.Exists());
        EXPECT_LT(before, observer.Count());
    }
}

TEST_F(PZMessageQueueReceiverTest, ReportsAFailedJoin) {
    ASSERT_TRUE(Open());
    pthread_join_call.Replace([](pthread_t thread, void** result) {
        pthread_join_call.Real(thread, result);
        errno = EINVAL;
        return EINVAL;
    });
    StdoutCapture out;
    receiver->close();
    const std::string printed = out.Take();
    EXPECT_TRUE(reported_from(printed, "close",
                              "pthread_join failed !! ret[22] errno[22 : Invalid argument]"));
    EXPECT_EQ(1U, pztest::count_of(printed, "pthread_join failed"));
    EXPECT_EQ(1U, assertions_in(printed));
    EXPECT_LT(printed.find("pthread_join failed"), printed.find("ASSERT Failed"));
    EXPECT_LT(printed.find("ASSERT Failed"), printed.find("dumpDirectly()@PZCallStack.cpp"));
    pthread_join_call.Replace(nullptr);
    EXPECT_TRUE(Open()) << "the thread is forgotten";
}

TEST_F(PZMessageQueueReceiverTest, ACancelledThreadDestroysItToTheEnd) {
    StdoutCapture out;
    const int before = open_descriptors();
    ASSERT_TRUE(Open());
    EXPECT_TRUE(pztest::ends_whole_when_cancelled([this] { receiver.reset(); }));
    EXPECT_EQ(2, pthread_join_call.Calls()) << "the queue's thread has ended";
    EXPECT_FALSE(name.Exists());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ("", out.Take());
}

// Lack of memory.

TEST_F(PZMessageQueueReceiverTest, IsNotMadeWithoutMemoryForItsLock) {
    const StdoutCapture out;
    sem_init_call.FailNext(ENOMEM, 1, 2);  // the first are the subject's and the thread's
    EXPECT_THROW(PZMsgQ::PZMessageQueue<1>(), std::bad_alloc);
}

TEST_F(PZMessageQueueReceiverTest, OpensOnlyWithMemoryForItsSubscription) {
    StdoutCapture out;
    const int before = open_descriptors();
    int failures = 0;
    for (int skip = 0;; ++skip) {
        bool isOpen = false;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            isOpen = Open();
            refused = shortage.Refused();
        }
        ASSERT_EQ(refused == 0, isOpen) << skip;
        if (isOpen) break;
        ++failures;
        EXPECT_EQ(0, pthread_create_call.Calls());
        EXPECT_EQ(before, open_descriptors());
        EXPECT_EQ(0, receiver->RemoveObserver(&observer));
        EXPECT_EQ("open error", pztest::error_messages(out.Take()).back());
    }
    EXPECT_LT(0, failures);
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    EXPECT_TRUE(AwaitCount(1));
}

TEST_F(PZMessageQueueReceiverTest, SendsReceivesAndClosesWithoutMemory) {
    pztest::CountingObserver counter;
    StdoutCapture out;
    ASSERT_TRUE(receiver->open({name.Get(), &counter}));
    ASSERT_TRUE(wait_until([] { return mq_receive_call.Calls() == 1; }));
    Sender sender;
    ASSERT_TRUE(sender.open({name.Get()}));
    int sent = -1;
    bool isReceived = false;
    {
        const pztest::GeneralMemoryShortage shortage;
        sent = sender.send("x", 1, 1);
        isReceived = wait_until([&counter] { return counter.calls == 1; });
        receiver->close();
    }
    EXPECT_EQ(0, sent);
    EXPECT_TRUE(isReceived);
    EXPECT_FALSE(name.Exists());
    EXPECT_EQ("", out.Take());
}

// Observers that close.

TEST_F(PZMessageQueueReceiverTest, AnObserverMayClose) {
    observer.action = [this] { receiver->close(); };
    StdoutCapture out;
    ASSERT_TRUE(Open());
    const RawQueue peer(name);
    ASSERT_EQ(0, peer.Send("\001x", 1));
    ASSERT_TRUE(AwaitEnd());
    const std::string printed = out.Take();
    EXPECT_TRUE(reported_from(
        printed, "close", "pthread_join failed !! ret[35] errno[35 : Resource deadlock avoided]"));
    EXPECT_EQ(1U, assertions_in(printed));
    receiver->close();
    EXPECT_EQ(1, pthread_join_call.Calls());
    EXPECT_EQ("x", observer.Order());
    EXPECT_EQ(0, receiver->RemoveObserver(&observer));
    EXPECT_EQ("", out.Take());

    observer.action = nullptr;
    EXPECT_TRUE(Open());
}

TEST_F(PZMessageQueueReceiverTest, AnObserverMayCloseAFullQueue) {
    observer.action = [this] {
        gate.Pass();
        receiver->close();
    };
    StdoutCapture out;
    ASSERT_TRUE(Open());
    const RawQueue peer(name);
    ASSERT_EQ(0, peer.Send("\001x", 1));
    ASSERT_TRUE(gate.WaitForArrival());
    peer.Fill("\001y", 1);
    gate.Open();
    ASSERT_TRUE(AwaitEnd());
    receiver->close();
    EXPECT_EQ("x", observer.Order());
    EXPECT_TRUE(reported_from(out.Take(), "send", "que full (" + name.Text() + ") 64/64"));
}

TEST_F(PZMessageQueueReceiverTest, AnObserverMayCloseAndTheQueueBeDestroyed) {
    std::promise<void> closed;
    observer.action = [&] {
        receiver->close();
        closed.set_value();
    };
    StdoutCapture out;
    ASSERT_TRUE(Open());
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    closed.get_future().wait();
    out.Take();
    receiver.reset();
    EXPECT_FALSE(name.Exists());
    EXPECT_EQ("", out.Take()) << "nobody is subscribed any more";
}

}  // namespace
