// Sends a value to another process, whichever of the two comes first.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include <Poco/File.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Thread.h>

struct Station {
    unsigned int khz;
    char name[9];
};

void send(const Station& station, const Poco::Net::SocketAddress& address) {
    for (;;) {
        try {
            Poco::Net::StreamSocket out(address);
            out.sendBytes(&station, sizeof station);
            return;
        } catch (const Poco::Exception&) {
            Poco::Thread::sleep(1);
        }
    }
}

int main() {
    const Poco::Net::SocketAddress address(Poco::Net::SocketAddress::UNIX_LOCAL, "stations");
    if (fork() == 0) {
        send({98500, "Wien"}, address);
        _exit(0);
    }
    Poco::File("stations").exists() ? Poco::File("stations").remove() : void();
    Poco::Net::ServerSocket server(address);
    Poco::Net::StreamSocket in(server.acceptConnection());
    Station station;
    if (in.receiveBytes(&station, sizeof station) != sizeof station) return 1;
    std::printf("%s on %u kHz\n", station.name, station.khz);
    wait(nullptr);
    Poco::File("stations").remove();
}
