// Waits for Ctrl-C or SIGTERM, and ends in order.
#include <unistd.h>

#include <csignal>
#include <cstdio>

#include <QCoreApplication>
#include <QSocketNotifier>

int ends[2];  // of a pipe: a handler may write to it, but not call the library

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (pipe(ends) != 0) return 1;
    QSocketNotifier stop(ends[0], QSocketNotifier::Read);
    QObject::connect(&stop, &QSocketNotifier::activated, &app, &QCoreApplication::quit);
    const auto handler = [](int) { write(ends[1], "", 1); };
    std::signal(SIGINT, handler);
    std::signal(SIGTERM, handler);
    app.exec();
    std::printf("ended in order\n");
}
