// Gives a worker that hangs 100 ms to end, tells what hangs, and ends the program all the same.
#include <cstdio>
#include <thread>

#include <Framework/Easy.h>

using namespace std::chrono_literals;

int main() {
    pz::Framework fw("radio", 1);
    pz::Worker tuner("tuner");
    tuner.post([] { std::this_thread::sleep_for(1h); });
    std::printf("stopped: %s\n", tuner.stop(100ms) ? "yes" : "no");
}
