// Posts to a worker, one function before the others, and asks for a result.
#include <cstdio>
#include <functional>

#include <QCoreApplication>
#include <QEvent>
#include <QSemaphore>
#include <QThread>

class Tuner : public QObject {
public:
    void post(std::function<void()> function, int priority = Qt::NormalEventPriority) {
        QCoreApplication::postEvent(this, new Job(std::move(function)), priority);
    }
    bool event(QEvent* event) override {
        if (event->type() != QEvent::User) return QObject::event(event);
        static_cast<Job*>(event)->run();
        return true;
    }

private:
    struct Job : QEvent {
        explicit Job(std::function<void()> function) : QEvent(User), run(std::move(function)) {}
        const std::function<void()> run;
    };
};

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QThread thread;
    Tuner tuner;
    tuner.moveToThread(&thread);
    thread.start();
    QSemaphore started, posted;
    tuner.post([&] {
        started.release();
        posted.acquire();
    });
    started.acquire();
    tuner.post([] { std::printf("ordinary\n"); });
    tuner.post([] { std::printf("urgent\n"); }, Qt::HighEventPriority);
    posted.release();
    int khz = 0;
    QMetaObject::invokeMethod(
        &tuner, [] { return 98500; }, Qt::BlockingQueuedConnection, &khz);
    std::printf("tuned to %d kHz\n", khz);
    thread.quit();
    thread.wait();
}
