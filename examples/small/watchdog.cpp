// The watchdog's hooks: a thread of the application says when it waits.
//
// No watchdog stands behind them yet. The thread registry is told in the same places.
#include <cstdio>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZWatchDog.h>

namespace {

/// Around a wait: a thread that waits is not stuck.
class WaitingScope : private PZUncopyable {
public:
    WaitingScope() {
        PZThreadMng::GetInstance()->notifyToWaiting();
        PZWatchDog::GetInstance()->IntoWait();
    }
    ~WaitingScope() {
        PZWatchDog::GetInstance()->OutWait();
        PZThreadMng::GetInstance()->notifyToRunning();
    }
};

int wait_for(PZEvent& event) {
    const WaitingScope waiting;
    return event.WaitEvent(0xFFFFFFFF);
}

}  // namespace

int main() {
    if (!PZWatchDog::GetInstance()->start()) return 1;
    PZEvent event;
    event.SetEvent();
    std::printf("waited: %d\n", wait_for(event));
    PZWatchDog::GetInstance()->stop();
}
