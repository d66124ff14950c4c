// Polls every 10 ms.
#include <cstdio>

#include <Poco/Event.h>
#include <Poco/Util/Timer.h>

using Poco::Util::Timer;

int main() {
    Poco::Event done;
    int polls = 0;
    Timer tuner;
    const auto poll = [&] {
        if (++polls <= 3) std::printf("poll %d\n", polls);
        if (polls == 3) done.set();
    };
    tuner.scheduleAtFixedRate(Timer::func(poll), 10, 10);
    done.wait();
}
