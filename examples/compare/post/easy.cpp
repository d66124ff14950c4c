// Posts to a worker, one function before the others, and asks for a result.
#include <cstdio>

#include <Framework/Easy.h>

int main() {
    pz::Framework fw("radio", 1);
    pz::Worker tuner("tuner");
    pz::Event started, posted;
    tuner.post([&] {
        started.set();
        posted.wait();
    });
    started.wait();
    tuner.post([&] { std::printf("ordinary\n"); });
    tuner.post([&] { std::printf("urgent\n"); }, pz::Priority::high);
    posted.set();
    std::printf("tuned to %d kHz\n", tuner.call([] { return 98500; }).value_or(0));
}
