// A steady timer on a worker, and one that runs once.
#include <cstdio>

#include <Framework/Easy.h>

using namespace std::chrono_literals;

int main() {
    const pz::Framework fw("easy_timer", 1);
    if (!fw) return 1;
    pz::Worker worker("clock");
    pz::Event over;
    int count = 0;  // touched by the worker's thread only
    pz::Timer tick = worker.every(10ms, [&] {
        if (++count > 3) return;
        std::printf("tick %d\n", count);
        if (count == 3) over.set();
    });
    over.wait();
    const bool isStopped = tick.stop();  // from here on it runs no more
    const pz::Timer once = worker.after(5ms, [&] {
        std::printf("once\n");
        over.set();
    });
    over.wait();
    std::printf("the first one runs: %s\n", isStopped && !tick ? "no" : "yes");
}
