// Waits for one of two signals from other threads, for a second at most.
#include <glib.h>

gpointer run(gpointer signals) {
    g_async_queue_push(static_cast<GAsyncQueue*>(signals), GINT_TO_POINTER(1));
    return nullptr;
}

int main() {
    GAsyncQueue* signals = g_async_queue_new();
    GThread* other = g_thread_new("other", run, signals);
    const gpointer first = g_async_queue_timeout_pop(signals, G_USEC_PER_SEC);
    if (first != nullptr) g_print("number %d\n", GPOINTER_TO_INT(first));
    const gpointer second = g_async_queue_timeout_pop(signals, 10000);
    g_print("%s\n", second != nullptr ? "one more" : "none");
    g_thread_join(other);
    g_async_queue_unref(signals);
}
