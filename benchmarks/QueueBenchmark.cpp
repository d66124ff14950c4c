// Message queues between processes, beside the system calls they stand on.

#include <fcntl.h>
#include <mqueue.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include <Framework/Communication/PZMessageQueue.h>

namespace {

using Queue = PZMsgQ::PZMessageQueue<2>;

constexpr unsigned int kBufferSize = Queue::kMinReceiveSize;
constexpr unsigned char kPriority = 128;

std::string queue_name() {
    return "pzbench" + std::to_string(getpid());
}

void send_receive(benchmark::State& state) {
    const std::string name = queue_name();
    const auto size = static_cast<unsigned int>(state.range(0));
    const std::string payload(size, 'p');
    unsigned char data[kBufferSize];
    Queue queue;
    if (!queue.open({name.c_str(), 10})) std::abort();
    for (auto _ : state) {
        PZMsgQ::MSG_TYPE type = PZMsgQ::en_MSG_TYPE_USER;
        if (queue.send(type, payload.data(), size, kPriority) != 0) std::abort();
        if (queue.receive(type, data, sizeof data) < 0) std::abort();
        benchmark::DoNotOptimize(data);
    }
    queue.close(true);
}

/// The system calls alone, with a message that is ready to be sent and used where it lies.
void send_receive_raw(benchmark::State& state) {
    const std::string name = "/" + queue_name();
    const auto size = static_cast<size_t>(state.range(0));
    char message[kBufferSize] = {1};
    std::memset(message + 1, 'p', size);
    char data[kBufferSize];
    mq_attr attr = {};
    attr.mq_maxmsg = 10;
    attr.mq_msgsize = 1024;
    const mqd_t queue = mq_open(name.c_str(), O_RDWR | O_CREAT, 0666, &attr);
    if (queue == -1) std::abort();
    for (auto _ : state) {
        unsigned int priority = 0;
        if (mq_send(queue, message, size + 4, 255U - kPriority) != 0) std::abort();
        if (mq_receive(queue, data, 1024, &priority) < 0) std::abort();
        benchmark::DoNotOptimize(data);
    }
    mq_close(queue);
    mq_unlink(name.c_str());
}

BENCHMARK(send_receive)->Name("queue/send+receive")->Arg(16)->Arg(256)->Arg(1020);
BENCHMARK(send_receive_raw)->Name("queue/send+receive:raw")->Arg(16)->Arg(256)->Arg(1020);

}  // namespace
