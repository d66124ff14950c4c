// Waits for one of two signals from other threads, for a second at most.
#include <cstdio>
#include <thread>

#include <Framework/Easy.h>

using namespace std::chrono_literals;

int main() {
    pz::Event key, display;
    std::thread other([&] { display.set(); });
    const auto first = pz::wait_any({&key, &display}, 1s);
    if (first) std::printf("number %zu\n", *first);
    const auto second = pz::wait_any({&key, &display}, 10ms);
    std::printf("%s\n", second ? "one more" : "none");
    other.join();
}
