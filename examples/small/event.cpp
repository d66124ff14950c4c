// The event: every SetEvent adds one signal, every successful wait takes one.
#include <cstdio>
#include <thread>

#include <Framework/Foundation/PZEvent.h>

namespace {

constexpr unsigned int kNoLimit = 0xFFFFFFFF;

const char* text_of(int result) {
    switch (result) {
        case 0:
            return "signalled";
        case -2:
            return "timed out";
        default:
            return "error";
    }
}

}  // namespace

int main() {
    PZEvent ready;
    std::printf("before: %s\n", text_of(ready.WaitEvent(0)));

    std::thread other([&ready] {
        ready.SetEvent();
        ready.SetEvent();
    });
    std::printf("first:  %s\n", text_of(ready.WaitEvent(kNoLimit)));
    std::printf("second: %s\n", text_of(ready.WaitEvent(kNoLimit)));
    other.join();
    std::printf("third:  %s\n", text_of(ready.WaitEvent(20)));  // milliseconds

    ready.SetEvent();
    ready.ResetEvent();  // takes all signals
    std::printf("reset:  %s\n", text_of(ready.WaitEvent(0)));
}
