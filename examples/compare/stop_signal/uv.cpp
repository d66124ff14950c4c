// Waits for Ctrl-C or SIGTERM, and ends in order.
#include <csignal>
#include <cstdio>

#include <uv.h>

void stop(uv_signal_t* signal, int) {
    uv_stop(signal->loop);
}

int main() {
    uv_loop_t* loop = uv_default_loop();
    uv_signal_t interrupt, terminate;
    uv_signal_init(loop, &interrupt);
    uv_signal_init(loop, &terminate);
    uv_signal_start(&interrupt, stop, SIGINT);
    uv_signal_start(&terminate, stop, SIGTERM);
    uv_run(loop, UV_RUN_DEFAULT);
    std::printf("ended in order\n");
}
