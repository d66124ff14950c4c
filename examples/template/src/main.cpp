// The application: makes its units, and waits until it is to end.
#include <cstdlib>

#include <Framework/Easy.h>

#include "Poller.h"

using namespace pz::literals;

namespace {

/// The folder that the service manager has made, or the current one.
const char* folder(const char* variable) {
    const char* const path = std::getenv(variable);
    return path != nullptr ? path : ".";
}

}  // namespace

int main() {
    pz::StopSignal stop;  // from here on a signal ends the program in order
    pz::Framework fw("pz-template", 1);
    if (!fw || !stop) return 1;
    pz::RotatingLogOptions options;
    options.time = true;
    pz::RotatingLog log(folder("LOGS_DIRECTORY"), "pz-template", 64_KiB, 3, options);
    pz::GuardedFile settings(folder("STATE_DIRECTORY"), "settings");
    pz::GuardedFile status(folder("RUNTIME_DIRECTORY"), "status");

    pz::Worker worker("poller");
    if (!worker) return 1;
    const auto period = period_of(settings.read().value_or(""));
    Poller poller(worker, period, [&](unsigned int number) {
        status.update([number](std::string& text) { text = std::to_string(number) + " polls\n"; });
    });
    log.line("started, polls every %lld ms", static_cast<long long>(period.count()));
    pz::wait_for_stop();
    log.line("ends after %u polls", poller.count());
}
