// A thread with a name, that is ended with the scope.
#include <pthread.h>

#include <cstdio>

#include <boost/asio.hpp>

int main() {
    boost::asio::thread_pool tuner(1);
    boost::asio::post(tuner, [] { pthread_setname_np(pthread_self(), "tuner"); });
    boost::asio::post(tuner, [] {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::printf("%s runs\n", name);
    });
    tuner.join();
}
