// Waits for one of two signals from other threads, for a second at most.
#include <cstdio>

#include <Poco/Notification.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>

struct Signal : Poco::Notification {
    explicit Signal(int number) : index(number) {}
    const int index;
};

int main() {
    Poco::NotificationQueue signals;
    Poco::Thread other;
    other.startFunc([&] { signals.enqueueNotification(new Signal(1)); });
    Poco::Notification::Ptr first(signals.waitDequeueNotification(1000));
    if (first) std::printf("number %d\n", first.cast<Signal>()->index);
    Poco::Notification::Ptr second(signals.waitDequeueNotification(10));
    std::printf("%s\n", second ? "one more" : "none");
    other.join();
}
