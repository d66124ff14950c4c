#include <sched.h>

#include <atomic>

#include <Framework/PZFramework.h>

#include "support/FakePriorities.h"

// The program whose threads gdbPrintersTest looks at: one in each state, and a function to stop in.

namespace {

std::atomic<int> arrived{0};
PZSync door("door", PZSync::en_TYPE_UNNAMED);

void wait_for_arrivals(int count) {
    while (arrived < count) sched_yield();
}

void wait_for_ms(unsigned int ms) {
    const unsigned long long start = PZTickCount::GetInstance()->GetPerformanceTime();
    while (PZTickCount::GetInstance()->GetPerformanceTime() - start <= ms) sched_yield();
}

}  // namespace

/// A unit with a worker, whose handler waits for the end of the program; with `lock`, for that.
class Unit : public PZIDispatcher {
public:
    Unit(unsigned int watchMs, PZSync* lock) : lock_(lock), worker_(1, watchMs, 1) {}
    ~Unit() override {
        leave_.SetEvent();
        worker_.End(0);
    }

    void Start(const char* name) {
        worker_.Start(name);
        id_ = worker_.GetMsgBox()->Registory(this);
    }
    void Post(unsigned int msgId) {
        PZIMsgBox::ST_PUSH_MSG_DATA message = {id_, msgId, 128, nullptr, 0};
        worker_.GetMsgBox()->PushMsg(message);
    }
    void PostEvent(unsigned int bits) { worker_.GetMsgBox()->SetEvent(bits, id_); }

    void OnReceiveMsg(unsigned int, const void*, unsigned int) override { Wait(); }
    void OnReceiveEvent(unsigned int) override { Wait(); }

private:
    void Wait() {
        ++arrived;
        if (lock_ != nullptr) {
            const PZSyncLock lock(*lock_);
            return;
        }
        leave_.WaitEvent(0xFFFFFFFF);
    }

    PZSync* const lock_;
    PZEvent leave_;
    PZWorker worker_;
    unsigned long id_ = 0;
};

class Late : public PZLTimerBase {
public:
    int OnTimer(PZLTimerSubMng::_TimerInfo*) override {
        PZThreadMng::GetInstance()->setWatchTime(pthread_self(), 1);
        ++arrived;
        leave.WaitEvent(0xFFFFFFFF);
        return 0;
    }

    PZEvent leave;
};

namespace {

/// gdb stops here.
__attribute__((noinline)) void inspect() {
    asm volatile("");
}

/// Waits until the two threads sleep at the door.
void wait_for_sleepers() {
    for (;;) {
        unsigned int sleeping = 0;
        for (unsigned int i = 0; i < pz_inspection.waitCount; ++i) {
            const auto* waits = static_cast<const ST_INSPECTED_WAIT<PZInspectionLive>*>(
                pz_inspection.waits.pointer.load());
            if (waits[i].lock.pointer.load() == &door) ++sleeping;
        }
        if (sleeping == 2) return;
        sched_yield();
    }
}

void run() PZ_NO_THREAD_SAFETY_ANALYSIS {
    constexpr unsigned int kLongMs = 600000;
    Unit idle(kLongMs, nullptr);
    Unit busy(kLongMs, nullptr);
    Unit stuck(1, nullptr);
    Unit blocked(1, &door);
    Unit queued(kLongMs, &door);
    Late late;
    idle.Start("idle");
    busy.Start("busy");
    stuck.Start("stuck");
    blocked.Start("blocked");
    queued.Start("queued");
    door.Lock(0xFFFFFFFF);
    stuck.PostEvent(0x30);
    blocked.Post(5);
    queued.Post(6);
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    PZLTimerMng::TimerSubInfo* const band = timers->AddTimer(&late, 1);
    wait_for_arrivals(4);
    wait_for_sleepers();
    wait_for_ms(50);
    busy.Post(3);  // the latest of all: a core file tells no other time
    wait_for_arrivals(5);
    inspect();
    door.Unlock();
    late.leave.SetEvent();
    timers->RemoveTimer(band, &late);
}

}  // namespace

int main() {
    const pztest::FakePriorities priorities;
    if (pz_FwInitialize("gdb_workers", 1) == 0) return 1;
    run();
    pz_FwFinalize();
    return 0;
}
