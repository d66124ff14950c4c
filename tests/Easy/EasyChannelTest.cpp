#include <fcntl.h>
#include <mqueue.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/Channel.h>
#include <Framework/Easy/Framework.h>

#include "support/ChildProcess.h"
#include "support/Gate.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

using namespace std::chrono_literals;
using pz::Sent;
using pztest::Gate;
using pztest::StdoutCapture;
using pztest::wait_until;

namespace {

struct Station {
    unsigned int kHz;
    char name[9];
};

struct Other {
    unsigned char bytes[5];
};

struct Small {
    char byte;
};

struct Large {
    unsigned char bytes[1012];
};

class Preset : public PZSerialization::PZSerializable {
public:
    std::string name;

    void serialize() override {
        archive_.clear();
        archive_.write(name);
    }
    void deserialize(const unsigned char* data, unsigned int size) override {
        archive_.clear();
        archive_.write(data, size);
        archive_.read(name);
    }
};

}  // namespace

class EasyChannelTest : public testing::Test {
protected:
    ~EasyChannelTest() override { ::mq_unlink(("/" + name).c_str()); }

    /// Holds the worker at the gate, and leaves it no room for another message.
    void FillWorker(Gate& gate) {
        ASSERT_EQ(pz::Posted::ok, worker.post([&] { gate.Pass(); }));
        ASSERT_TRUE(gate.WaitForArrival());
        while (worker.post_wait([] {}, 0ms) == pz::Posted::ok) {
        }
    }

    pz::Framework fw{"easy", 1};
    pz::Worker worker{"tuner"};
    const std::string name = "pz_easy_" + std::to_string(::getpid());
    const char* const channel = name.c_str();
};

TEST_F(EasyChannelTest, BringsValuesToTheWorkersThreadInOrder) {
    std::vector<unsigned int> received;
    bool isOwn = true;
    pz::Receiver<Station> in(worker, channel, [&](const Station& station) {
        isOwn = isOwn && worker.is_own_thread();
        EXPECT_STREQ("Wien", station.name);
        received.push_back(station.kHz);
    });
    ASSERT_TRUE(in);
    pz::Sender<Station> out(channel);
    ASSERT_TRUE(out);
    for (unsigned int i = 0; i < 10; ++i) ASSERT_EQ(Sent::ok, out.send({i, "Wien"}));
    EXPECT_TRUE(
        wait_until([&] { return worker.call([&] { return received.size(); }).value_or(0) == 10; }));
    EXPECT_TRUE(worker.stop());
    EXPECT_TRUE(isOwn);
    for (unsigned int i = 0; i < 10; ++i) EXPECT_EQ(i, received[i]);
}

TEST_F(EasyChannelTest, IsLeftAloneByAForkedChildThatDestroysTheReceiver) {
    Gate gate;
    std::atomic<unsigned int> last{0};
    auto in = std::make_unique<pz::Receiver<Station>>(worker, channel, [&](const Station& s) {
        gate.Pass();
        last = s.kHz;
    });
    pz::Sender<Station> out(channel);
    ASSERT_EQ(Sent::ok, out.send({1, ""}));
    ASSERT_TRUE(gate.WaitForArrival());
    const pztest::ChildResult child = pztest::run_in_child(
        [&in] {
            in.reset();
            return 42;
        },
        /*limitSeconds=*/20);
    EXPECT_EQ(42, child.status);
    EXPECT_EQ("", child.output) << "waits for the parent's function";
    gate.Open();
    EXPECT_EQ(Sent::ok, out.send({2, ""}));
    EXPECT_TRUE(wait_until([&] { return last == 2; }));
}

TEST_F(EasyChannelTest, BringsObjectsThatSerializeThemselves) {
    std::string received;
    std::atomic<bool> done{false};
    const pz::Receiver<Preset> in(worker, channel, [&](const Preset& preset) {
        received = preset.name;
        done = true;
    });
    pz::Sender<Preset> out(channel);
    Preset preset;
    preset.name = "Radio 1";
    EXPECT_EQ(Sent::ok, out.send(preset));
    ASSERT_TRUE(wait_until([&] { return done.load(); }));
    EXPECT_EQ("Radio 1", received);
    StdoutCapture capture;
    preset.name = std::string(1012, 'x');
    EXPECT_EQ(Sent::too_big, out.send(preset));
    EXPECT_NE(std::string::npos, capture.Take().find("a value of 1016 bytes is too big"));
}

TEST_F(EasyChannelTest, TakesValuesOfTheLargestSize) {
    std::atomic<int> sum{0};
    const pz::Receiver<Large> in(worker, channel, [&](const Large& large) {
        for (const unsigned char byte : large.bytes) sum += byte;
    });
    pz::Sender<Large> out(channel);
    Large large = {};
    large.bytes[0] = 1;
    large.bytes[1011] = 2;
    EXPECT_EQ(Sent::ok, out.send(large));
    EXPECT_TRUE(wait_until([&] { return sum == 3; }));
}

TEST_F(EasyChannelTest, TakesValuesOfOneByte) {
    pz::Sender<Small> out(channel);
    for (const char byte : {'a', 'b', 'c'}) ASSERT_EQ(Sent::ok, out.send({byte}));
    std::string received;
    const pz::Receiver<Small> in(worker, channel,
                                 [&](const Small& s) { received.push_back(s.byte); });
    EXPECT_TRUE(
        wait_until([&] { return worker.call([&] { return received.size(); }).value_or(0) == 3; }));
    EXPECT_EQ("abc", received);
}

TEST_F(EasyChannelTest, RefusesAnotherSizeVersionOrSenderAndReportsIt) {
    std::atomic<int> received{0};
    StdoutCapture capture;
    const pz::Receiver<Station> in(
        worker, channel, [&](const Station&) { ++received; }, 2);
    EXPECT_EQ(Sent::ok, pz::Sender<Other>(channel, 2).send(Other()));
    EXPECT_EQ(Sent::ok, pz::Sender<Station>(channel, 1).send(Station()));
    const mqd_t raw = ::mq_open(("/" + name).c_str(), O_WRONLY);
    EXPECT_EQ(0, ::mq_send(raw, "\1some other message", 19, 100));
    EXPECT_EQ(0, ::mq_send(raw, "\1x", 2, 100));
    ::mq_close(raw);
    EXPECT_EQ(Sent::ok, pz::Sender<Station>(channel, 2).send(Station(), pz::Priority::lowest));
    EXPECT_TRUE(wait_until([&] { return received == 1; }));
    const std::string report = capture.Take();
    EXPECT_EQ(2U, pztest::count_of(report, "what came is no value")) << report;
    EXPECT_EQ(1U, pztest::count_of(report, "version 2 of 5 bytes came, version 2 of 16 is known"));
    EXPECT_EQ(1U, pztest::count_of(report, "version 1 of 16 bytes came, version 2 of 16 is known"));
}

TEST_F(EasyChannelTest, ValuesWaitForAReceiverThatComesLater) {
    {
        pz::Sender<Station> out(channel);
        for (unsigned int i = 0; i < 64; ++i) ASSERT_EQ(Sent::ok, out.send({i, ""}));
        StdoutCapture capture;
        EXPECT_EQ(Sent::full, out.send({64, ""}));
        EXPECT_NE(std::string::npos, capture.Take().find("a value is refused: full"));
    }
    std::atomic<int> received{0};
    const pz::Receiver<Station> in(worker, channel, [&](const Station&) { ++received; });
    EXPECT_TRUE(wait_until([&] { return received == 64; }));
}

TEST_F(EasyChannelTest, TheSenderFindsAReceiverThatWasDestroyedAndMadeAgain) {
    pz::Sender<Station> out(channel);
    for (int round = 0; round < 3; ++round) {
        std::atomic<int> received{0};
        const pz::Receiver<Station> in(worker, channel, [&](const Station&) { ++received; });
        EXPECT_EQ(Sent::ok, out.send(Station()));
        EXPECT_TRUE(wait_until([&] { return received == 1; }));
    }
}

// The process is made while this one has no other threads.
TEST(EasyChannelProcessTest, AReceiverThatWasKilledFindsItsValuesWhenItReturns) {
    const pztest::TempDir dir;
    const std::string taken = dir.File("taken");
    const std::string name = "pz_easy_" + std::to_string(::getpid());
    const char* const channel = name.c_str();
    pz::Sender<Station> out(channel);
    EXPECT_EQ(Sent::ok, out.send({1, ""}));
    {
        const pztest::ChildProcess child([channel, &taken] {
            const pz::Framework own("child");
            pz::Worker other("other");
            const pz::Receiver<Station> in(
                other, channel, [&taken](const Station&) { pztest::write_file(taken, "x"); });
            for (;;) ::pause();
            return 0;
        });
        ASSERT_TRUE(wait_until([&] { return pztest::read_file(taken) == "x"; }));
    }  // killed here
    EXPECT_EQ(Sent::ok, out.send({2, ""}));
    const pz::Framework fw("easy");
    pz::Worker worker("tuner");
    std::atomic<unsigned int> last{0};
    const pz::Receiver<Station> in(worker, channel, [&](const Station& s) { last = s.kHz; });
    EXPECT_TRUE(wait_until([&] { return last == 2; }));
}

TEST_F(EasyChannelTest, KeepsValuesInTheChannelWhileTheWorkerHasNoRoom) {
    Gate gate;
    FillWorker(gate);
    std::atomic<int> received{0};
    const pz::Receiver<Station> in(worker, channel, [&](const Station&) { ++received; });
    pz::Sender<Station> out(channel);
    for (int i = 0; i < 10; ++i) ASSERT_EQ(Sent::ok, out.send(Station()));
    gate.Open();
    EXPECT_TRUE(wait_until([&] { return received == 10; }));
}

TEST_F(EasyChannelTest, ValuesThatWaitForAReceiverGoWithIt) {
    Gate gate;
    FillWorker(gate);
    std::atomic<unsigned int> last{0};
    const auto take = [&](const Station& s) { last = s.kHz; };
    pz::Sender<Station> out(channel);
    {
        const pz::Receiver<Station> in(worker, channel, take);
        for (int i = 0; i < 10; ++i) ASSERT_EQ(Sent::ok, out.send({1, ""}));
    }
    gate.Open();
    EXPECT_TRUE(worker.call([] {}));
    EXPECT_EQ(0U, last);
    const pz::Receiver<Station> in(worker, channel, take);
    EXPECT_EQ(Sent::ok, out.send({2, ""}));
    EXPECT_TRUE(wait_until([&] { return last != 0; }));
    EXPECT_EQ(2U, last);
}

TEST_F(EasyChannelTest, ADestroyedReceiverDoesNotRunItsFunctionAnyMore) {
    pz::Sender<Station> out(channel);
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> isGone{false};
        std::atomic<bool> isLate{false};
        std::atomic<int> received{0};
        {
            const pz::Receiver<Station> in(worker, channel, [&](const Station&) {
                if (isGone) isLate = true;
                ++received;
            });
            for (int i = 0; i < 20; ++i) ASSERT_EQ(Sent::ok, out.send(Station()));
            ASSERT_TRUE(wait_until([&] { return received > 0; }));
        }
        isGone = true;
        EXPECT_TRUE(worker.call([] {}));
        EXPECT_FALSE(isLate);
    }
}

TEST_F(EasyChannelTest, AReceiverThatNothingCameForIsDestroyedWithoutAWait) {
    StdoutCapture capture;
    {
        const pz::Receiver<Station> in(worker, channel, [](const Station&) {});
    }
    EXPECT_EQ("", capture.Take());
}

TEST_F(EasyChannelTest, AReceiverMayBeDestroyedByItsOwnFunction) {
    std::atomic<bool> done{false};
    std::optional<pz::Receiver<Station>> in;
    EXPECT_TRUE(worker.call([&] {
        in.emplace(worker, channel, [&, kept = std::make_unique<int>(1)](const Station&) {
            in.reset();
            done = *kept == 1;
        });
    }));
    EXPECT_EQ(Sent::ok, pz::Sender<Station>(channel).send(Station()));
    EXPECT_TRUE(wait_until([&] { return done.load(); }));
}

TEST_F(EasyChannelTest, TheWorkerMayEndBeforeItsReceiver) {
    const pz::Receiver<Station> in(worker, channel, [](const Station&) {});
    EXPECT_TRUE(worker.stop());
    EXPECT_EQ(Sent::ok, pz::Sender<Station>(channel).send(Station()));
}

TEST_F(EasyChannelTest, RefusesABadNameAnEmptyFunctionAndAStoppedWorker) {
    StdoutCapture capture;
    for (const char* const wrong : {"", "a/b", "123456789012345678901234567890123"}) {
        EXPECT_FALSE(pz::Sender<Station>(wrong));
        EXPECT_FALSE(pz::Receiver<Station>(worker, wrong, [](const Station&) {}));
    }
    pz::Sender<Station> none(nullptr);
    EXPECT_EQ(Sent::failed, none.send(Station()));
    EXPECT_EQ(7U, pztest::count_of(capture.Take(), "no channel ["));
    EXPECT_FALSE(pz::Receiver<Station>(worker, channel, std::function<void(const Station&)>()));
    EXPECT_TRUE(worker.stop());
    EXPECT_FALSE(pz::Receiver<Station>(worker, channel, [](const Station&) {}));
    EXPECT_EQ(2U, pztest::count_of(capture.Take(), "no function, or the worker does not run"));
}

TEST_F(EasyChannelTest, ASendThatFindsNoMemoryIsAnsweredAndALaterOneSucceeds) {
    const StdoutCapture capture;
    Preset preset;
    preset.name = "a name that does not fit into the string itself";
    bool isSent = false;
    for (int skip = 0; !isSent && skip < 100; ++skip) {
        const pztest::MemoryShortage shortage(skip);
        pz::Sender<Preset> out(channel);
        isSent = out.send(preset) == Sent::ok;
        if (shortage.Refused() == 0) break;
    }
    EXPECT_TRUE(isSent);
}

TEST_F(EasyChannelTest, NamesTheChannelThatItHasNoMemoryForOrRefuses) {
    StdoutCapture capture;
    {
        const pztest::MemoryShortage shortage;
        const pz::Sender<Station> out(channel);
        EXPECT_FALSE(out);
    }
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "no memory for the channel [" + name + "]"));
    EXPECT_FALSE(pz::Sender<Station>("a/b"));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "no channel [a/b]"));
    EXPECT_FALSE(pz::Sender<Station>(nullptr));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "no channel [(null)]"));
}

TEST_F(EasyChannelTest, MoreUrgentValuesComeFirstAndEqualOnesInTheirOrder) {
    pz::Sender<Station> out(channel);
    const std::pair<unsigned int, pz::Priority> values[] = {
        {7, pz::Priority::lowest},         {5, pz::Priority::normal},
        {1, pz::Priority::emergency},      {6, pz::Priority::normal},
        {2, static_cast<pz::Priority>(1)},  // what an emergency counts as
        {3, pz::Priority::emergency},      {4, pz::Priority::high},
    };
    for (const auto& [kHz, priority] : values) ASSERT_EQ(Sent::ok, out.send({kHz, ""}, priority));
    std::vector<unsigned int> received;
    const pz::Receiver<Station> in(worker, channel,
                                   [&](const Station& s) { received.push_back(s.kHz); });
    EXPECT_TRUE(
        wait_until([&] { return worker.call([&] { return received.size(); }).value_or(0) == 7; }));
    EXPECT_EQ((std::vector<unsigned int>{1, 2, 3, 4, 5, 6, 7}), received);
}

TEST_F(EasyChannelTest, AReceiverWhoseFunctionHangsIsDestroyedAfterTheWorkersTimeWithAReport) {
    pz::WorkerOptions options;
    options.stop_within = 20ms;
    pz::Worker hanging("hanging", options);
    const auto gate = std::make_shared<Gate>();
    pz::Sender<Station> out(channel);
    StdoutCapture capture;
    const auto start = std::chrono::steady_clock::now();
    {
        const pz::Receiver<Station> in(hanging, channel, [gate](const Station&) { gate->Pass(); });
        ASSERT_EQ(Sent::ok, out.send(Station()));
        ASSERT_TRUE(gate->WaitForArrival());
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "Channel.cpp"));
    gate->Open();
    EXPECT_TRUE(hanging.stop(60s));
}

TEST_F(EasyChannelTest, TheEndOfTheFunctionEndsTheWaitOfAReceiverThatIsDestroyed) {
    pz::WorkerOptions options;
    options.stop_within = 20s;
    pz::Worker slow("slow", options);
    Gate gate;
    pz::Sender<Station> out(channel);
    auto in = std::make_unique<pz::Receiver<Station>>(slow, channel,
                                                      [&](const Station&) { gate.Pass(); });
    ASSERT_EQ(Sent::ok, out.send(Station()));
    ASSERT_TRUE(gate.WaitForArrival());
    const auto start = std::chrono::steady_clock::now();
    std::thread opening([&] {
        std::this_thread::sleep_for(20ms);
        gate.Open();
    });
    in.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    opening.join();
}

TEST_F(EasyChannelTest, ANameHas32CharactersAtMostAndIsNeverNull) {
    const std::string longest = name + std::string(32 - name.size(), 'x');
    pz::Sender<Station> out(longest.c_str());
    EXPECT_EQ(Sent::ok, out.send({1, ""}));
    std::atomic<int> received{0};
    {
        const pz::Receiver<Station> in(worker, longest.c_str(),
                                       [&](const Station&) { ++received; });
        EXPECT_TRUE(in);
        EXPECT_TRUE(wait_until([&] { return received == 1; }));
    }
    ::mq_unlink(("/" + longest).c_str());
    StdoutCapture capture;
    EXPECT_FALSE(pz::Receiver<Station>(worker, nullptr, [](const Station&) {}));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "no channel ["));
}
