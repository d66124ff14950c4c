#ifndef SCAN_READERUNIT_H
#define SCAN_READERUNIT_H

#include <atomic>
#include <string>
#include <vector>

#include <Framework/Foundation/PZStorage.h>
#include <Framework/Foundation/PZUnitFrame.h>

#include "BlockPool.h"
#include "Catalogue.h"
#include "ScanLog.h"

class TextUnit;

/// Reads the files of the catalogue, one after the other, in blocks, and sends them to the text
/// unit. It goes on whenever a block has come back and there is something to read.
///
/// Its handlers run on the reader's worker; what is public may be called from any thread.
class ReaderUnit : public PZUnitFrame, private PZIDispatcher {
public:
    /// Of files with more bytes than `hugeSize` only the first block is read.
    ReaderUnit(Catalogue& catalogue, BlockPool& pool, TextUnit& text, ScanLog& log,
               unsigned long long hugeSize);

    bool Join(PZIMsgBox* box) { return RegistMsgBox(box, this) == 0; }

    /// There are more files in the catalogue, or it has been closed.
    void LookForFiles();

    /// The block is not used any more.
    void TakeBack(unsigned int block);

    /// Reads no more. The blocks that are on their way go theirs, and the end of the run follows.
    void Stop() { SendMsgSelf(en_MSG_STOP, en_MSG_EMERGENCY, nullptr, 0); }

    unsigned long long BytesRead() const { return bytesRead_; }

private:
    enum EN_MSG : unsigned int { en_MSG_BLOCK_IS_FREE, en_MSG_STOP };

    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override;
    void OnReceiveEvent(unsigned int bits) override;

    /// Reads until there is no free block left, or nothing to read.
    void GoOn();

    /// Opens the next file that can be opened; false when the catalogue holds no more.
    bool OpenNextFile();
    void ReadBlock();
    void CloseFile(const char* remark);
    void FinishWhenAllIsRead();

    /// Nothing is read or sent from here on; tells the units behind.
    void Finish();

    Catalogue& catalogue_;
    BlockPool& pool_;
    TextUnit& text_;
    ScanLog& log_;
    const unsigned long long hugeSize_;
    std::vector<unsigned int> free_;  // numbers of the blocks that are here
    PZStorage file_;
    unsigned int next_ = 0;     // index of the next file
    unsigned int current_ = 0;  // index of the open file
    bool isFirst_ = false;      // the open file's first block is still to be read
    bool done_ = false;
    std::atomic<bool> isToldOfFiles_{false};  // an event is on its way already
    std::atomic<unsigned long long> bytesRead_{0};
};

#endif  // SCAN_READERUNIT_H
