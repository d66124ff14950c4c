#ifndef FEED_COUNTERUNIT_H
#define FEED_COUNTERUNIT_H

#include <atomic>
#include <vector>

#include <Framework/Foundation/PZStopwatch.h>
#include <Framework/Foundation/PZUnitFrame.h>

#include "FileTotals.h"
#include "common/EndOfRun.h"

/// Counts what the reader sends: lines, words, bytes and a running checksum of each file.
///
/// Its handlers run on the counter's worker; Post, Stop and the readings may be called from any
/// thread. The totals belong to the worker until it has ended.
class CounterUnit : public PZUnitFrame, private PZIDispatcher {
public:
    enum EN_MSG : unsigned int {
        en_MSG_FILE_BEGIN,  ///< payload: unsigned int, index of the file
        en_MSG_CHUNK,       ///< payload: the next bytes of the file
        en_MSG_FILE_END,
        en_MSG_FILE_BROKEN,  ///< the rest of the file could not be read
        en_MSG_ALL_DONE,
        en_MSG_STOP
    };

    /// `files` and `end` must outlive the unit.
    CounterUnit(std::vector<FileTotals>& files, const EndOfRun& end);

    /// Joins the message box of a worker; false when it refuses.
    bool Join(PZIMsgBox* box) { return RegistMsgBox(box, this) == 0; }

    /// Posts one message of the reader; the result of PZIMsgBox::PushMsg.
    unsigned int Post(EN_MSG id, const void* data, unsigned int size);

    /// Ends the counting at once, ahead of everything that is queued.
    void Stop();

    /// Messages that were posted and not handled yet.
    unsigned int Backlog() const { return posted_ - handled_; }

    unsigned long long Bytes() const { return bytes_; }
    unsigned long long Chunks() const { return chunks_; }

private:
    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override;
    void OnReceiveEvent(unsigned int bits) override;

    void BeginFile(unsigned int index);
    void Count(const unsigned char* data, unsigned int size);
    void EndFile();

    std::vector<FileTotals>& files_;
    const EndOfRun& end_;
    FileTotals* current_ = nullptr;
    bool inWord_ = false;
    bool stopped_ = false;
    PZStopwatch watch_;

    // Read by the reader and by the progress timer while the worker counts on.
    std::atomic<unsigned int> posted_{0};
    std::atomic<unsigned int> handled_{0};
    std::atomic<unsigned long long> bytes_{0};
    std::atomic<unsigned long long> chunks_{0};
};

#endif  // FEED_COUNTERUNIT_H
