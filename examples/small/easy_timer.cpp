// A steady timer on a worker, and one that runs once.
#include <Framework/Easy.h>

#include <cstdio>

using namespace std::chrono_literals;

int main() {
    const pz::Framework fw("easy_timer", 1);
    if (!fw) return 1;
    pz::Worker worker("clock");
    pz::Event over;
    int count = 0;  // touched by the worker's thread only
    pz::Timer tick = worker.every(10ms, [&] {
        std::printf("tick %d\n", ++count);
        if (count == 3 && tick.stop()) over.set();
    });
    over.wait();
    const pz::Timer once = worker.after(5ms, [&] {
        std::printf("once\n");
        over.set();
    });
    over.wait();
    std::printf("the first one runs: %s\n", tick ? "yes" : "no");
}
