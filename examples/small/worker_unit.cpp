// A unit on a worker: what it sends to itself is handled on the worker's thread.
#include <cstdio>

#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

constexpr unsigned int kMsgTune = 1;  // payload: the frequency in kHz, an int
constexpr unsigned int kEventReady = 0x4;

class Tuner : public PZUnitFrame, public PZIDispatcher {
public:
    ~Tuner() override { UnregistMsgBox(); }

    bool TuneTo(int kHz) {
        return SendMsgSelf(kMsgTune, en_MSG_NORMAL, &kHz, sizeof kHz) == en_SUCCESS;
    }

    void OnReceiveMsg(unsigned int id, const void* data, unsigned int size) override {
        if (id != kMsgTune || size != sizeof(int)) return;
        std::printf("tuned to %d kHz\n", *static_cast<const int*>(data));
        if (SendEvtSelf(kEventReady) != en_SUCCESS) std::printf("no event\n");
    }
    void OnReceiveEvent(unsigned int bits) override { std::printf("event 0x%x\n", bits); }
};

}  // namespace

int main() {
    if (pz_FwInitialize("worker_unit", 1) == 0) return 1;
    PZWorker worker(1, 4000, 1);
    if (worker.Start("tuner") != 0) return 1;
    bool isSent = false;
    {
        Tuner tuner;
        if (tuner.RegistMsgBox(worker.GetMsgBox(), &tuner) == PZUnitFrame::en_SUCCESS) {
            isSent = tuner.TuneTo(98500);
        }
        worker.End(0);  // when everything posted has been served
    }
    pz_FwFinalize();
    return isSent ? 0 : 1;
}
