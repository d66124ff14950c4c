// Polls every 10 ms.
#include <cstdio>

#include <Framework/Easy.h>

using namespace std::chrono_literals;

int main() {
    pz::Framework fw("radio", 1);
    pz::Worker tuner("tuner");
    pz::Event done;
    int polls = 0;
    pz::Timer t = tuner.every(10ms, [&] {
        if (++polls <= 3) std::printf("poll %d\n", polls);
        if (polls == 3) done.set();
    });
    done.wait();
}
