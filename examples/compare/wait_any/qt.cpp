// Waits for one of two signals from other threads, for a second at most.
#include <cstdio>
#include <thread>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

int wait(QEventLoop& loop, int within) {
    QTimer limit;
    QObject::connect(&limit, &QTimer::timeout, [&] { loop.exit(-1); });
    limit.start(within);
    return loop.exec();
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QEventLoop arrived;
    std::thread other([&] {
        QMetaObject::invokeMethod(
            &arrived, [&] { arrived.exit(1); }, Qt::QueuedConnection);
    });
    const int first = wait(arrived, 1000);
    if (first != -1) std::printf("number %d\n", first);
    const int second = wait(arrived, 10);
    std::printf("%s\n", second != -1 ? "one more" : "none");
    other.join();
}
