// Posts to a worker, one function before the others, and asks for a result.
#include <cstdio>
#include <functional>
#include <future>

#include <Poco/Event.h>
#include <Poco/Notification.h>
#include <Poco/PriorityNotificationQueue.h>
#include <Poco/Thread.h>

enum Priority { high, normal, last };

class Worker {
public:
    Worker() {
        thread_.startFunc([this] { serve(); });
    }
    ~Worker() {
        post([this] { ended_ = true; }, last);
        thread_.join();
    }
    void post(std::function<void()> function, Priority priority = normal) {
        queue_.enqueueNotification(new Job(std::move(function)), priority);
    }

private:
    struct Job : Poco::Notification {
        explicit Job(std::function<void()> function) : run(std::move(function)) {}
        const std::function<void()> run;
    };
    void serve() {
        while (!ended_) {
            Poco::AutoPtr<Poco::Notification> job(queue_.waitDequeueNotification());
            job.cast<Job>()->run();
        }
    }

    Poco::PriorityNotificationQueue queue_;
    bool ended_ = false;
    Poco::Thread thread_{"tuner"};
};

int main() {
    Worker tuner;
    Poco::Event started, posted;
    tuner.post([&] {
        started.set();
        posted.wait();
    });
    started.wait();
    tuner.post([] { std::printf("ordinary\n"); });
    tuner.post([] { std::printf("urgent\n"); }, high);
    posted.set();
    std::promise<int> khz;
    tuner.post([&] { khz.set_value(98500); });
    std::printf("tuned to %d kHz\n", khz.get_future().get());
}
