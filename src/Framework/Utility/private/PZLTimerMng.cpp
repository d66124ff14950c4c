#include "Framework/Utility/PZLTimerMng.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/private/pz_uncancelled.h>

template class PZSingleton<PZLTimerMng>;

namespace {

struct ST_BAND {
    int lo;
    int hi;
    unsigned int thirdValue;
    int threadPriority;
};

// clang-format off
constexpr std::array<ST_BAND, 5> kBands = {{
    // lowest  highest  third value  thread priority
    {     177,     207,          30,             196 },
    {     208,     219,          30,             197 },
    {     220,     231,          30,             198 },
    {     232,     243,          30,             199 },
    {     244,     255,          50,             200 },
}};
// clang-format on

constexpr unsigned int kEndTimeoutMs = 3000;

#if __SIZEOF_POINTER__ == 4
static_assert(offsetof(PZLTimerMng::TimerSubInfo, lo) == 0, "record layout");
static_assert(offsetof(PZLTimerMng::TimerSubInfo, hi) == 4, "record layout");
static_assert(offsetof(PZLTimerMng::TimerSubInfo, sub) == 8, "record layout");
static_assert(sizeof(PZLTimerMng::TimerSubInfo) == 12, "record layout");
#endif

/// The band with its thread; without one when that cannot be started.
PZLTimerMng::TimerSubInfo* start_band(unsigned int index) {
    const ST_BAND& band = kBands[index];
    auto info = std::make_unique<PZLTimerMng::TimerSubInfo>();
    *info = {band.lo, band.hi, new PZLTimerSubMng(band.thirdValue, band.threadPriority)};
    char name[32];
    std::snprintf(name, sizeof name, "ZLTimerSubMng_%u", index);
    info->sub->start(name);  // reports its failures; the band is there all the same
    return info.release();
}

}  // namespace

PZLTimerMng::PZLTimerMng() : count_(0), subs_(new TimerSubInfo*[kBands.size()]) {
    try {
        for (; count_ < kBands.size(); ++count_) subs_[count_] = start_band(count_);
    } catch (...) {
        endBands();
        throw;
    }
}

PZLTimerMng::~PZLTimerMng() {
    const PZUncancelled held;  // joining is a point at which a thread can be cancelled
    endBands();
}

void PZLTimerMng::endBands() {
    // All threads end before anything is freed: until then a callback of one band may still add
    // timers to another.
    std::array<bool, kBands.size()> ended = {};
    for (unsigned int i = 0; i < count_; ++i) {
        ended[i] = subs_[i]->sub->end(kEndTimeoutMs) == 1;
        if (ended[i]) continue;
        PZ_REPORT_ERROR_OF("~PZLTimerMng", "failed to end timer submng\n");
    }
    for (unsigned int i = 0; i < count_; ++i) {
        if (!ended[i]) continue;  // left in place: its thread may still run
        delete subs_[i]->sub;
        delete subs_[i];
    }
    delete[] subs_;
    count_ = 0;
}

PZLTimerMng* PZLTimerMng::GetTimerMng() {
    return GetInstance();
}

PZLTimerMng::TimerSubInfo* PZLTimerMng::AddTimer(PZLTimerBase* t, unsigned int ms) {
    if (t == nullptr) return nullptr;
    TimerSubInfo* const band = Find(GetPriority());
    if (band == nullptr) {
        PZ_REPORT_ERROR("error\n");
        return nullptr;
    }
    return band->sub->addTimer(t, ms) == 1 ? band : nullptr;
}

int PZLTimerMng::RemoveTimer(TimerSubInfo* h, PZLTimerBase* t) {
    if (h == nullptr || t == nullptr) return 0;
    return h->sub->removeTimer(t);
}

int PZLTimerMng::IsActive(TimerSubInfo* h, PZLTimerBase* t) {
    if (h == nullptr || t == nullptr) return 0;
    return h->sub->isActive(t);
}

PZLTimerMng::TimerSubInfo* PZLTimerMng::Find(int priority) {
    for (unsigned int i = 0; i < count_; ++i) {
        if (Checkup(subs_[i], priority) == 0) return subs_[i];
    }
    return nullptr;
}

int PZLTimerMng::Checkup(TimerSubInfo* h, int priority) {
    if (priority < h->lo) return -1;
    return priority > h->hi ? 1 : 0;
}

int PZLTimerMng::GetPriority() {
    return PZThreadMng::GetInstance()->GetCurrentThreadPriority();
}
