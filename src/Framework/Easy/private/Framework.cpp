#include "Framework/Easy/Framework.h"

#include <algorithm>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Foundation/private/PZMutex.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Utility/PZLTimerMng.h>
#include <Framework/private/pz_counted_priorities.h>
#include <Framework/private/pz_home.h>

#include "WorkerCore.h"

namespace pz {

namespace {

constexpr int kMostUrgent = 177;  // the lowest value of the first band

/// Calls `visit` with every band of the timer manager.
template <typename Visit>
void for_each_band(Visit visit) {
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    PZLTimerMng::TimerSubInfo* band = timers->Find(kMostUrgent);
    for (; band != nullptr; band = timers->Find(band->hi + 1)) visit(*band->sub);
}

/// A timer that does nothing: that it is added makes its band look at the others.
class Nudge : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override { return 0; }
};

/// Sleeps from one wrap of the tick to the next, and nudges every band right after each.
///
/// A band whose timers all expire beyond the wrap waits for something to be added to it. No timer
/// can do that in time, because its own band would wait as well.
class TickKeeper {
public:
    TickKeeper() : thread_(this, kWatchTimeMs) { thread_.Start("pz_tick"); }
    ~TickKeeper() {
        end_.SetEvent();
        thread_.WaitExit();
        for_each_band([this](PZLTimerSubMng& band) { band.removeTimer(&nudge_); });
    }
    TickKeeper(const TickKeeper&) = delete;
    TickKeeper& operator=(const TickKeeper&) = delete;

    int Initialize() { return 0; }
    void MainProc() {
        constexpr int kTimedOut = -2;
        unsigned int last = Tick();
        while (end_.WaitEvent(std::min(0U - last, kLongestWaitMs)) == kTimedOut) {
            const unsigned int now = Tick();
            if (now < last) NudgeAll();
            last = now;
        }
    }
    void Finalize() {}

private:
    static constexpr unsigned int kWatchTimeMs = 4000;
    static constexpr unsigned int kLongestWaitMs = 0x7FFFFFFF;

    static unsigned int Tick() {
        return static_cast<unsigned int>(PZTickCount::GetInstance()->GetTime());
    }
    // Added to a band that still has it, it is there all the same.
    void NudgeAll() {
        for_each_band([this](PZLTimerSubMng& band) { band.addTimer(&nudge_, 0); });
    }

    PZEvent end_;
    Nudge nudge_;  // in all bands at once: it keeps nothing
    PZThread<TickKeeper> thread_;
};

/// The framework of the process, as far as this layer started it.
struct ST_STARTED {
    PZMutex mutex;
    unsigned int users PZ_GUARDED_BY(mutex) = 0;
    TickKeeper* keeper PZ_GUARDED_BY(mutex) = nullptr;  // owned; lives as long as the framework
    PZHome home;                                        // where the first user started it
};

ST_STARTED& started() noexcept {
    static_assert(std::is_trivially_destructible_v<ST_STARTED>, "there until the process ends");
    static ST_STARTED instance;
    return instance;
}

bool initialize(const char* name, int id) {
    const PZCountedPriorities refused;
    if (pz_FwInitialize(name, id) == 0) return false;
    if (refused.Count() == 0) return true;
    PZDbgOutput::DbgPrint(__FILE__, "Framework", __LINE__, PZDbgOutput::en_TAG_WARNING,
                          "timers keep the usual priority: no right to raise it; "
                          "pz-doctor nice-limit says how to get it\n");
    return true;
}

/// What the end of the framework does first, also when pz_FwFinalize is called by hand: workers and
/// timers need its bands.
void end_layer() {
    ST_STARTED& state = started();
    if (state.home.IsParent()) return;
    const PZMutexLock lock(state.mutex);
    detail::stop_all_cores();
    delete std::exchange(state.keeper, nullptr);
}

bool start(const char* name, int id) {
    ST_STARTED& state = started();
    const PZMutexLock lock(state.mutex);
    if (!initialize(name, id)) return false;  // changes nothing while it runs
    if (state.users == 0) state.home.Renew();
    if (state.keeper == nullptr) {
        auto keeper = std::make_unique<TickKeeper>();
        PZSingletonFinalizer::addDestroyFunc(&end_layer);
        state.keeper = keeper.release();
    }
    ++state.users;
    return true;
}

bool is_last() {
    ST_STARTED& state = started();
    const PZMutexLock lock(state.mutex);
    return --state.users == 0;
}

void end() {
    if (!is_last()) return;
    if (!detail::stop_all_cores()) {
        PZ_REPORT_ERROR("a worker hangs: the framework is not ended\n");
        return;
    }
    pz_FwFinalize();
}

}  // namespace

Framework::Framework(const char* name, int id) noexcept : started_(false) {
    try {
        started_ = start(name, id);
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("no memory\n");
    }
}

Framework::~Framework() {
    if (started_ && !started().home.IsParent()) end();
}

}  // namespace pz
