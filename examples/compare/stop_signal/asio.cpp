// Waits for Ctrl-C or SIGTERM, and ends in order.
#include <cstdio>

#include <boost/asio.hpp>

int main() {
    boost::asio::io_context io;
    boost::asio::signal_set stop(io, SIGINT, SIGTERM);
    stop.async_wait([](const boost::system::error_code&, int) {});
    io.run();
    std::printf("ended in order\n");
}
