// Queues between real processes. The children are made before the test has a thread of its own.

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZSingleton.h>

#include "Communication/Queues.h"
#include "support/ChildProcess.h"
#include "support/StdoutCapture.h"
#include "support/TestQueue.h"
#include "support/WaitUntil.h"

namespace {

using pztest::ChildProcess;
using pztest::RawQueue;
using pztest::StdoutCapture;
using pztest::wait_until;

/// Keeps the payloads; the trailing bytes are left out.
class Recorder : public PZObserver_ {
public:
    unsigned int OnNotify(unsigned int /*id*/, void* data, unsigned int size) override {
        const std::lock_guard<std::mutex> lock(mutex_);
        payloads_.emplace_back(static_cast<char*>(data), size - 4);
        return 0;
    }

    std::vector<std::string> Payloads() const {
        const std::lock_guard<std::mutex> lock(mutex_);
        return payloads_;
    }
    size_t Count() const { return Payloads().size(); }

    bool AwaitCount(size_t count) const {
        return wait_until([&] { return Count() >= count; });
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> payloads_;
};

/// Sends all the messages, a full queue's again.
bool send_all(Sender& sender, const std::vector<std::string>& payloads) {
    for (const std::string& payload : payloads) {
        const auto size = static_cast<unsigned int>(payload.size());
        if (!wait_until([&] { return sender.send(payload.data(), size, 128) == 0; })) return false;
    }
    return true;
}

/// A child that receives until it is told to quit: its exit status is the number of messages.
int receive_until_quit(const pztest::QueueName& name) {
    Recorder observer;
    Receiver receiver;
    if (!receiver.open({name.Get(), &observer})) return -1;
    if (!wait_until([&] { return !name.Exists(); })) return -1;
    receiver.close();
    return static_cast<int>(observer.Count());
}

class PZMessageQueueProcessTest : public testing::Test {
protected:
    ~PZMessageQueueProcessTest() override {
        receiver.close();
        PZSingletonFinalizer::finalize();
    }

    bool AwaitQueue() const {
        return wait_until([this] { return name.Exists(); });
    }

    bool Open() { return receiver.open({name.Get(), &observer}); }

    pztest::QueueName name;
    Recorder observer;
    Receiver receiver;
};

TEST_F(PZMessageQueueProcessTest, AnotherProcessReceivesWhatOneSends) {
    ChildProcess child([this] { return receive_until_quit(name); });
    ASSERT_TRUE(AwaitQueue());
    StdoutCapture out;
    Sender sender;
    ASSERT_TRUE(sender.open({name.Get()}));
    ASSERT_TRUE(send_all(sender, std::vector<std::string>(100, std::string(1020, 'p'))));
    const RawQueue peer(name);
    ASSERT_TRUE(wait_until([&] { return peer.Count() == 0; }));
    ASSERT_EQ(0, peer.Send(kQuit, 0)) << "behind the last message";
    EXPECT_EQ(100, child.Wait());
    EXPECT_FALSE(name.Exists()) << "the receiving process removes the name";
}

TEST_F(PZMessageQueueProcessTest, ReceivesFromSeveralProcessesEachInOrder) {
    StdoutCapture out;  // full queues
    constexpr int kMessages = 200;
    const auto send_numbers = [this](char who) {
        return [this, who] {
            Sender sender;
            std::vector<std::string> payloads;
            for (int i = 0; i < kMessages; ++i) payloads.push_back(who + std::to_string(i));
            const bool isSent = wait_until([&] { return name.Exists(); }) &&
                                sender.open({name.Get()}) && send_all(sender, payloads);
            return isSent ? 0 : 1;
        };
    };
    ChildProcess first(send_numbers('a'));
    ChildProcess second(send_numbers('b'));
    ASSERT_TRUE(Open());
    EXPECT_EQ(0, first.Wait());
    EXPECT_EQ(0, second.Wait());
    ASSERT_TRUE(observer.AwaitCount(2 * kMessages));
    std::string ofA;
    std::string ofB;
    for (const std::string& payload : observer.Payloads()) {
        (payload[0] == 'a' ? ofA : ofB) += payload;
    }
    std::string inOrderA;
    std::string inOrderB;
    for (int i = 0; i < kMessages; ++i) {
        inOrderA += "a" + std::to_string(i);
        inOrderB += "b" + std::to_string(i);
    }
    EXPECT_EQ(inOrderA, ofA);
    EXPECT_EQ(inOrderB, ofB);
}

TEST_F(PZMessageQueueProcessTest, ASenderThatIsKilledLeavesWholeMessagesOnly) {
    StdoutCapture out;  // full queues
    const std::string payload(1000, 'p');
    ChildProcess child([&] {
        Sender sender;
        if (!wait_until([&] { return name.Exists(); }) || !sender.open({name.Get()})) return 1;
        for (;;) sender.send(payload.data(), 1000, 128);
    });
    ASSERT_TRUE(Open());
    ASSERT_TRUE(observer.AwaitCount(500));
    ASSERT_EQ(0, kill(child.Pid(), SIGKILL));
    EXPECT_EQ(-1, child.Wait());

    const RawQueue peer(name);
    ASSERT_TRUE(wait_until([&] { return peer.Count() == 0; }));
    Sender next;
    ASSERT_TRUE(next.open({name.Get()}));
    ASSERT_EQ(0, next.send("after", 5, 128));
    ASSERT_TRUE(wait_until([&] { return observer.Payloads().back() == "after"; }));
    std::vector<std::string> received = observer.Payloads();
    received.pop_back();
    EXPECT_EQ(std::vector<std::string>(received.size(), payload), received);
}

TEST_F(PZMessageQueueProcessTest, AReceiverThatIsKilledLeavesTheQueueToTheNext) {
    ChildProcess child([this] { return receive_until_quit(name); });
    ASSERT_TRUE(AwaitQueue());
    ASSERT_EQ(0, kill(child.Pid(), SIGKILL));
    EXPECT_EQ(-1, child.Wait());

    StdoutCapture out;
    Sender sender;
    ASSERT_TRUE(sender.open({name.Get()}));
    for (int i = 0; i < 64; ++i) ASSERT_EQ(0, sender.send("x", 1, 128)) << i;
    EXPECT_EQ(-2, sender.send("x", 1, 128)) << "the sender does not hang";
    ASSERT_TRUE(Open());
    EXPECT_TRUE(observer.AwaitCount(64));
    EXPECT_EQ(0, sender.send("x", 1, 128));
    EXPECT_TRUE(observer.AwaitCount(65));
}

TEST_F(PZMessageQueueProcessTest, AReceiverThatIsKilledWithoutReadingIsNoObstacleToClose) {
    StdoutCapture out;
    ChildProcess child([this] {
        Core core;
        if (!core.open({name.Get(), 64})) return 1;
        while (core.send(PZMsgQ::en_MSG_TYPE_USER, "x", 1, 128) == 0) {
        }
        for (;;) pause();
    });
    ASSERT_TRUE(wait_until([this] { return RawQueue(name).Count() == 64; }));
    ASSERT_EQ(0, kill(child.Pid(), SIGKILL));
    EXPECT_EQ(-1, child.Wait());
    ASSERT_TRUE(Open());
    receiver.close();
    EXPECT_FALSE(name.Exists());
}

TEST_F(PZMessageQueueProcessTest, TheReceiversAttributesAreThoseOfTheProcessThatCreatedTheQueue) {
    ChildProcess child([this] { return RawQueue(name, 10, 64).IsOpen() ? 0 : 1; });
    ASSERT_EQ(0, child.Wait());
    StdoutCapture out;
    ASSERT_TRUE(Open());
    Sender sender;
    ASSERT_TRUE(sender.open({name.Get()}));
    EXPECT_EQ(-1, sender.send(std::string(61, 'p').data(), 61, 128));
    EXPECT_EQ(0, sender.send(std::string(60, 'p').data(), 60, 128));
    EXPECT_TRUE(observer.AwaitCount(1));
    EXPECT_EQ(10, RawQueue(name).Attributes().mq_maxmsg);
}

TEST_F(PZMessageQueueProcessTest, ASenderReachesTheNextReceiverOnlyAfterItHasOpenedTheNameAgain) {
    Sender sender;
    {
        ChildProcess child([this] { return receive_until_quit(name); });
        ASSERT_TRUE(AwaitQueue());
        ASSERT_TRUE(sender.open({name.Get()}));
        ASSERT_EQ(0, RawQueue(name).Send(kQuit, kMostUrgent));
        EXPECT_EQ(0, child.Wait());
    }
    ASSERT_TRUE(Open());
    EXPECT_EQ(0, sender.send("lost", 4, 128)) << "into the queue that nobody reads";
    ASSERT_TRUE(sender.open({name.Get()}));
    EXPECT_EQ(0, sender.send("found", 5, 128));
    ASSERT_TRUE(observer.AwaitCount(1));
    EXPECT_EQ(std::vector<std::string>{"found"}, observer.Payloads());
}

// Forked children of a receiver.

TEST_F(PZMessageQueueProcessTest, AForkedChildThatEndsLeavesTheReceiverOfItsParent) {
    StdoutCapture out;
    auto owned = std::make_unique<Receiver>();
    ASSERT_TRUE(owned->open({name.Get(), &observer}));
    ChildProcess child([&owned] {
        owned.reset();  // as the child's exit does with a static one
        return 0;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_TRUE(name.Exists());
    const RawQueue peer(name);
    ASSERT_EQ(0, peer.Send("\001afterwards", 1));
    EXPECT_TRUE(observer.AwaitCount(1));
    owned->close();
    EXPECT_FALSE(name.Exists());
    EXPECT_EQ("", out.Take());
}

/// Holds up the thread that notifies, and with it the lock of the subject.
class Busy : public PZObserver_ {
public:
    unsigned int OnNotify(unsigned int /*id*/, void* /*data*/, unsigned int /*size*/) override {
        isBusy = true;
        pztest::wait_until([this] { return mayGo.load(); });
        return 0;
    }

    std::atomic<bool> isBusy{false};
    std::atomic<bool> mayGo{false};
};

TEST_F(PZMessageQueueProcessTest, AForkedChildEndsAlsoWhileItsParentsObserverIsAtWork) {
    Busy busy;
    auto owned = std::make_unique<Receiver>();
    ASSERT_TRUE(owned->open({name.Get(), &busy}));
    ASSERT_EQ(0, RawQueue(name).Send("\001x", 1));
    ASSERT_TRUE(wait_until([&busy] { return busy.isBusy.load(); }));
    const pztest::ChildResult child = pztest::run_in_child(
        [&owned] {
            owned.reset();
            return 0;
        },
        10);
    EXPECT_TRUE(child.exited) << "hangs";
    EXPECT_EQ(0, child.status);
    EXPECT_EQ("", child.output);
    busy.mayGo = true;
}

}  // namespace
