// Sends a value to another process, whichever of the two comes first.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include <QCoreApplication>
#include <QLocalServer>
#include <QLocalSocket>
#include <QThread>

struct Station {
    unsigned int khz;
    char name[9];
};

const char* const kAddress = "pz_compare_qt";

int send(const Station& station) {
    QLocalSocket out;
    for (out.connectToServer(kAddress); !out.waitForConnected(); out.connectToServer(kAddress)) {
        QThread::msleep(1);
    }
    out.write(reinterpret_cast<const char*>(&station), sizeof station);
    return out.waitForBytesWritten() ? 0 : 1;
}

int main(int argc, char** argv) {
    const pid_t sender = fork();
    QCoreApplication app(argc, argv);
    if (sender == 0) return send({98500, "Wien"});
    QLocalServer server;
    QLocalServer::removeServer(kAddress);
    if (!server.listen(kAddress) || !server.waitForNewConnection(-1)) return 1;
    QLocalSocket* in = server.nextPendingConnection();
    while (in->bytesAvailable() < qint64(sizeof(Station)) && in->waitForReadyRead(-1)) {
    }
    Station station;
    if (in->read(reinterpret_cast<char*>(&station), sizeof station) != sizeof station) return 1;
    std::printf("%s on %u kHz\n", station.name, station.khz);
    wait(nullptr);
}
