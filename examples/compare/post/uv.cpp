// Posts to a worker, one function before the others, and asks for a result.
#include <cstdio>
#include <functional>
#include <future>
#include <map>
#include <mutex>

#include <uv.h>

class Worker {
public:
    enum Priority { high, normal, last };
    Worker() {
        uv_loop_init(&loop_);
        uv_async_init(&loop_, &wake_,
                      [](uv_async_t* wake) { static_cast<Worker*>(wake->data)->serve(); });
        wake_.data = this;
        uv_thread_create(
            &thread_, [](void* loop) { uv_run(static_cast<uv_loop_t*>(loop), UV_RUN_DEFAULT); },
            &loop_);
    }
    ~Worker() {
        post([this] { uv_close(reinterpret_cast<uv_handle_t*>(&wake_), nullptr); }, last);
        uv_thread_join(&thread_);
        uv_loop_close(&loop_);
    }
    void post(std::function<void()> function, Priority priority = normal) {
        const std::lock_guard<std::mutex> lock(mutex_);
        waiting_.emplace(priority, std::move(function));
        uv_async_send(&wake_);
    }

private:
    void serve() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!waiting_.empty()) {
            const auto function = std::move(waiting_.begin()->second);
            waiting_.erase(waiting_.begin());
            lock.unlock();
            function();
            lock.lock();
        }
    }

    std::mutex mutex_;
    std::multimap<Priority, std::function<void()>> waiting_;
    uv_loop_t loop_;
    uv_async_t wake_;
    uv_thread_t thread_;
};

int main() {
    Worker tuner;
    std::promise<void> started, posted;
    tuner.post([&] {
        started.set_value();
        posted.get_future().wait();
    });
    started.get_future().wait();
    tuner.post([] { std::printf("ordinary\n"); });
    tuner.post([] { std::printf("urgent\n"); }, Worker::high);
    posted.set_value();
    std::promise<int> khz;
    tuner.post([&] { khz.set_value(98500); });
    std::printf("tuned to %d kHz\n", khz.get_future().get());
}
