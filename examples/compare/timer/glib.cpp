// Polls every 10 ms. The library's own repetition would count from the end of each poll.
#include <glib.h>

gint64 due;

gboolean poll(gpointer loop) {
    static int polls = 0;
    g_print("poll %d\n", ++polls);
    due += 10 * G_TIME_SPAN_MILLISECOND;
    const gint64 left = (due - g_get_monotonic_time()) / G_TIME_SPAN_MILLISECOND;
    if (polls < 3) g_timeout_add(MAX(left, 0), poll, loop);
    if (polls == 3) g_main_loop_quit(static_cast<GMainLoop*>(loop));
    return G_SOURCE_REMOVE;
}

int main() {
    GMainLoop* tuner = g_main_loop_new(nullptr, FALSE);
    due = g_get_monotonic_time() + 10 * G_TIME_SPAN_MILLISECOND;
    g_timeout_add(10, poll, tuner);
    g_main_loop_run(tuner);
    g_main_loop_unref(tuner);
}
