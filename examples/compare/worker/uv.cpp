// A thread with a name, that is ended with the scope.
#include <pthread.h>

#include <cstdio>

#include <uv.h>

void run(void*) {
    pthread_setname_np(pthread_self(), "tuner");
    char name[16];
    pthread_getname_np(pthread_self(), name, sizeof name);
    std::printf("%s runs\n", name);
}

int main() {
    uv_thread_t tuner;
    if (uv_thread_create(&tuner, run, nullptr) != 0) return 1;
    uv_thread_join(&tuner);
}
