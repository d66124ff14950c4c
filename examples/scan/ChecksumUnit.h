#ifndef SCAN_CHECKSUMUNIT_H
#define SCAN_CHECKSUMUNIT_H

#include <atomic>

#include "BlockUnit.h"
#include "Catalogue.h"
#include "common/EndOfRun.h"

class ReaderUnit;

/// Computes the CRC-32 of each file, block by block, and gives the blocks back to the reader.
/// Runs on the checksum worker.
class ChecksumUnit : public BlockUnit {
public:
    ChecksumUnit(Catalogue& catalogue, BlockPool& pool, const EndOfRun& end);

    bool Join(PZIMsgBox* box, ReaderUnit& reader);

    unsigned int FilesDone() const { return filesDone_; }

private:
    void OnBlock(const Block& block, unsigned int number) override;
    void OnEnd() override;

    void Add(const Block& block);

    Catalogue& catalogue_;
    const EndOfRun& end_;
    ReaderUnit* reader_ = nullptr;
    unsigned int crc_ = 0;  // of the blocks of the current file so far
    std::atomic<unsigned int> filesDone_{0};
};

#endif  // SCAN_CHECKSUMUNIT_H
