#include <ucontext.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZPriorityQueue.h>
#include <Framework/Foundation/private/PZHandOver.h>

#include "support/Uncopyable.h"

// The hand-over in every order that its threads can take turns in.
//
// The threads are coroutines, which stop before each access to what they share: taking and giving
// back the lock, each atomic access, wake-up and wait. The explorer runs the program again and
// again, and decides at each stop who goes on, until every decision has been taken in every state.

namespace {

constexpr size_t kStackSize = 64 * 1024;

class Explorer;
Explorer* explorer = nullptr;  // of the program that runs

/// One run of some threads, steered from outside.
class Explorer {
public:
    using Body = std::function<void()>;
    using Condition = std::function<bool()>;

    /// What the program has in common, as far as it decides what happens next.
    using State = std::vector<std::uint64_t>;

    struct Program {
        std::vector<Body> threads;
        std::function<State()> state;
        std::function<std::string()> verdict;  ///< when nobody can go on; empty: as it must be
    };

    /// The first failure, or an empty text when there is none. `setUp` makes the program again.
    std::string Explore(const std::function<Program()>& setUp) {
        decisions_.clear();
        do {
            ++runs_;
            const std::string failure = RunOnce(setUp());
            if (!failure.empty()) return failure + "; order: " + Order();
        } while (NextDecisions());
        return "";
    }

    size_t Runs() const { return runs_; }
    size_t States() const { return seen_.size(); }

    /// Called by a thread before each access: it goes on when it is its turn and `condition` holds.
    void Stop(const Condition& condition = [] { return true; }) {
        Thread& self = *threads_[current_];
        self.condition = condition;
        swapcontext(&self.context, &scheduler_);
    }

    /// Called by a thread with what it has read: it may decide by it what to do.
    void Note(std::uint64_t value) {
        Thread& self = *threads_[current_];
        self.history = (self.history ^ value) * 1099511628211U + 1;
    }

    /// Called by a thread at a `place` in its program where only the state decides what it does
    /// next: what it has read before counts no more.
    void Forget(std::uint64_t place) {
        Thread& self = *threads_[current_];
        self.history = place;
        self.steps = 0;
    }

    /// Called when something happens that must not.
    void Fail(const std::string& what) {
        if (failure_.empty()) failure_ = what;
    }

private:
    struct Thread {
        ucontext_t context;
        std::array<char, kStackSize> stack;
        Body body;
        Condition condition;
        std::uint64_t history = 0;
        std::uint64_t steps = 0;
        bool finished = false;
    };
    struct Decision {
        std::vector<size_t> options;
        size_t taken = 0;
    };

    static void Enter() {
        Thread& self = *explorer->threads_[explorer->current_];
        self.body();
        self.finished = true;
        swapcontext(&self.context, &explorer->scheduler_);
    }

    std::string RunOnce(const Program& program) {
        explorer = this;
        failure_.clear();
        threads_.resize(program.threads.size());
        for (size_t i = 0; i < threads_.size(); ++i) Prepare(i, program.threads[i]);
        for (size_t step = 0;; ++step) {
            const std::vector<size_t> options = Ready();
            if (options.empty()) return program.verdict();
            if (step == decisions_.size()) {
                if (!seen_.insert(WholeState(program)).second)
                    return "";  // went on from here before
                decisions_.push_back({options, 0});
            }
            current_ = decisions_[step].options[decisions_[step].taken];
            ++threads_[current_]->steps;
            swapcontext(&scheduler_, &threads_[current_]->context);
            if (!failure_.empty()) return failure_;
        }
    }

    void Prepare(size_t index, const Body& body) {
        if (threads_[index] == nullptr) threads_[index] = std::make_unique<Thread>();
        Thread& thread = *threads_[index];
        thread.body = body;
        thread.condition = [] { return true; };
        thread.history = 0;
        thread.steps = 0;
        thread.finished = false;
        getcontext(&thread.context);
        thread.context.uc_stack.ss_sp = thread.stack.data();
        thread.context.uc_stack.ss_size = thread.stack.size();
        thread.context.uc_link = nullptr;
        makecontext(&thread.context, &Explorer::Enter, 0);
    }

    std::vector<size_t> Ready() const {
        std::vector<size_t> ready;
        for (size_t i = 0; i < threads_.size(); ++i) {
            if (!threads_[i]->finished && threads_[i]->condition()) ready.push_back(i);
        }
        return ready;
    }

    State WholeState(const Program& program) const {
        State state = program.state();
        for (const auto& thread : threads_) {
            state.push_back(thread->steps);
            state.push_back(thread->history);
        }
        return state;
    }

    /// The last decision that has another option takes it, and those behind it are forgotten.
    bool NextDecisions() {
        while (!decisions_.empty()) {
            Decision& last = decisions_.back();
            if (++last.taken < last.options.size()) return true;
            decisions_.pop_back();
        }
        return false;
    }

    std::string Order() const {
        std::string order;
        for (const Decision& decision : decisions_) {
            order += static_cast<char>('0' + decision.options[decision.taken]);
        }
        return order;
    }

    std::vector<std::unique_ptr<Thread>> threads_;
    std::vector<Decision> decisions_;
    std::set<State> seen_;
    ucontext_t scheduler_ = {};
    size_t current_ = 0;
    size_t runs_ = 0;
    std::string failure_;
};

// What the hand-over shares, in the explorer's world.

bool destroyed = false;  // nothing may be touched any more

void stop_before_access(const Explorer::Condition& condition = [] { return true; }) {
    explorer->Stop(condition);
    if (destroyed) explorer->Fail("touched after destruction");
}

struct ModelSync {
    bool held = false;
};

class ModelGuard : private pztest::Uncopyable {
public:
    explicit ModelGuard(ModelSync& sync) : sync_(sync) {
        stop_before_access([&sync] { return !sync.held; });
        sync_.held = true;
    }
    ~ModelGuard() {
        stop_before_access();
        sync_.held = false;
    }

private:
    ModelSync& sync_;
};

class ModelAtomic {
public:
    explicit ModelAtomic(unsigned int value) : value_(value) { all.push_back(this); }

    unsigned int load() const {
        stop_before_access();
        explorer->Note(value_);
        return value_;
    }
    void store(unsigned int value) {
        stop_before_access();
        value_ = value;
    }
    void fetch_add(unsigned int more) { Add(more); }
    void fetch_sub(unsigned int less) { Add(0U - less); }
    void compare_exchange(unsigned int expected, unsigned int value) {
        stop_before_access();
        if (value_ == expected) value_ = value;
    }

    unsigned int Value() const { return value_; }

    static std::vector<const ModelAtomic*> all;

private:
    void Add(unsigned int more) {
        stop_before_access();
        value_ += more;
    }

    unsigned int value_;
};
std::vector<const ModelAtomic*> ModelAtomic::all;

struct Number {
    unsigned int value;
};

/// The box's own queue; what lies in it is part of the state.
class ModelQueue : public PZPriorityQueue<Number> {
public:
    explicit ModelQueue(unsigned int max) : PZPriorityQueue<Number>(max) { all.push_back(this); }

    void AppendTo(Explorer::State& state) const {
        state.push_back(size());
        for (PZPriorityQueue<Number> rest = *this; !rest.empty(); rest.pop()) {
            state.push_back(rest.top().value * 256 + rest.top().priority);
        }
    }

    static std::vector<const ModelQueue*> all;
};
std::vector<const ModelQueue*> ModelQueue::all;

enum class EN_MODEL_RESULT : int { WOKEN, END, ERROR };

struct ModelWait {
    bool woken = false;
    unsigned int ends = 0;
    unsigned int endsAnswered = 0;
    unsigned int failingWakes = 0;
    unsigned int failingWaits = 0;
    bool isWaiting = false;
    bool looks = false;

    /// One test, at any time, stands for many: those that find nothing change nothing.
    template <typename HasWork>
    bool Look(HasWork hasWork) {
        return looks && hasWork();
    }
    int Wake() {
        stop_before_access();
        if (failingWakes > 0) {
            --failingWakes;
            return 0;
        }
        woken = true;
        return 1;
    }
    void End() {
        stop_before_access();
        ++ends;
    }
    EN_MODEL_RESULT Wait() {
        isWaiting = true;
        stop_before_access([this] { return woken || ends > 0 || failingWaits > 0; });
        isWaiting = false;
        explorer->Note(failingWaits * 100 + ends * 10 + (woken ? 1 : 0));
        if (failingWaits > 0) {
            --failingWaits;
            return EN_MODEL_RESULT::ERROR;
        }
        if (ends > 0) {
            --ends;
            ++endsAnswered;
            return EN_MODEL_RESULT::END;
        }
        woken = false;
        return EN_MODEL_RESULT::WOKEN;
    }
    void DiscardWakeUps() {
        stop_before_access();
        woken = false;
    }
};

struct ModelEnv {
    using Sync = ModelSync;
    using Guard = ModelGuard;
    using Atomic = ModelAtomic;
    using Message = Number;
    using Queue = ModelQueue;
    using Wait = ModelWait;
    using Result = EN_MODEL_RESULT;
    static constexpr Result kWoken = EN_MODEL_RESULT::WOKEN;
    static constexpr Result kEnd = EN_MODEL_RESULT::END;
    static constexpr Result kError = EN_MODEL_RESULT::ERROR;
};

constexpr size_t kWakers = 3;  // the hand-over's fourth atomic
constexpr unsigned int kOrdinary = 1;

/// A box reduced to numbers, with the hand-over that is to be tried.
template <typename HandOver, unsigned int kRoom = 3>
struct ModelBox {
    struct Posted {
        unsigned int number;
        unsigned int priority;
        bool served;
    };

    ModelSync sync;
    ModelWait wait;
    HandOver handOver{sync, wait, kRoom};
    std::vector<Posted> posted;  // in the order of the lock
    std::vector<unsigned int> served;
    std::vector<size_t> servedBeforePosts;  // how many were when each post began
    size_t known = 0;                       // how many were posted when the pass began
    std::set<unsigned int> failed;          // posts that could not wake the loop
    unsigned int refused = 0;
    unsigned int failedWaits = 0;
    bool loopEnded = false;

    /// Whether the loop was woken, if it was asleep; a refused message fails nothing.
    bool Post(unsigned int number, unsigned int priority = kOrdinary) {
        explorer->Forget(number);
        const size_t servedBefore = served.size();
        servedBeforePosts.push_back(servedBefore);
        unsigned int sleep = 0;
        {
            const ModelGuard guard(sync);
            if (handOver.IsFullLocked()) {
                if (posted.size() - servedBefore < kRoom) explorer->Fail("refused with room");
                ++refused;
                return true;
            }
            sleep =
                handOver.PostLocked(priority, [number](Number& queued) { queued.value = number; });
            posted.push_back({number, priority, false});
            // One more is out whose service has just begun.
            if (posted.size() - served.size() > kRoom + 1)
                explorer->Fail("more than there is room");
        }
        if (sleep == 0) return true;
        return handOver.WakeFrom(sleep, [this, number] {
            stop_before_access();
            failed.insert(number);
        });
    }

    void Loop() {
        handOver.Run([this] { ServePass(); }, [this] { ++failedWaits; });
        loopEnded = true;
    }

    /// One message, as a pass of the box without emergencies and events.
    void ServePass() {
        explorer->Forget(1);
        known = posted.size();
        Number message = {0};
        if (handOver.Take([](const Number&) { return true; }, message)) Serve(message.value);
        known = 0;
    }

    /// What was posted before the pass is not to wait for a later or less urgent one.
    void Serve(unsigned int number) {
        size_t index = 0;
        while (index < posted.size() && posted[index].number != number) ++index;
        if (index == posted.size() || posted[index].served) return explorer->Fail("served twice");
        for (size_t i = 0; i < posted.size(); ++i) {
            const bool before = posted[i].priority == posted[index].priority
                                    ? i < index
                                    : i < known && posted[i].priority < posted[index].priority;
            if (before && !posted[i].served) explorer->Fail("served out of order");
        }
        posted[index].served = true;
        served.push_back(number);
    }

    /// The loop has begun: discards, as PZLMsgBox does.
    void Begin() {
        const ModelGuard guard(sync);
        posted.clear();
        handOver.BeginLocked();
        handOver.AwakeLocked();
    }

    bool IsAllServed() const { return served.size() == posted.size(); }

    Explorer::State State() const {
        Explorer::State state = {sync.held ? 1U : 0U, wait.woken ? 1U : 0U, wait.ends,
                                 wait.failingWakes,   wait.failingWaits,    refused,
                                 loopEnded ? 1U : 0U, destroyed ? 1U : 0U};
        for (const ModelAtomic* atomic : ModelAtomic::all) state.push_back(atomic->Value());
        for (const ModelQueue* queue : ModelQueue::all) queue->AppendTo(state);
        state.push_back(posted.size());
        for (const Posted& post : posted) state.push_back(post.number * 2 + (post.served ? 1 : 0));
        for (const unsigned int number : served) state.push_back(number);
        state.push_back(wait.endsAnswered);
        state.push_back(known);
        for (const size_t count : servedBeforePosts) state.push_back(count);
        for (const unsigned int number : failed) state.push_back(number);
        return state;
    }
};

using Box = ModelBox<PZHandOver<ModelEnv>>;

class PZHandOverTest : public testing::Test {
protected:
    /// Explores the threads that `threadsOf` makes for a new box; `verdict` judges where it ends.
    template <typename AnyBox>
    std::string Explore(
        const std::function<std::vector<Explorer::Body>(AnyBox&)>& threadsOf,
        const std::function<std::string(const AnyBox&)>& verdict,
        const std::function<void(AnyBox&)>& prepare = [](AnyBox&) {}) {
        std::shared_ptr<AnyBox> box;
        return all.Explore([&]() -> Explorer::Program {
            destroyed = false;
            ModelAtomic::all.clear();
            ModelQueue::all.clear();
            box = std::make_shared<AnyBox>();
            prepare(*box);
            return {threadsOf(*box), [&box] { return box->State(); },
                    [&box, verdict] { return verdict(*box); }};
        });
    }

    Explorer all;
};

/// Everybody has posted: nothing may be left while the loop waits.
template <typename AnyBox>
std::string nothing_is_left(const AnyBox& box) {
    if (!box.wait.isWaiting) return "the loop does not wait";
    return box.IsAllServed() ? "" : "asleep with work";
}

/// The body of a loop's thread.
template <typename AnyBox>
Explorer::Body looping(AnyBox& box) {
    return [&box] {
        box.Begin();
        box.Loop();
    };
}

/// Lets the other threads go on until the loop waits.
template <typename AnyBox>
void await_its_wait(const AnyBox& box) {
    explorer->Stop([&box] { return box.wait.isWaiting; });
}

/// The body of a thread that posts these when the loop waits.
template <typename AnyBox>
Explorer::Body posting(AnyBox& box, const std::vector<unsigned int>& numbers) {
    return [&box, numbers] {
        await_its_wait(box);
        for (const unsigned int number : numbers) box.Post(number);
    };
}

// What every order comes to

TEST_F(PZHandOverTest, LeavesNothingThatTwoThreadsPostUnserved) {
    const std::string failure = Explore<Box>(
        [](Box& box) -> std::vector<Explorer::Body> {
            return {looping(box), posting(box, {10, 11}), posting(box, {20})};
        },
        nothing_is_left<Box>, [](Box& box) { box.wait.looks = true; });
    EXPECT_EQ("", failure);
    EXPECT_GT(all.States(), 1000U);
}

/// Each of the two posts something ordinary and something more urgent.
template <typename AnyBox>
std::vector<Explorer::Body> loop_and_urgent_posts(AnyBox& box) {
    return {looping(box),
            [&box] {
                await_its_wait(box);
                box.Post(10);
                box.Post(11, 0);
            },
            posting(box, {20})};
}

TEST_F(PZHandOverTest, ServesTheMoreUrgentFirstAndEqualsInTheOrderTheyCame) {
    const std::string failure = Explore<Box>(loop_and_urgent_posts<Box>, nothing_is_left<Box>);
    EXPECT_EQ("", failure);
}

TEST_F(PZHandOverTest, RefusesAMessageOnlyWhileThereIsNoRoom) {
    using SmallBox = ModelBox<PZHandOver<ModelEnv>, 2>;
    unsigned int mostRefused = 0;
    const std::string failure = Explore<SmallBox>(
        [](SmallBox& box) -> std::vector<Explorer::Body> {
            return {looping(box), posting(box, {10, 11, 12, 13, 14})};
        },
        [&mostRefused](const SmallBox& box) -> std::string {
            mostRefused = std::max(mostRefused, box.refused);
            return nothing_is_left(box);
        });
    EXPECT_EQ("", failure);
    EXPECT_EQ(3U, mostRefused);  // by a loop that takes nothing meanwhile
}

TEST_F(PZHandOverTest, LeavesNothingUnservedThatIsPostedWhileTheLoopBegins) {
    bool hasBegun = false;
    const std::string failure = Explore<Box>(
        [&hasBegun](Box& box) -> std::vector<Explorer::Body> {
            hasBegun = false;
            return {[&box, &hasBegun] {
                        box.Begin();
                        hasBegun = true;
                        box.Loop();
                    },
                    [&box, &hasBegun] {
                        box.Post(9);  // served or discarded
                        explorer->Stop([&hasBegun] { return hasBegun; });
                        box.Post(10);
                    }};
        },
        [](const Box& box) -> std::string {
            if (!box.wait.isWaiting || !box.IsAllServed()) return "asleep with work";
            if (box.served.empty()) return "served nothing";
            return box.served.back() == 10 ? "" : "did not serve the last post";
        },
        [](Box& box) { box.wait.looks = true; });
    EXPECT_EQ("", failure);
}

TEST_F(PZHandOverTest, ServesEverythingThatWasPostedBeforeTheEnd) {
    const std::string failure = Explore<Box>(
        [](Box& box) -> std::vector<Explorer::Body> {
            return {looping(box),
                    [&box] {
                        await_its_wait(box);
                        box.Post(10);
                        box.Post(11);
                        box.wait.End();
                    },
                    [&box] {
                        await_its_wait(box);
                        box.Post(20);  // before the end, or never served
                    }};
        },
        [](const Box& box) -> std::string {
            if (!box.loopEnded) return "did not end";
            unsigned int ownPosts = 0;
            for (const unsigned int number : box.served) ownPosts += number < 20 ? 1 : 0;
            return ownPosts == 2 ? "" : "ended too early";
        });
    EXPECT_EQ("", failure);
}

TEST_F(PZHandOverTest, WakesWithTheNextPostWhatAFailedWakeUpHasLeft) {
    std::array<bool, 3> answered = {};
    const std::string failure = Explore<Box>(
        [&answered](Box& box) -> std::vector<Explorer::Body> {
            answered = {};
            return {looping(box),
                    [&box, &answered] {
                        await_its_wait(box);
                        answered[0] = box.Post(10);
                        answered[1] = box.Post(11);
                    },
                    [&box, &answered] {
                        await_its_wait(box);
                        answered[2] = box.Post(20);
                    }};
        },
        [&answered](const Box& box) -> std::string {
            if (!box.wait.isWaiting) return "the loop does not wait";
            // One wake-up failed; of three posts the others have found a loop that serves.
            if (!answered[1] && !answered[2]) return "two posts failed for one wake-up";
            return box.IsAllServed() ? "" : "asleep with work";
        },
        [](Box& box) {
            box.wait.failingWakes = 1;
            box.wait.looks = true;
        });
    EXPECT_EQ("", failure);
}

TEST_F(PZHandOverTest, AnswersAFailureForEachPostThatLeavesTheLoopAsleep) {
    std::array<bool, 2> answered = {};
    const std::string failure = Explore<Box>(
        [&answered](Box& box) -> std::vector<Explorer::Body> {
            answered = {true, true};
            return {looping(box),
                    [&box, &answered] {
                        await_its_wait(box);
                        answered[0] = box.Post(10);
                    },
                    [&box, &answered] {
                        await_its_wait(box);
                        answered[1] = box.Post(20);
                    }};
        },
        [&answered](const Box& box) -> std::string {
            if (!box.served.empty()) return "served without a wake-up";
            return !answered[0] && !answered[1] ? "" : "answered 0 to a loop that sleeps";
        },
        [](Box& box) { box.wait.failingWakes = 2; });
    EXPECT_EQ("", failure);
}

TEST_F(PZHandOverTest, ServesEverythingAfterWaitsThatFail) {
    const std::string failure = Explore<Box>(
        [](Box& box) -> std::vector<Explorer::Body> {
            return {looping(box), posting(box, {10, 11})};
        },
        nothing_is_left<Box>, [](Box& box) { box.wait.failingWaits = 2; });
    EXPECT_EQ("", failure);
}

TEST_F(PZHandOverTest, APostTouchesItNoMoreOnceItSaysThatNobodyWakesTheLoop) {
    const std::string failure = Explore<Box>(
        [](Box& box) -> std::vector<Explorer::Body> {
            return {looping(box), posting(box, {10}), [&box] {
                        // Who waits for the message to be served, and destroys the box then.
                        explorer->Stop([&box] { return box.served.size() == 1; });
                        box.wait.End();
                        explorer->Stop([&box] { return box.loopEnded; });
                        explorer->Stop([] { return ModelAtomic::all.at(kWakers)->Value() == 0; });
                        EXPECT_FALSE(box.handOver.IsBeingWoken());
                        destroyed = true;
                    }};
        },
        [](const Box&) -> std::string { return destroyed ? "" : "was not destroyed"; });
    EXPECT_EQ("", failure);
}

// The explorer finds the classic mistakes.

/// What broken hand-overs have in common: one queue under the lock.
class OneQueue {
public:
    using Sleep = unsigned int;

    OneQueue(ModelSync& sync, ModelWait& wait, unsigned int room)
        : sync_(sync), wait_(wait), queue_(room) {}

    bool IsFullLocked() const { return queue_.size() >= queue_.capacity(); }
    template <typename Fill>
    Sleep PostLocked(unsigned int priority, Fill fill) {
        fill(queue_.Insert(priority));
        pieces_.store(pieces_.load() + 1);
        return sleep_.load();
    }
    void BeginLocked() { queue_.Clear(); }
    void AwakeLocked() { sleep_.store(0); }

    template <typename IsWanted>
    bool Take(IsWanted /*isWanted*/, Number& message) {
        const ModelGuard guard(sync_);
        if (queue_.empty()) return false;
        message = queue_.top();
        queue_.pop();
        pieces_.store(pieces_.load() - 1);
        return true;
    }

protected:
    bool IsIdle() const { return pieces_.load() == 0; }

    ModelSync& sync_;
    ModelWait& wait_;
    ModelQueue queue_;
    ModelAtomic pieces_{0};
    ModelAtomic sleep_{0};
};

/// A hand-over whose loop tests for work, says that it sleeps, and does not test again.
class TestsOnlyOnce : public OneQueue {
public:
    using OneQueue::OneQueue;

    template <typename NotWoken>
    bool WakeFrom(Sleep /*sleep*/, NotWoken /*notWoken*/) {
        sleep_.store(0);
        return wait_.Wake() == 1;
    }

    template <typename ServePass, typename WaitFailed>
    void Run(ServePass servePass, WaitFailed /*waitFailed*/) {
        for (;;) {
            if (IsIdle()) {
                sleep_.store(1);
                wait_.Wait();
            }
            servePass();
        }
    }
};

/// Tests again under the lock, but its sleeps have no numbers: a late post ends the next one's.
class CallsEverySleepAlike : public OneQueue {
public:
    using OneQueue::OneQueue;

    template <typename NotWoken>
    bool WakeFrom(Sleep /*sleep*/, NotWoken /*notWoken*/) {
        const bool woken = wait_.Wake() == 1;
        if (woken) sleep_.store(0);
        return woken;
    }

    template <typename ServePass, typename WaitFailed>
    void Run(ServePass servePass, WaitFailed /*waitFailed*/) {
        for (;;) {
            if (IsIdle()) Rest();
            servePass();
        }
    }

private:
    void Rest() {
        {
            const ModelGuard guard(sync_);
            if (!IsIdle()) return;
            sleep_.store(1);
        }
        wait_.Wait();
        sleep_.store(0);
    }
};

/// Serves what its loop has fetched to the end before it looks at what was posted meanwhile.
class ServesItsOwnFirst : public OneQueue {
public:
    using OneQueue::OneQueue;

    template <typename NotWoken>
    bool WakeFrom(Sleep /*sleep*/, NotWoken /*notWoken*/) {
        return true;
    }

    template <typename IsWanted>
    bool Take(IsWanted /*isWanted*/, Number& message) {
        const ModelGuard guard(sync_);
        if (own_.empty()) std::swap(own_, queue_);
        if (own_.empty()) return false;
        message = own_.top();
        own_.pop();
        pieces_.store(pieces_.load() - 1);
        return true;
    }

    template <typename ServePass, typename WaitFailed>
    void Run(ServePass servePass, WaitFailed /*waitFailed*/) {
        for (;;) {
            wait_.isWaiting = true;
            explorer->Stop([this] { return pieces_.Value() > 0; });
            wait_.isWaiting = false;
            servePass();
        }
    }

private:
    ModelQueue own_{8};
};

template <typename AnyBox>
std::vector<Explorer::Body> loop_and_two_posts(AnyBox& box) {
    return {looping(box), posting(box, {10}), posting(box, {20})};
}

TEST_F(PZHandOverTest, TheExplorerFindsALoopThatTestsOnlyOnce) {
    using Broken = ModelBox<TestsOnlyOnce>;
    const std::string failure =
        Explore<Broken>(loop_and_two_posts<Broken>, nothing_is_left<Broken>);
    EXPECT_EQ(0U, failure.find("asleep with work")) << failure;
}

TEST_F(PZHandOverTest, TheExplorerFindsALatePostThatEndsTheNextSleep) {
    using Broken = ModelBox<CallsEverySleepAlike>;
    const std::string failure =
        Explore<Broken>(loop_and_two_posts<Broken>, nothing_is_left<Broken>);
    EXPECT_EQ(0U, failure.find("asleep with work")) << failure;
}

TEST_F(PZHandOverTest, TheExplorerFindsALoopThatLetsTheMoreUrgentWait) {
    using Broken = ModelBox<ServesItsOwnFirst>;
    const std::string failure =
        Explore<Broken>(loop_and_urgent_posts<Broken>, nothing_is_left<Broken>);
    EXPECT_EQ(0U, failure.find("served out of order")) << failure;
}

}  // namespace
