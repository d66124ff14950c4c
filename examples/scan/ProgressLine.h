#ifndef SCAN_PROGRESSLINE_H
#define SCAN_PROGRESSLINE_H

#include <Framework/Utility/PZLTimerMng.h>

#include "Catalogue.h"
#include "ChecksumUnit.h"
#include "ReaderUnit.h"

/// Draws a progress line on the terminal ten times a second, from construction to the end of the
/// scope.
class ProgressLine : private PZLTimerBase {
public:
    ProgressLine(const Catalogue& catalogue, const ReaderUnit& reader,
                 const ChecksumUnit& checksum);
    ~ProgressLine() override;

    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

private:
    static constexpr unsigned int kIntervalMs = 100;

    /// Runs on a timer thread.
    int OnTimer(PZLTimerSubMng::_TimerInfo* info) override;

    const Catalogue& catalogue_;
    const ReaderUnit& reader_;
    const ChecksumUnit& checksum_;
    PZLTimerMng::TimerSubInfo* handle_;  // null: not running
};

#endif  // SCAN_PROGRESSLINE_H
