#include "ChecksumUnit.h"

#include <cstring>

#include <Framework/Utility/PZCRC.h>

#include "ReaderUnit.h"

ChecksumUnit::ChecksumUnit(Catalogue& catalogue, BlockPool& pool, const EndOfRun& end)
    : catalogue_(catalogue), pool_(pool), end_(end) {}

bool ChecksumUnit::Join(PZIMsgBox* box, ReaderUnit& reader) {
    reader_ = &reader;
    return RegistMsgBox(box, this) == 0;
}

void ChecksumUnit::Take(unsigned int block) {
    SendMsgSelf(en_MSG_BLOCK, en_MSG_NORMAL, &block, sizeof block);
}

void ChecksumUnit::OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int) {
    if (MsgID == en_MSG_END) {
        end_.Finish();
        return;
    }
    unsigned int number = 0;
    std::memcpy(&number, Buff, sizeof number);
    Add(pool_.At(number));
    reader_->TakeBack(number);
}

void ChecksumUnit::OnReceiveEvent(unsigned int) {}

// A checksum goes on with the complement of what it was so far.
void ChecksumUnit::Add(const Block& block) {
    if (block.isFirst) crc_ = 0;
    crc_ = static_cast<unsigned int>(PZCRC().getMemCRC32(~crc_, block.data.data(), block.size));
    if (!block.isLast) return;
    FileRecord& record = catalogue_.At(block.file);
    record.crc = crc_;
    record.hasCrc = block.isWhole;
    ++filesDone_;
}
