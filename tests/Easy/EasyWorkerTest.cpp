#include <pthread.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/Framework.h>
#include <Framework/Easy/Worker.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZUnitFrame.h>

#include "support/ChildProcess.h"
#include "support/FewDescriptors.h"
#include "support/Gate.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OwnProcess.h"
#include "support/StdoutCapture.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(pthread_create, 4, EAGAIN);
PZ_INTERPOSE(pthread_join, 2);

using namespace std::chrono_literals;
using pz::CallError;
using pz::Posted;
using pz::Priority;
using pztest::Gate;
using pztest::MemoryShortage;
using pztest::StdoutCapture;
using pztest::wait_until;

namespace {

constexpr int kCapacity = 256;

/// Keeps a worker busy until the end of the scope, or Open.
class Busy : private pztest::Uncopyable {
public:
    explicit Busy(pz::Worker& worker) {
        EXPECT_EQ(Posted::ok, worker.post([gate = gate_] { gate->Pass(); }));
        EXPECT_TRUE(gate_->WaitForArrival());
    }
    ~Busy() { Open(); }
    void Open() { gate_->Open(); }

private:
    const std::shared_ptr<Gate> gate_ = std::make_shared<Gate>();
};

/// A function of a given size that counts itself.
template <size_t kSize>
struct Sized {
    std::array<unsigned char, kSize - sizeof(void*)> bytes;
    std::atomic<int>* sum;
    void operator()() const {
        for (const unsigned char byte : bytes) *sum += byte;
    }
};

/// Tells when the last copy of it is gone.
std::shared_ptr<int> token(std::atomic<bool>& gone) {
    return {new int(0), [&gone](const int* value) {
                delete value;
                gone = true;
            }};
}

/// A unit that does nothing with its messages.
class Unit : public PZUnitFrame, public PZIDispatcher {
public:
    ~Unit() override { UnregistMsgBox(); }
    void OnReceiveMsg(unsigned int, const void*, unsigned int) override {}
    void OnReceiveEvent(unsigned int) override {}
};

}  // namespace

class EasyWorkerTest : public testing::Test {
protected:
    pz::Framework fw{"easy", 1};
};

TEST_F(EasyWorkerTest, RunsWhatIsPostedOnItsOwnThreadInOrder) {
    std::vector<int> order;
    std::thread::id thread;
    {
        pz::Worker worker("tuner");
        ASSERT_TRUE(worker);
        EXPECT_STREQ("tuner", worker.name());
        EXPECT_FALSE(worker.is_own_thread());
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(Posted::ok, worker.post([&, i] {
                EXPECT_TRUE(worker.is_own_thread());
                thread = std::this_thread::get_id();
                order.push_back(i);
            }));
        }
    }
    EXPECT_EQ((std::vector<int>{0, 1, 2}), order);
    EXPECT_NE(std::this_thread::get_id(), thread);
}

TEST_F(EasyWorkerTest, IsLeftAloneByAForkedChildThatDestroysIt) {
    std::atomic<int> runs{0};
    auto worker = std::make_unique<pz::Worker>("tuner");
    auto timer = worker->every(std::chrono::milliseconds(1), [&runs] { ++runs; });
    const pztest::ChildResult child = pztest::run_in_child(
        [&] {
            timer = pz::Timer();
            worker.reset();
            return 42;
        },
        /*limitSeconds=*/20);
    EXPECT_EQ(42, child.status) << child.output;
    EXPECT_EQ("", child.output);
    EXPECT_EQ(7, worker->call([] { return 7; }).value_or(0));
    const int before = runs;
    EXPECT_TRUE(wait_until([&] { return runs > before; }));
}

TEST_F(EasyWorkerTest, RunsTheMoreUrgentFirst) {
    std::vector<char> order;
    pz::Worker worker("tuner");
    {
        const Busy busy(worker);
        const auto note = [&order](char c) { return [&order, c] { order.push_back(c); }; };
        worker.post(note('d'), Priority::lowest);
        worker.post(note('e'), static_cast<Priority>(100000));
        worker.post(note('c'));
        worker.post(note('b'), Priority::high);
        worker.post(note('a'), Priority::emergency);
        EXPECT_EQ(5U, worker.pending());
    }
    EXPECT_TRUE(worker.stop());
    EXPECT_EQ(std::string("abcde"), std::string(order.begin(), order.end()));
}

TEST_F(EasyWorkerTest, TakesFunctionsThatCannotBeCopied) {
    int result = 0;
    pz::Worker worker("tuner");
    worker.post([value = std::make_unique<int>(7), &result] { result = *value; });
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ(7, result);
}

TEST_F(EasyWorkerTest, TakesFunctionsOfEverySizeAndAlignment) {
    struct alignas(64) Aligned {
        std::atomic<int>* misaligned;
        void operator()() const {
            if (reinterpret_cast<std::uintptr_t>(this) % 64 != 0) ++*misaligned;
        }
    };
    std::atomic<int> sum{0};
    std::atomic<int> misaligned{0};
    pz::Worker worker("tuner");
    Sized<200> small = {{}, &sum};
    Sized<1000> large = {{}, &sum};
    small.bytes.fill(1);
    large.bytes.fill(1);
    worker.post(small);
    worker.post(large);
    worker.post(Aligned{&misaligned});
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ(static_cast<int>(small.bytes.size() + large.bytes.size()), sum);
    EXPECT_EQ(0, misaligned);
}

TEST_F(EasyWorkerTest, DestroysAFunctionOnItsThreadAfterItHasRun) {
    std::atomic<bool> gone{false};
    pz::Worker worker("tuner");
    Busy busy(worker);
    worker.post([kept = token(gone)] {});
    EXPECT_FALSE(gone);
    busy.Open();
    EXPECT_TRUE(wait_until([&] { return gone.load(); }));
}

TEST_F(EasyWorkerTest, AnswersFullWhenNothingMoreFitsAndReportsIt) {
    pz::Worker worker("tuner");
    Busy busy(worker);
    std::atomic<int> runs{0};
    for (int i = 0; i < kCapacity; ++i) ASSERT_EQ(Posted::ok, worker.post([&] { ++runs; }));
    StdoutCapture capture;
    EXPECT_EQ(Posted::full, worker.post([&] { ++runs; }));
    const std::string report = capture.Take();
    EXPECT_TRUE(
        pztest::has_report(report, "refused", "Worker.cpp",
                           "worker [tuner] refuses a post of TestBody()@EasyWorkerTest.cpp(" +
                               std::to_string(__LINE__ - 5) + "): no room"))
        << report;
    busy.Open();
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ(kCapacity, runs);
}

TEST_F(EasyWorkerTest, WaitsForRoomWhenAskedTo) {
    pz::Worker worker("tuner");
    Busy busy(worker);
    for (int i = 0; i < kCapacity; ++i) ASSERT_EQ(Posted::ok, worker.post([] {}));
    EXPECT_EQ(Posted::full, worker.post_wait([] {}, 20ms));
    EXPECT_EQ(Posted::full, worker.post_wait([] {}, -1ms));
    std::thread waiting(
        [&] { EXPECT_EQ(Posted::ok, worker.post_wait([] {}, std::chrono::milliseconds::max())); });
    busy.Open();
    waiting.join();
}

TEST_F(EasyWorkerTest, TellsAThreadThatWaitsForRoomAtOnce) {
    // Not only when it looks again by itself, every 10 ms. A busy machine may delay many of them.
    constexpr int kEnough = 10;
    constexpr int kTries = 500;
    int soon = 0;
    for (int i = 0; i < kTries && soon < kEnough; ++i) {
        pz::Worker worker("tuner");
        Busy busy(worker);
        for (int post = 0; post < kCapacity; ++post) ASSERT_EQ(Posted::ok, worker.post([] {}));
        std::chrono::steady_clock::time_point posted;
        std::thread waiting([&] {
            EXPECT_EQ(Posted::ok, worker.post_wait([] {}, 60s));
            posted = std::chrono::steady_clock::now();
        });
        std::this_thread::sleep_for(2ms);
        const auto opened = std::chrono::steady_clock::now();
        busy.Open();
        waiting.join();
        if (posted - opened < 5ms) ++soon;
    }
    EXPECT_EQ(kEnough, soon);
}

TEST_F(EasyWorkerTest, EndsAWaitForRoomWhenItIsStopped) {
    pz::Worker worker("tuner");
    Busy busy(worker);
    for (int i = 0; i < kCapacity; ++i) ASSERT_EQ(Posted::ok, worker.post([] {}));
    std::atomic<bool> begun{false};
    std::thread waiting([&] {
        begun = true;
        EXPECT_EQ(Posted::stopped, worker.post_wait([] {}, 60s));
    });
    ASSERT_TRUE(wait_until([&] { return begun.load(); }));
    const StdoutCapture capture;
    EXPECT_FALSE(worker.stop(0ms));
    waiting.join();
}

TEST_F(EasyWorkerTest, ItsOwnThreadDoesNotWaitForRoom) {
    pz::Worker worker("tuner");
    Posted answer = Posted::ok;
    EXPECT_TRUE(worker.call([&] {
        for (int i = 0; i < kCapacity; ++i) ASSERT_EQ(Posted::ok, worker.post([] {}));
        answer = worker.post_wait([] {}, 60s);
    }));
    EXPECT_EQ(Posted::full, answer);
}

TEST_F(EasyWorkerTest, RefusesAndReportsAnEmptyFunction) {
    pz::Worker worker("tuner");
    StdoutCapture capture;
    EXPECT_EQ(Posted::empty, worker.post(std::function<void()>()));
    void (*nothing)() = nullptr;
    EXPECT_EQ(Posted::empty, worker.post(nothing));
    EXPECT_EQ(Posted::empty, worker.post_wait(nothing, 1s));
    EXPECT_EQ(3U, pztest::count_of(capture.Take(), "worker [tuner] refuses a post of TestBody()@"));
}

TEST_F(EasyWorkerTest, AnswersStoppedOnceItIsStoppedAndMayBeStoppedAgain) {
    pz::Worker worker("tuner");
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_FALSE(worker);
    EXPECT_EQ(Posted::stopped, worker.post([] {}));
    EXPECT_EQ(Posted::stopped, worker.post_wait([] {}, 1s));
    EXPECT_EQ(CallError::stopped, worker.call([] {}).error());
    EXPECT_TRUE(worker.stop(0ms));
}

TEST_F(EasyWorkerTest, RunsEverythingThatItAcceptedWhileItWasBeingStopped) {
    for (int round = 0; round < 20; ++round) {
        pz::Worker worker("tuner");
        std::atomic<int> accepted{0};
        std::atomic<int> run{0};
        std::vector<std::thread> posters;
        std::atomic<int> posting{0};
        for (int i = 0; i < 3; ++i) {
            posters.emplace_back([&] {
                ++posting;
                for (;;) {
                    const Posted posted = worker.post_wait([&run] { ++run; }, 60s);
                    if (posted != Posted::ok) break;
                    ++accepted;
                }
            });
        }
        ASSERT_TRUE(wait_until([&] { return posting == 3 && run > 100; }));
        EXPECT_TRUE(worker.stop(60s));
        for (std::thread& poster : posters) poster.join();
        EXPECT_EQ(accepted, run);
    }
}

TEST_F(EasyWorkerTest, CallAnswersTheResult) {
    pz::Worker worker("tuner");
    const int base = 40;
    const pz::Called<int> answer = worker.call([&] { return base + 2; });
    ASSERT_TRUE(answer);
    EXPECT_EQ(42, *answer);
    EXPECT_EQ(CallError::none, answer.error());
    EXPECT_EQ("text", worker.call([] { return std::string("text"); }).value_or(""));
    EXPECT_TRUE(worker.call([] {}));
}

TEST_F(EasyWorkerTest, CallOnItsOwnThreadIsRefusedInsteadOfWaitingForEver) {
    pz::Worker worker("tuner");
    CallError error = CallError::none;
    EXPECT_TRUE(worker.call([&] { error = worker.call([] { return 1; }).error(); }));
    EXPECT_EQ(CallError::own_thread, error);
}

TEST_F(EasyWorkerTest, GoesOnAfterAHandlerThatThrowsAndReportsIt) {
    pz::Worker worker("tuner");
    StdoutCapture capture;
    worker.post([] { throw std::runtime_error("no signal"); });
    worker.post([] { throw 1; });
    const CallError error = worker.call([]() -> int { throw std::runtime_error("x"); }).error();
    EXPECT_EQ(CallError::failed, error);
    const std::string report = capture.Take();
    EXPECT_NE(std::string::npos, report.find("threw: no signal")) << report;
    EXPECT_NE(std::string::npos, report.find("threw: something that is no std::exception"));
    EXPECT_TRUE(worker.call([] {}));
}

TEST_F(EasyWorkerTest, StopAnswersFalseWithOneReportWhenAHandlerHangs) {
    pz::Worker worker("tuner");
    Busy busy(worker);
    std::atomic<bool> gone{false};
    std::atomic<bool> run{false};
    worker.post([&run, kept = token(gone)] { run = true; });
    StdoutCapture capture;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(worker.stop(20ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 20ms);
    EXPECT_TRUE(gone) << "what still waits is destroyed";
    EXPECT_FALSE(worker.stop(1ms));
    const std::string report = capture.Take();
    EXPECT_EQ(1U, pztest::count_of(report, "has not ended within")) << report;
    EXPECT_NE(std::string::npos,
              report.find("worker [tuner] has not ended within 20 ms: what was posted by "
                          "Busy()@EasyWorkerTest.cpp("))
        << report;
    EXPECT_NE(std::string::npos, report.find("has been running for "));
    busy.Open();
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_FALSE(run);
}

TEST_F(EasyWorkerTest, AHungHandlerKeepsWhatItUsesWhenItsWorkerIsDestroyed) {
    Gate gate;
    std::atomic<int> seen{0};
    {
        StdoutCapture capture;
        {
            pz::WorkerOptions options;
            options.stop_within = 10ms;
            pz::Worker worker("tuner", options);
            worker.post([&gate, &seen, value = std::make_unique<int>(5)] {
                gate.Pass();
                seen = *value;
            });
            ASSERT_TRUE(gate.WaitForArrival());
        }
        EXPECT_NE(std::string::npos, capture.Take().find("has not ended within 10 ms"));
    }
    gate.Open();
    EXPECT_TRUE(wait_until([&] { return seen == 5; }));
}

TEST_F(EasyWorkerTest, ACallThatWaitsIsAnsweredWhenStopGivesUp) {
    pz::Worker worker("tuner");
    Busy busy(worker);
    CallError error = CallError::none;
    std::thread caller([&] { error = worker.call([] {}).error(); });
    ASSERT_TRUE(wait_until([&] { return worker.pending() == 1; }));
    const StdoutCapture capture;
    EXPECT_FALSE(worker.stop(1ms));
    caller.join();
    EXPECT_EQ(CallError::stopped, error);
}

TEST_F(EasyWorkerTest, MayBeDestroyedByAFunctionThatItRuns) {
    std::atomic<int> runs{0};
    auto worker = std::make_unique<pz::Worker>("tuner");
    pz::Worker* const raw = worker.get();
    {
        Busy busy(*raw);
        raw->post([&] {
            EXPECT_FALSE(raw->stop(60s)) << "waits for itself";
            worker.reset();
            ++runs;
        });
        raw->post([&] { ++runs; });
    }
    EXPECT_TRUE(wait_until([&] { return runs == 2; }));
}

TEST_F(EasyWorkerTest, AThreadThatHasDestroyedItsWorkerIsJoinedByTheNextOneBesideOthersThatRun) {
    const pz::Worker first("tuner");
    auto* const second = new pz::Worker("deck");
    ASSERT_EQ(Posted::ok, second->post([second] { delete second; }));
    ASSERT_TRUE(wait_until([] { return pztest::threads_named("deck").empty(); }));
    pthread_join_call.Reset();
    const pz::Worker third("screen");
    EXPECT_EQ(1, pthread_join_call.Calls()) << "what is never joined keeps its stack";
}

TEST_F(EasyWorkerTest, AFunctionMayOwnItsWorker) {
    std::atomic<bool> run{false};
    auto worker = std::make_shared<pz::Worker>("tuner");
    pz::Worker& same = *worker;
    same.post([worker = std::move(worker), &run] { run = true; });
    EXPECT_TRUE(wait_until([&] { return run.load(); }));
}

TEST_F(EasyWorkerTest, AWorkerThatDestroysItselfLivesOnWhileOtherThreadsMakeWorkers) {
    constexpr int kThreads = 16;
    constexpr int kRounds = 250;
    std::atomic<int> alive{0};
    const auto make_and_destroy = [&alive] {
        auto worker = std::make_unique<pz::Worker>("brief");
        const std::weak_ptr<pz::detail::WorkerCore> core = worker->core();
        std::atomic<bool> done{false};
        const auto destroy = [&] {
            worker.reset();
            if (!core.expired()) ++alive;
            done = true;
        };
        pz::Worker& posted = *worker;
        EXPECT_EQ(Posted::ok, posted.post(destroy));
        while (!done) std::this_thread::yield();
    };
    std::vector<std::thread> makers;
    for (int i = 0; i < kThreads; ++i) {
        makers.emplace_back([&make_and_destroy] {
            for (int round = 0; round < kRounds; ++round) make_and_destroy();
        });
    }
    for (std::thread& maker : makers) maker.join();
    EXPECT_EQ(kThreads * kRounds, alive);
}

TEST_F(EasyWorkerTest, AMovedWorkerKeepsItsThread) {
    pz::Worker first("first");
    pz::Worker second(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_EQ(Posted::stopped, first.post([] {}));
    EXPECT_EQ(CallError::stopped, first.call([] {}).error());
    EXPECT_STREQ("", first.name());
    EXPECT_EQ(0U, first.pending());
    EXPECT_EQ(nullptr, first.box());
    EXPECT_TRUE(first.stop());
    EXPECT_TRUE(second.call([] {}));
    std::atomic<int> runs{0};
    pz::Worker third("third");
    third.post([&] { ++runs; });
    third = std::move(second);
    EXPECT_EQ(1, runs) << "the worker that was there has served its posts";
    EXPECT_STREQ("first", third.name());
    pz::Worker& same = third;
    third = std::move(same);
    EXPECT_TRUE(third.call([] {}));
}

TEST_F(EasyWorkerTest, ItsThreadHasThePriorityAndTheWatchTimeOfItsOptions) {
    pz::WorkerOptions options;
    options.priority = en_WORKER_PRIORITY_LOW;
    options.watch_time = 1234ms;
    pz::Worker worker("tuner", options);
    const auto answer = worker.call([] {
        PZThreadMng* const threads = PZThreadMng::GetInstance();
        return std::pair<int, unsigned int>(threads->GetCurrentThreadPriority(),
                                            threads->getWatchTime(pthread_self()));
    });
    // The priority is set when the thread serves already.
    EXPECT_TRUE(wait_until([&] {
        return worker.call([] { return PZThreadMng::GetInstance()->GetCurrentThreadPriority(); })
                   .value_or(0) == en_WORKER_PRIORITY_LOW;
    }));
    ASSERT_TRUE(answer);
    EXPECT_EQ(1234U, answer->second);
}

TEST_F(EasyWorkerTest, OptionsOutOfRangeCountAsTheNearestInRange) {
    const auto seen = [](EN_WORKER_PRIORITY priority, std::chrono::milliseconds watchTime) {
        pz::WorkerOptions options;
        options.priority = priority;
        options.watch_time = watchTime;
        pz::Worker worker("tuner", options);
        return worker.call([] { return PZThreadMng::GetInstance()->getWatchTime(pthread_self()); })
            .value_or(1);
    };
    EXPECT_EQ(~0U, seen(en_WORKER_PRIORITY_NORMAL, std::chrono::milliseconds::max()));
    EXPECT_EQ(0U, seen(en_WORKER_PRIORITY_NORMAL, std::chrono::milliseconds::min()));
    EXPECT_EQ(~0U, seen(en_WORKER_PRIORITY_NORMAL, std::chrono::milliseconds(1LL << 32)));
    EXPECT_EQ(0U, seen(en_WORKER_PRIORITY_NORMAL, -1ms));

    pz::WorkerOptions options;
    options.priority = static_cast<EN_WORKER_PRIORITY>(en_WORKER_PRIORITY_LOWEST + 100);
    pz::Worker low("low", options);
    // The priority is set when the thread serves already.
    EXPECT_TRUE(wait_until([&] {
        return low.call([] { return PZThreadMng::GetInstance()->GetCurrentThreadPriority(); })
                   .value_or(0) == en_WORKER_PRIORITY_LOWEST;
    }));
    EXPECT_TRUE(low.after(1h, [] {}));
}

TEST_F(EasyWorkerTest, AnIdleWorkerEndsWithTheSmallestAndTheLargestBound) {
    for (const auto bound : {std::chrono::milliseconds::min(), std::chrono::milliseconds::max()}) {
        pz::WorkerOptions options;
        options.stop_within = bound;
        const StdoutCapture capture;  // it may not have ended at once, which is reported
        {
            const pz::Worker worker("tuner", options);
            ASSERT_TRUE(worker);
        }
        EXPECT_TRUE(pz::Worker("next"));
    }
}

TEST_F(EasyWorkerTest, ANameMayBeNullEmptyOrTooLong) {
    EXPECT_STREQ("no_name", pz::Worker(nullptr).name());
    EXPECT_STREQ("", pz::Worker("").name());
    EXPECT_EQ(std::string(127, 'x'), pz::Worker(std::string(1000, 'x').c_str()).name());
}

TEST_F(EasyWorkerTest, AHandlerThatEndsItsThreadEndsTheWorker) {
    std::atomic<bool> gone{false};
    pz::Worker worker("tuner");
    worker.post([kept = token(gone)] { pthread_exit(nullptr); });
    EXPECT_TRUE(wait_until([&] { return !worker; }));
    EXPECT_TRUE(gone);
    EXPECT_EQ(Posted::stopped, worker.post([] {}));
    EXPECT_TRUE(worker.stop(60s));
}

TEST_F(EasyWorkerTest, UnitsMayShareItsBox) {
    class Unit : public PZUnitFrame, public PZIDispatcher {
    public:
        ~Unit() override { UnregistMsgBox(); }
        void OnReceiveMsg(unsigned int id, const void*, unsigned int) override { seen = id; }
        void OnReceiveEvent(unsigned int) override {}
        std::atomic<unsigned int> seen{0};
    };
    pz::Worker worker("tuner");
    Unit unit;
    ASSERT_EQ(PZUnitFrame::en_SUCCESS, unit.RegistMsgBox(worker.box(), &unit));
    EXPECT_EQ(PZUnitFrame::en_SUCCESS, unit.SendMsgSelf(9, en_MSG_NORMAL, nullptr, 0));
    EXPECT_TRUE(wait_until([&] { return unit.seen == 9; }));
}

TEST_F(EasyWorkerTest, AnswersALackOfMemoryAndGoesOn) {
    pz::Worker worker("tuner");
    std::atomic<int> sum{0};
    Sized<1000> large = {{}, &sum};
    large.bytes.fill(1);
    const StdoutCapture capture;
    int accepted = 0;
    for (int skip = 0;; ++skip) {
        const MemoryShortage shortage(skip);
        const Posted posted = worker.post_wait(large, 60s);
        if (posted == Posted::ok) ++accepted;
        if (shortage.Refused() == 0) break;
        if (posted == Posted::stopped) break;
    }
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_GE(accepted, 1);
    EXPECT_EQ(accepted * static_cast<int>(large.bytes.size()), sum);
}

TEST_F(EasyWorkerTest, AWorkerThatFindsNoMemoryIsFalse) {
    const StdoutCapture capture;
    bool isStarted = false;
    for (int skip = 0; !isStarted; ++skip) {
        const MemoryShortage shortage(skip);
        pz::Worker worker("tuner");
        if (shortage.Refused() == 0) {
            isStarted = true;
        } else if (worker.post([] {}) != Posted::stopped) {
            break;
        }
    }
    EXPECT_TRUE(isStarted);
}

TEST_F(EasyWorkerTest, AFunctionOfUpTo200BytesIsPostedWithoutAnAllocation) {
    pz::Worker worker("tuner");
    std::atomic<int> sum{0};
    Sized<200> plain = {{}, &sum};
    plain.bytes.fill(1);
    // Not plain bytes: it is kept in the worker.
    const auto kept = [&sum, text = std::string("x")] { sum += static_cast<int>(text.size()); };
    static_assert(!std::is_trivially_copyable_v<decltype(kept)>);
    // The box has grown to its most, on both of its sides.
    for (int round = 0; round < 4; ++round) {
        {
            const Busy busy(worker);
            for (int i = 0; i < kCapacity; ++i) ASSERT_EQ(Posted::ok, worker.post(plain));
        }
        ASSERT_TRUE(worker.call([] {}));
    }
    sum = 0;
    constexpr int kPosts = 100;
    int accepted = 0;
    int refused = 0;
    {
        const MemoryShortage shortage;
        for (int i = 0; i < kPosts; ++i) {
            if (worker.post_wait(plain, 60s) == Posted::ok) ++accepted;
            if (worker.post_wait(kept, 60s) == Posted::ok) ++accepted;
        }
        refused = shortage.Refused();
    }
    EXPECT_EQ(2 * kPosts, accepted);
    EXPECT_EQ(0, refused);
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ(kPosts * (200 - static_cast<int>(sizeof(void*)) + 1), sum);
}

TEST_F(EasyWorkerTest, PlainAndOtherFunctionsShareOneRoomAndOneOrder) {
    pz::Worker worker("tuner");
    std::vector<int> order;
    {
        const Busy busy(worker);
        for (int i = 0; i < kCapacity; ++i) {
            if (i % 2 == 0) {
                ASSERT_EQ(Posted::ok, worker.post([&order, i] { order.push_back(i); }));
            } else {
                const auto number = std::make_shared<int>(i);
                ASSERT_EQ(Posted::ok, worker.post([&order, number] { order.push_back(*number); }));
            }
        }
        EXPECT_EQ(static_cast<size_t>(kCapacity), worker.pending());
        const StdoutCapture capture;
        EXPECT_EQ(Posted::full, worker.post([] {}));
        auto unused = std::make_unique<int>(7);
        EXPECT_EQ(Posted::full, worker.post([kept = std::move(unused)] {}));
    }
    EXPECT_TRUE(worker.stop(60s));
    ASSERT_EQ(static_cast<size_t>(kCapacity), order.size());
    for (int i = 0; i < kCapacity; ++i) EXPECT_EQ(i, order[static_cast<size_t>(i)]);
}

TEST_F(EasyWorkerTest, AFullWorkerLeavesWhatCannotBePostedWithItsOwner) {
    /// Moved into the worker, it leaves nothing behind.
    struct Valuable {
        std::unique_ptr<int> value;
        void operator()() const {}
    };
    pz::Worker worker("tuner");
    const Busy busy(worker);
    for (int i = 0; i < kCapacity; ++i) ASSERT_EQ(Posted::ok, worker.post([] {}));
    Valuable valuable = {std::make_unique<int>(7)};
    EXPECT_EQ(Posted::full, worker.post_wait(std::move(valuable), 1ms));
    EXPECT_NE(nullptr, valuable.value);
}

namespace {

/// Counts how many of them live, and refuses every tenth copy.
class Counted {
public:
    Counted(std::atomic<int>& alive, std::atomic<int>& run, int number)
        : alive_(alive), run_(run), number_(number) {
        ++alive_;
    }
    Counted(const Counted& other) : alive_(other.alive_), run_(other.run_), number_(other.number_) {
        if (number_ % 10 == 0) throw std::bad_alloc();
        ++alive_;
    }
    Counted& operator=(const Counted&) = delete;
    ~Counted() { --alive_; }
    void operator()() const { ++run_; }

private:
    std::atomic<int>& alive_;
    std::atomic<int>& run_;
    const int number_;
};

}  // namespace

TEST_F(EasyWorkerTest, ThreadsThatPostAtOnceUseItsPlacesForFunctionsAgainAndAgain) {
    constexpr int kThreads = 4;
    constexpr int kPosts = 2000;
    std::atomic<int> alive{0};
    std::atomic<int> run{0};
    std::atomic<int> accepted{0};
    pz::Worker worker("tuner");
    std::vector<std::thread> posters;
    for (int i = 0; i < kThreads; ++i) {
        posters.emplace_back([&] {
            for (int number = 0; number < kPosts; ++number) {
                const Counted function(alive, run, number);
                const Posted expected = number % 10 == 0 ? Posted::full : Posted::ok;
                const Posted answer = worker.post_wait(function, 60s);
                EXPECT_EQ(expected, answer);
                accepted += answer == Posted::ok ? 1 : 0;
            }
        });
    }
    for (std::thread& poster : posters) poster.join();
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ(kThreads * kPosts * 9 / 10, accepted);
    EXPECT_EQ(accepted, run);
    EXPECT_EQ(0, alive);
}

TEST_F(EasyWorkerTest, AThreadThatLosesTheRoomToAnotherGoesOnWaitingForIt) {
    std::atomic<int> run{0};
    pz::Worker worker("tuner");
    std::vector<std::thread> posters;
    for (int i = 0; i < 4; ++i) {
        posters.emplace_back([&] {
            for (int number = 0; number < 20000; ++number) {
                EXPECT_EQ(Posted::ok, worker.post_wait([&run] { ++run; }, 60s));
            }
        });
    }
    for (std::thread& poster : posters) poster.join();
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ(80000, run);
}

TEST_F(EasyWorkerTest, WhatWaitsIsNotRunAfterAStopThatGaveUp) {
    pz::Worker worker("tuner");
    Busy busy(worker);
    std::atomic<int> runs{0};
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(Posted::ok, worker.post([&runs] { ++runs; }));
        ASSERT_EQ(Posted::ok, worker.post([&runs, kept = std::make_shared<int>(i)] { ++runs; }));
    }
    {
        const StdoutCapture capture;
        EXPECT_FALSE(worker.stop(1ms));
    }
    busy.Open();
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ(0, runs);
}

TEST_F(EasyWorkerTest, CallOfAnEmptyFunctionFailsAndIsReported) {
    pz::Worker worker("tuner");
    StdoutCapture capture;
    EXPECT_EQ(CallError::failed, worker.call(std::function<int()>()).error());
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "what was posted by TestBody()@"));
    EXPECT_EQ(7, worker.call([] { return 7; }).value_or(0));
}

TEST_F(EasyWorkerTest, CallOfANullPointerFailsAndIsReported) {
    pz::Worker worker("tuner");
    StdoutCapture capture;
    void (*nothing)() = nullptr;
    int (*noResult)() = nullptr;
    EXPECT_EQ(CallError::failed, worker.call(nothing).error());
    EXPECT_EQ(CallError::failed, worker.call(noResult).error());
    EXPECT_EQ(2U, pztest::count_of(capture.Take(), "worker [tuner] refuses a post of TestBody()@"));
    EXPECT_TRUE(worker.call([] {}));
}

TEST_F(EasyWorkerTest, ReportsAPostWhosePlaceHasNoTexts) {
    pz::Worker worker("tuner");
    StdoutCapture capture;
    void (*nothing)() = nullptr;
    EXPECT_EQ(Posted::empty, worker.post(nothing, Priority::normal, pz::Place{}));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "worker [tuner] refuses a post of "));
}

TEST_F(EasyWorkerTest, StopOnItsOwnThreadAnswersAtOnceAndEndsTheWorkerAllTheSame) {
    pz::Worker worker("tuner");
    StdoutCapture capture;
    bool isStopped = true;
    Posted posted = Posted::ok;
    int runs = 0;
    EXPECT_TRUE(worker.call([&] {
        EXPECT_EQ(Posted::ok, worker.post([&runs] { ++runs; }));
        isStopped = worker.stop(std::chrono::milliseconds::max());
        posted = worker.post([&runs] { ++runs; });
    }));
    EXPECT_FALSE(isStopped);
    EXPECT_EQ(Posted::stopped, posted);
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ(1, runs);
    EXPECT_EQ("", capture.Take());
}

TEST_F(EasyWorkerTest, EveryOperationOfAStoppedWorkerIsAnswered) {
    pz::Worker worker("tuner");
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_FALSE(worker);
    EXPECT_EQ(Posted::stopped, worker.post([kept = std::make_unique<int>(1)] {}));
    EXPECT_EQ(CallError::stopped, worker.call([] { return 1; }).error());
    EXPECT_TRUE(worker.stop());
    EXPECT_STREQ("tuner", worker.name());
    EXPECT_FALSE(worker.is_own_thread());
    EXPECT_EQ(0U, worker.pending());
    EXPECT_NE(nullptr, worker.box());
    EXPECT_LE(0ms, worker.now());
    StdoutCapture capture;
    EXPECT_FALSE(worker.every(1s, [] {}));
    EXPECT_FALSE(worker.after(0ms, [] {}));
    EXPECT_EQ(2U, pztest::count_of(capture.Take(), "the worker does not run"));
}

TEST_F(EasyWorkerTest, PrioritiesAbove255CountAs255) {
    pz::Worker worker("tuner");
    std::string order;
    {
        const Busy busy(worker);
        worker.post([&] { order += 'a'; }, static_cast<Priority>(1000));
        worker.post([&] { order += 'b'; }, Priority::lowest);
        worker.post([&] { order += 'c'; }, static_cast<Priority>(~0U));
        worker.post([&] { order += 'd'; }, static_cast<Priority>(254));
    }
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_EQ("dabc", order);
}

TEST_F(EasyWorkerTest, StopWithANegativeTimeDoesNotWait) {
    pz::Worker worker("tuner");
    Busy busy(worker);
    {
        const StdoutCapture capture;
        EXPECT_FALSE(worker.stop(std::chrono::milliseconds::min()));
    }
    busy.Open();
    EXPECT_TRUE(worker.stop(std::chrono::milliseconds::max()));
}

TEST_F(EasyWorkerTest, EveryOperationOfAWorkerThatWasMovedFromIsAnswered) {
    pz::Worker first("tuner");
    const pz::Worker second(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_EQ(Posted::stopped, first.post([] {}));
    EXPECT_EQ(Posted::stopped, first.post([kept = std::make_unique<int>(1)] {}));
    EXPECT_EQ(Posted::stopped, first.post_wait([] {}, 60s));
    EXPECT_EQ(CallError::stopped, first.call([] { return 1; }).error());
    EXPECT_TRUE(first.stop());
    EXPECT_TRUE(first.stop(0ms));
    EXPECT_STREQ("", first.name());
    EXPECT_FALSE(first.is_own_thread());
    EXPECT_EQ(0U, first.pending());
    EXPECT_EQ(nullptr, first.box());
    EXPECT_EQ(0ms, first.now());
}

TEST_F(EasyWorkerTest, CallDoesNotCopyItsFunctionAndAnswersAReferenceAsACopy) {
    struct Counter {
        Counter() = default;
        Counter(const Counter&) = delete;
        Counter& operator=(const Counter&) = delete;
        std::string& operator()() {
            ++calls;
            return text;
        }
        int calls = 0;
        std::string text = "text";
    };
    pz::Worker worker("tuner");
    Counter counter;
    pz::Called<std::string> answer = worker.call(counter);
    ASSERT_TRUE(answer);
    EXPECT_EQ(1, counter.calls);
    EXPECT_EQ(4U, answer->size());
    *answer += " of the caller";
    EXPECT_EQ("text", counter.text);
    const pz::Called<std::string> none(CallError::stopped);
    EXPECT_FALSE(none);
    EXPECT_EQ("other", none.value_or("other"));
    EXPECT_EQ("text of the caller", answer.value_or("other"));
}

TEST_F(EasyWorkerTest, PendingCountsTheMessagesOfUnitsToo) {
    pz::Worker worker("tuner");
    Unit unit;
    ASSERT_EQ(PZUnitFrame::en_SUCCESS, unit.RegistMsgBox(worker.box(), &unit));
    {
        const Busy busy(worker);
        EXPECT_EQ(0U, worker.pending()) << "what runs waits no more";
        worker.post([] {});
        EXPECT_EQ(PZUnitFrame::en_SUCCESS, unit.SendMsgSelf(9, en_MSG_NORMAL, nullptr, 0));
        EXPECT_EQ(2U, worker.pending());
    }
    EXPECT_TRUE(worker.call([] {}));
    EXPECT_EQ(0U, worker.pending());
}

TEST_F(EasyWorkerTest, ReportsOfItsBoxNameTheNumberOfItsOptions) {
    pz::WorkerOptions options;
    options.number = 17;
    pz::Worker worker("tuner", options);
    Unit unit;
    ASSERT_EQ(PZUnitFrame::en_SUCCESS, unit.RegistMsgBox(worker.box(), &unit));
    const Busy busy(worker);
    StdoutCapture capture;
    int sent = 0;
    while (sent <= kCapacity &&
           unit.SendMsgSelf(9, en_MSG_NORMAL, nullptr, 0) == PZUnitFrame::en_SUCCESS) {
        ++sent;
    }
    EXPECT_EQ(kCapacity, sent) << "units share the room with the posts";
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "msg queue is full : worker[17]"));
}

TEST_F(EasyWorkerTest, AnExceptionOfACopyLeavesThePostAndNothingElseBehind) {
    struct Throwing {
        explicit Throwing(bool isShort) : lacksMemory(isShort) {}
        Throwing(const Throwing& other) : lacksMemory(other.lacksMemory) {
            if (lacksMemory) throw std::bad_alloc();
            throw std::runtime_error("no copy");
        }
        Throwing& operator=(const Throwing&) = delete;
        void operator()() const {}
        bool lacksMemory;
    };
    pz::Worker worker("tuner");
    const Throwing throwing(false);
    const Throwing lacking(true);
    StdoutCapture capture;
    for (int i = 0; i <= kCapacity; ++i) {
        EXPECT_THROW(worker.post(throwing), std::runtime_error);
        EXPECT_EQ(Posted::full, worker.post_wait(lacking, 0ms));
    }
    EXPECT_EQ("", capture.Take());
    EXPECT_EQ(Posted::full, worker.post(lacking));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "worker [tuner] refuses a post of TestBody()@"));
    const Busy busy(worker);
    EXPECT_EQ(0U, worker.pending());
    for (int i = 0; i < kCapacity; ++i) {
        ASSERT_EQ(Posted::ok, worker.post([kept = std::make_unique<int>(i)] {}));
    }
}

TEST_F(EasyWorkerTest, WaitsForMemoryWithPauses) {
    pz::Worker worker("tuner");
    ASSERT_TRUE(worker);
    Posted answer = Posted::ok;
    int refused = 0;
    {
        const MemoryShortage shortage;
        answer = worker.post_wait([] {}, 100ms);
        refused = shortage.Refused();
    }
    EXPECT_EQ(Posted::full, answer);
    EXPECT_LE(1, refused);
    EXPECT_GE(50, refused) << "one for each pause, and not as many as a processor can make";
}

TEST_F(EasyWorkerTest, AfterAStopThatHasFailedTheDestructorDoesNotWaitAgain) {
    std::atomic<bool> gone{false};
    const auto gate = std::make_shared<Gate>();
    pz::WorkerOptions options;
    options.stop_within = 60s;
    const auto start = std::chrono::steady_clock::now();
    {
        pz::Worker worker("tuner", options);
        worker.post([gate, kept = token(gone)] { gate->Pass(); });
        ASSERT_TRUE(gate->WaitForArrival());
        const StdoutCapture capture;
        EXPECT_FALSE(worker.stop(1ms));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 30s);
    EXPECT_FALSE(gone);
    gate->Open();
    EXPECT_TRUE(wait_until([&] { return gone.load(); }));
}

TEST_F(EasyWorkerTest, WithoutOptionsItHangsAfterFourSecondsAndStopsWithinThree) {
    const pz::WorkerOptions options;
    EXPECT_EQ(3s, options.stop_within);
    EXPECT_EQ(0U, options.number);
    EXPECT_FALSE(options.priority);
    pz::Worker worker("tuner");
    EXPECT_EQ(4000U,
              worker.call([] { return PZThreadMng::GetInstance()->getWatchTime(pthread_self()); })
                  .value_or(0));
}

TEST_F(EasyWorkerTest, StopWaitsForTheEndOfTheThreadAndOfItsOwnObjects) {
    /// Takes its time to end with its thread.
    struct OfThread {
        ~OfThread() {
            if (ended == nullptr) return;
            std::this_thread::sleep_for(50ms);
            *ended = true;
        }
        std::atomic<bool>* ended = nullptr;
    };
    std::atomic<bool> ended{false};
    pz::Worker worker("tuner");
    worker.post([&ended] {
        static thread_local OfThread object;
        object.ended = &ended;
    });
    EXPECT_TRUE(worker.stop(60s));
    EXPECT_TRUE(ended);
}

TEST_F(EasyWorkerTest, AWorkerWhoseThreadIsRefusedIsFalseAndStopsAtOnce) {
    StdoutCapture capture;
    pthread_create_call.FailNext(EAGAIN);
    pz::Worker worker("tuner");
    EXPECT_FALSE(worker);
    EXPECT_EQ(Posted::stopped, worker.post([] {}));
    EXPECT_TRUE(worker.stop());
    EXPECT_EQ(0U, pztest::count_of(capture.Take(), "has not ended within"));
    EXPECT_TRUE(pz::Worker("tuner").call([] {}));
}

TEST_F(EasyWorkerTest, AWorkerThatFindsNoDescriptorsIsFalseAndSaysSo) {
    // The sanitizer needs descriptors, too, when it meets a type for the first time.
    EXPECT_TRUE(pz::Worker("first").call([] {}));
    StdoutCapture capture;
    {
        const pztest::FewDescriptors few(0);
        pz::Worker worker("tuner");
        EXPECT_FALSE(worker);
        EXPECT_EQ(Posted::stopped, worker.post([] {}));
        EXPECT_TRUE(worker.stop());
    }
    const std::string report = capture.Take();
    EXPECT_EQ(1U, pztest::count_of(report, "worker [tuner] does not serve")) << report;
    EXPECT_EQ(0U, pztest::count_of(report, "has not ended within")) << report;
    EXPECT_TRUE(pz::Worker("tuner").call([] {}));
}

TEST_F(EasyWorkerTest, AStopThatGivesUpDestroysEveryFunctionThatWaits) {
    const auto gate = std::make_shared<Gate>();
    std::array<std::atomic<bool>, 3> gone = {};
    pz::Worker worker("tuner");
    worker.post([at = gate.get()] { at->Pass(); });
    ASSERT_TRUE(gate->WaitForArrival());
    for (std::atomic<bool>& one : gone) worker.post([kept = token(one)] {});
    {
        const StdoutCapture capture;
        EXPECT_FALSE(worker.stop(1ms));
    }
    for (const std::atomic<bool>& one : gone) EXPECT_TRUE(one);
    gate->Open();
    EXPECT_TRUE(worker.stop(60s));
}

TEST_F(EasyWorkerTest, AStopThatGivesUpDoesNotBlameAPostThatIsDone) {
    /// Hangs with its message.
    class HangingUnit : public PZUnitFrame, public PZIDispatcher {
    public:
        ~HangingUnit() override { UnregistMsgBox(); }
        void OnReceiveMsg(unsigned int, const void*, unsigned int) override { gate.Pass(); }
        void OnReceiveEvent(unsigned int) override {}
        Gate gate;
    };
    for (const bool isPlain : {true, false}) {
        pz::Worker worker("tuner");
        HangingUnit unit;
        ASSERT_EQ(0, unit.RegistMsgBox(worker.box(), &unit));
        if (isPlain) {
            ASSERT_EQ(Posted::ok, worker.post([] {}));
        } else {
            ASSERT_EQ(Posted::ok, worker.post([kept = std::make_unique<int>(1)] {}));
        }
        ASSERT_EQ(0, unit.SendMsgSelf(1, en_MSG_NORMAL, nullptr, 0));
        ASSERT_TRUE(unit.gate.WaitForArrival());
        StdoutCapture capture;
        EXPECT_FALSE(worker.stop(1ms));
        const std::string report = capture.Take();
        EXPECT_NE(std::string::npos, report.find("within 1 ms: no post is being run")) << report;
        unit.gate.Open();
        EXPECT_TRUE(worker.stop(60s));
    }
}
