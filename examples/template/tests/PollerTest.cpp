// Tests the unit without threads and without waiting: the test moves the time.
#include "Poller.h"

#include <cstdio>

using namespace std::chrono_literals;

namespace {

int failures = 0;

void expect(bool isTrue, const char* what) {
    if (isTrue) return;
    std::printf("failed: %s\n", what);
    ++failures;
}

void polls_once_a_period() {
    pz::test::ManualClock clock;
    pz::test::SyncWorker worker(clock);
    unsigned int last = 0;
    Poller poller(worker, 250ms, [&](unsigned int number) { last = number; });
    worker.run_for(249ms);
    expect(poller.count() == 0, "nothing before the first period is over");
    worker.run_for(1ms);
    expect(poller.count() == 1, "the first poll after one period");
    worker.run_for(24h);
    expect(poller.count() == 345601, "four polls a second over a day");
    expect(last == 345601, "each poll is told its number");
}

void stops_with_the_unit() {
    pz::test::ManualClock clock;
    pz::test::SyncWorker worker(clock);
    unsigned int polls = 0;
    {
        Poller poller(worker, 250ms, [&](unsigned int) { ++polls; });
        worker.run_for(1s);
    }
    worker.run_for(1s);
    expect(polls == 4, "no poll after the unit is gone");
}

void takes_the_period_from_the_settings() {
    expect(period_of("period_ms=250\n") == 250ms, "the value of a line");
    expect(period_of("volume=7\nperiod_ms=1\n") == 1ms, "in any line");
    for (const char* text : {"", "period_ms=", "period_ms=x", "period_ms=0", "period_ms=-5",
                             "period_ms=12 ", "period_ms=3600001", "xperiod_ms=5"}) {
        expect(period_of(text) == 1000ms, text);
    }
}

}  // namespace

int main() {
    polls_once_a_period();
    stops_with_the_unit();
    takes_the_period_from_the_settings();
    return failures == 0 ? 0 : 1;
}
