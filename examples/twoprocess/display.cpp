// The display: prints what the tuner sends, in UTF-8.

#include <cstdio>

#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Foundation/PZWorker.h>

#include "DisplayUnit.h"
#include "Options.h"
#include "SettingsStore.h"
#include "common/EndOfRun.h"
#include "common/Program.h"

namespace {

constexpr char kUsage[] =
    "usage: pz_display --dir DIR --queue NAME\n"
    "\n"
    "Prints stations and radio texts of pz_tuner in UTF-8, until Ctrl-C or a request to\n"
    "terminate. Notes about the two programs go to the standard error.\n"
    "\n"
    "  --dir DIR     folder of the shared settings\n"
    "  --queue NAME  message queue of the display, at most 32 characters without '/'\n"
    "  --help        show this help\n"
    "\n"
    "Exit status: 0; 1 when the settings or the queue cannot be used; 2 for bad usage.\n";

int run(const Options& options, const EndOfRun& end) {
    constexpr unsigned int kWatchMs = 4000;
    constexpr unsigned int kTickMs = 20;
    SettingsStore store(options.dir, SettingsStore::en_SIDE_DISPLAY);
    PZWorker worker(1, kWatchMs, 1);
    DisplayUnit display(store, end);
    PZMsgQ::PZMessageQueue<1> queue;
    if (worker.Start("display") != 0 || !display.Join(worker.GetMsgBox())) {
        std::fprintf(stderr, "pz_display: the worker does not start\n");
        worker.End(0);
        return kExitFailed;
    }
    // First the queue, then the ticks: a tuner that is told of the display finds the queue.
    bool hasFailed = true;
    if (!queue.open({options.queue.c_str(), &display})) {
        std::fprintf(stderr, "pz_display: the queue %s cannot be opened\n", options.queue.c_str());
    } else if (display.Begin(kTickMs)) {
        hasFailed = end.Wait();  // true: the display cannot go on, and has said so
    }
    display.End();
    display.StopListening();
    worker.End(0);
    display.SignOff();  // before the queue's name goes
    queue.close();
    return hasFailed ? kExitFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
    return run_program({"pz_display", 2, kUsage, /*hasInterval=*/false, run}, argc, argv);
}
