#include "Framework/Communication/PZMessageQueue.h"

#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Communication/Queues.h"
#include "support/Assertions.h"
#include "support/CancelledThread.h"
#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/TestQueue.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(mq_getattr, 2);
PZ_INTERPOSE(mq_timedsend, 5);
PZ_INTERPOSE(mq_receive, 4);

namespace {

using PZMsgQ::en_MSG_TYPE_QUIT;
using PZMsgQ::en_MSG_TYPE_USER;
using PZMsgQ::MSG_TYPE;
using pztest::error_messages;
using pztest::open_descriptors;
using pztest::QueueName;
using pztest::RawQueue;
using pztest::StdoutCapture;

using Messages = std::vector<std::string>;

const std::string kZeros3(3, '\0');
constexpr MSG_TYPE kForeignType = static_cast<MSG_TYPE>(7);

bool reported_from(const std::string& output, const char* function, const std::string& message) {
    return pztest::has_report(output, function, "PZMessageQueue.cpp", message);
}

/// True when the banner stands in the output after the message, and a call stack after the banner.
bool has_assertion_after(const std::string& output, const std::string& message) {
    const size_t at = output.find(message);
    return at != std::string::npos &&
           pztest::assertions_of(output.substr(at), "Communication/private/PZMessageQueue.cpp") > 0;
}

class PZMessageQueueTest : public testing::Test {
protected:
    PZMessageQueueTest() : mask_(umask(022)) {
        mq_getattr_call.Reset();
        mq_timedsend_call.Reset();
        mq_receive_call.Reset();
    }

    ~PZMessageQueueTest() override {
        mq_getattr_call.Reset();
        mq_timedsend_call.Reset();
        mq_receive_call.Reset();
        core.close(true);
        umask(mask_);
    }

    bool OpenCore(int maxMsg = 8) { return core.open({name.Get(), maxMsg}); }

    int Send(const std::string& payload, unsigned char priority = 128) {
        return core.send(en_MSG_TYPE_USER, payload.data(),
                         static_cast<unsigned int>(payload.size()), priority);
    }

    /// Receives into a buffer whose unused bytes must stay what they are.
    struct Received {
        int result;
        int type;
        std::string data;  // up to the last byte that was written
    };
    Received Receive() {
        std::string data(1100, '\xEE');
        MSG_TYPE type = static_cast<MSG_TYPE>(99);
        const int result = core.receive(type, &data[0], Core::kMinReceiveSize);
        data.resize(data.find_last_not_of('\xEE') + 1);
        return {result, type, data};
    }

    const mode_t mask_;
    QueueName name;
    Core core;
};

// Opening.

TEST_F(PZMessageQueueTest, ItsThreeClassesCannotBeCopiedAndOnlyTheReceiverIsASubject) {
    EXPECT_FALSE((std::is_same_v<Core, Sender>));
    EXPECT_FALSE((std::is_base_of_v<PZSubject, Core>));
    EXPECT_FALSE((std::is_base_of_v<PZSubject, Sender>));
    EXPECT_TRUE((std::is_base_of_v<PZSubject, PZMsgQ::PZMessageQueue<1>>));
    EXPECT_FALSE(std::is_copy_constructible_v<Core>);
    EXPECT_FALSE(std::is_copy_constructible_v<Sender>);
    EXPECT_FALSE(std::is_copy_constructible_v<PZMsgQ::PZMessageQueue<1>>);
}

TEST_F(PZMessageQueueTest, MessageTypesAreSingleBytes) {
    EXPECT_EQ(1U, sizeof(MSG_TYPE));
    EXPECT_EQ(1, en_MSG_TYPE_USER);
    EXPECT_EQ(2, en_MSG_TYPE_QUIT);
}

TEST_F(PZMessageQueueTest, AsksCallersFor1028BytesToReceiveInto) {
    EXPECT_EQ(1028U, Core::kMinReceiveSize + 0);
}

TEST_F(PZMessageQueueTest, IsNotOpenAtFirst) {
    EXPECT_FALSE(core.isOpened());
}

TEST_F(PZMessageQueueTest, CreatesTheQueueWithItsAttributesUnderASlashAndTheName) {
    StdoutCapture out;
    ASSERT_TRUE(OpenCore(8));
    EXPECT_EQ("", out.Take());
    EXPECT_TRUE(core.isOpened());
    const RawQueue peer(name);
    ASSERT_TRUE(peer.IsOpen());
    EXPECT_EQ(8, peer.Attributes().mq_maxmsg);
    EXPECT_EQ(1024, peer.Attributes().mq_msgsize);
    EXPECT_EQ(0, peer.Count());
}

TEST_F(PZMessageQueueTest, EverybodyMayReadAndWriteTheQueueWhateverTheMaskWas) {
    umask(077);
    ASSERT_TRUE(OpenCore());
    struct stat status = {};
    ASSERT_EQ(0, fstat(RawQueue(name).Handle(), &status));
    EXPECT_EQ(0666U, status.st_mode & 07777U);
    EXPECT_EQ(0U, umask(022)) << "the process's mask stays 0";
}

TEST_F(PZMessageQueueTest, OpensAnExistingQueueWithItsOwnAttributes) {
    const RawQueue peer(name, 10, 64);
    ASSERT_TRUE(OpenCore(5));
    EXPECT_EQ(10, peer.Attributes().mq_maxmsg);
    EXPECT_EQ(64, peer.Attributes().mq_msgsize);
    EXPECT_EQ(0, Send("to the same queue"));
    EXPECT_EQ(1, peer.Count());
}

TEST_F(PZMessageQueueTest, TwoObjectsShareTheQueueOfAName) {
    Core other;
    ASSERT_TRUE(OpenCore());
    ASSERT_TRUE(other.open({name.Get(), 3}));
    EXPECT_EQ(0, other.send(en_MSG_TYPE_USER, "x", 1, 1));
    EXPECT_EQ(5, Receive().result);
    other.close(false);
}

TEST_F(PZMessageQueueTest, RefusesANullName) {
    StdoutCapture out;
    EXPECT_FALSE(core.open({nullptr, 8}));
    const std::string printed = out.Take();
    EXPECT_TRUE(reported_from(printed, "open", "name is null."));
    EXPECT_TRUE(has_assertion_after(printed, "name is null.\n"));
    EXPECT_FALSE(core.isOpened());
}

TEST_F(PZMessageQueueTest, TakesANameOf32CharactersAndRefusesOneOf33) {
    const QueueName longest(32);
    const QueueName tooLong(33);
    EXPECT_TRUE(core.open({longest.Get(), 8}));
    EXPECT_TRUE(longest.Exists());
    core.close(true);
    EXPECT_FALSE(longest.Exists()) << "the name is stored whole";

    StdoutCapture out;
    EXPECT_FALSE(core.open({tooLong.Get(), 8}));
    const std::string printed = out.Take();
    EXPECT_TRUE(reported_from(printed, "open", "name is too long."));
    EXPECT_TRUE(has_assertion_after(printed, "name is too long.\n"));
    EXPECT_FALSE(core.isOpened());
    EXPECT_FALSE(tooLong.Exists());
}

TEST_F(PZMessageQueueTest, ReportsAQueueThatTheSystemRefuses) {
    StdoutCapture out;
    for (const int maxMsg : {0, -1}) {
        EXPECT_FALSE(OpenCore(maxMsg)) << maxMsg;
        const std::string message = "error : /" + name.Text() + " : errno[22 : Invalid argument]";
        const std::string printed = out.Take();
        EXPECT_TRUE(reported_from(printed, "open", message)) << maxMsg;
        EXPECT_TRUE(has_assertion_after(printed, message + "\n")) << maxMsg;
        EXPECT_FALSE(core.isOpened()) << maxMsg;
    }
}

TEST_F(PZMessageQueueTest, ReportsAnEmptyNameAndANameWithASlash) {
    StdoutCapture out;
    EXPECT_FALSE(core.open({"", 8}));
    EXPECT_TRUE(
        reported_from(out.Take(), "open", "error : / : errno[2 : No such file or directory]"));
    EXPECT_FALSE(core.open({"a/b", 8}));
    EXPECT_TRUE(reported_from(out.Take(), "open", "error : /a/b : errno[13 : Permission denied]"));
}

TEST_F(PZMessageQueueTest, ASecondOpenClosesTheFirstQueueAndKeepsItsName) {
    const QueueName second;
    ASSERT_TRUE(OpenCore());
    const int before = open_descriptors();
    ASSERT_TRUE(core.open({second.Get(), 8}));
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(0, Send("x"));
    EXPECT_EQ(1, RawQueue(second).Count());
    EXPECT_EQ(0, RawQueue(name).Count());
    core.close(true);
    EXPECT_FALSE(second.Exists());
    EXPECT_TRUE(name.Exists());
}

TEST_F(PZMessageQueueTest, ASecondOpenOfTheSameNameKeepsTheMessages) {
    ASSERT_TRUE(OpenCore());
    EXPECT_EQ(0, Send("x"));
    const int before = open_descriptors();
    ASSERT_TRUE(OpenCore());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(5, Receive().result);
}

TEST_F(PZMessageQueueTest, AFailedOpenLeavesTheOpenQueueAndItsNameAlone) {
    ASSERT_TRUE(OpenCore());
    StdoutCapture out;
    EXPECT_FALSE(core.open({nullptr, 8}));
    EXPECT_FALSE(core.open({"a/b", 8}));
    EXPECT_TRUE(core.isOpened());
    EXPECT_EQ(0, Send("x"));
    EXPECT_EQ(1, RawQueue(name).Count());
    core.close(true);
    EXPECT_FALSE(name.Exists());
}

TEST_F(PZMessageQueueTest, AShorterNameLeavesNothingOfTheOneBefore) {
    const QueueName longer(30);
    ASSERT_TRUE(core.open({longer.Get(), 8}));
    ASSERT_TRUE(OpenCore());
    core.close(true);
    EXPECT_FALSE(name.Exists());
    EXPECT_TRUE(longer.Exists());
}

TEST_F(PZMessageQueueTest, DoesNotTakeTheDescriptorsOfTheStandardStreams) {
    pztest::ChildProcess child([this] {
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) close(standard);
        if (!OpenCore() || Send("x") != 0) return 1;
        for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
            if (fcntl(standard, F_GETFD) != -1) return 2;
        }
        int handle = STDERR_FILENO + 1;  // others may be the test's parent's
        mq_attr attr = {};
        while (handle < 256 && mq_getattr(handle, &attr) != 0) ++handle;
        if (attr.mq_curmsgs != 1) return 3;
        return fcntl(handle, F_GETFD) == FD_CLOEXEC ? 0 : 4;
    });
    EXPECT_EQ(0, child.Wait());
}

TEST_F(PZMessageQueueTest, IsNotOpenedWhenOnlyAStandardDescriptorIsLeft) {
    const char* const queueName = name.Get();
    const pztest::ChildResult child = pztest::run_in_child([queueName] {
        Core queue;
        const int last = dup(STDIN_FILENO);  // every number below is in use
        const rlimit limit = {static_cast<rlim_t>(last + 1), static_cast<rlim_t>(last + 1)};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
        close(STDIN_FILENO);
        if (queue.open({queueName, 8}) || queue.isOpened()) return 2;
        return fcntl(STDIN_FILENO, F_GETFD) == -1 ? 0 : 3;
    });
    EXPECT_EQ(0, child.status);
    EXPECT_TRUE(reported_from(child.output, "open",
                              "error : " + name.System() + " : errno[24 : Too many open files]"));
}

// Closing.

TEST_F(PZMessageQueueTest, ACancelledThreadDestroysAnOpenQueueToTheEnd) {
    StdoutCapture out;
    const int before = open_descriptors();
    auto forgotten = std::make_unique<Core>();
    ASSERT_TRUE(forgotten->open({name.Get(), 8}));
    EXPECT_TRUE(pztest::ends_whole_when_cancelled([&forgotten] { forgotten.reset(); }));
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(Messages{"Call close method before deleting this instance!"},
              error_messages(out.Take()));
}

TEST_F(PZMessageQueueTest, CloseKeepsTheNameOrRemovesIt) {
    const int before = open_descriptors();
    ASSERT_TRUE(OpenCore());
    core.close(false);
    EXPECT_FALSE(core.isOpened());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_TRUE(name.Exists());
    ASSERT_TRUE(OpenCore());
    core.close(true);
    EXPECT_FALSE(core.isOpened());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_FALSE(name.Exists());
}

TEST_F(PZMessageQueueTest, CloseRemovesTheStoredNameAlsoWhenTheQueueIsNotOpen) {
    ASSERT_TRUE(OpenCore());
    core.close(false);
    core.close(false);
    ASSERT_TRUE(name.Exists());
    core.close(true);
    EXPECT_FALSE(name.Exists());
}

TEST_F(PZMessageQueueTest, CloseOfAnObjectThatWasNeverOpenDoesNothing) {
    StdoutCapture out;
    core.close(false);
    core.close(true);
    EXPECT_EQ("", out.Take());
    EXPECT_FALSE(core.isOpened());
}

TEST_F(PZMessageQueueTest, DestructionReportsAnOpenQueueAndClosesIt) {
    StdoutCapture out;
    const int before = open_descriptors();
    {
        Core forgotten;
        ASSERT_TRUE(forgotten.open({name.Get(), 8}));
    }
    EXPECT_TRUE(reported_from(out.Take(), "~PZMessageQueue",
                              "Call close method before deleting this instance!"));
    EXPECT_EQ(before, open_descriptors());
    EXPECT_TRUE(name.Exists());
}

TEST_F(PZMessageQueueTest, DestructionOfAClosedQueueIsSilent) {
    StdoutCapture out;
    {
        const Core never;
        Core closed;
        ASSERT_TRUE(closed.open({name.Get(), 8}));
        closed.close(false);
    }
    EXPECT_EQ("", out.Take());
}

// Sending.

TEST_F(PZMessageQueueTest, AMessageIsTypePayloadAndThreeZeroBytes) {
    ASSERT_TRUE(OpenCore());
    const RawQueue peer(name);
    for (const unsigned int length : {0U, 1U, 2U, 100U, 1019U, 1020U}) {
        const std::string payload(length, 'p');
        ASSERT_EQ(0, Send(payload)) << length;
        const RawQueue::Message message = peer.Receive();
        EXPECT_EQ("\001" + payload + kZeros3, message.bytes) << length;
    }
}

TEST_F(PZMessageQueueTest, SendsNothingThatFollowsThePayloadInTheSendersMemory) {
    ASSERT_TRUE(OpenCore());
    const RawQueue peer(name);
    const char data[] = "payload and a secret";
    ASSERT_EQ(0, core.send(en_MSG_TYPE_USER, data, 7, 1));
    EXPECT_EQ("\001payload" + kZeros3, peer.Receive().bytes);
}

TEST_F(PZMessageQueueTest, TheSystemPriorityIs255MinusTheCallers) {
    ASSERT_TRUE(OpenCore());
    const RawQueue peer(name);
    const struct {
        unsigned char caller;
        unsigned int system;
    } kPriorities[] = {{1, 254}, {128, 127}, {254, 1}, {255, 0}};
    for (const auto& priority : kPriorities) {
        ASSERT_EQ(0, Send("x", priority.caller));
        EXPECT_EQ(priority.system, peer.Receive().priority);
    }
}

TEST_F(PZMessageQueueTest, ControlMessagesMayHavePriority0) {
    ASSERT_TRUE(OpenCore());
    const RawQueue peer(name);
    for (const MSG_TYPE type : {en_MSG_TYPE_QUIT, kForeignType}) {
        ASSERT_EQ(0, core.send(type, "q", 1, 0));
        const RawQueue::Message message = peer.Receive();
        EXPECT_EQ(255U, message.priority);
        EXPECT_EQ(std::string(1, static_cast<char>(type)) + "q" + kZeros3, message.bytes);
    }
}

TEST_F(PZMessageQueueTest, RefusesUserDataWithPriority0) {
    ASSERT_TRUE(OpenCore());
    StdoutCapture out;
    EXPECT_EQ(-3, Send("x", 0));
    EXPECT_TRUE(reported_from(out.Take(), "send", "invalid priority(0)"));
    EXPECT_EQ(0, RawQueue(name).Count());
}

TEST_F(PZMessageQueueTest, RefusesMoreThan1024Bytes) {
    ASSERT_TRUE(OpenCore());
    const std::string payload(1025, 'p');
    StdoutCapture out;
    EXPECT_EQ(-3, Send(payload));
    EXPECT_TRUE(reported_from(out.Take(), "send", "size over(1025)"));
    EXPECT_EQ(-3, core.send(en_MSG_TYPE_QUIT, payload.data(), 0xFFFFFFFFU, 0));
    EXPECT_TRUE(reported_from(out.Take(), "send", "size over(-1)"));
    EXPECT_EQ(0, RawQueue(name).Count());
}

TEST_F(PZMessageQueueTest, TheSystemRefusesPayloadsOf1021To1024Bytes) {
    ASSERT_TRUE(OpenCore());
    StdoutCapture out;
    for (const unsigned int length : {1021U, 1024U}) {
        EXPECT_EQ(-1, Send(std::string(length, 'p'))) << length;
        EXPECT_TRUE(reported_from(out.Take(), "send", "error : errno[90 : Message too long]"));
    }
    EXPECT_EQ(0, RawQueue(name).Count());
}

TEST_F(PZMessageQueueTest, SendsAPayloadOf1024BytesToAQueueThatTakesIt) {
    const RawQueue peer(name, 4, 1028);
    ASSERT_TRUE(OpenCore());
    EXPECT_EQ(0, Send(std::string(1024, 'p')));
    EXPECT_EQ("\001" + std::string(1024, 'p') + kZeros3, peer.Receive().bytes);
}

TEST_F(PZMessageQueueTest, RefusesNullDataUnlessThePayloadIsEmpty) {
    ASSERT_TRUE(OpenCore());
    StdoutCapture out;
    EXPECT_EQ(-3, core.send(en_MSG_TYPE_USER, nullptr, 1, 1));
    EXPECT_TRUE(reported_from(out.Take(), "send", "invalid args"));
    EXPECT_EQ(0, core.send(en_MSG_TYPE_USER, nullptr, 0, 1));
    EXPECT_EQ("", out.Take());
    EXPECT_EQ("\001" + kZeros3, RawQueue(name).Receive().bytes);
}

TEST_F(PZMessageQueueTest, SendNeedsAnOpenQueue) {
    StdoutCapture out;
    EXPECT_EQ(-1, Send("x"));
    EXPECT_TRUE(reported_from(out.Take(), "send", "not opened"));
    ASSERT_TRUE(OpenCore());
    core.close(false);
    EXPECT_EQ(-1, Send("x"));
    EXPECT_TRUE(reported_from(out.Take(), "send", "not opened"));
}

TEST_F(PZMessageQueueTest, SendChecksSizeThenPriorityThenTheQueue) {
    StdoutCapture out;
    EXPECT_EQ(-3, core.send(en_MSG_TYPE_USER, "", 1025, 0));
    EXPECT_EQ(-3, core.send(en_MSG_TYPE_USER, "", 1, 0));
    EXPECT_EQ((Messages{"size over(1025)", "invalid priority(0)"}), error_messages(out.Take()));
}

TEST_F(PZMessageQueueTest, NullDataOnAQueueThatIsNotOpenIsAnsweredAsNotOpen) {
    StdoutCapture out;
    EXPECT_EQ(-1, core.send(en_MSG_TYPE_USER, nullptr, 1, 1));
    EXPECT_EQ(Messages{"not opened"}, error_messages(out.Take()));
}

/// Everything that can be wrong with a send, the first to be answered first.
enum EN_OBSTACLE : unsigned int {
    en_OVER_1024 = 1,
    en_PRIORITY_0 = 2,
    en_NOT_OPEN = 4,
    en_NULL_DATA = 8,
    en_FULL = 16,
    en_OVER_1020 = 32,
    en_ALL_OBSTACLES = 63
};

TEST_F(PZMessageQueueTest, OfSeveralReasonsToRefuseASendTheFirstIsAnswered) {
    const std::string full = "que full (" + name.Text() + ") 2/2";
    const struct {
        unsigned int obstacle;
        int result;
        std::string message;
    } kAnswers[] = {{en_OVER_1024, -3, "size over(1025)"},
                    {en_PRIORITY_0, -3, "invalid priority(0)"},
                    {en_NOT_OPEN, -1, "not opened"},
                    {en_NULL_DATA, -3, "invalid args"},
                    {en_FULL, -2, full},
                    {en_OVER_1020, -1, "error : errno[90 : Message too long]"}};
    ASSERT_TRUE(OpenCore(2));
    const RawQueue peer(name);
    const std::string data(1025, 'p');
    for (unsigned int set = 1; set <= en_ALL_OBSTACLES; ++set) {
        SCOPED_TRACE(set);
        while (peer.Receive().bytes != "(none)") {
        }
        if ((set & en_FULL) != 0) peer.Fill("x", 1);
        const bool isOpen = (set & en_NOT_OPEN) == 0;
        if (isOpen) {
            ASSERT_TRUE(core.isOpened() || OpenCore(2));
        } else {
            core.close(false);
        }
        const bool isOver1024 = (set & en_OVER_1024) != 0;
        const bool isOver1020 = (set & en_OVER_1020) != 0;
        const long before = peer.Count();
        StdoutCapture out;
        const int result =
            core.send(en_MSG_TYPE_USER, (set & en_NULL_DATA) != 0 ? nullptr : data.data(),
                      isOver1024   ? 1025
                      : isOver1020 ? 1021
                                   : 1,
                      (set & en_PRIORITY_0) != 0 ? 0 : 1);
        const auto* expected = kAnswers;
        while ((set & expected->obstacle) == 0) ++expected;
        EXPECT_EQ(expected->result, result);
        EXPECT_EQ(Messages{expected->message}, error_messages(out.Take()));
        EXPECT_EQ(before, peer.Count());
    }
}

TEST_F(PZMessageQueueTest, AsksForTheQueuesAttributesOnlyAfterARefusal) {
    ASSERT_TRUE(OpenCore(1));
    StdoutCapture out;
    EXPECT_EQ(0, Send("x"));
    EXPECT_EQ(0, mq_getattr_call.Calls());
    EXPECT_EQ(-2, Send("x"));
    EXPECT_EQ(1, mq_getattr_call.Calls());
}

TEST_F(PZMessageQueueTest, RefusesTheMessageAfterTheLastPlaceAtOnce) {
    ASSERT_TRUE(OpenCore(3));
    StdoutCapture out;
    for (int i = 0; i < 3; ++i) EXPECT_EQ(0, Send("x"));
    EXPECT_EQ("", out.Take());
    EXPECT_EQ(-2, Send("x"));
    EXPECT_TRUE(reported_from(out.Take(), "send", "que full (" + name.Text() + ") 3/3"));
    EXPECT_EQ(3, RawQueue(name).Count());
    EXPECT_EQ(5, Receive().result);
    EXPECT_EQ(0, Send("x"));
}

/// A look at the queue that was taken before it filled up.
int getattr_of_an_empty_queue(mqd_t queue, mq_attr* attr) {
    const int result = mq_getattr_call.Real(queue, attr);
    attr->mq_curmsgs = 0;
    return result;
}

TEST_F(PZMessageQueueTest, DoesNotWaitWhenAnotherSenderTakesTheLastPlace) {
    ASSERT_TRUE(OpenCore(2));
    EXPECT_EQ(0, Send("x"));
    EXPECT_EQ(0, Send("x"));
    mq_getattr_call.Replace(&getattr_of_an_empty_queue);
    StdoutCapture out;
    EXPECT_EQ(-2, Send("x"));
    EXPECT_TRUE(reported_from(out.Take(), "send", "que full (" + name.Text() + ") 2/2"));
}

TEST_F(PZMessageQueueTest, SendersThatFillTheQueueTogetherAreRefusedAndNeverWait) {
    ASSERT_TRUE(OpenCore(8));
    std::atomic<int> sent{0};
    std::atomic<int> refused{0};
    StdoutCapture out;
    std::vector<std::thread> senders;
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&] {
            Core own;
            ASSERT_TRUE(own.open({name.Get(), 8}));
            for (int n = 0; n < 20; ++n) {
                const int result = own.send(en_MSG_TYPE_USER, "x", 1, 1);
                ++(result == 0 ? sent : refused);
                EXPECT_TRUE(result == 0 || result == -2) << result;
            }
            own.close(false);
        });
    }
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(8, sent);
    EXPECT_EQ(72, refused);
}

TEST_F(PZMessageQueueTest, AnInterruptedSendIsRepeated) {
    ASSERT_TRUE(OpenCore());
    mq_timedsend_call.FailNext(EINTR, 3);
    StdoutCapture out;
    EXPECT_EQ(0, Send("x"));
    EXPECT_EQ("", out.Take());
    EXPECT_EQ(4, mq_timedsend_call.Calls());
    EXPECT_EQ(1, RawQueue(name).Count());
}

TEST_F(PZMessageQueueTest, ReportsAFailedSend) {
    ASSERT_TRUE(OpenCore());
    StdoutCapture out;
    mq_timedsend_call.FailNext(EIO);
    EXPECT_EQ(-1, Send("x"));
    EXPECT_TRUE(reported_from(out.Take(), "send", "error : errno[5 : Input/output error]"));
    mq_timedsend_call.FailNext(EIO);
    mq_getattr_call.FailNext(EBADF);
    EXPECT_EQ(-1, Send("x"));
    EXPECT_TRUE(reported_from(out.Take(), "send", "error : errno[9 : Bad file descriptor]"));
    EXPECT_EQ(0, Send("x"));
    EXPECT_EQ("", out.Take());
}

// Receiving.

TEST_F(PZMessageQueueTest, ReceivesTypePayloadAndWhatFollows) {
    ASSERT_TRUE(OpenCore());
    ASSERT_EQ(0, core.send(kForeignType, "payload", 7, 9));
    const Received received = Receive();
    EXPECT_EQ(11, received.result);
    EXPECT_EQ(7, received.type);
    EXPECT_EQ("payload" + kZeros3 + std::string(1, '\0'), received.data);
}

TEST_F(PZMessageQueueTest, ReceivesTheMostUrgentFirstAndEqualOnesInOrder) {
    ASSERT_TRUE(OpenCore());
    const struct {
        const char* payload;
        unsigned char priority;
    } kSent[] = {{"a", 10}, {"b", 5}, {"c", 10}, {"d", 255}, {"e", 1}};
    for (const auto& message : kSent) ASSERT_EQ(0, Send(message.payload, message.priority));
    ASSERT_EQ(0, core.send(en_MSG_TYPE_QUIT, "q", 1, 0));
    std::string order;
    for (int i = 0; i < 6; ++i) order += Receive().data.substr(0, 1);
    EXPECT_EQ("qebacd", order);
}

TEST_F(PZMessageQueueTest, ReceiveRefusesSize0AndNullData) {
    ASSERT_TRUE(OpenCore());
    ASSERT_EQ(0, Send("x"));
    char data[1028];
    MSG_TYPE type = kForeignType;
    StdoutCapture out;
    EXPECT_EQ(-1, core.receive(type, data, 0));
    EXPECT_TRUE(reported_from(out.Take(), "receive", "invalid args"));
    EXPECT_EQ(-1, core.receive(type, nullptr, 1028));
    EXPECT_TRUE(reported_from(out.Take(), "receive", "invalid args"));
    EXPECT_EQ(kForeignType, type);
    EXPECT_EQ(1, RawQueue(name).Count());
}

TEST_F(PZMessageQueueTest, ReceiveNeedsAnOpenQueue) {
    StdoutCapture out;
    EXPECT_EQ(-1, Receive().result);
    EXPECT_TRUE(reported_from(out.Take(), "receive", "not opened"));
    MSG_TYPE type = kForeignType;
    EXPECT_EQ(-1, core.receive(type, nullptr, 0));
    EXPECT_EQ(Messages{"invalid args"}, error_messages(out.Take())) << "arguments come first";
}

TEST_F(PZMessageQueueTest, ReceivesTheWholeMessageWithAnySizeButZero) {
    ASSERT_TRUE(OpenCore());
    ASSERT_EQ(0, Send("payload"));
    std::string data(Core::kMinReceiveSize, '\xEE');
    MSG_TYPE type = kForeignType;
    EXPECT_EQ(11, core.receive(type, &data[0], 1));
    EXPECT_EQ("payload", data.substr(0, 7));
}

TEST_F(PZMessageQueueTest, AnInterruptedReceiveIsRepeated) {
    ASSERT_TRUE(OpenCore());
    ASSERT_EQ(0, Send("x"));
    mq_receive_call.FailNext(EINTR, 3);
    StdoutCapture out;
    EXPECT_EQ(5, Receive().result);
    EXPECT_EQ("", out.Take());
    EXPECT_EQ(4, mq_receive_call.Calls());
}

TEST_F(PZMessageQueueTest, AReceiveThatWaitsIsRepeatedAfterRealSignals) {
    struct sigaction act = {};
    act.sa_handler = [](int) {};  // no SA_RESTART
    struct sigaction old = {};
    ASSERT_EQ(0, sigaction(SIGUSR1, &act, &old));
    ASSERT_TRUE(OpenCore());
    std::promise<pthread_t> receiver;
    auto received = std::async(std::launch::async, [&] {
        receiver.set_value(pthread_self());
        return Receive().result;
    });
    const pthread_t thread = receiver.get_future().get();
    ASSERT_TRUE(pztest::wait_until([&] {
        pthread_kill(thread, SIGUSR1);
        return mq_receive_call.Calls() > 3;  // each one more was interrupted
    }));
    const RawQueue peer(name);
    EXPECT_EQ(0, peer.Send("\001yyyy", 1));
    EXPECT_EQ(5, received.get());
    sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(PZMessageQueueTest, ReportsAFailedReceive) {
    ASSERT_TRUE(OpenCore());
    mq_receive_call.FailNext(EIO);
    StdoutCapture out;
    const Received received = Receive();
    EXPECT_EQ(-1, received.result);
    EXPECT_EQ(99, received.type);
    EXPECT_EQ("", received.data);
    EXPECT_TRUE(reported_from(out.Take(), "receive", "error : errno[5 : Input/output error]"));
}

// Other programs.

TEST_F(PZMessageQueueTest, ReceivesAMessageOf1024BytesFromAnotherProgram) {
    ASSERT_TRUE(OpenCore());
    ASSERT_EQ(0, RawQueue(name).Send("\001" + std::string(1023, 'p'), 1));
    const Received received = Receive();
    EXPECT_EQ(1024, received.result);
    EXPECT_EQ(1, received.type);
    EXPECT_EQ(std::string(1023, 'p') + std::string(1, '\0'), received.data);
}

TEST_F(PZMessageQueueTest, ReceivesAMessageOfOneByteAsATypeWithoutPayload) {
    ASSERT_TRUE(OpenCore());
    const RawQueue peer(name);
    ASSERT_EQ(0, peer.Send("\001longer", 1));
    EXPECT_EQ(7, Receive().result);
    ASSERT_EQ(0, peer.Send("\007", 1));
    const Received received = Receive();
    EXPECT_EQ(1, received.result);
    EXPECT_EQ(7, received.type);
    EXPECT_EQ(std::string(1, '\0'), received.data) << "nothing of the message before";
}

TEST_F(PZMessageQueueTest, ReceivesAnEmptyMessageAsType0AndStoresNothing) {
    ASSERT_TRUE(OpenCore());
    const RawQueue peer(name);
    ASSERT_EQ(0, peer.Send("\002longer", 1));
    EXPECT_EQ(2, Receive().type);
    ASSERT_EQ(0, peer.Send("", 1));
    StdoutCapture out;
    const Received received = Receive();
    EXPECT_EQ(0, received.result);
    EXPECT_EQ(0, received.type) << "nothing of the message before";
    EXPECT_EQ("", received.data);
    EXPECT_EQ("", out.Take());
}

TEST_F(PZMessageQueueTest, UsesAQueueOfSmallerMessagesWithinItsLimits) {
    const RawQueue peer(name, 10, 64);
    ASSERT_TRUE(OpenCore(64));
    StdoutCapture out;
    EXPECT_EQ(-1, Send(std::string(61, 'p')));
    EXPECT_TRUE(reported_from(out.Take(), "send", "error : errno[90 : Message too long]"));
    EXPECT_EQ(0, Send(std::string(60, 'p')));
    EXPECT_EQ(64, Receive().result);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(0, Send("x"));
    EXPECT_EQ("", out.Take());
    EXPECT_EQ(-2, Send("x"));
    EXPECT_TRUE(reported_from(out.Take(), "send", "que full (" + name.Text() + ") 10/10"));
}

TEST_F(PZMessageQueueTest, CannotReceiveFromAQueueOfLargerMessages) {
    const RawQueue peer(name, 4, 2048);
    ASSERT_TRUE(OpenCore());
    ASSERT_EQ(0, peer.Send("\001small", 1));
    StdoutCapture out;
    for (int i = 0; i < 2; ++i) {
        const Received received = Receive();
        EXPECT_EQ(-1, received.result);
        EXPECT_EQ(99, received.type);
        EXPECT_EQ("", received.data);
        EXPECT_TRUE(reported_from(out.Take(), "receive", "error : errno[90 : Message too long]"));
    }
    EXPECT_EQ(1, peer.Count());
}

// The sending side.

class PZMessageQueueSenderTest : public PZMessageQueueTest {
protected:
    bool Open() { return sender.open({name.Get()}); }

    Sender sender;
};

TEST_F(PZMessageQueueSenderTest, CreatesAQueueOf64Messages) {
    ASSERT_TRUE(Open());
    EXPECT_EQ(64, RawQueue(name).Attributes().mq_maxmsg);
    EXPECT_EQ(1024, RawQueue(name).Attributes().mq_msgsize);
}

TEST_F(PZMessageQueueSenderTest, SendsAMessageOfTypeUserWithThePriorityOfTheCaller) {
    ASSERT_TRUE(Open());
    ASSERT_EQ(0, sender.send("hi", 2, 5));
    const RawQueue::Message message = RawQueue(name).Receive();
    EXPECT_EQ("\001hi" + kZeros3, message.bytes);
    EXPECT_EQ(250U, message.priority);
}

TEST_F(PZMessageQueueSenderTest, AnswersAndReportsRefusalsAsTheBaseOfAllQueuesDoes) {
    StdoutCapture out;
    EXPECT_EQ(-1, sender.send("x", 1, 1));
    ASSERT_TRUE(Open());
    EXPECT_EQ(-3, sender.send("x", 1, 0));
    EXPECT_EQ(-3, sender.send("x", 1025, 1));
    EXPECT_FALSE(sender.open({nullptr}));
    const Messages messages = error_messages(out.Take());
    ASSERT_LE(4U, messages.size());
    EXPECT_EQ((Messages{"not opened", "invalid priority(0)", "size over(1025)", "name is null."}),
              Messages(messages.begin(), messages.begin() + 4));
}

TEST_F(PZMessageQueueSenderTest, The65thMessageIsRefused) {
    ASSERT_TRUE(Open());
    StdoutCapture out;
    for (int i = 0; i < 64; ++i) ASSERT_EQ(0, sender.send("x", 1, 1)) << i;
    EXPECT_EQ("", out.Take());
    EXPECT_EQ(-2, sender.send("x", 1, 1));
    EXPECT_TRUE(reported_from(out.Take(), "send", "que full (" + name.Text() + ") 64/64"));
}

TEST_F(PZMessageQueueSenderTest, CloseAndDestructionKeepTheNameAndTheMessages) {
    StdoutCapture out;
    const int before = open_descriptors();
    {
        Sender other;
        ASSERT_TRUE(other.open({name.Get()}));
        ASSERT_EQ(0, other.send("x", 1, 1));
    }
    ASSERT_TRUE(Open());
    sender.close();
    EXPECT_EQ("", out.Take());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ(1, RawQueue(name).Count());
    EXPECT_EQ(-1, sender.send("x", 1, 1));
}

}  // namespace
