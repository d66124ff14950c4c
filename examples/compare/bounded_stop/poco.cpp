// Gives a worker that hangs 100 ms to end, tells what hangs, and ends the program all the same.
#include <atomic>
#include <cstdio>

#include <Poco/Clock.h>
#include <Poco/Thread.h>

int main() {
    static std::atomic<Poco::Clock::ClockVal> start(Poco::Clock().microseconds());
    Poco::Thread tuner("tuner");
    tuner.startFunc([] {
        start = Poco::Clock().microseconds();
        Poco::Thread::sleep(3600000);
    });
    const bool stopped = tuner.tryJoin(100);
    if (!stopped) {
        std::printf(
            "worker [tuner] has not ended within 100 ms: what was posted by main() has been "
            "running "
            "for %lld ms\n",
            static_cast<long long>(Poco::Clock(start).elapsed() / 1000));
    }
    std::printf("stopped: %s\n", stopped ? "yes" : "no");
}
