// The thread template: runs an object's Initialize, MainProc and Finalize on a thread of its own.
//
// It cannot be stopped from outside: the owner makes MainProc return, here with an event.
#include <cstdio>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

class Sensor {
public:
    bool Start() { return thread_.Start("sensor"); }

    /// Asks MainProc to return, and waits for the end of the thread.
    bool Stop() {
        stop_.SetEvent();
        return thread_.WaitExit() == 0;
    }

    // The phases, called on the new thread.
    int Initialize() {
        std::printf("sensor: on\n");
        return 0;  // anything else ends the thread at once
    }
    void MainProc() {
        std::printf("sensor: measuring\n");
        stop_.WaitEvent(0xFFFFFFFF);
    }
    void Finalize() { std::printf("sensor: off\n"); }

private:
    PZEvent stop_;
    PZThread<Sensor> thread_{this, 1000};
};

}  // namespace

int main() {
    if (pz_FwInitialize("thread", 1) == 0) return 1;
    Sensor sensor;
    if (!sensor.Start() || !sensor.Stop()) return 1;
    std::printf("once more\n");
    if (!sensor.Start() || !sensor.Stop()) return 1;
    pz_FwFinalize();
}
