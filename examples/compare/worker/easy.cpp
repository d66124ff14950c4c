// A thread with a name, that is ended with the scope.
#include <pthread.h>

#include <cstdio>

#include <Framework/Easy.h>

int main() {
    pz::Framework fw("radio", 1);
    pz::Worker tuner("tuner");
    tuner.post([] {
        char name[16];
        pthread_getname_np(pthread_self(), name, sizeof name);
        std::printf("%s runs\n", name);
    });
}
