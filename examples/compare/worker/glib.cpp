// A thread with a name, that is ended with the scope.
#include <pthread.h>

#include <glib.h>

gpointer run(gpointer) {
    char name[16];
    pthread_getname_np(pthread_self(), name, sizeof name);
    g_print("%s runs\n", name);
    return nullptr;
}

int main() {
    GThread* tuner = g_thread_new("tuner", run, nullptr);
    g_thread_join(tuner);
}
