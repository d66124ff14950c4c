// A queue between processes: one sends and ends, the other receives. Messages wait in the system,
// the smaller priority value first.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

class Radio : public PZObserver_ {
public:
    explicit Radio(PZEvent& received) : received_(received) {}

    /// On the queue's own thread. Zero bytes follow the payload, so a text is terminated.
    unsigned int OnNotify(unsigned int /*id*/, void* data, unsigned int /*size*/) override {
        std::printf("%s\n", static_cast<const char*>(data));
        received_.SetEvent();
        return 0;
    }

private:
    PZEvent& received_;
};

bool send(PZMsgQ::PZMessageQueue<0>& queue, const char* text, unsigned char priority) {
    return queue.send(text, static_cast<unsigned int>(std::strlen(text)), priority) == 0;
}

int sending_process(const char* name) {
    PZMsgQ::PZMessageQueue<0> queue;
    if (!queue.open({name})) return 1;
    const bool isTuned = send(queue, "tune to 98500 kHz", 128) && send(queue, "louder", 128);
    return isTuned && send(queue, "switch on", 1) ? 0 : 1;
}

}  // namespace

int main() {
    const std::string name = "small_queue_" + std::to_string(getpid());  // of the whole system
    const pid_t other = fork();
    if (other == 0) _exit(sending_process(name.c_str()));
    int status = -1;
    if (waitpid(other, &status, 0) != other || status != 0) return 1;

    if (pz_FwInitialize("queue", 1) == 0) return 1;
    PZEvent received;
    Radio radio(received);
    PZMsgQ::PZMessageQueue<1> queue;
    if (!queue.open({name.c_str(), &radio})) return 1;
    for (int i = 0; i < 3; ++i) received.WaitEvent(0xFFFFFFFF);
    queue.close();  // removes it from the system
    pz_FwFinalize();
}
