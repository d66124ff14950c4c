// Polls every 10 ms.
#include <cstdio>

#include <boost/asio.hpp>

using namespace std::chrono_literals;

void poll(boost::asio::steady_timer& t, int polls) {
    if (polls > 3) return;
    t.async_wait([&t, polls](const boost::system::error_code&) {
        std::printf("poll %d\n", polls);
        t.expires_at(t.expiry() + 10ms);
        poll(t, polls + 1);
    });
}

int main() {
    boost::asio::io_context tuner;
    boost::asio::steady_timer t(tuner, 10ms);
    poll(t, 1);
    tuner.run();
}
