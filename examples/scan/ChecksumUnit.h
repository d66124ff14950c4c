#ifndef SCAN_CHECKSUMUNIT_H
#define SCAN_CHECKSUMUNIT_H

#include <atomic>

#include <Framework/Foundation/PZUnitFrame.h>

#include "BlockPool.h"
#include "Catalogue.h"
#include "common/EndOfRun.h"

class ReaderUnit;

/// Computes the CRC-32 of each file, block by block, and gives the blocks back to the reader.
///
/// Its handlers run on the checksum worker; what is public may be called from any thread.
class ChecksumUnit : public PZUnitFrame, private PZIDispatcher {
public:
    ChecksumUnit(Catalogue& catalogue, BlockPool& pool, const EndOfRun& end);

    bool Join(PZIMsgBox* box, ReaderUnit& reader);

    void Take(unsigned int block);

    /// There are no more blocks.
    void TakeEnd() { SendMsgSelf(en_MSG_END, en_MSG_NORMAL, nullptr, 0); }

    unsigned int FilesDone() const { return filesDone_; }

private:
    enum EN_MSG : unsigned int { en_MSG_BLOCK, en_MSG_END };

    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override;
    void OnReceiveEvent(unsigned int bits) override;

    void Add(const Block& block);

    Catalogue& catalogue_;
    BlockPool& pool_;
    const EndOfRun& end_;
    ReaderUnit* reader_ = nullptr;
    unsigned int crc_ = 0;  // of the blocks of the current file so far
    std::atomic<unsigned int> filesDone_{0};
};

#endif  // SCAN_CHECKSUMUNIT_H
