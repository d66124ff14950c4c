// Waiting for one of several events, and for the signal that ends the program.
#include <csignal>
#include <cstdio>

#include <Framework/Easy.h>

using namespace std::chrono_literals;

int main() {
    const pz::Framework fw("easy_wait", 1);
    if (!fw) return 1;
    pz::StopSignal stop;  // from here on Ctrl-C ends the program in order
    pz::Event data;
    pz::Worker worker("source");
    worker.post([&data] { data.set(); });
    worker.post([] { std::raise(SIGTERM); });  // stands for the service manager
    bool hasData = false;
    bool isStopped = false;
    while (!hasData || !isStopped) {
        const auto which = pz::wait_any({&data, &stop}, 10s);
        if (!which) return 1;
        (*which == 0 ? hasData : isStopped) = true;
        if (isStopped) hasData = hasData || data.wait(0ms);
    }
    std::printf("data, and signal %d\n", stop.number());
}
