// When timers fire, compared with the plainest way to do it: a thread that is woken by every timer
// that is added, and walks over all of them in every check. Both live through the same adventures,
// on one thread and by a hand-moved tick.

#include <sys/epoll.h>

#include <array>
#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Utility/PZLTimerMng.h>

#include "support/ManualTick.h"
#include "support/ManualWait.h"

namespace {

using pztest::ManualTick;
using TimerInfo = PZLTimerSubMng::_TimerInfo;

constexpr unsigned int kTimers = 12;
constexpr unsigned int kNoTimer = kTimers;
constexpr unsigned int kLongestWaitMs = 0x7FFFFFFFU;
constexpr long long kWrap = 4294967296;

/// What happened, in order.
struct Entry {
    char what;  // 'f' fired, 'a' added, 'r' removed
    unsigned int timer;
    unsigned int tick;
    unsigned int value;  // expiry, or the result of the call

    bool operator==(const Entry& other) const {
        return what == other.what && timer == other.timer && tick == other.tick &&
               value == other.value;
    }
};
using Log = std::vector<Entry>;

std::ostream& operator<<(std::ostream& out, const Entry& entry) {
    return out << entry.what << entry.timer << "@" << entry.tick << ":" << entry.value;
}

/// What a callback does: the same for both, however often it is asked.
struct Reaction {
    bool changesInterval;
    unsigned int interval;
    unsigned int added;  // kNoTimer for none
    unsigned int addedMs;
    unsigned int removed;  // kNoTimer for none
    int result;
};

class Random {
public:
    explicit Random(unsigned int seed) : engine_(seed) {}
    unsigned int operator()() { return static_cast<unsigned int>(engine_()); }

private:
    std::mt19937 engine_;
};

/// Intervals of all kinds: none, short ones, and such as reach around the tick.
unsigned int random_interval(Random& random) {
    switch (random() % 12) {
        case 0:
            return 0;
        case 1:
            return 0x7FFFFF00U + random() % 0x200;
        case 2:
            return 0U - random() % 300;
        case 3:
            return random();
        default:
            return 1 + random() % 200;
    }
}

Reaction reaction_of(unsigned int timer, unsigned int firings, unsigned int seed) {
    Random random(seed ^ (timer * 2654435761U) ^ (firings * 40503U));
    Reaction reaction = {};
    reaction.changesInterval = random() % 6 == 0;
    reaction.interval = random_interval(random);
    reaction.added = random() % 5 == 0 ? random() % kTimers : kNoTimer;
    // Not 0 for ever: the two would never come to rest.
    reaction.addedMs = 1 + random() % 100;
    reaction.removed = random() % 6 == 0 ? random() % kTimers : kNoTimer;
    reaction.result = random() % 3 != 0 ? 1 : 0;
    return reaction;
}

/// The plainest timer thread.
class PlainTimers {
public:
    PlainTimers(unsigned int now, long long nowMs, unsigned int seed)
        : seed_(seed), now_(now), nowMs_(nowMs), last_(now), waitStartMs_(nowMs) {}

    void SetTick(long long nowMs) {
        nowMs_ = nowMs;
        now_ = static_cast<unsigned int>(nowMs);
    }

    unsigned int Add(unsigned int timer, unsigned int ms) {
        const bool isNew = timers_.insert({timer, {ms, now_ + ms}}).second;
        isSignalled_ = isSignalled_ || isNew;
        log.push_back({'a', timer, now_, isNew});
        return isNew;
    }

    void Remove(unsigned int timer) {
        const bool wasActive = timers_.erase(timer) != 0;
        log.push_back({'r', timer, now_, wasActive});
    }

    /// Lets the thread do what there is to do at this tick.
    void Run() {
        while (isSignalled_ || (IsLimited() && nowMs_ - waitStartMs_ >= wait_)) {
            isSignalled_ = false;
            Check();
        }
    }

    /// The rest of the present wait, -1 without limit.
    long long Left() const { return IsLimited() ? waitStartMs_ + wait_ - nowMs_ : -1; }

    Log log;

private:
    struct Timer {
        unsigned int interval;
        unsigned int expiry;
    };
    using Timers = std::map<unsigned int, Timer>;

    bool IsLimited() const { return wait_ != 0 && wait_ <= kLongestWaitMs; }

    bool IsDue(unsigned int expiry) const {
        if (now_ >= last_) return last_ <= expiry && expiry <= now_;
        return expiry >= last_ || expiry <= now_;
    }

    void Check() {
        Timers due;
        for (const auto& timer : timers_) {
            if (IsDue(timer.second.expiry)) due.insert(timer);
        }
        for (const auto& timer : due) timers_.erase(timer.first);
        Timers again;
        for (const auto& timer : due) Fire(timer, again);
        for (const auto& timer : again) timers_.insert(timer);
        last_ = now_;
        wait_ = NextWait();
        waitStartMs_ = nowMs_;
    }

    void Fire(const Timers::value_type& timer, Timers& again) {
        log.push_back({'f', timer.first, now_, timer.second.expiry});
        const Reaction reaction = reaction_of(timer.first, firings_[timer.first]++, seed_);
        if (reaction.added != kNoTimer) Add(reaction.added, reaction.addedMs);
        if (reaction.removed != kNoTimer) Remove(reaction.removed);
        if (reaction.result == 0) return;
        const unsigned int interval =
            reaction.changesInterval ? reaction.interval : timer.second.interval;
        again.insert({timer.first, {interval, now_ + interval}});
    }

    unsigned int NextWait() const {
        if (timers_.empty()) return 0;
        bool isAhead = false;
        unsigned int ahead = 0;
        unsigned int smallest = 0xFFFFFFFFU;
        for (const auto& timer : timers_) {
            const unsigned int expiry = timer.second.expiry;
            if (expiry >= now_ && (!isAhead || expiry < ahead)) {
                isAhead = true;
                ahead = expiry;
            }
            if (expiry < smallest) smallest = expiry;
        }
        return isAhead ? ahead - now_ : now_ + smallest;
    }

    const unsigned int seed_;
    Timers timers_;
    std::array<unsigned int, kTimers> firings_ = {};
    unsigned int now_;
    long long nowMs_;
    unsigned int last_;
    unsigned int wait_ = 0;
    long long waitStartMs_;
    bool isSignalled_ = false;
};

/// One run of both.
class Comparison {
public:
    Comparison(unsigned int seed, long long startMs, unsigned int steps)
        : seed_(seed),
          random_(seed),
          stepsLeft_(steps),
          nowMs_(startMs),
          tick_(startMs),
          plain_(static_cast<unsigned int>(startMs), startMs, seed) {
        for (unsigned int i = 0; i < kTimers; ++i) timers_[i].Set(*this, i);
    }

    void Go() {
        running = this;
        pztest::epoll_wait_call.Replace(&WaitOfTheThread);
        sub_.MainProc();  // on this thread; what happens meanwhile happens in its waits
        pztest::epoll_wait_call.Replace(nullptr);
        running = nullptr;
    }

    size_t Firings() const { return firings_; }
    unsigned int SleptOn() const { return sleptOn_; }

private:
    class Timer : public PZLTimerBase {
    public:
        void Set(Comparison& run, unsigned int index) {
            run_ = &run;
            index_ = index;
        }
        int OnTimer(TimerInfo* info) override { return run_->OnTimer(index_, *info); }

    private:
        Comparison* run_ = nullptr;
        unsigned int index_ = 0;
    };

    static int WaitOfTheThread(int fd, epoll_event* ready, int room, int timeoutMs) {
        return running->Wait(fd, ready, room, timeoutMs);
    }

    int Wait(int fd, epoll_event* ready, int room, int timeoutMs) {
        const long long begin = nowMs_;
        // Whenever it goes to sleep, it does so for as long as the plain one sleeps from now on.
        bool isFirst = true;
        for (;;) {
            const int count = pztest::epoll_wait_call.Real(fd, ready, room, 0);
            if (count != 0) return count;
            if (timeoutMs >= 0 && nowMs_ - begin >= timeoutMs) return 0;
            if (isFirst) {
                EXPECT_EQ(plain_.Left(), timeoutMs < 0 ? -1 : timeoutMs) << Where();
            }
            isFirst = false;
            EXPECT_EQ(plain_.log, log_) << Where();
            log_.clear();
            plain_.log.clear();
            if (stepsLeft_ == 0 || testing::Test::HasFailure()) {
                sub_.end(0);
                continue;
            }
            --stepsLeft_;
            Step();
        }
    }

    void Step() {
        const unsigned int choice = random_() % 10;
        const unsigned int timer = random_() % kTimers;
        if (choice < 4) {
            Advance();
            if (random_() % 4 != 0) return Rest();  // else it is late for what comes now
        }
        if (choice < 8) {
            const unsigned int ms = random_interval(random_);
            log_.push_back(
                {'a', timer, Now(), static_cast<unsigned int>(sub_.addTimer(&timers_[timer], ms))});
            plain_.Add(timer, ms);
        } else {
            Remove(timer);
            plain_.Remove(timer);
        }
        Rest();
    }

    void Rest() {
        const size_t before = plain_.log.size();
        plain_.Run();
        sleptOn_ += plain_.log.size() == before ? 1 : 0;
    }

    void Advance() {
        const long long left = plain_.Left();
        switch (random_() % 6) {
            case 0:
                nowMs_ += left > 0 ? left : 1;
                break;
            case 1:
                nowMs_ += left > 1 ? left - 1 : 1;
                break;
            case 2:
                nowMs_ += random_() % 100000;
                break;
            case 3:
                nowMs_ += random_() % 20 == 0 ? random_() % 0x7FFFFFFFU : 3;
                break;
            default:
                nowMs_ += random_() % 120;
                break;
        }
        tick_.Set(nowMs_);
        plain_.SetTick(nowMs_);
    }

    int OnTimer(unsigned int timer, TimerInfo& info) {
        ++firings_;
        log_.push_back({'f', timer, Now(), static_cast<unsigned int>(info.expiry)});
        const Reaction reaction = reaction_of(timer, firingsOf_[timer]++, seed_);
        if (reaction.added != kNoTimer) {
            const int added = sub_.addTimer(&timers_[reaction.added], reaction.addedMs);
            log_.push_back({'a', reaction.added, Now(), static_cast<unsigned int>(added)});
        }
        if (reaction.removed != kNoTimer) Remove(reaction.removed);
        if (reaction.changesInterval) info.interval = reaction.interval;
        return reaction.result;
    }

    void Remove(unsigned int timer) {
        const int removed = sub_.removeTimer(&timers_[timer]);
        log_.push_back({'r', timer, Now(), static_cast<unsigned int>(removed)});
    }

    unsigned int Now() const { return static_cast<unsigned int>(nowMs_); }

    std::string Where() const {
        return "seed " + std::to_string(seed_) + ", steps left " + std::to_string(stepsLeft_) +
               ", tick " + std::to_string(Now());
    }

    static Comparison* running;

    const unsigned int seed_;
    Random random_;
    unsigned int stepsLeft_;
    long long nowMs_;
    ManualTick tick_;
    PlainTimers plain_;
    PZLTimerSubMng sub_{30, 200};
    std::array<Timer, kTimers> timers_;  // in the order of their addresses
    std::array<unsigned int, kTimers> firingsOf_ = {};
    Log log_;
    size_t firings_ = 0;
    unsigned int sleptOn_ = 0;
};

Comparison* Comparison::running = nullptr;

constexpr unsigned int kSteps = 600;

class PZLTimerSubMngScheduleTest : public testing::Test {
protected:
    /// Runs that begin at `startMs`, each of its own kind.
    void GoFrom(long long startMs, unsigned int runs) {
        size_t firings = 0;
        size_t sleptOn = 0;
        for (unsigned int seed = 1; seed <= runs && !HasFailure(); ++seed) {
            Comparison run(seed, startMs, kSteps);
            run.Go();
            firings += run.Firings();
            sleptOn += run.SleptOn();
        }
        EXPECT_LT(runs * 20U, firings);  // there was something to compare
        EXPECT_LT(runs * 20U, sleptOn);
    }
};

TEST_F(PZLTimerSubMngScheduleTest, IsThatOfAThreadThatIsWokenByEveryTimer) {
    GoFrom(1000000, 60);
}

TEST_F(PZLTimerSubMngScheduleTest, IsTheSameWhereTheTickWraps) {
    GoFrom(kWrap - 3000, 60);
    GoFrom(kWrap - 100, 60);
    GoFrom(2 * kWrap - 20000, 60);
}

TEST_F(PZLTimerSubMngScheduleTest, IsTheSameInTheMiddleOfTheTick) {
    GoFrom(kWrap / 2 - 1000, 60);
}

// The hand-over between those who add timers and the thread. All that both share is changed under
// one lock, so that there are three moments at which a timer can come: while the thread sleeps,
// after it was woken and before it checks, and after it has checked and before it sleeps. Every way
// to fill the first of these moments with timers that are due at once, earlier or later than those
// before.

class HandOver {
public:
    explicit HandOver(unsigned int plan) : plan_(plan) {
        for (Timer& timer : timers_) timer.handOver = this;
    }

    void Go() {
        running = this;
        pztest::epoll_wait_call.Replace(&WaitOfTheThread);
        sub_.MainProc();
        pztest::epoll_wait_call.Replace(nullptr);
        running = nullptr;
    }

    static constexpr unsigned int kMoments = 7;
    static constexpr unsigned int kChoices = 4;

private:
    struct Timer : PZLTimerBase {
        int OnTimer(TimerInfo* info) override {
            EXPECT_EQ(info->expiry, static_cast<unsigned long long>(handOver->nowMs_))
                << "plan " << handOver->plan_;
            ++handOver->fired_;
            return 0;
        }
        HandOver* handOver = nullptr;
    };

    static int WaitOfTheThread(int fd, epoll_event* ready, int room, int timeoutMs) {
        return running->Wait(fd, ready, room, timeoutMs);
    }

    int Wait(int fd, epoll_event* ready, int room, int timeoutMs) {
        Moment();  // checked, not asleep yet
        for (;;) {
            int count = pztest::epoll_wait_call.Real(fd, ready, room, 0);
            if (count == 0 && moment_ < kMoments) {
                Moment();  // asleep
                continue;
            }
            if (count == 0 && timeoutMs < 0) {
                EXPECT_EQ(added_, fired_) << "asleep without limit, plan " << plan_;
                sub_.end(0);
                count = pztest::epoll_wait_call.Real(fd, ready, room, 0);
            }
            if (count == 0) nowMs_ += timeoutMs;
            tick_.Set(nowMs_);
            Moment();  // woken, not checking yet
            return count;
        }
    }

    void Moment() {
        if (moment_ == kMoments) return;
        unsigned int choice = plan_;
        for (unsigned int i = 0; i < moment_; ++i) choice /= kChoices;
        ++moment_;
        // Later moments ask for less, or more, than those before.
        const unsigned int intervals[kChoices] = {0, 0, 100 - moment_, 100 + moment_};
        choice %= kChoices;
        if (choice == 0) return;
        EXPECT_EQ(1, sub_.addTimer(&timers_[added_++], intervals[choice]));
    }

    static HandOver* running;

    const unsigned int plan_;
    unsigned int moment_ = 0;
    long long nowMs_ = 1000000;
    ManualTick tick_{nowMs_};
    PZLTimerSubMng sub_{30, 200};
    std::array<Timer, kMoments> timers_;
    unsigned int added_ = 0;
    unsigned int fired_ = 0;
};

HandOver* HandOver::running = nullptr;

TEST(PZLTimerSubMngHandOverTest, EveryTimerFiresOnTimeWhereverTheThreadIsWhenItIsAdded) {
    unsigned int plans = 1;
    for (unsigned int i = 0; i < HandOver::kMoments; ++i) plans *= HandOver::kChoices;
    for (unsigned int plan = 0; plan < plans && !HasFailure(); ++plan) HandOver(plan).Go();
}

}  // namespace
