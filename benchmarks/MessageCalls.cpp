// Posts messages to a worker in batches and waits for each batch; scripts/count-calls runs it under
// strace(1) and states the system calls per message.

#include <semaphore.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

class Unit : public PZUnitFrame, public PZIDispatcher {
public:
    Unit() { sem_init(&done_, 0, 0); }
    ~Unit() override { sem_destroy(&done_); }
    Unit(const Unit&) = delete;
    Unit& operator=(const Unit&) = delete;

    void OnReceiveMsg(unsigned int, const void*, unsigned int) override {
        if (--left_ == 0) sem_post(&done_);
    }
    void OnReceiveEvent(unsigned int) override {}

    void RunBatch(unsigned int messages) {
        left_ = messages;
        for (unsigned int i = 0; i < messages; ++i) SendMsgSelf(1, en_MSG_NORMAL, nullptr, 0);
        while (sem_wait(&done_) != 0) {
        }
    }

private:
    std::atomic<unsigned int> left_{0};
    sem_t done_ = {};
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: MessageCalls BATCHES MESSAGES_PER_BATCH\n");
        return 2;
    }
    const unsigned long batches = std::strtoul(argv[1], nullptr, 10);
    const auto messages = static_cast<unsigned int>(std::strtoul(argv[2], nullptr, 10));
    if (pz_FwInitialize("calls", 1) == 0) return 1;
    {
        PZWorker worker(1, 4000, 1);
        if (worker.Start("calls") != 0) return 1;
        Unit unit;
        if (unit.RegistMsgBox(worker.GetMsgBox(), &unit) != 0) return 1;
        for (unsigned long i = 0; i < batches; ++i) unit.RunBatch(messages);
        worker.End(0);
    }
    pz_FwFinalize();
    return 0;
}
