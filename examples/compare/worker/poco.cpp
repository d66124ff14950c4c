// A thread with a name, that is ended with the scope.
#include <pthread.h>

#include <cstdio>

#include <Poco/Thread.h>

int main() {
    Poco::Thread tuner;
    tuner.startFunc([] {
        pthread_setname_np(pthread_self(), "tuner");
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::printf("%s runs\n", name);
    });
    tuner.join();
}
