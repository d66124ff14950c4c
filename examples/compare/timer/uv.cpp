// Polls every 10 ms. The library's own repetition would count from the time of each poll.
#include <cstdio>

#include <uv.h>

uint64_t due;

void poll(uv_timer_t* t) {
    static int polls = 0;
    std::printf("poll %d\n", ++polls);
    due += 10;
    const uint64_t now = uv_now(t->loop);
    if (polls < 3) uv_timer_start(t, poll, due > now ? due - now : 0, 0);
}

int main() {
    uv_loop_t* tuner = uv_default_loop();
    uv_timer_t t;
    uv_timer_init(tuner, &t);
    due = uv_now(tuner) + 10;
    uv_timer_start(&t, poll, 10, 0);
    return uv_run(tuner, UV_RUN_DEFAULT);
}
