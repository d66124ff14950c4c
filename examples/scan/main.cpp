// Scans a media library: a scanner walks the folders, a reader reads the files, a text unit detects
// their code pages and brings the titles to UTF-8, a checksum unit computes their CRC-32. Four
// units on four workers, a progress line by timer, everything in a log. Ctrl-C stops early with
// what was found until then.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <Framework/Foundation/PZWorker.h>

#include "BlockPool.h"
#include "Catalogue.h"
#include "CatalogueFile.h"
#include "ChecksumUnit.h"
#include "ReaderUnit.h"
#include "ScanLog.h"
#include "ScanTable.h"
#include "ScannerUnit.h"
#include "TextUnit.h"
#include "common/EndOfRun.h"
#include "common/Program.h"
#include "common/ProgressLine.h"

namespace {

constexpr char kUsage[] =
    "usage: pz_scan [OPTION]... FOLDER...\n"
    "\n"
    "Lists the files below the folders with code page, first line in UTF-8 and CRC-32.\n"
    "\n"
    "  --catalogue FILE  compare with the catalogue in FILE, then replace it\n"
    "  --log FOLDER      log into FOLDER instead of a fresh temporary one\n"
    "  --huge BYTES      of larger files read the beginning only (default 67108864)\n"
    "  --help            show this help\n"
    "\n"
    "Exit status: 0, whatever the files are like; 1 when the scan cannot start or the catalogue\n"
    "cannot be saved; 2 for bad usage; 130 after Ctrl-C.\n";

struct Options {
    std::vector<std::string> folders;
    std::string catalogue;
    std::string log;
    unsigned long long hugeSize = 64ULL * 1024 * 1024;
    bool help = false;
    bool bad = false;
};

/// Takes the argument's value; false when `name` is no option with a value.
bool take_value(Options& options, const std::string& name, const char* value) {
    if (name == "--catalogue") {
        options.catalogue = value;
    } else if (name == "--log") {
        options.log = value;
    } else if (name == "--huge") {
        char* end = nullptr;
        options.hugeSize = std::strtoull(value, &end, 10);
        if (*value < '0' || *value > '9' || *end != '\0') return false;
    } else {
        return false;
    }
    return true;
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help") {
            options.help = true;
        } else if (argument[0] != '-') {
            options.folders.push_back(argument);
        } else if (i + 1 < argc && take_value(options, argument, argv[i + 1])) {
            ++i;
        } else {
            std::fprintf(stderr, "pz_scan: bad option %s\n", argument.c_str());
            options.bad = true;
        }
    }
    if (options.folders.empty() && !options.help) options.bad = true;
    return options;
}

std::string temporary_folder() {
    char name[] = "/tmp/pz_scan_XXXXXX";
    return mkdtemp(name) != nullptr ? name : "";
}

/// One worker thread for each unit.
struct Workers {
    static constexpr unsigned int kWatchMs = 4000;
    PZWorker scanner{1, kWatchMs, 1};
    PZWorker reader{2, kWatchMs, 2};
    PZWorker text{3, kWatchMs, 3};
    PZWorker checksum{4, kWatchMs, 4};

    bool Start() {
        return scanner.Start("scan_scanner") == 0 && reader.Start("scan_reader") == 0 &&
               text.Start("scan_text") == 0 && checksum.Start("scan_checksum") == 0;
    }

    /// In the direction in which the blocks go: what was sent is served before its receiver ends.
    void End() {
        scanner.End(0);
        reader.End(0);
        text.End(0);
        checksum.End(0);
    }
};

/// Scans all folders into the catalogue; the exit status.
int scan(const Options& options, Catalogue& catalogue, ScanLog& log, const EndOfRun& end) {
    Workers workers;
    // First the workers, then the messages: what is posted before a worker's loop runs is lost.
    if (!workers.Start()) {
        std::fprintf(stderr, "pz_scan: the workers do not start\n");
        workers.End();
        return kExitFailed;
    }

    const auto pool = std::make_unique<BlockPool>();
    ChecksumUnit checksum(catalogue, *pool, end);
    TextUnit text(catalogue, *pool, checksum, log);
    ReaderUnit reader(catalogue, *pool, text, log, options.hugeSize);
    ScannerUnit scanner(options.folders, catalogue, reader, log);
    bool isJoined = checksum.Join(workers.checksum.GetMsgBox(), reader) &&
                    text.Join(workers.text.GetMsgBox()) &&
                    reader.Join(workers.reader.GetMsgBox()) &&
                    scanner.Join(workers.scanner.GetMsgBox());
    bool isFinished = false;
    if (isJoined) {
        std::unique_ptr<ProgressLine> progress;
        if (isatty(STDOUT_FILENO) != 0) {
            progress = std::make_unique<ProgressLine>([&] {
                return std::to_string(checksum.FilesDone()) + " of " +
                       std::to_string(catalogue.Count()) + " files, " +
                       std::to_string(reader.BytesRead()) + " bytes";
            });
        }
        scanner.Begin();
        isFinished = end.Wait();
        if (!isFinished) {
            scanner.Stop();
            reader.Stop();
            // The blocks on their way come back first: what is sent to an ended worker is lost.
            while (!end.Wait()) {  // another Ctrl-C
            }
        }
    }
    workers.End();
    if (!isJoined) return kExitFailed;
    return isFinished ? 0 : kExitInterrupted;
}

/// What the main thread does between start and stop of the framework; the exit status.
int run(const Options& options, const EndOfRun& end) {
    Catalogue catalogue;
    int status = 0;
    std::string logPath;
    {
        ScanLog log(options.log.empty() ? temporary_folder() : options.log);
        logPath = log.Path();
        if (!log.IsOpen()) std::fprintf(stderr, "pz_scan: no log: %s\n", logPath.c_str());
        status = scan(options, catalogue, log, end);
    }
    if (status == kExitInterrupted) std::printf("stopped early: what was found until then\n");
    print_table(catalogue);
    std::printf("log: %s\n", logPath.c_str());
    if (options.catalogue.empty() || status != 0) return status;

    CatalogueFile file(options.catalogue);
    if (file.Load()) file.PrintChanges(catalogue);
    if (file.Save(catalogue)) return 0;
    std::fprintf(stderr, "pz_scan: cannot save %s\n", options.catalogue.c_str());
    return kExitFailed;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    if (options.bad || options.help) return tell_usage(kUsage, options.bad);
    return run_in_framework("pz_scan", 1,
                            [&options](const EndOfRun& end) { return run(options, end); });
}
