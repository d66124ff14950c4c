#include "ChecksumUnit.h"

#include <Framework/Utility/PZCRC.h>

#include "ReaderUnit.h"

ChecksumUnit::ChecksumUnit(Catalogue& catalogue, BlockPool& pool, const EndOfRun& end)
    : catalogue_(catalogue), pool_(pool), end_(end) {}

bool ChecksumUnit::Join(PZIMsgBox* box, ReaderUnit& reader) {
    reader_ = &reader;
    return RegistMsgBox(box, this) == 0;
}

void ChecksumUnit::OnBlock(unsigned int block) {
    Add(pool_.At(block));
    reader_->TakeBack(block);
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
