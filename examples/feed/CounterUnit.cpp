#include "CounterUnit.h"

#include <cstring>

namespace {

constexpr double kNsPerMs = 1e6;

bool is_space(unsigned char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// One step of the checksum: rotate 16 bits to the right, add the byte.
unsigned int add_to_checksum(unsigned int checksum, unsigned char c) {
    const unsigned int rotated = (checksum >> 1) | ((checksum & 1U) << 15);
    return (rotated + c) & 0xFFFFU;
}

}  // namespace

CounterUnit::CounterUnit(std::vector<FileTotals>& files, const EndOfRun& end)
    : files_(files), end_(end) {}

unsigned int CounterUnit::Post(EN_MSG id, const void* data, unsigned int size) {
    PZIMsgBox::ST_PUSH_MSG_DATA message = {static_cast<unsigned long>(SID), id, en_MSG_NORMAL, data,
                                           size};
    const unsigned int result = pIMsgBox_->PushMsg(message);
    if (result == PZIMsgBox::en_POST_OK) ++posted_;
    return result;
}

void CounterUnit::Stop() {
    SendMsgSelf(en_MSG_STOP, en_MSG_EMERGENCY, nullptr, 0);
}

void CounterUnit::OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) {
    if (MsgID == en_MSG_STOP) {
        stopped_ = true;
        EndFile();
        return;
    }
    ++handled_;
    if (stopped_) return;  // what was still queued

    switch (MsgID) {
        case en_MSG_FILE_BEGIN: {
            unsigned int index = 0;
            std::memcpy(&index, Buff, sizeof index);
            BeginFile(index);
            break;
        }
        case en_MSG_CHUNK:
            Count(static_cast<const unsigned char*>(Buff), BuffSize);
            break;
        case en_MSG_FILE_END:
            current_->complete = true;
            EndFile();
            break;
        case en_MSG_FILE_BROKEN:
            EndFile();
            break;
        case en_MSG_ALL_DONE:
            end_.Finish();
            break;
        default:
            break;
    }
}

void CounterUnit::OnReceiveEvent(unsigned int) {}

void CounterUnit::BeginFile(unsigned int index) {
    current_ = &files_[index];
    current_->begun = true;
    inWord_ = false;
    watch_.Start();
}

void CounterUnit::Count(const unsigned char* data, unsigned int size) {
    FileTotals& file = *current_;
    for (unsigned int i = 0; i < size; ++i) {
        const unsigned char c = data[i];
        const bool space = is_space(c);
        if (!space && !inWord_) ++file.words;
        if (c == '\n') ++file.lines;
        inWord_ = !space;
        file.checksum = add_to_checksum(file.checksum, c);
    }
    file.bytes += size;
    ++file.messages;
    bytes_ += size;
    ++chunks_;
}

void CounterUnit::EndFile() {
    if (current_ == nullptr) return;
    current_->milliseconds = static_cast<double>(watch_.Stop()) / kNsPerMs;
    current_ = nullptr;
}
