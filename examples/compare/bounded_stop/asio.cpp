// Gives a worker that hangs 100 ms to end, tells what hangs, and ends the program all the same.
#include <atomic>
#include <cstdio>
#include <future>
#include <thread>

#include <boost/asio.hpp>

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

int main() {
    const auto tuner = new boost::asio::thread_pool(1);  // its destructor would wait for the hour
    std::atomic<Clock::time_point> start(Clock::now());
    boost::asio::post(*tuner, [&] {
        start = Clock::now();
        std::this_thread::sleep_for(1h);
    });
    std::promise<void> ended;
    boost::asio::post(*tuner, [&] { ended.set_value(); });
    const bool stopped = ended.get_future().wait_for(100ms) == std::future_status::ready;
    if (stopped) {
        delete tuner;
    } else {
        const std::chrono::duration<double, std::milli> running = Clock::now() - start.load();
        std::printf(
            "worker [tuner] has not ended within 100 ms: what was posted by main() has been "
            "running for %.0f ms\n",
            running.count());
    }
    std::printf("stopped: %s\n", stopped ? "yes" : "no");
    std::fflush(stdout);
    std::_Exit(0);  // what the thread uses lies on this stack
}
