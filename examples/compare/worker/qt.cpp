// A thread with a name, that is ended with the scope.
#include <pthread.h>

#include <cstdio>

#include <QCoreApplication>
#include <QScopedPointer>
#include <QThread>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QScopedPointer<QThread> tuner(QThread::create([] {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::printf("%s runs\n", name);
    }));
    tuner->setObjectName("tuner");
    tuner->start();
    tuner->wait();
}
