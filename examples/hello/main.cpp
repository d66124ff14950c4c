#include <cstdio>

#include <Framework/Easy.h>

using namespace std::chrono_literals;

int main() {
    pz::Framework fw("hello", 1);
    if (!fw) return 1;
    pz::Worker worker("hello_worker");  // a thread that runs what is posted to it
    pz::Event done;
    int count = 0;  // touched by the worker's thread only
    pz::Timer ticker = worker.every(100ms, [&] {
        if (++count <= 3) std::printf("message %d: tick\n", count);
        if (count == 3) done.set();
    });
    done.wait();
}  // the timer is stopped, then the worker, then the framework
