// Work that is handed to another thread: an order of 64 bytes, copied on the way.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include <QCoreApplication>
#include <QEvent>
#include <QThread>
#include <benchmark/benchmark.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>

#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>

#include "peers/Checked.h"
#include "support/Acknowledge.h"

namespace {

constexpr unsigned int kWatchMs = 4000;
constexpr benchmark::IterationCount kBatch = 200;

struct Order {
    std::uint64_t number;
    char rest[56];
};

/// Where all orders end up.
class Receiver {
public:
    void Expect(unsigned int orders) { acknowledge_.Expect(orders); }
    void Wait() { acknowledge_.Wait(); }
    void Handle(const Order& order) {
        sum_ += order.number;
        acknowledge_.Handled();
    }
    std::uint64_t Sum() const { return sum_; }

private:
    pzbench::Acknowledge acknowledge_;
    std::uint64_t sum_ = 0;  // of the handling thread; read after its acknowledgement
};

class Framework : private PZUnitFrame, private PZIDispatcher {
public:
    explicit Framework(Receiver& receiver) : receiver_(receiver), worker_(1, kWatchMs, 1) {
        if (worker_.Start("bench") != 0) std::abort();
        RegistMsgBox(worker_.GetMsgBox(), this);
    }
    ~Framework() override {
        worker_.End(0);
        UnregistMsgBox();
    }
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    void Post(const Order& order) { SendMsgSelf(1, en_MSG_NORMAL, &order, sizeof order); }

private:
    void OnReceiveMsg(unsigned int, const void* data, unsigned int) override {
        receiver_.Handle(*static_cast<const Order*>(data));
    }
    void OnReceiveEvent(unsigned int) override {}

    Receiver& receiver_;
    PZWorker worker_;
};

class Asio {
public:
    explicit Asio(Receiver& receiver)
        : receiver_(receiver),
          work_(context_.get_executor()),
          thread_([this] { context_.run(); }) {}
    ~Asio() {
        work_.reset();
        thread_.join();
    }
    Asio(const Asio&) = delete;
    Asio& operator=(const Asio&) = delete;

    void Post(const Order& order) {
        boost::asio::post(context_, [this, order] { receiver_.Handle(order); });
    }

private:
    Receiver& receiver_;
    boost::asio::io_context context_;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work_;
    std::thread thread_;
};

class Qt {
public:
    explicit Qt(Receiver& receiver) : object_(receiver) {
        object_.moveToThread(&thread_);
        thread_.start();
    }
    ~Qt() {
        thread_.quit();
        thread_.wait();
    }
    Qt(const Qt&) = delete;
    Qt& operator=(const Qt&) = delete;

    void Post(const Order& order) {
        // The event loop deletes it.
        QCoreApplication::postEvent(&object_, std::make_unique<OrderEvent>(order).release());
    }

private:
    struct OrderEvent : QEvent {
        explicit OrderEvent(const Order& toPost) : QEvent(QEvent::User), order(toPost) {}
        const Order order;
    };

    class Object : public QObject {
    public:
        explicit Object(Receiver& receiver) : receiver_(receiver) {}
        bool event(QEvent* event) override {
            if (event->type() != QEvent::User) return QObject::event(event);
            receiver_.Handle(static_cast<OrderEvent*>(event)->order);
            return true;
        }

    private:
        Receiver& receiver_;
    };

    QThread thread_;
    Object object_;  // goes first, when its thread has ended
};

/// The time of one order, from its post to its handling, with `batch` of them on their way.
template <typename Peer>
void post(benchmark::State& state, benchmark::IterationCount batch) {
    Receiver receiver;
    std::uint64_t expected = 0;
    {
        Peer peer(receiver);
        Order order = {};
        while (state.KeepRunningBatch(batch)) {
            receiver.Expect(static_cast<unsigned int>(batch));
            for (benchmark::IterationCount i = 0; i < batch; ++i) {
                expected += ++order.number;
                peer.Post(order);
            }
            receiver.Wait();
        }
    }
    pzbench::check(state, receiver.Sum() == expected);
}

template <typename Peer>
void post_batch(benchmark::State& state) {
    post<Peer>(state, kBatch);
}

template <typename Peer>
void post_round_trip(benchmark::State& state) {
    post<Peer>(state, 1);
}

BENCHMARK(post_batch<Framework>)->Name("post_batch/pzframework")->UseRealTime();
BENCHMARK(post_batch<Asio>)->Name("post_batch/Boost.Asio")->UseRealTime();
BENCHMARK(post_batch<Qt>)->Name("post_batch/Qt")->UseRealTime();
BENCHMARK(post_round_trip<Framework>)->Name("post_round_trip/pzframework")->UseRealTime();
BENCHMARK(post_round_trip<Asio>)->Name("post_round_trip/Boost.Asio")->UseRealTime();
BENCHMARK(post_round_trip<Qt>)->Name("post_round_trip/Qt")->UseRealTime();

}  // namespace
