#ifndef SCAN_TEXTUNIT_H
#define SCAN_TEXTUNIT_H

#include <Framework/Foundation/PZUnitFrame.h>

#include "BlockPool.h"
#include "Catalogue.h"
#include "ChecksumUnit.h"
#include "ScanLog.h"

/// Detects the code page in a file's first block and brings its first line to UTF-8; hands every
/// block on to the checksum unit.
///
/// Its handlers run on the text worker; what is public may be called from any thread.
class TextUnit : public PZUnitFrame, private PZIDispatcher {
public:
    TextUnit(Catalogue& catalogue, BlockPool& pool, ChecksumUnit& checksum, ScanLog& log);

    bool Join(PZIMsgBox* box) { return RegistMsgBox(box, this) == 0; }

    void Take(unsigned int block);

    /// There are no more blocks.
    void TakeEnd() { SendMsgSelf(en_MSG_END, en_MSG_NORMAL, nullptr, 0); }

private:
    enum EN_MSG : unsigned int { en_MSG_BLOCK, en_MSG_END };

    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override;
    void OnReceiveEvent(unsigned int bits) override;

    void Describe(const Block& block);

    Catalogue& catalogue_;
    BlockPool& pool_;
    ChecksumUnit& checksum_;
    ScanLog& log_;
};

#endif  // SCAN_TEXTUNIT_H
