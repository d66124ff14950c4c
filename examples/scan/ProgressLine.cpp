#include "ProgressLine.h"

#include <cstdio>

ProgressLine::ProgressLine(const Catalogue& catalogue, const ReaderUnit& reader,
                           const ChecksumUnit& checksum)
    : catalogue_(catalogue),
      reader_(reader),
      checksum_(checksum),
      handle_(PZLTimerMng::GetTimerMng()->AddTimer(this, kIntervalMs)) {}

// RemoveTimer waits for a running OnTimer: the object may die afterwards.
ProgressLine::~ProgressLine() {
    PZLTimerMng::GetTimerMng()->RemoveTimer(handle_, this);
    std::printf("\r\033[K");
}

int ProgressLine::OnTimer(PZLTimerSubMng::_TimerInfo*) {
    constexpr int kAgain = 1;
    std::printf("\r%u of %u files, %llu bytes\033[K", checksum_.FilesDone(), catalogue_.Count(),
                reader_.BytesRead());
    std::fflush(stdout);
    return kAgain;
}
