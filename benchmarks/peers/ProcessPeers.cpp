// Between processes: a message of 256 bytes through a queue, and a lock that has a name.

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include <Poco/NamedMutex.h>
#include <benchmark/benchmark.h>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/interprocess/sync/named_recursive_mutex.hpp>

#include <Framework/Communication/PZFileGuard.h>
#include <Framework/Communication/PZMessageQueue.h>

#include "peers/Checked.h"
#include "support/OutputToFile.h"
#include "support/TempFolder.h"

namespace {

namespace bip = boost::interprocess;

constexpr unsigned int kMessages = 10;
constexpr unsigned int kMessageSize = 256;

std::string own_name() {
    return "pzpeers" + std::to_string(getpid());
}

class Framework {
public:
    Framework() {
        if (!queue_.open({name_.c_str(), kMessages})) std::abort();
    }
    ~Framework() { queue_.close(true); }
    Framework(const Framework&) = delete;
    Framework& operator=(const Framework&) = delete;

    void Send(const std::string& message) {
        PZMsgQ::MSG_TYPE type = PZMsgQ::en_MSG_TYPE_USER;
        if (queue_.send(type, message.data(), kMessageSize, 128) != 0) std::abort();
    }
    const void* Receive() {
        PZMsgQ::MSG_TYPE type = PZMsgQ::en_MSG_TYPE_USER;
        if (queue_.receive(type, data_, sizeof data_) < 0) std::abort();
        return data_;
    }

private:
    using Queue = PZMsgQ::PZMessageQueue<2>;

    const std::string name_ = own_name();
    Queue queue_;
    unsigned char data_[Queue::kMinReceiveSize] = {};
};

class BoostQueue {
public:
    ~BoostQueue() { bip::message_queue::remove(name_.c_str()); }

    void Send(const std::string& message) { queue_.send(message.data(), kMessageSize, 128); }
    const void* Receive() {
        bip::message_queue::size_type size = 0;
        unsigned int priority = 0;
        queue_.receive(data_, sizeof data_, size, priority);
        return data_;
    }

private:
    const std::string name_ = own_name();
    bip::message_queue queue_{bip::open_or_create, name_.c_str(), kMessages, 1024};
    unsigned char data_[1024] = {};
};

template <typename Peer>
void queue(benchmark::State& state) {
    Peer peer;
    const std::string message(kMessageSize, 'p');
    const void* received = nullptr;
    for (auto _ : state) {
        peer.Send(message);
        received = peer.Receive();
        benchmark::DoNotOptimize(received);
    }
    pzbench::check(state, message.compare(0, kMessageSize, static_cast<const char*>(received),
                                          kMessageSize) == 0);
}

class FrameworkGuard {
public:
    FrameworkGuard() {
        if (!guard_.initForSystem()) std::abort();
    }

    void Lock() { guard_.lock(); }
    bool TryLock() { return guard_.tryLock(); }
    void Unlock() { guard_.unlock(); }

private:
    pzbench::TempFolder folder_;  // of the key files; outlives the guard
    PZFileGuard guard_{folder_.Path(), "bench"};
};

class PocoGuard {
public:
    void Lock() { mutex_.lock(); }
    bool TryLock() { return mutex_.tryLock(); }
    void Unlock() { mutex_.unlock(); }

private:
    Poco::NamedMutex mutex_{own_name()};
};

class BoostGuard {
public:
    ~BoostGuard() { bip::named_recursive_mutex::remove(name_.c_str()); }

    void Lock() { mutex_.lock(); }
    bool TryLock() { return mutex_.try_lock(); }
    void Unlock() { mutex_.unlock(); }

private:
    const std::string name_ = own_name();
    bip::named_recursive_mutex mutex_{bip::open_or_create, name_.c_str()};
};

template <typename Peer>
bool excludes_others(Peer& peer) {
    const pzbench::OutputToFile reports;  // one says that the lock is taken
    bool isTaken = true;
    peer.Lock();
    std::thread([&] { isTaken = peer.TryLock(); }).join();
    peer.Unlock();
    return !isTaken;
}

template <typename Peer>
void guard(benchmark::State& state) {
    Peer peer;
    pzbench::check(state, excludes_others(peer));
    for (auto _ : state) {
        peer.Lock();
        peer.Unlock();
    }
}

BENCHMARK(queue<Framework>)->Name("queue/pzframework");
BENCHMARK(queue<BoostQueue>)->Name("queue/Boost.Interprocess");
BENCHMARK(guard<FrameworkGuard>)->Name("guard/pzframework");
BENCHMARK(guard<BoostGuard>)->Name("guard/Boost.Interprocess");
BENCHMARK(guard<PocoGuard>)->Name("guard/POCO");

}  // namespace
