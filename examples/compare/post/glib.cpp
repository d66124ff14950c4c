// Posts to a worker, one function before the others, and asks for a result.
#include <functional>
#include <future>
#include <memory>

#include <glib.h>

struct Job {
    gint priority;
    std::function<void()> run;
};

void serve(gpointer job, gpointer) {
    std::unique_ptr<Job>(static_cast<Job*>(job))->run();
}

gint compare(gconstpointer a, gconstpointer b, gpointer) {
    return static_cast<const Job*>(a)->priority - static_cast<const Job*>(b)->priority;
}

void post(GThreadPool* worker, std::function<void()> run, gint priority = G_PRIORITY_DEFAULT) {
    g_thread_pool_push(worker, new Job{priority, std::move(run)}, nullptr);
}

int main() {
    GThreadPool* tuner = g_thread_pool_new(serve, nullptr, 1, TRUE, nullptr);
    g_thread_pool_set_sort_function(tuner, compare, nullptr);
    std::promise<void> started, posted;
    post(tuner, [&] {
        started.set_value();
        posted.get_future().wait();
    });
    started.get_future().wait();
    post(tuner, [] { g_print("ordinary\n"); });
    post(
        tuner, [] { g_print("urgent\n"); }, G_PRIORITY_HIGH);
    posted.set_value();
    std::promise<int> khz;
    post(tuner, [&] { khz.set_value(98500); });
    g_print("tuned to %d kHz\n", khz.get_future().get());
    g_thread_pool_free(tuner, FALSE, TRUE);
}
