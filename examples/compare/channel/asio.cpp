// Sends a value to another process, whichever of the two comes first.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include <boost/asio.hpp>

using boost::asio::local::datagram_protocol;

struct Station {
    unsigned int khz;
    char name[9];
};

int main() {
    const datagram_protocol::endpoint address("stations");
    if (fork() == 0) {
        boost::asio::io_context io;
        datagram_protocol::socket out(io, datagram_protocol());
        const Station station = {98500, "Wien"};
        boost::system::error_code error = boost::asio::error::try_again;
        while (error) {
            out.send_to(boost::asio::buffer(&station, sizeof station), address, 0, error);
            if (error) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        _exit(0);
    }
    boost::asio::io_context io;
    unlink("stations");
    datagram_protocol::socket in(io, address);
    Station station;
    if (in.receive(boost::asio::buffer(&station, sizeof station)) != sizeof station) return 1;
    std::printf("%s on %u kHz\n", station.name, station.khz);
    wait(nullptr);
    unlink("stations");
}
