// Ticks for time-outs, the stopwatch for measuring. Neither follows the wall clock.
#include <cstdio>

#include <Framework/Foundation/PZStopwatch.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Wrapper/pz_stdlib.h>

namespace {

unsigned int tick_now() {
    return static_cast<unsigned int>(PZTickCount::GetInstance()->GetTime());
}

const char* compare(unsigned long long measured, unsigned long long least) {
    return measured >= least ? "at least" : "less than";
}

}  // namespace

int main() {
    const unsigned int before = tick_now();
    pz_msleep(20);
    const unsigned int passedMs = tick_now() - before;  // right also when the tick wraps
    std::printf("%s 20 ms\n", compare(passedMs, 20));

    PZStopwatch watch;
    watch.Start();
    pz_msleep(5);
    std::printf("first lap %s 5 ms\n", compare(watch.Lap(), 5000000));  // nanoseconds
    pz_msleep(10);
    std::printf("second lap %s 10 ms\n", compare(watch.Lap(), 10000000));
    std::printf("both %s 15 ms\n", compare(watch.Split(), 15000000));
    std::printf("stopped: %s 15 ms\n", compare(watch.Stop(), 15000000));
    std::printf("no longer running: %llu\n", watch.Split());
}
