// Counts text files with two units on two workers: a reader cuts each file into messages, a counter
// adds up lines, words, bytes and a checksum. A timer draws the progress; Ctrl-C stops everything
// early with what was counted until then.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <Framework/Easy/Framework.h>
#include <Framework/Foundation/PZStopwatch.h>
#include <Framework/Foundation/PZWorker.h>

#include "CounterUnit.h"
#include "FileTotals.h"
#include "ProgressText.h"
#include "ReaderUnit.h"
#include "common/EndOfRun.h"
#include "common/Program.h"
#include "common/ProgressLine.h"

namespace {

constexpr char kUsage[] =
    "usage: pz_feed [--flood] FILE...\n"
    "\n"
    "Counts bytes, lines, words and a checksum of text files with two worker threads.\n"
    "\n"
    "  --flood   let the counter's message box run full instead of holding back in time\n"
    "  --help    show this help\n"
    "\n"
    "Exit status: 0; 1 when a file cannot be read; 2 for bad usage; 130 after Ctrl-C.\n";

struct Options {
    bool flood = false;
    bool help = false;
    bool bad = false;
    std::vector<FileTotals> files;
};

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        if (std::strcmp(argument, "--flood") == 0) {
            options.flood = true;
        } else if (std::strcmp(argument, "--help") == 0) {
            options.help = true;
        } else if (argument[0] == '-' && argument[1] != '\0') {
            std::fprintf(stderr, "pz_feed: unknown option %s\n", argument);
            options.bad = true;
        } else {
            FileTotals file;
            file.path = argument;
            options.files.push_back(file);
        }
    }
    if (options.files.empty() && !options.help) options.bad = true;
    return options;
}

double milliseconds(unsigned long long nanoseconds) {
    constexpr double kNsPerMs = 1e6;
    return static_cast<double>(nanoseconds) / kNsPerMs;
}

/// Feeds all files through the two workers; the exit status.
int feed(std::vector<FileTotals>& files, bool flood, const EndOfRun& end) {
    constexpr unsigned int kWatchMs = 4000;
    PZWorker readerWorker(1, kWatchMs, 1);
    PZWorker counterWorker(2, kWatchMs, 2);
    // First the workers, then the messages: what is posted before a worker's loop runs is lost.
    if (readerWorker.Start("feed_reader") != 0 || counterWorker.Start("feed_counter") != 0) {
        std::fprintf(stderr, "pz_feed: the workers do not start\n");
        readerWorker.End(0);
        counterWorker.End(0);
        return kExitFailed;
    }

    CounterUnit counter(files, end);
    ReaderUnit reader(files, counter, flood);
    bool finished = false;
    if (counter.Join(counterWorker.GetMsgBox()) && reader.Join(readerWorker.GetMsgBox())) {
        std::unique_ptr<ProgressLine> progress;
        if (isatty(STDOUT_FILENO) != 0) {
            progress = std::make_unique<ProgressLine>(ProgressText(counter));
        }
        reader.Begin();
        finished = end.Wait();
        if (!finished) {
            reader.Stop();
            counter.Stop();
        }
    }
    readerWorker.End(0);  // no new messages from here on
    counterWorker.End(0);
    if (!finished) return kExitInterrupted;
    return reader.Failed() ? kExitFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
    Options options = parse(argc, argv);
    if (options.bad || options.help) return tell_usage(kUsage, options.bad);

    const EndOfRun end;  // before the framework starts its threads
    FrameworkTimes times;
    PZStopwatch watch;

    watch.Start();
    std::optional<pz::Framework> framework(std::in_place, "pz_feed", 1);
    if (!*framework) {
        std::fprintf(stderr, "pz_feed: the framework does not start\n");
        return kExitFailed;
    }
    times.start = milliseconds(watch.Stop());

    const int status = feed(options.files, options.flood, end);

    watch.Start();
    framework.reset();
    times.stop = milliseconds(watch.Stop());

    if (status == kExitInterrupted) std::printf("stopped early: the counts until then\n");
    print_summary(options.files, times);
    return status;
}
