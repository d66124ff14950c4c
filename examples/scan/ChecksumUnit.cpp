#include "ChecksumUnit.h"

#include <Framework/Utility/PZCRC.h>

#include "ReaderUnit.h"

ChecksumUnit::ChecksumUnit(Catalogue& catalogue, BlockPool& pool, const EndOfRun& end)
    : BlockUnit(pool), catalogue_(catalogue), end_(end) {}

bool ChecksumUnit::Join(PZIMsgBox* box, ReaderUnit& reader) {
    reader_ = &reader;
    return RegistMsgBox(box, this) == 0;
}

void ChecksumUnit::OnBlock(const Block& block, unsigned int number) {
    Add(block);
    reader_->TakeBack(number);
}

void ChecksumUnit::OnEnd() {
    end_.Finish();
}

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
