// A periodic timer: its callback answers 1 to be called again, and sends a message to a unit that
// does the work on a worker.
//
// The next period counts from the call. A late call is not caught up; see drift_free_timer.cpp.
#include <cstdio>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Utility/PZLTimerMng.h>

namespace {

constexpr unsigned int kMsgMeasure = 1;

class Sensor : public PZUnitFrame, public PZIDispatcher, public PZLTimerBase {
public:
    explicit Sensor(PZEvent& done) : done_(done) {}
    ~Sensor() override { UnregistMsgBox(); }

    int OnTimer(PZLTimerSubMng::_TimerInfo* /*info*/) override {
        SendMsgSelf(kMsgMeasure, en_MSG_NORMAL, nullptr, 0);
        return ++calls_ < 3 ? 1 : 0;
    }

    void OnReceiveMsg(unsigned int /*id*/, const void* /*data*/, unsigned int /*size*/) override {
        std::printf("measurement %u\n", ++measurements_);
        if (measurements_ == 3) done_.SetEvent();
    }
    void OnReceiveEvent(unsigned int /*bits*/) override {}

private:
    PZEvent& done_;
    unsigned int calls_ = 0;         // of the timer thread
    unsigned int measurements_ = 0;  // of the worker's thread
};

}  // namespace

int main() {
    if (pz_FwInitialize("periodic_timer", 1) == 0) return 1;
    PZLTimerMng* const timers = PZLTimerMng::GetTimerMng();
    PZWorker worker(1, 4000, 1);
    if (worker.Start("sensor") != 0) return 1;
    {
        PZEvent done;
        Sensor sensor(done);
        if (sensor.RegistMsgBox(worker.GetMsgBox(), &sensor) != PZUnitFrame::en_SUCCESS) return 1;
        PZLTimerMng::TimerSubInfo* const handle = timers->AddTimer(&sensor, 20);  // milliseconds
        if (handle != nullptr) done.WaitEvent(0xFFFFFFFF);
        timers->RemoveTimer(handle, &sensor);
    }
    worker.End(0);
    pz_FwFinalize();
}
