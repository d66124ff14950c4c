#include <atomic>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/Event.h>

#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"

using namespace std::chrono_literals;
using pz::wait_any;
using pztest::StdoutCapture;

TEST(EasyEventTest, EverySetEndsOneWait) {
    pz::Event event;
    ASSERT_TRUE(event);
    EXPECT_FALSE(event.wait(0ms));
    EXPECT_TRUE(event.set());
    EXPECT_TRUE(event.set());
    EXPECT_TRUE(event.wait(0ms));
    EXPECT_TRUE(event.wait());
    EXPECT_FALSE(event.wait(-1s));
}

TEST(EasyEventTest, AWaitWithoutASignalTakesAtLeastItsTime) {
    pz::Event event;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(event.wait(20ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
}

TEST(EasyEventTest, ForgetsItsSignalsWhenItIsReset) {
    pz::Event event;
    event.set();
    event.set();
    event.reset();
    EXPECT_FALSE(event.wait(0ms));
}

TEST(EasyEventTest, ASetOfAnotherThreadEndsAWait) {
    pz::Event event;
    std::thread setter([&] { event.set(); });
    EXPECT_TRUE(event.wait(std::chrono::milliseconds::max()));
    setter.join();
}

TEST(EasyEventTest, WaitAnyAnswersTheIndexOfTheOneThatIsSet) {
    pz::Event a;
    pz::Event b;
    EXPECT_EQ(std::nullopt, wait_any({&a, &b}, 1ms));
    b.set();
    EXPECT_EQ(1U, wait_any({&a, &b}, 60s));
    a.set();
    EXPECT_EQ(0U, wait_any({&a, &b}));
    EXPECT_EQ(std::nullopt, wait_any({&a, &b}, 0ms)) << "both are taken";
}

TEST(EasyEventTest, WaitAnyRefusesNoEventsANullOneAndOneThatIsNamedTwice) {
    pz::Event a;
    a.set();
    StdoutCapture capture;
    EXPECT_EQ(std::nullopt, wait_any({}, 0ms));
    EXPECT_EQ("", capture.Take());
    EXPECT_EQ(std::nullopt, wait_any({&a, nullptr}, 60s));
    EXPECT_EQ(std::nullopt, wait_any({&a, &a}, 60s));
    EXPECT_NE("", capture.Take());
    EXPECT_TRUE(a.wait(0ms)) << "no signal was taken";
}

TEST(EasyEventTest, AMovedEventKeepsItsSignals) {
    pz::Event a;
    a.set();
    pz::Event b(std::move(a));
    const StdoutCapture capture;
    EXPECT_FALSE(a);
    EXPECT_FALSE(a.set());
    EXPECT_FALSE(a.wait(60s));
    a.reset();
    EXPECT_TRUE(b.wait(0ms));
    b.set();
    a = std::move(b);
    EXPECT_TRUE(a.wait(0ms));
}

TEST(EasyEventTest, AnEventThatFindsNoMemoryIsFalse) {
    StdoutCapture capture;
    {
        const pztest::MemoryShortage shortage;
        pz::Event event;
        EXPECT_FALSE(event);
    }
    EXPECT_TRUE(pztest::has_report(capture.Take(), "Event", "Event.cpp", "no memory"));
}

namespace {

template <size_t... kIndexes>
std::optional<size_t> wait_for_all_of(std::vector<pz::Event>& events,
                                      std::index_sequence<kIndexes...> /*count*/) {
    return wait_any({&events[kIndexes]...}, 0ms);
}

}  // namespace

TEST(EasyEventTest, WaitAnyTakesUpTo64Events) {
    std::vector<pz::Event> events(65);
    events[63].set();
    EXPECT_EQ(63U, wait_for_all_of(events, std::make_index_sequence<64>()));
    events[63].set();
    StdoutCapture capture;
    EXPECT_EQ(std::nullopt, wait_for_all_of(events, std::make_index_sequence<65>()));
    EXPECT_NE("", capture.Take());
    EXPECT_TRUE(events[63].wait(0ms)) << "no signal was taken";
}

TEST(EasyEventTest, AcceptsNegativeAndEndlessTimes) {
    pz::Event event;
    EXPECT_FALSE(event.wait(std::chrono::milliseconds::min()));
    EXPECT_EQ(std::nullopt, wait_any({&event}, -1ms));
    event.set();
    EXPECT_TRUE(event.wait(std::chrono::milliseconds::max()));
    event.set();
    EXPECT_EQ(0U, wait_any({&event}, std::chrono::milliseconds::max()));
}

TEST(EasyEventTest, WhenThePipeIsFullAllButOneSignalAreForgotten) {
    pz::Event event;
    int added = 0;
    StdoutCapture capture;
    while (added < 100000 && event.set()) ++added;
    EXPECT_EQ(65536, added);
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "PZEvent.cpp"));
    EXPECT_TRUE(event.wait(0ms));
    EXPECT_FALSE(event.wait(0ms));
}

TEST(EasyEventTest, AnAssignmentForgetsTheSignalsThatWereHereBefore) {
    pz::Event a;
    pz::Event b;
    a.set();
    a = std::move(b);
    EXPECT_TRUE(a);
    EXPECT_FALSE(a.wait(0ms));
    EXPECT_TRUE(a.set());
    EXPECT_TRUE(a.wait(0ms));
}

TEST(EasyEventTest, WaitAnyTakesTheSignalOfOneWhenSeveralHaveSome) {
    pz::Event a;
    pz::Event b;
    a.set();
    b.set();
    const auto first = wait_any({&a, &b}, 60s);
    const auto second = wait_any({&a, &b}, 60s);
    ASSERT_TRUE(first && second);
    EXPECT_EQ(1U, *first + *second) << "each once";
    EXPECT_EQ(std::nullopt, wait_any({&a, &b}, 0ms));
}

TEST(EasyEventTest, WaitAnyRefusesAndReportsOneWithoutSignals) {
    pz::Event a;
    pz::Event moved;
    const pz::Event other(std::move(moved));
    a.set();
    StdoutCapture capture;
    EXPECT_EQ(std::nullopt, wait_any({&a, &moved}, 60s));
    EXPECT_EQ(std::nullopt, wait_any({&moved}));
    EXPECT_NE("", capture.Take());
    EXPECT_TRUE(a.wait(0ms)) << "no signal was taken";
}

TEST(EasyEventTest, TellsAWaitableOfAProgramThatItsSignalWasTaken) {
    class Button : public pz::Waitable {
    public:
        PZEvent* signals() const noexcept override { return event_.signals(); }
        void taken() noexcept override {
            ++takes;
            taker = std::this_thread::get_id();
        }
        void Press() { event_.set(); }
        int takes = 0;
        std::thread::id taker{};

    private:
        pz::Event event_{};
    };
    Button button;
    pz::Event event;
    event.set();
    EXPECT_EQ(0U, wait_any({&event, &button}, 0ms));
    EXPECT_EQ(0, button.takes) << "it was the other's signal";
    button.Press();
    std::thread waiting([&] { EXPECT_EQ(1U, wait_any({&event, &button})); });
    const std::thread::id id = waiting.get_id();
    waiting.join();
    EXPECT_EQ(1, button.takes);
    EXPECT_EQ(id, button.taker);
    EXPECT_EQ(std::nullopt, wait_any({&event, &button}, 0ms));
    EXPECT_EQ(1, button.takes);
}

namespace {

/// Has two threads do something with an event that has one signal, again and again and both at the
/// same time. Neither may wait: answers in how many rounds one of them did until there was a second
/// signal.
class Race {
public:
    explicit Race(const std::function<void(pz::Event&)>& action) {
        std::thread first([&] { Run(action); });
        std::thread second([&] { Run(action); });
        for (int i = 0; i < kRounds && waits_ < kEnough; ++i) PlayRound();
        ended_ = true;
        ++round_;
        first.join();
        second.join();
    }

    int waits() const { return waits_; }

private:
    static constexpr int kRounds = 4000;
    static constexpr int kEnough = 3;

    void PlayRound() {
        event_.reset();
        event_.set();
        done_ = 0;
        ++round_;
        const auto start = std::chrono::steady_clock::now();
        bool waits = false;
        while (done_ < 2) {
            std::this_thread::yield();
            if (waits || std::chrono::steady_clock::now() - start < 5s) continue;
            waits = true;
            ++waits_;
            event_.set();
        }
    }

    void Run(const std::function<void(pz::Event&)>& action) {
        for (int seen = 0; !ended_;) {
            if (round_ == seen) {
                std::this_thread::yield();
                continue;
            }
            seen = round_;
            if (ended_) return;
            action(event_);
            ++done_;
        }
    }

    pz::Event event_{};
    std::atomic<int> round_{0};
    std::atomic<int> done_{0};
    std::atomic<bool> ended_{false};
    int waits_ = 0;
};

}  // namespace

TEST(EasyEventTest, AWaitThatLosesTheSignalToAnotherKeepsToItsTime) {
    std::atomic<int> taken{0};
    const Race race([&](pz::Event& event) { taken += event.wait(0ms) ? 1 : 0; });
    EXPECT_EQ(0, race.waits());
    EXPECT_LT(0, taken);
}

TEST(EasyEventTest, AResetThatLosesTheSignalToAnotherDoesNotWait) {
    EXPECT_EQ(0, Race([](pz::Event& event) { event.reset(); }).waits());
}

TEST(EasyEventTest, AWaitWithoutALimitThatLosesTheSignalToAnotherGetsTheNext) {
    pz::Event event;
    std::atomic<int> taken{0};
    const auto take = [&] {
        for (int i = 0; i < 2000; ++i) taken += event.wait() ? 1 : 0;
    };
    std::thread first(take);
    std::thread second(take);
    for (int i = 0; i < 4000; ++i) {
        EXPECT_TRUE(event.set());
        while (taken < i - 1) std::this_thread::yield();  // never more than two signals
    }
    first.join();
    second.join();
    EXPECT_EQ(4000, taken);
    EXPECT_FALSE(event.wait(0ms));
}
