// Gives a worker that hangs 100 ms to end, tells what hangs, and ends the program all the same.
#include <cstdio>

#include <uv.h>

struct Tuner {
    uv_mutex_t mutex;
    uv_cond_t changed;
    bool ended;
    uint64_t start;
};

void run(void* data) {
    Tuner* tuner = static_cast<Tuner*>(data);
    uv_mutex_lock(&tuner->mutex);
    tuner->start = uv_hrtime();
    uv_mutex_unlock(&tuner->mutex);
    uv_sleep(3600000);
    uv_mutex_lock(&tuner->mutex);
    tuner->ended = true;
    uv_cond_signal(&tuner->changed);
    uv_mutex_unlock(&tuner->mutex);
}

int main() {
    static Tuner tuner;
    uv_mutex_init(&tuner.mutex);
    uv_cond_init(&tuner.changed);
    tuner.start = uv_hrtime();
    uv_thread_t thread;
    if (uv_thread_create(&thread, run, &tuner) != 0) return 1;
    uv_mutex_lock(&tuner.mutex);
    int result = 0;
    while (!tuner.ended && result == 0) {
        result = uv_cond_timedwait(&tuner.changed, &tuner.mutex, 100000000);
    }
    if (!tuner.ended) {
        std::printf(
            "worker [tuner] has not ended within 100 ms: what was posted by main() has been "
            "running for %llu ms\n",
            static_cast<unsigned long long>((uv_hrtime() - tuner.start) / 1000000));
    }
    std::printf("stopped: %s\n", tuner.ended ? "yes" : "no");
    uv_mutex_unlock(&tuner.mutex);
}
