#include "Framework/Foundation/PZUnitFrame.h"

#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZLMsgBox.h>

#include "support/Assertions.h"
#include "support/CancelledThread.h"
#include "support/RecordingDispatcher.h"
#include "support/StdoutCapture.h"

namespace {

using pztest::RecordingDispatcher;
using pztest::StdoutCapture;
using Log = std::vector<std::string>;

constexpr int kUnitId = 33;

/// A box that notes what it is asked for and answers what the test wants.
class FakeMsgBox : public PZIMsgBox {
public:
    int Init() override { return 0; }
    int Exit() override { return 0; }
    int InitWait(unsigned int /*timeout*/) override { return 0; }
    unsigned long Registory(PZIDispatcher* d) override {
        registered.push_back(d);
        return identifier;
    }
    void Unregistory(unsigned long id) override { unregistered.push_back(id); }
    int CheckTrail(unsigned int /*n*/) override { return 1; }
    unsigned int PushMsg(ST_PUSH_MSG_DATA& d) override {
        msgs.push_back(d);
        d.Buff = this;  // a box changes the record
        return result;
    }
    unsigned int SetEvent(unsigned int bits, unsigned long id) override {
        events.push_back({bits, id});
        return result;
    }
    int Loop(unsigned int /*workerId*/) override { return 0; }

    unsigned long identifier = 0x1234;
    unsigned int result = 0;
    std::vector<PZIDispatcher*> registered;
    std::vector<unsigned long> unregistered;
    std::vector<ST_PUSH_MSG_DATA> msgs;
    std::vector<PZLMsgBox::EventInfo> events;
};

/// A unit whose protected fields the test reaches.
class Unit : public PZUnitFrame {
public:
    using PZUnitFrame::pIDispatcher_;
    using PZUnitFrame::pIMsgBox_;
    using PZUnitFrame::PZUnitFrame;
    using PZUnitFrame::SID;
};

static_assert(std::is_same_v<decltype(Unit::SID), long>, "holds an address");
static_assert(std::has_virtual_destructor_v<PZUnitFrame>, "a base");

std::string framed(const std::string& text) {
    const std::string rule = "##########################################";
    return "\n" + rule + "\n" + text + "\n" + rule;
}

/// The report of `operation`, the banner with source and line, and the call stack after it.
void expect_assertion(const std::string& output, const char* operation, const std::string& error) {
    EXPECT_TRUE(pztest::has_report(
        output, operation, "PZUnitFrame.cpp",
        framed("[PZUnitFrame] " + std::string(operation) + " - en_ERROR_" + error)));
    EXPECT_EQ(1U, pztest::assertions_of(output, "Foundation/private/PZUnitFrame.cpp")) << output;
    EXPECT_GT(pztest::count_of(output, "dumpDirectly()@PZCallStack.cpp"), 2U);
}

class PZUnitFrameTest : public testing::Test {
protected:
    void Register() { ASSERT_EQ(PZUnitFrame::en_SUCCESS, unit.RegistMsgBox(&box, &dispatcher)); }

    FakeMsgBox box;
    RecordingDispatcher dispatcher;
    Unit unit{kUnitId};
};

TEST_F(PZUnitFrameTest, ResultCodesHaveTheirSettledNumbers) {
    EXPECT_EQ(0, PZUnitFrame::en_SUCCESS);
    EXPECT_EQ(-1, PZUnitFrame::en_ERROR_REGIST);
    EXPECT_EQ(4, PZUnitFrame::en_ERROR_NO_MSGBOX);
    EXPECT_EQ(5, PZUnitFrame::en_ERROR_PUSH_MSG);
    EXPECT_EQ(6, PZUnitFrame::en_ERROR_PUSH_EVT);
}

TEST_F(PZUnitFrameTest, MessagePrioritiesHaveTheirSettledNumbers) {
    EXPECT_EQ(0U, en_MSG_EMERGENCY);
    EXPECT_EQ(64U, en_MSG_HIGH);
    EXPECT_EQ(128U, en_MSG_NORMAL);
    EXPECT_EQ(192U, en_MSG_LOW);
    EXPECT_EQ(255U, en_MSG_LOWEST);
}

TEST_F(PZUnitFrameTest, IsUnregisteredAtFirst) {
    EXPECT_EQ(-1, unit.SID);
    EXPECT_EQ(nullptr, unit.pIMsgBox_);
    EXPECT_EQ(nullptr, unit.pIDispatcher_);
}

TEST_F(PZUnitFrameTest, RegistMsgBoxStoresTheBoxTheDispatcherAndItsIdentifier) {
    EXPECT_EQ(0, unit.RegistMsgBox(&box, &dispatcher));
    EXPECT_EQ((std::vector<PZIDispatcher*>{&dispatcher}), box.registered);
    EXPECT_EQ(0x1234, unit.SID);
    EXPECT_EQ(&box, unit.pIMsgBox_);
    EXPECT_EQ(&dispatcher, unit.pIDispatcher_);
}

TEST_F(PZUnitFrameTest, RegistMsgBoxRefusesANullBox) {
    StdoutCapture capture;
    EXPECT_EQ(PZUnitFrame::en_ERROR_NO_MSGBOX, unit.RegistMsgBox(nullptr, &dispatcher));
    EXPECT_EQ(-1, unit.SID);
    EXPECT_EQ(nullptr, unit.pIDispatcher_);
    EXPECT_TRUE(pztest::has_report(capture.Take(), "RegistMsgBox", "PZUnitFrame.cpp",
                                   framed("[PZUnitFrame] RegistMsgBox - en_ERROR_NO_MSGBOX")));
}

TEST_F(PZUnitFrameTest, RegistMsgBoxAnswersTheRefusalOfTheBox) {
    StdoutCapture capture;
    box.identifier = ~0UL;
    EXPECT_EQ(PZUnitFrame::en_ERROR_REGIST, unit.RegistMsgBox(&box, &dispatcher));
    EXPECT_EQ(-1, unit.SID);
    EXPECT_EQ(nullptr, unit.pIMsgBox_);
    EXPECT_EQ(nullptr, unit.pIDispatcher_);
    EXPECT_TRUE(pztest::has_report(capture.Take(), "RegistMsgBox", "PZUnitFrame.cpp",
                                   framed("[PZUnitFrame] RegistMsgBox - en_ERROR_REGIST")));
}

TEST_F(PZUnitFrameTest, RegistMsgBoxRefusesASecondRegistration) {
    Register();
    FakeMsgBox other;
    const StdoutCapture capture;
    EXPECT_EQ(PZUnitFrame::en_ERROR_REGIST, unit.RegistMsgBox(&other, &dispatcher));
    EXPECT_TRUE(other.registered.empty());
    EXPECT_EQ(0x1234, unit.SID);
    EXPECT_EQ(&box, unit.pIMsgBox_);
}

TEST_F(PZUnitFrameTest, UnregistMsgBoxLeavesTheBox) {
    Register();
    unit.UnregistMsgBox();
    EXPECT_EQ((std::vector<unsigned long>{0x1234}), box.unregistered);
    EXPECT_EQ(-1, unit.SID);
    EXPECT_EQ(nullptr, unit.pIMsgBox_);
}

TEST_F(PZUnitFrameTest, ASecondUnregistMsgBoxDoesNothing) {
    Register();
    unit.UnregistMsgBox();
    unit.UnregistMsgBox();
    EXPECT_EQ(1U, box.unregistered.size());
}

TEST_F(PZUnitFrameTest, UnregistMsgBoxChangesNothingWithoutAnIdentifier) {
    unit.pIMsgBox_ = &box;
    unit.UnregistMsgBox();
    EXPECT_TRUE(box.unregistered.empty());
    EXPECT_EQ(&box, unit.pIMsgBox_);
}

TEST_F(PZUnitFrameTest, UnregistMsgBoxChangesNothingWithoutABox) {
    unit.SID = 5;
    unit.UnregistMsgBox();
    EXPECT_EQ(5, unit.SID);
}

TEST_F(PZUnitFrameTest, RegistersAgainAfterItHasLeft) {
    Register();
    unit.UnregistMsgBox();
    FakeMsgBox other;
    EXPECT_EQ(0, unit.RegistMsgBox(&other, &dispatcher));
    EXPECT_EQ(&other, unit.pIMsgBox_);
    unit.UnregistMsgBox();
}

TEST_F(PZUnitFrameTest, LeavesTheBoxWhenItDies) {
    {
        Unit mortal;
        ASSERT_EQ(0, mortal.RegistMsgBox(&box, &dispatcher));
    }
    EXPECT_EQ((std::vector<unsigned long>{0x1234}), box.unregistered);
}

TEST_F(PZUnitFrameTest, DiesQuietlyWithoutABox) {
    StdoutCapture capture;
    { const Unit mortal; }
    EXPECT_EQ("", capture.Take());
}

TEST_F(PZUnitFrameTest, SendMsgSelfPostsTheRecordToItsBox) {
    Register();
    const char payload[] = "payload";
    EXPECT_EQ(0, unit.SendMsgSelf(77, en_MSG_HIGH, payload, sizeof payload));
    ASSERT_EQ(1U, box.msgs.size());
    EXPECT_EQ(0x1234U, box.msgs[0].SID);
    EXPECT_EQ(77U, box.msgs[0].MsgID);
    EXPECT_EQ(64U, box.msgs[0].Priority);
    EXPECT_EQ(payload, box.msgs[0].Buff);
    EXPECT_EQ(sizeof payload, box.msgs[0].BuffSize);
}

TEST_F(PZUnitFrameTest, SendMsgSelfAcceptsPrioritiesBetweenTheNamedOnes) {
    Register();
    EXPECT_EQ(0, unit.SendMsgSelf(1, static_cast<EN_MSG_ID>(256), nullptr, 0));
    EXPECT_EQ(256U, box.msgs[0].Priority);
}

TEST_F(PZUnitFrameTest, SendMsgSelfOfAnUnregisteredUnitIsAnAssertionAndPostsNothing) {
    unit.pIMsgBox_ = &box;
    StdoutCapture capture;
    EXPECT_EQ(-1, unit.SendMsgSelf(1, en_MSG_NORMAL, nullptr, 0));
    expect_assertion(capture.Take(), "SendMsgSelf", "REGIST");
    EXPECT_TRUE(box.msgs.empty());
}

TEST_F(PZUnitFrameTest, SendMsgSelfWithoutABoxIsAnAssertion) {
    unit.SID = 5;
    StdoutCapture capture;
    EXPECT_EQ(4, unit.SendMsgSelf(1, en_MSG_NORMAL, nullptr, 0));
    expect_assertion(capture.Take(), "SendMsgSelf", "NO_MSGBOX");
}

TEST_F(PZUnitFrameTest, ReportsTheMissingRegistrationBeforeTheMissingBox) {
    const StdoutCapture capture;
    EXPECT_EQ(-1, unit.SendMsgSelf(1, en_MSG_NORMAL, nullptr, 0));
    EXPECT_EQ(-1, unit.SendEvtSelf(1));
}

TEST_F(PZUnitFrameTest, SendMsgSelfReportsWhatTheBoxDidNotAccept) {
    Register();
    const char payload = 0;
    for (const unsigned int refusal : {1U, 2U, 3U}) {
        box.result = refusal;
        StdoutCapture capture;
        EXPECT_EQ(5, unit.SendMsgSelf(0xFFFFFFFF, en_MSG_LOW, &payload, 257));
        char text[512];
        std::snprintf(text, sizeof text,
                      "[PZUnitFrame] SendMsgSelf - en_ERROR_PUSH_MSG unit id[33] "
                      "pIMsgBox_[0x%08lx] pIDispatcher_[0x%08lx] SID[4660] Priority[192] "
                      "MsgID[-1] Buff[0x%08lx] BuffSize[257]",
                      reinterpret_cast<unsigned long>(static_cast<PZIMsgBox*>(&box)),
                      reinterpret_cast<unsigned long>(static_cast<PZIDispatcher*>(&dispatcher)),
                      reinterpret_cast<unsigned long>(&payload));
        const std::string output = capture.Take();
        EXPECT_TRUE(pztest::has_report(output, "SendMsgSelf", "PZUnitFrame.cpp", framed(text)))
            << output;
        EXPECT_EQ(0U, pztest::count_of(output, "ASSERT"));
    }
}

TEST_F(PZUnitFrameTest, NamesUnit0AndShortAddressesInAtLeastEightDigits) {
    Unit unnamed;
    ASSERT_EQ(0, unnamed.RegistMsgBox(&box, nullptr));
    box.result = 3;
    StdoutCapture capture;
    EXPECT_EQ(5, unnamed.SendMsgSelf(1, en_MSG_EMERGENCY, nullptr, 0));
    const std::string output = capture.Take();
    EXPECT_EQ(1U, pztest::count_of(output, "unit id[0] "));
    EXPECT_EQ(1U, pztest::count_of(output, "pIDispatcher_[0x00000000] "));
    EXPECT_EQ(1U, pztest::count_of(output, "Buff[0x00000000] BuffSize[0]\n"));
}

TEST_F(PZUnitFrameTest, SendEvtSelfPostsTheEventToItsBox) {
    Register();
    EXPECT_EQ(0, unit.SendEvtSelf(0x80000001));
    ASSERT_EQ(1U, box.events.size());
    EXPECT_EQ(0x80000001, box.events[0].bits);
    EXPECT_EQ(0x1234U, box.events[0].id);
}

TEST_F(PZUnitFrameTest, SendEvtSelfOfAnUnregisteredUnitIsAnAssertionAndPostsNothing) {
    unit.pIMsgBox_ = &box;
    StdoutCapture capture;
    EXPECT_EQ(-1, unit.SendEvtSelf(1));
    expect_assertion(capture.Take(), "SendEvtSelf", "REGIST");
    EXPECT_TRUE(box.events.empty());
}

TEST_F(PZUnitFrameTest, SendEvtSelfWithoutABoxIsAnAssertion) {
    unit.SID = 5;
    StdoutCapture capture;
    EXPECT_EQ(4, unit.SendEvtSelf(1));
    expect_assertion(capture.Take(), "SendEvtSelf", "NO_MSGBOX");
}

TEST_F(PZUnitFrameTest, SendEvtSelfReportsAnEventThatTheBoxDidNotAccept) {
    Register();
    for (const unsigned int refusal : {1U, 3U}) {
        box.result = refusal;
        StdoutCapture capture;
        EXPECT_EQ(6, unit.SendEvtSelf(1));
        const std::string output = capture.Take();
        EXPECT_TRUE(pztest::has_report(output, "SendEvtSelf", "PZUnitFrame.cpp",
                                       framed("[PZUnitFrame] SendEvtSelf - en_ERROR_PUSH_EVT")));
        EXPECT_EQ(0U, pztest::count_of(output, "ASSERT"));
    }
}

// With a real box

class PZUnitFrameInABoxTest : public testing::Test {
protected:
    PZUnitFrameInABoxTest() {
        EXPECT_EQ(0, unit.RegistMsgBox(&box, &dispatcher));
        loop = std::thread([this] { box.Loop(1); });
        EXPECT_EQ(0, box.InitWait(60000));
    }
    ~PZUnitFrameInABoxTest() override { End(); }

    void End() {
        if (!loop.joinable()) return;
        box.Exit();
        loop.join();
    }

    PZLMsgBox box;
    RecordingDispatcher dispatcher;
    Unit unit{kUnitId};
    std::thread loop;
};

TEST_F(PZUnitFrameInABoxTest, SendsItselfMessagesAndEventsThatAreHandledOnTheLoopsThread) {
    std::thread::id handler;
    std::string payload;
    dispatcher.OnMessage(1, [&](const auto& message) {
        handler = std::this_thread::get_id();
        payload.assign(static_cast<const char*>(message.buff), message.size);
    });
    const std::thread::id expected = loop.get_id();
    EXPECT_EQ(0, unit.SendMsgSelf(1, en_MSG_NORMAL, "hello", 5));
    EXPECT_EQ(0, unit.SendEvtSelf(6));
    End();
    EXPECT_EQ(2U, dispatcher.Received().size());
    EXPECT_EQ(expected, handler);
    EXPECT_EQ("hello", payload);
}

TEST_F(PZUnitFrameInABoxTest, AHandlerMaySendToItsOwnUnit) {
    dispatcher.OnMessage(1, [&](const auto&) {
        EXPECT_EQ(0, unit.SendMsgSelf(2, en_MSG_LOWEST, nullptr, 0));
        EXPECT_EQ(0, unit.SendMsgSelf(3, en_MSG_EMERGENCY, nullptr, 0));
        EXPECT_EQ(0, unit.SendEvtSelf(4));
    });
    EXPECT_EQ(0, unit.SendMsgSelf(1, en_MSG_NORMAL, nullptr, 0));
    End();
    EXPECT_EQ((Log{"msg 1", "msg 3", "evt 4", "msg 2"}), dispatcher.Received());
}

TEST_F(PZUnitFrameInABoxTest, ManyThreadsMaySendThroughOneUnit) {
    constexpr int kSenders = 8;
    constexpr int kEach = 30;  // together less than the box holds
    std::vector<std::thread> senders;
    senders.reserve(kSenders);
    for (int i = 0; i < kSenders; ++i) {
        senders.emplace_back([this] {
            for (int n = 0; n < kEach; ++n) {
                EXPECT_EQ(0, unit.SendMsgSelf(1, en_MSG_NORMAL, "x", 1));
                EXPECT_EQ(0, unit.SendEvtSelf(1));
            }
        });
    }
    for (auto& sender : senders) sender.join();
    End();
    EXPECT_EQ(2U * kSenders * kEach, dispatcher.Received().size());
}

TEST_F(PZUnitFrameInABoxTest, AHandlerMayUnregisterItsOwnUnit) {
    dispatcher.OnEvent(1, [&] { unit.UnregistMsgBox(); });
    EXPECT_EQ(0, unit.SendEvtSelf(1));
    EXPECT_TRUE(dispatcher.WaitForCount(1));
    End();
    EXPECT_EQ(-1, unit.SID);
}

TEST_F(PZUnitFrameInABoxTest, TwoUnitsOfOneDispatcherCannotShareABox) {
    const StdoutCapture capture;
    Unit second;
    EXPECT_EQ(PZUnitFrame::en_ERROR_REGIST, second.RegistMsgBox(&box, &dispatcher));
}

TEST_F(PZUnitFrameInABoxTest, APayloadThatTheBoxRefusesIsAFailedMessage) {
    const StdoutCapture capture;
    EXPECT_EQ(5, unit.SendMsgSelf(1, en_MSG_NORMAL, "x", 0));
}

TEST(PZUnitFrameCancelTest, LeavesItsBoxOnAThreadThatIsBeingCancelled) {
    PZLMsgBox box;
    pztest::RecordingDispatcher dispatcher;
    auto* const unit = new PZUnitFrame;
    ASSERT_EQ(0, unit->RegistMsgBox(&box, &dispatcher));
    EXPECT_TRUE(pztest::ends_whole_when_cancelled([unit] { delete unit; }));
    EXPECT_NE(~0UL, box.Registory(&dispatcher));
}

}  // namespace
