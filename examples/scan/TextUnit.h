#ifndef SCAN_TEXTUNIT_H
#define SCAN_TEXTUNIT_H

#include "BlockUnit.h"
#include "Catalogue.h"
#include "ChecksumUnit.h"
#include "ScanLog.h"

/// Detects the code page in a file's first block and brings its first line to UTF-8; hands every
/// block on to the checksum unit.
/// Runs on the text worker.
class TextUnit : public BlockUnit {
public:
    TextUnit(Catalogue& catalogue, BlockPool& pool, ChecksumUnit& checksum, ScanLog& log);

    bool Join(PZIMsgBox* box) { return RegistMsgBox(box, this) == 0; }

private:
    void OnBlock(const Block& block, unsigned int number) override;
    void OnEnd() override;

    void Describe(const Block& block);

    Catalogue& catalogue_;
    ChecksumUnit& checksum_;
    ScanLog& log_;
};

#endif  // SCAN_TEXTUNIT_H
