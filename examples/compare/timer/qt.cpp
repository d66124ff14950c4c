// Polls every 10 ms.
#include <cstdio>

#include <QCoreApplication>
#include <QTimer>

int main(int argc, char** argv) {
    QCoreApplication tuner(argc, argv);
    int polls = 0;
    QTimer t;
    t.setTimerType(Qt::PreciseTimer);
    QObject::connect(&t, &QTimer::timeout, [&] {
        std::printf("poll %d\n", ++polls);
        if (polls == 3) tuner.quit();
    });
    t.start(10);
    return tuner.exec();
}
