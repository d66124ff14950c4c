#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/test/ManualClock.h>
#include <Framework/Easy/test/SyncWorker.h>

#include "support/StdoutCapture.h"

using namespace std::chrono_literals;
using pz::Posted;
using pz::test::ManualClock;
using pz::test::SyncWorker;

namespace {

/// A unit as an application has it: knows a pz::Worker only.
class Scanner {
public:
    explicit Scanner(pz::Worker& worker)
        : worker_(worker),
          timer_(worker.every(100ms, [this] { polls_.push_back(worker_.now()); })) {}
    const std::vector<std::chrono::milliseconds>& polls() const { return polls_; }
    void Stop() { static_cast<void>(timer_.stop()); }

private:
    pz::Worker& worker_;
    std::vector<std::chrono::milliseconds> polls_;
    pz::Timer timer_;
};

}  // namespace

class EasySyncWorkerTest : public testing::Test {
protected:
    ManualClock clock;
    SyncWorker worker{clock};
    std::string order;
    auto note(char c) {
        return [this, c] { order += c; };
    }
};

TEST_F(EasySyncWorkerTest, RunsOnePostAtATimeOnTheCallingThread) {
    EXPECT_FALSE(worker.run_one());
    EXPECT_EQ(Posted::ok, worker.post(note('b')));
    EXPECT_EQ(Posted::ok, worker.post(note('c')));
    EXPECT_EQ(Posted::ok, worker.post(note('a'), pz::Priority::emergency));
    EXPECT_EQ("", order);
    EXPECT_EQ(3U, worker.pending());
    EXPECT_TRUE(worker.run_one());
    EXPECT_EQ("a", order);
    EXPECT_EQ(2U, worker.run_all());
    EXPECT_EQ("abc", order);
    EXPECT_STREQ("sync", worker.name());
    EXPECT_EQ(nullptr, worker.box());
}

TEST_F(EasySyncWorkerTest, RunAllEndsWhenAFunctionPostsItselfForEver) {
    int runs = 0;
    std::function<void()> again = [&] {
        ++runs;
        worker.post(again);
    };
    worker.post(again);
    EXPECT_EQ(50U, worker.run_all(50));
    EXPECT_EQ(50, runs);
    EXPECT_EQ(1U, worker.pending());
    EXPECT_TRUE(worker.stop());
    EXPECT_EQ(51, runs);
}

TEST_F(EasySyncWorkerTest, TimersRunOnlyWhenTheTestMovesTheTime) {
    Scanner scanner(worker);
    EXPECT_EQ(0U, worker.run_for(99ms));
    EXPECT_EQ(1U, worker.run_for(1ms));
    EXPECT_EQ(9U, worker.run_for(900ms));
    EXPECT_EQ(1000ms, clock.now());
    EXPECT_EQ(1000ms, worker.now());
    ASSERT_EQ(10U, scanner.polls().size());
    for (size_t i = 0; i < 10; ++i) EXPECT_EQ((i + 1) * 100ms, scanner.polls()[i]);
    scanner.Stop();
    EXPECT_EQ(0U, worker.run_for(24h));
}

TEST_F(EasySyncWorkerTest, MovingTheClockPostsTimersThatAreDueAndCountsMissedPeriods) {
    const pz::Timer timer = worker.every(10ms, note('t'));
    const pz::Timer once = worker.after(25ms, note('o'));
    clock.advance(35ms);
    EXPECT_EQ("", order);
    EXPECT_EQ(2U, timer.missed()) << "of three periods one is posted";
    EXPECT_EQ(2U, worker.run_all());
    EXPECT_EQ("to", order);
    clock.advance(-1ms);
    EXPECT_EQ(35ms, clock.now());
    clock.advance(5ms);
    EXPECT_EQ(1U, worker.run_all());
}

TEST_F(EasySyncWorkerTest, TimersOfSeveralWorkersComeInTheOrderOfTheirTimes) {
    SyncWorker other(clock);
    std::string due;
    const pz::Timer late = worker.after(20ms, [&] { due += 'l'; });
    const pz::Timer early = other.after(10ms, [&] { due += 'e'; });
    other.run_for(10ms);
    worker.run_for(10ms);
    EXPECT_EQ("el", due);
}

TEST_F(EasySyncWorkerTest, ATimerMayStopItselfAndStartAnother) {
    pz::Timer first;
    pz::Timer second;
    first = worker.every(10ms, [&] {
        order += '1';
        EXPECT_TRUE(first.stop());
        second = worker.after(5ms, note('2'));
    });
    worker.run_for(1s);
    EXPECT_EQ("12", order);
}

TEST_F(EasySyncWorkerTest, CallServesWhatWasPostedBefore) {
    worker.post(note('a'));
    const auto answer = worker.call([this] {
        order += 'b';
        return 7;
    });
    EXPECT_EQ(7, answer.value_or(0));
    EXPECT_EQ("ab", order);
    worker.post([this] { EXPECT_EQ(pz::CallError::own_thread, worker.call([] {}).error()); });
    EXPECT_EQ(1U, worker.run_all());
}

TEST_F(EasySyncWorkerTest, HoldsAsManyPostsAsAWorkerAndThenAnswersFull) {
    for (int i = 0; i < 256; ++i) ASSERT_EQ(Posted::ok, worker.post([] {}));
    EXPECT_EQ(Posted::full, worker.post_wait([] {}, 60s)) << "nobody else would make room";
    EXPECT_EQ(256U, worker.run_all());
}

TEST_F(EasySyncWorkerTest, APeriodThatFindsNoRoomIsMissed) {
    const pztest::StdoutCapture output;
    const pz::Timer timer = worker.every(1ms, note('t'));
    while (worker.post(note('p')) == Posted::ok) {
    }
    clock.advance(1ms);
    clock.advance(1ms);
    EXPECT_EQ(2U, timer.missed());
    worker.run_all();
    clock.advance(1ms);
    worker.run_all();
    EXPECT_EQ('t', order.back());
    EXPECT_EQ(2U, timer.missed());
}

TEST_F(EasySyncWorkerTest, StopServesWhatIsPosted) {
    const pz::Timer timer = worker.every(1ms, note('t'));
    worker.post(note('a'));
    EXPECT_TRUE(worker.stop());
    EXPECT_EQ("a", order);
    EXPECT_FALSE(worker);
    EXPECT_FALSE(timer);
    EXPECT_EQ(Posted::stopped, worker.post(note('b')));
    EXPECT_EQ(0U, worker.run_for(1s));
}

TEST_F(EasySyncWorkerTest, CountsFunctionsThatTakeLongerThanTheWatchTime) {
    pz::WorkerOptions options;
    options.watch_time = 50ms;
    SyncWorker watched(clock, "watched", options);
    watched.post([this] { clock.advance(50ms); });
    watched.post([this] { clock.advance(51ms); });
    EXPECT_EQ(2U, watched.run_all());
    EXPECT_EQ(1U, watched.overruns());
}

TEST_F(EasySyncWorkerTest, ReportsAFunctionThatThrows) {
    pztest::StdoutCapture capture;
    worker.post([] { throw 1; });
    EXPECT_TRUE(worker.run_one());
    EXPECT_NE(std::string::npos, capture.Take().find("worker [sync]: what was posted by"));
}

TEST_F(EasySyncWorkerTest, RunsNothingOnceItWasMovedFrom) {
    worker.post(note('a'));
    const SyncWorker moved(std::move(worker));
    EXPECT_FALSE(worker.run_one());
    EXPECT_EQ(0U, worker.run_for(1s));
    EXPECT_EQ(0U, worker.overruns());
}

TEST_F(EasySyncWorkerTest, TimeDoesNotGoBack) {
    clock.advance(5ms);
    clock.advance(-3ms);
    EXPECT_EQ(5ms, clock.now());
    worker.post(note('a'));
    worker.run_for(-1ms);
    EXPECT_EQ(5ms, clock.now());
    EXPECT_FALSE(worker.every(0ms, note('x')));
    EXPECT_EQ(Posted::empty, worker.post(std::function<void()>()));
}

TEST_F(EasySyncWorkerTest, TimesBeyondThirtyYearsCountAsThirtyYears) {
    constexpr std::chrono::hours kThirtyYears(30 * 365 * 24);
    clock.advance(1h);
    int runs = 0;
    const pz::Timer timer = worker.every(std::chrono::milliseconds::max(), [&] { ++runs; });
    EXPECT_EQ(1U, worker.run_for(std::chrono::milliseconds::max()));
    EXPECT_EQ(kThirtyYears + 1h, clock.now());
    clock.advance(std::chrono::milliseconds::max());
    EXPECT_EQ(2 * kThirtyYears + 1h, clock.now());
    EXPECT_EQ(1U, worker.run_all());
    EXPECT_EQ(2, runs);
}

TEST_F(EasySyncWorkerTest, TimersThatAreDueTogetherRunByTheirPriorities) {
    const pz::Timer usual = worker.every(10ms, note('n'));
    const pz::Timer last = worker.after(10ms, note('l'), pz::Priority::lowest);
    const pz::Timer first = worker.every(10ms, note('e'), pz::Priority::emergency);
    clock.advance(10ms);
    EXPECT_EQ(3U, worker.run_all());
    EXPECT_EQ("enl", order);
}

TEST_F(EasySyncWorkerTest, ServesNoOtherWorkerOfItsClock) {
    SyncWorker other(clock);
    const pz::Timer timer = other.after(5ms, note('o'));
    EXPECT_EQ(0U, worker.run_for(10ms));
    EXPECT_EQ("", order);
    EXPECT_EQ(1U, other.pending()) << "posted, and not served";
    EXPECT_TRUE(other.run_one());
    EXPECT_EQ("o", order);
}

TEST_F(EasySyncWorkerTest, OutlivesItsClockWithTheTimeAsItWas) {
    auto own = std::make_unique<ManualClock>();
    SyncWorker late(*own);
    own->advance(7ms);
    own.reset();
    EXPECT_EQ(7ms, late.now());
    const pz::Timer timer = late.after(3ms, note('t'));
    EXPECT_EQ(1U, late.run_for(3ms));
    EXPECT_EQ("t", order);
}

TEST_F(EasySyncWorkerTest, MovingTheClockByNothingPostsWhatIsDueNow) {
    const pz::Timer timer = worker.after(0ms, note('t'));
    clock.advance(0ms);
    EXPECT_EQ(1U, worker.run_all());
    EXPECT_EQ("t", order);
    EXPECT_EQ(0ms, clock.now());
}
