// Priorities of messages: emergencies first, then the lower value; equal values keep their order.
//
// The first message keeps the worker busy until the others are there.
#include <cstdio>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>

namespace {

class Desk : public PZUnitFrame, public PZIDispatcher {
public:
    ~Desk() override { UnregistMsgBox(); }

    bool Post(const char* text, EN_MSG_ID priority) {
        return SendMsgSelf(1, priority, &text, sizeof text) == en_SUCCESS;
    }
    void OpenDoors() { doors_.SetEvent(); }

    void OnReceiveMsg(unsigned int /*id*/, const void* data, unsigned int /*size*/) override {
        const char* const text = *static_cast<const char* const*>(data);
        if (!isOpen_) doors_.WaitEvent(0xFFFFFFFF);
        isOpen_ = true;
        std::printf("%s\n", text);
    }
    void OnReceiveEvent(unsigned int /*bits*/) override {}

private:
    PZEvent doors_;
    bool isOpen_ = false;  // of the worker's thread
};

}  // namespace

int main() {
    if (pz_FwInitialize("message_priorities", 1) == 0) return 1;
    PZWorker worker(1, 4000, 1);
    if (worker.Start("desk") != 0) return 1;
    Desk desk;
    bool isPosted = desk.RegistMsgBox(worker.GetMsgBox(), &desk) == PZUnitFrame::en_SUCCESS;
    isPosted = isPosted && desk.Post("opening", en_MSG_EMERGENCY);
    isPosted = isPosted && desk.Post("low", en_MSG_LOW);
    isPosted = isPosted && desk.Post("normal, first", en_MSG_NORMAL);
    isPosted = isPosted && desk.Post("normal, second", en_MSG_NORMAL);
    isPosted = isPosted && desk.Post("high", en_MSG_HIGH);
    isPosted = isPosted && desk.Post("emergency", en_MSG_EMERGENCY);
    desk.OpenDoors();
    worker.End(0);
    pz_FwFinalize();
    return isPosted ? 0 : 1;
}
