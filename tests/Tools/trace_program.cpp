// What traceLiveTest records: a handler of 200 ms with ten messages behind it, an event, a timer
// that is late because another one's callback takes 40 ms, a wait of about 50 ms for a lock and
// none for a free one, and three blocks of the accounted heap. Prints what it has counted itself.
// With an argument, a message every 2 ms until it is killed instead.

#include <atomic>
#include <cstdio>
#include <thread>

#include <Framework/PZFramework.h>

namespace {

constexpr unsigned int kSlow = 7;
constexpr unsigned int kQuick = 8;
constexpr unsigned int kNoLimit = 0xFFFFFFFFU;

class Unit : public PZUnitFrame, public PZIDispatcher {
public:
    void OnReceiveMsg(unsigned int id, const void* /*payload*/, unsigned int /*size*/) override {
        if (id == kSlow) pz_msleep(200);
        ++messages;
    }
    void OnReceiveEvent(unsigned int /*bits*/) override { ++events; }

    std::atomic<int> messages{0};
    std::atomic<int> events{0};
};

class Timer : public PZLTimerBase {
public:
    Timer(unsigned int callbackMs, int times) : callbackMs_(callbackMs), times_(times) {}
    int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override {
        if (callbackMs_ != 0) pz_msleep(callbackMs_);
        return ++fired < times_ ? 1 : 0;
    }

    std::atomic<int> fired{0};

private:
    const unsigned int callbackMs_;
    const int times_;
};

void wait_for_a_lock() {
    PZSync sync;
    std::atomic<bool> isHeld{false};
    std::thread holder([&] {
        sync.Lock(kNoLimit);
        isHeld = true;
        pz_msleep(50);
        sync.Unlock();
    });
    while (!isHeld) std::this_thread::yield();
    sync.Lock(kNoLimit);
    sync.Unlock();
    holder.join();
}

void take_a_free_lock() {
    PZSync sync;
    for (int i = 0; i < 100; ++i) {
        sync.Lock(1000);
        sync.Unlock();
    }
}

void use_the_heap() {
    void* const first = Malloc(100);
    void* const second = Realloc(Malloc(200), 300);
    Free(first);
    Free(second);
}

}  // namespace

int main(int argc, char** /*argv*/) {
    if (pz_FwInitialize("pz_trace_test", 1) == 0) return 1;
    PZWorker worker(1, 4000, 5);
    if (worker.Start("patient") != 0) return 1;
    Unit unit;
    unit.RegistMsgBox(worker.GetMsgBox(), &unit);
    if (argc > 1) {
        for (;;) {
            unit.SendMsgSelf(kQuick, en_MSG_NORMAL, nullptr, 0);
            pz_msleep(2);
        }
    }

    unit.SendMsgSelf(kSlow, en_MSG_HIGH, "slow", sizeof "slow");
    for (int i = 0; i < 10; ++i) unit.SendMsgSelf(kQuick, en_MSG_NORMAL, nullptr, 0);
    unit.SendEvtSelf(0x10);

    Timer slow(40, 1);
    Timer late(0, 3);
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    // Refused, and reported, with a nice value above 4.
    if (timers->AddTimer(&slow, 5) == nullptr || timers->AddTimer(&late, 20) == nullptr) return 1;
    wait_for_a_lock();
    take_a_free_lock();
    use_the_heap();
    while (unit.messages < 11 || unit.events < 1 || slow.fired < 1 || late.fired < 3) pz_msleep(1);

    worker.End(0);
    std::printf("messages %d, events %d, fired %d\n", unit.messages.load(), unit.events.load(),
                slow.fired + late.fired);
    pz_FwFinalize();
    return 0;
}
