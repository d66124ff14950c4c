// The tuner: runs through a few stations and sends what they broadcast to the display.

#include <cstdio>

#include <Framework/Foundation/PZWorker.h>

#include "Options.h"
#include "SettingsStore.h"
#include "TunerUnit.h"
#include "common/EndOfRun.h"
#include "common/Program.h"

namespace {

constexpr char kUsage[] =
    "usage: pz_tuner --dir DIR --queue NAME [--interval MS]\n"
    "\n"
    "Sends stations and radio texts to pz_display, until Ctrl-C or a request to terminate.\n"
    "\n"
    "  --dir DIR      folder of the shared settings\n"
    "  --queue NAME   message queue to the display, at most 32 characters without '/'\n"
    "  --interval MS  milliseconds between two texts, 1 to 60000 (200 when left out)\n"
    "  --help         show this help\n"
    "\n"
    "Exit status: 0; 1 when the settings or the queue cannot be used; 2 for bad usage.\n";

int tune(const Options& options, SettingsStore& store, const EndOfRun& end) {
    constexpr unsigned int kWatchMs = 4000;
    PZWorker worker(1, kWatchMs, 1);
    TunerUnit tuner(store, options.queue, end);
    if (!tuner.SignOn()) {
        std::fprintf(stderr, "pz_tuner: the settings cannot be written\n");
        return kExitFailed;
    }
    bool hasFailed = true;
    if (worker.Start("tuner") == 0 && tuner.Join(worker.GetMsgBox()) &&
        tuner.Begin(options.intervalMs)) {
        hasFailed = end.Wait();  // true: the tuner cannot go on, and has said so
    } else {
        std::fprintf(stderr, "pz_tuner: the worker does not start\n");
    }
    tuner.End();
    worker.End(0);
    tuner.SignOff();
    return hasFailed ? kExitFailed : 0;
}

int run(const Options& options, const EndOfRun& end) {
    SettingsStore store(options.dir, SettingsStore::en_SIDE_TUNER);
    if (!store.Open()) {
        std::fprintf(stderr, "pz_tuner: no file guard in %s\n", options.dir.c_str());
        return kExitFailed;
    }
    const int status = tune(options, store, end);
    store.Close();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    return run_program({"pz_tuner", 1, kUsage, /*hasInterval=*/true, run}, argc, argv);
}
