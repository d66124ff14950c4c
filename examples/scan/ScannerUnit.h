#ifndef SCAN_SCANNERUNIT_H
#define SCAN_SCANNERUNIT_H

#include <string>
#include <vector>

#include <Framework/Foundation/PZUnitFrame.h>

#include "Catalogue.h"
#include "ReaderUnit.h"
#include "ScanLog.h"

/// Walks the folders and adds every file to the catalogue, one folder for each message that it
/// posts itself, so that Stop is served between two folders.
///
/// Its handlers run on the scanner's worker; Begin and Stop may be called from any thread.
class ScannerUnit : public PZUnitFrame, private PZIDispatcher {
public:
    ScannerUnit(std::vector<std::string> folders, Catalogue& catalogue, ReaderUnit& reader,
                ScanLog& log);

    bool Join(PZIMsgBox* box) { return RegistMsgBox(box, this) == 0; }

    void Begin() { SendMsgSelf(en_MSG_NEXT_FOLDER, en_MSG_NORMAL, nullptr, 0); }
    void Stop() { SendMsgSelf(en_MSG_STOP, en_MSG_EMERGENCY, nullptr, 0); }

private:
    enum EN_MSG : unsigned int { en_MSG_NEXT_FOLDER, en_MSG_STOP };

    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override;
    void OnReceiveEvent(unsigned int bits) override;

    void ScanFolder(const std::string& folder);
    void Report(const std::string& line);

    std::vector<std::string> folders_;  // still to be walked, the next one last
    Catalogue& catalogue_;
    ReaderUnit& reader_;
    ScanLog& log_;
    bool done_ = false;
};

#endif  // SCAN_SCANNERUNIT_H
