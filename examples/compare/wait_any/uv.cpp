// Waits for one of two signals from other threads, for a second at most.
#include <cstdio>

#include <uv.h>

struct Signals {
    uv_mutex_t mutex;
    uv_cond_t changed;
    unsigned int counts[2];
};

void set(Signals& signals, int index) {
    uv_mutex_lock(&signals.mutex);
    ++signals.counts[index];
    uv_cond_signal(&signals.changed);
    uv_mutex_unlock(&signals.mutex);
}

int wait(Signals& signals, uint64_t within) {
    const uint64_t end = uv_hrtime() + within;
    int taken = -1;
    uv_mutex_lock(&signals.mutex);
    for (uint64_t now = end - within; taken == -1 && now < end; now = uv_hrtime()) {
        if (signals.counts[0] == 0 && signals.counts[1] == 0) {
            uv_cond_timedwait(&signals.changed, &signals.mutex, end - now);
        }
        if (signals.counts[0] > 0)
            taken = 0;
        else if (signals.counts[1] > 0)
            taken = 1;
    }
    if (taken != -1) --signals.counts[taken];
    uv_mutex_unlock(&signals.mutex);
    return taken;
}

int main() {
    Signals signals = {};
    uv_mutex_init(&signals.mutex);
    uv_cond_init(&signals.changed);
    uv_thread_t other;
    uv_thread_create(
        &other, [](void* all) { set(*static_cast<Signals*>(all), 1); }, &signals);
    const int first = wait(signals, 1000000000);
    if (first != -1) std::printf("number %d\n", first);
    const int second = wait(signals, 10000000);
    std::printf("%s\n", second != -1 ? "one more" : "none");
    uv_thread_join(&other);
    uv_cond_destroy(&signals.changed);
    uv_mutex_destroy(&signals.mutex);
}
