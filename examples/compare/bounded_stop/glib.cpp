// Gives a worker that hangs 100 ms to end, tells what hangs, and ends the program all the same.
#include <glib.h>

struct Tuner {
    GMutex mutex;
    GCond changed;
    gboolean ended;
    gint64 start;
};

gpointer run(gpointer data) {
    Tuner* tuner = static_cast<Tuner*>(data);
    g_mutex_lock(&tuner->mutex);
    tuner->start = g_get_monotonic_time();
    g_mutex_unlock(&tuner->mutex);
    g_usleep(3600UL * G_USEC_PER_SEC);
    g_mutex_lock(&tuner->mutex);
    tuner->ended = TRUE;
    g_cond_signal(&tuner->changed);
    g_mutex_unlock(&tuner->mutex);
    return nullptr;
}

int main() {
    Tuner* tuner = g_new0(Tuner, 1);  // kept for the thread
    tuner->start = g_get_monotonic_time();
    g_thread_unref(g_thread_new("tuner", run, tuner));
    const gint64 limit = g_get_monotonic_time() + 100 * G_TIME_SPAN_MILLISECOND;
    g_mutex_lock(&tuner->mutex);
    while (!tuner->ended && g_cond_wait_until(&tuner->changed, &tuner->mutex, limit)) {
    }
    if (!tuner->ended) {
        g_print(
            "worker [tuner] has not ended within 100 ms: what was posted by main() has been "
            "running for %" G_GINT64_FORMAT " ms\n",
            (g_get_monotonic_time() - tuner->start) / G_TIME_SPAN_MILLISECOND);
    }
    g_print("stopped: %s\n", tuner->ended ? "yes" : "no");
    g_mutex_unlock(&tuner->mutex);
}
