// A unit on a worker, and a timer that sends it a message every 100 ms.
#include <cstdio>

#include <Framework/PZFramework.h>

// A unit: its messages arrive on the worker's thread.
class Greeter : public PZUnitFrame, public PZIDispatcher {
public:
    explicit Greeter(PZEvent& done) : done_(done) {}
    void OnReceiveMsg(unsigned int id, const void* text, unsigned int) override {
        std::printf("message %u: %s\n", id, static_cast<const char*>(text));
        if (id == 3) done_.SetEvent();
    }
    void OnReceiveEvent(unsigned int) override {}

private:
    PZEvent& done_;
};

// A timer: fires on one of the framework's timer threads.
class Ticker : public PZLTimerBase {
public:
    explicit Ticker(Greeter& greeter) : greeter_(greeter) {}
    int OnTimer(PZLTimerSubMng::_TimerInfo*) override {
        greeter_.SendMsgSelf(++count_, en_MSG_NORMAL, "tick", sizeof "tick");
        return count_ < 3 ? 1 : 0;  // 1: again after the interval
    }

private:
    Greeter& greeter_;
    unsigned int count_ = 0;
};

int main() {
    if (pz_FwInitialize("hello", 1) == 0) return 1;
    PZEvent done;
    PZWorker worker(1, 4000, 1);
    if (worker.Start("hello_worker") != 0) return 1;
    Greeter greeter(done);
    greeter.RegistMsgBox(worker.GetMsgBox(), &greeter);
    Ticker ticker(greeter);
    PZLTimerMng* timers = PZLTimerMng::GetTimerMng();
    PZLTimerMng::TimerSubInfo* handle = timers->AddTimer(&ticker, 100);  // milliseconds
    if (handle != nullptr) done.WaitEvent(0xFFFFFFFF);                   // without limit
    timers->RemoveTimer(handle, &ticker);  // waits for a callback that still runs
    worker.End(0);
    pz_FwFinalize();
}
