// One change, told to eight observers.

#include <array>
#include <cstdint>

#include <Poco/BasicEvent.h>
#include <Poco/Delegate.h>
#include <QObject>
#include <benchmark/benchmark.h>

#include <Framework/Pattern/PZSubject.h>

#include "peers/Checked.h"

namespace {

constexpr unsigned int kObservers = 8;
constexpr unsigned int kChange = 1;

class Framework {
public:
    Framework() {
        for (Observer& observer : observers_) subject_.AddObserver(&observer);
    }
    ~Framework() {
        for (Observer& observer : observers_) subject_.RemoveObserver(&observer);
    }
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    void Notify() { subject_.NotifyObserver(kChange, nullptr, 0, en_NTF_ALL); }
    std::uint64_t SumOf(size_t observer) const { return observers_[observer].sum; }

private:
    struct Observer : PZObserver_ {
        unsigned int OnNotify(unsigned int change, void*, unsigned int) override {
            sum += change;
            return 0;
        }
        std::uint64_t sum = 0;
    };

    PZSubject subject_;
    std::array<Observer, kObservers> observers_;
};

class PocoEvent {
public:
    PocoEvent() {
        for (Observer& observer : observers_) {
            event_ += Poco::delegate(&observer, &Observer::OnChange);
        }
    }
    PocoEvent(const PocoEvent&) = delete;
    PocoEvent& operator=(const PocoEvent&) = delete;

    void Notify() { event_.notify(this, kChange); }
    std::uint64_t SumOf(size_t observer) const { return observers_[observer].sum; }

private:
    struct Observer {
        void OnChange(const unsigned int& change) { sum += change; }
        std::uint64_t sum = 0;
    };

    std::array<Observer, kObservers> observers_;  // outlive the event
    Poco::BasicEvent<const unsigned int> event_;
};

class QtSubject : public QObject {
    Q_OBJECT
signals:
    void Changed(unsigned int change);
};

class QtObserver : public QObject {
    Q_OBJECT
public slots:
    void OnChange(unsigned int change) { sum += change; }

public:
    std::uint64_t sum = 0;
};

class QtSignal {
public:
    QtSignal() {
        for (QtObserver& observer : observers_) {
            QObject::connect(&subject_, &QtSubject::Changed, &observer, &QtObserver::OnChange,
                             Qt::DirectConnection);
        }
    }

    void Notify() { emit subject_.Changed(kChange); }
    std::uint64_t SumOf(size_t observer) const { return observers_[observer].sum; }

private:
    QtSubject subject_;
    std::array<QtObserver, kObservers> observers_;
};

template <typename Peer>
void notify_8(benchmark::State& state) {
    Peer peer;
    for (auto _ : state) peer.Notify();
    for (size_t i = 0; i < kObservers; ++i) {
        pzbench::check(state, peer.SumOf(i) == static_cast<std::uint64_t>(state.iterations()));
    }
}

BENCHMARK(notify_8<Framework>)->Name("notify_8/pzframework");
BENCHMARK(notify_8<PocoEvent>)->Name("notify_8/POCO");
BENCHMARK(notify_8<QtSignal>)->Name("notify_8/Qt");

}  // namespace

#include "NotifyPeers.moc"
