// Posts to a worker, one function before the others, and asks for a result.
#include <cstdio>
#include <functional>
#include <future>
#include <map>
#include <mutex>

#include <boost/asio.hpp>

class Worker {
public:
    enum Priority { high, normal };
    void post(std::function<void()> function, Priority priority = normal) {
        const std::lock_guard<std::mutex> lock(mutex_);
        waiting_.emplace(priority, std::move(function));
        boost::asio::post(pool_, [this] { runFirst(); });
    }
    void join() { pool_.join(); }

private:
    void runFirst() {
        std::unique_lock<std::mutex> lock(mutex_);
        const auto function = std::move(waiting_.begin()->second);
        waiting_.erase(waiting_.begin());
        lock.unlock();
        function();
    }

    std::mutex mutex_;
    std::multimap<Priority, std::function<void()>> waiting_;
    boost::asio::thread_pool pool_{1};
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
    tuner.join();
}
