#ifndef FEED_READERUNIT_H
#define FEED_READERUNIT_H

#include <array>
#include <vector>

#include <Framework/Foundation/PZUnitFrame.h>

#include "CounterUnit.h"
#include "FileTotals.h"

/// Reads the files, one after the other, and sends them to the counter in messages of at most 256
/// bytes. It works in short turns, posting itself the next one, so that an emergency message is
/// served at once.
///
/// Its handlers run on the reader's worker; Begin and Stop may be called from any thread.
class ReaderUnit : public PZUnitFrame, private PZIDispatcher {
public:
    /// `flood`: sends until the counter's box is full (each refusal prints the framework's error
    /// line) instead of holding back in time. Nothing is lost either way.
    ReaderUnit(const std::vector<FileTotals>& files, CounterUnit& counter, bool flood);
    ~ReaderUnit() override;

    ReaderUnit(const ReaderUnit&) = delete;
    ReaderUnit& operator=(const ReaderUnit&) = delete;

    bool Join(PZIMsgBox* box) { return RegistMsgBox(box, this) == 0; }

    void Begin() { SendMsgSelf(en_MSG_READ, en_MSG_NORMAL, nullptr, 0); }
    void Stop() { SendMsgSelf(en_MSG_STOP, en_MSG_EMERGENCY, nullptr, 0); }

    /// True when a file could not be read; ask when the worker has ended.
    bool Failed() const { return failed_; }

private:
    enum EN_MSG : unsigned int { en_MSG_READ, en_MSG_STOP };

    static constexpr unsigned int kMaxMessage = 256;   // what a message box takes
    static constexpr unsigned int kBlockSize = 65536;  // bytes of one read
    static constexpr unsigned int kMessagesPerTurn = 64;
    static constexpr unsigned int kMaxBacklog = 192;  // a box holds 256

    /// One message on its way to the counter.
    struct Outgoing {
        CounterUnit::EN_MSG id = CounterUnit::en_MSG_ALL_DONE;
        const void* data = nullptr;
        unsigned int size = 0;
    };

    enum EN_FILL : int { en_FILL_DONE, en_FILL_NOTHING_YET, en_FILL_ERROR };

    void OnReceiveMsg(unsigned int MsgID, const void* Buff, unsigned int BuffSize) override;
    void OnReceiveEvent(unsigned int bits) override;

    /// Sends up to kMessagesPerTurn messages; false when everything has been sent.
    bool TakeTurn();
    bool Send();

    /// Makes the next message in outgoing_; false when there is nothing to read yet.
    bool NextMessage();
    bool Make(CounterUnit::EN_MSG id, const void* data = nullptr, unsigned int size = 0);
    bool MakeChunk();

    /// Opens the next file that can be opened; false when there is none left.
    bool OpenNextFile();
    EN_FILL FillBlock();
    void CloseFile();
    void ReportUnreadable(int error);

    const std::vector<FileTotals>& files_;
    CounterUnit& counter_;
    const bool flood_;
    unsigned int next_ = 0;   // index of the next file
    unsigned int index_ = 0;  // index of the open file
    int fd_ = -1;             // -1: no file is open
    std::array<char, kBlockSize> block_;
    unsigned int blockSize_ = 0;
    unsigned int blockSent_ = 0;
    bool announced_ = false;  // the counter knows of the open file
    bool atEnd_ = false;      // the open file has been read to its end
    Outgoing outgoing_;
    bool unsent_ = false;  // outgoing_ still has to be sent
    bool done_ = false;    // all-done has been sent, or the reader was stopped
    bool failed_ = false;
};

#endif  // FEED_READERUNIT_H
