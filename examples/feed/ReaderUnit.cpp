#include "ReaderUnit.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include <Framework/Wrapper/pz_stdlib.h>

namespace {

/// False when the file has nothing to read within a moment (a pipe, a terminal).
bool is_readable_soon(int fd) {
    constexpr int kMomentMs = 20;
    pollfd entry = {fd, POLLIN, 0};
    return ::poll(&entry, 1, kMomentMs) != 0;
}

}  // namespace

ReaderUnit::ReaderUnit(const std::vector<FileTotals>& files, CounterUnit& counter, bool flood)
    : files_(files), counter_(counter), flood_(flood), block_() {}

ReaderUnit::~ReaderUnit() {
    CloseFile();
}

void ReaderUnit::OnReceiveMsg(unsigned int MsgID, const void*, unsigned int) {
    if (MsgID == en_MSG_STOP) done_ = true;
    if (done_) return;
    if (TakeTurn()) {
        Begin();
    } else {
        done_ = true;
    }
}

void ReaderUnit::OnReceiveEvent(unsigned int) {}

bool ReaderUnit::TakeTurn() {
    for (unsigned int i = 0; i < kMessagesPerTurn; ++i) {
        if (!unsent_ && !NextMessage()) return true;
        unsent_ = true;
        if (!Send()) return true;
        if (outgoing_.id == CounterUnit::en_MSG_ALL_DONE) return false;
    }
    return true;
}

// Nothing is lost when the counter falls behind: the message stays in outgoing_ and goes out in a
// later turn.
bool ReaderUnit::Send() {
    constexpr unsigned int kRetryMs = 1;
    const bool room = flood_ || counter_.Backlog() < kMaxBacklog;
    const unsigned int result = room ? counter_.Post(outgoing_.id, outgoing_.data, outgoing_.size)
                                     : PZIMsgBox::en_POST_FULL;
    if (result == 0) {
        unsent_ = false;
        return true;
    }
    if (result != PZIMsgBox::en_POST_FULL)
        failed_ = true;  // out of memory: reported by the box, tried again
    pz_msleep(kRetryMs);
    return false;
}

bool ReaderUnit::NextMessage() {
    for (;;) {
        if (fd_ == -1 && !OpenNextFile()) return Make(CounterUnit::en_MSG_ALL_DONE);
        if (blockSent_ == blockSize_ && !atEnd_) {
            const EN_FILL fill = FillBlock();
            if (fill == en_FILL_NOTHING_YET) return false;
            if (fill == en_FILL_ERROR) {
                CloseFile();
                if (announced_) return Make(CounterUnit::en_MSG_FILE_BROKEN);
                continue;
            }
        }
        if (!announced_) {
            announced_ = true;
            return Make(CounterUnit::en_MSG_FILE_BEGIN, &index_, sizeof index_);
        }
        if (blockSent_ < blockSize_) return MakeChunk();
        CloseFile();
        return Make(CounterUnit::en_MSG_FILE_END);
    }
}

bool ReaderUnit::Make(CounterUnit::EN_MSG id, const void* data, unsigned int size) {
    outgoing_ = {id, data, size};
    return true;
}

bool ReaderUnit::MakeChunk() {
    const char* data = &block_[blockSent_];
    const unsigned int size = std::min(kMaxMessage, blockSize_ - blockSent_);
    blockSent_ += size;
    return Make(CounterUnit::en_MSG_CHUNK, data, size);
}

bool ReaderUnit::OpenNextFile() {
    while (next_ < files_.size()) {
        index_ = next_++;
        announced_ = false;
        atEnd_ = false;
        fd_ = ::open(files_[index_].path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd_ != -1) return true;
        ReportUnreadable(errno);
    }
    return false;
}

ReaderUnit::EN_FILL ReaderUnit::FillBlock() {
    blockSize_ = 0;
    blockSent_ = 0;
    if (!is_readable_soon(fd_)) return en_FILL_NOTHING_YET;
    const ssize_t got = ::read(fd_, block_.data(), block_.size());
    if (got == -1) {
        if (errno == EINTR || errno == EAGAIN) return en_FILL_NOTHING_YET;
        ReportUnreadable(errno);
        return en_FILL_ERROR;
    }
    blockSize_ = static_cast<unsigned int>(got);
    atEnd_ = got == 0;
    return en_FILL_DONE;
}

void ReaderUnit::CloseFile() {
    if (fd_ != -1) ::close(fd_);
    fd_ = -1;
}

void ReaderUnit::ReportUnreadable(int error) {
    failed_ = true;
    std::fprintf(stderr, "pz_feed: cannot read %s: %s\n", files_[index_].path.c_str(),
                 std::strerror(error));
}
