// Gives a worker that hangs 100 ms to end, tells what hangs, and ends the program all the same.
#include <atomic>
#include <cstdio>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    static QElapsedTimer clock;
    clock.start();
    static std::atomic<qint64> start(0);
    QThread* tuner = QThread::create([] {  // kept: its destructor would end the program
        start = clock.elapsed();
        QThread::sleep(3600);
    });
    tuner->setObjectName("tuner");
    tuner->start();
    const bool stopped = tuner->wait(100);
    if (!stopped) {
        std::printf(
            "worker [%s] has not ended within 100 ms: what was posted by main() has been running "
            "for %lld ms\n",
            qPrintable(tuner->objectName()), clock.elapsed() - start);
    }
    std::printf("stopped: %s\n", stopped ? "yes" : "no");
}
