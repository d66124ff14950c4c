#include "ReaderUnit.h"

#include <cerrno>
#include <cstring>

#include "TextUnit.h"

ReaderUnit::ReaderUnit(Catalogue& catalogue, BlockPool& pool, TextUnit& text, ScanLog& log,
                       unsigned long long hugeSize)
    : catalogue_(catalogue), pool_(pool), text_(text), log_(log), hugeSize_(hugeSize) {
    for (unsigned int number = 0; number < BlockPool::kCount; ++number) free_.push_back(number);
}

// One event at a time is enough: it says "look", not how many there are.
void ReaderUnit::LookForFiles() {
    constexpr unsigned int kFiles = 1;
    if (!isToldOfFiles_.exchange(true)) SendEvtSelf(kFiles);
}

void ReaderUnit::TakeBack(unsigned int block) {
    SendMsgSelf(en_MSG_BLOCK_IS_FREE, en_MSG_NORMAL, &block, sizeof block);
}

void ReaderUnit::OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int) {
    if (MsgID == en_MSG_STOP) {
        if (!done_) Finish();
        return;
    }
    unsigned int block = 0;
    std::memcpy(&block, Buff, sizeof block);
    free_.push_back(block);
    GoOn();
}

void ReaderUnit::OnReceiveEvent(unsigned int) {
    isToldOfFiles_ = false;
    GoOn();
}

void ReaderUnit::GoOn() {
    while (!done_ && !free_.empty() && (file_.IsOpen() || OpenNextFile())) ReadBlock();
    if (!done_) FinishWhenAllIsRead();
}

bool ReaderUnit::OpenNextFile() {
    while (next_ < catalogue_.Count()) {
        current_ = next_++;
        FileRecord& record = catalogue_.At(current_);
        log_.Write("file " + record.path);
        if (file_.Open(record.path.c_str(), "rb") == 0) {
            isFirst_ = true;
            return true;
        }
        CloseFile(std::strerror(errno));
    }
    return false;
}

void ReaderUnit::ReadBlock() {
    const unsigned int number = free_.back();
    Block& block = pool_.At(number);
    errno = 0;
    block.size = static_cast<unsigned int>(file_.Read(block.data.data(), Block::kCapacity));
    const int error = errno;
    if (block.size < Block::kCapacity && !file_.IsEndOfFile()) {
        CloseFile(std::strerror(error));
        return;
    }
    bytesRead_ += block.size;
    block.file = current_;
    block.isFirst = isFirst_;
    block.isWhole = catalogue_.At(current_).size <= hugeSize_;
    block.isLast = block.size < Block::kCapacity || !block.isWhole;
    isFirst_ = false;
    if (block.isLast) file_.Close();
    free_.pop_back();
    text_.Take(number);
}

void ReaderUnit::CloseFile(const char* remark) {
    file_.Close();
    FileRecord& record = catalogue_.At(current_);
    record.remark = std::string("cannot be read: ") + remark;
    log_.Write(record.path + ": " + record.remark);
}

// The catalogue is asked whether it is closed before it is asked for its size: a file that was
// added in between is not lost.
void ReaderUnit::FinishWhenAllIsRead() {
    const bool isClosed = catalogue_.IsClosed();
    if (!isClosed || file_.IsOpen() || next_ < catalogue_.Count()) return;
    Finish();
}

void ReaderUnit::Finish() {
    done_ = true;
    text_.TakeEnd();
}
