#include "PZBoxWait.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_sigpipe.h>

#include "pz_loop_signal.h"

namespace {

constexpr int kEndShift = 32;
constexpr std::uint64_t kWake = 1;
constexpr std::uint64_t kEnd = kWake << kEndShift;

}  // namespace

bool PZBoxWait::Open() {
    if (IsOpen()) return true;
    signal_ = pz_make_loop_signal(0);
    if (!IsOpen()) PZ_REPORT_LAST_ERROR();
    return IsOpen();
}

int PZBoxWait::Wake() {
    return pz_add_to_loop_signal(signal_, kWake);
}

int PZBoxWait::End() {
    return pz_add_to_loop_signal(signal_, kEnd);
}

PZBoxWait::EN_RESULT PZBoxWait::Wait() {
    pz_ignore_sigpipe_once();
    if (ends_ == 0 && !TakeSignals()) {
        PZ_REPORT_LAST_ERROR();
        pz_pause_after_failure();
        return en_ERROR;
    }
    if (ends_ == 0) return en_WAKE;
    --ends_;
    return en_END;
}

void PZBoxWait::DiscardWakeUps() {
    pollfd signal = {signal_.Get(), POLLIN, 0};
    if (::poll(&signal, 1, 0) == 1 && !TakeSignals()) PZ_REPORT_LAST_ERROR();
}

/// Reads the counter, which waits while it is 0: the wake-ups are over, the requests to end are in
/// `ends_`. False with errno on an error.
bool PZBoxWait::TakeSignals() {
    std::uint64_t count = 0;
    ssize_t size = 0;
    do {
        size = ::read(signal_.Get(), &count, sizeof count);
    } while (size == -1 && errno == EINTR);
    ends_ += count >> kEndShift;
    return size == sizeof count;
}
