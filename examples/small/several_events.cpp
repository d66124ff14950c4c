// Waiting for several events: for any of them, or for all.
#include <cstdio>

#include <Framework/Foundation/PZEvent.h>

int main() {
    PZEvent key;
    PZEvent network;
    PZEvent* events[] = {&key, &network};

    network.SetEvent();
    std::printf("any: event %d\n", PZEvent::WaitMultipleEvent(2, events, 1000, false));

    key.SetEvent();
    network.SetEvent();
    std::printf("all: %d\n", PZEvent::WaitMultipleEvent(2, events, 1000, true));

    // Only one of two: the wait for all times out. The signal that came is taken nevertheless.
    key.SetEvent();
    std::printf("one of two: %d\n", PZEvent::WaitMultipleEvent(2, events, 20, true));
    std::printf("its signal afterwards: %d\n", key.WaitEvent(0));
}
