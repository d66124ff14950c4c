// Waits for Ctrl-C or SIGTERM, and ends in order.
#include <csignal>

#include <glib-unix.h>

gboolean stop(gpointer loop) {
    g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_CONTINUE;
}

int main() {
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGINT, stop, loop);
    g_unix_signal_add(SIGTERM, stop, loop);
    g_main_loop_run(loop);
    g_main_loop_unref(loop);
    g_print("ended in order\n");
}
