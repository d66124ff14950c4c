// Shows what the processes of a machine that use the library are doing.

#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "Screen.h"
#include "Watcher.h"
#include "common/CommandLine.h"

namespace {

constexpr char kUsage[] =
    "usage: pz-top [--interval MS] [--once] [--json] [PID | NAME]\n"
    "       pz-top --version | --help\n"
    "\n"
    "Shows what the processes that use the PZFramework library are doing, or what one of them is:\n"
    "its threads, workers, timers, queues, memory, and who waits for a lock.\n"
    "\n"
    "  --interval MS  milliseconds between two looks, 10 to 3600000; 1000 without this\n"
    "  --once         print the table after one interval, and end\n"
    "  --json         print a JSON object in a line after each interval; with --once only one\n"
    "  --version      print the version\n"
    "  --help         show this help\n"
    "\n"
    "Keys: s sort, p pause, h help, q quit.\n"
    "\n"
    "Exit status: 0; 1 when nothing was found; 2 for bad usage; 3 when the process may not be\n"
    "looked at.\n";

struct Options {
    unsigned int intervalMs = 1000;
    bool once = false;
    bool json = false;
    std::string target;  // empty: the whole machine
};

/// False after a message.
bool take_interval(const CommandLine& line, const char* text, Options& options) {
    constexpr unsigned long kShortest = 10;
    constexpr unsigned long kLongest = 3600000;
    if (text == nullptr) return line.Refuse("--interval needs milliseconds");
    char* end = nullptr;
    errno = 0;
    const unsigned long ms = std::strtoul(text, &end, 10);
    const bool isNumber = *text >= '0' && *text <= '9' && *end == '\0' && errno == 0;
    if (!isNumber || ms < kShortest || ms > kLongest) {
        return line.Refuse("--interval takes 10 to 3600000 milliseconds, not ", text);
    }
    options.intervalMs = static_cast<unsigned int>(ms);
    return true;
}

/// False after a message.
bool take_target(const CommandLine& line, const char* target, Options& options) {
    if (*target == '\0' || !options.target.empty()) {
        return line.Refuse("one process, by its number or name");
    }
    options.target = target;
    return true;
}

/// False after a message.
bool parse(CommandLine& line, int argc, char** argv, Options& options) {
    line.AddSwitch("--once", options.once);
    line.AddSwitch("--json", options.json);
    line.AddOption("--interval", [&](const char* ms) { return take_interval(line, ms, options); });
    return line.Read(argc, argv,
                     [&](const char* target) { return take_target(line, target, options); });
}

int failed(int status, const std::string& problem) {
    std::fprintf(stderr, "pz-top: %s\n", problem.c_str());
    return status;
}

void pause_for(unsigned int ms) {
    timespec rest = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&rest, &rest) == -1 && errno == EINTR) {
    }
}

/// True for a terminal that obeys, rather than shows, what colours a line.
bool has_colours() {
    const char* const term = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && term != nullptr && *term != '\0' &&
           std::strcmp(term, "dumb") != 0;
}

/// Prints after each interval: once, or until there is nothing more to look at.
int print_readings(Watcher& watcher, const Options& options) {
    const bool colours = has_colours();
    for (bool isFirst = true;; isFirst = false) {
        pause_for(options.intervalMs);
        const int status = watcher.Look();
        if (status != kExitDone) return failed(isFirst ? status : kExitDone, watcher.Problem());
        const std::string text =
            options.json ? watcher.Json() : text_of(watcher.Table(SortKey::Name), colours);
        if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
            return failed(kExitNothing, "the answer cannot be written");
        }
        if (options.once) return kExitDone;
    }
}

std::unique_ptr<Watcher> watcher_for(const std::string& target, int& status, std::string& problem) {
    if (target.empty()) return watch_machine();
    const pid_t pid = find_process(target, status, problem);
    return pid != 0 ? watch_process(pid) : nullptr;
}

int watch(const Options& options) {
    int status = kExitNothing;
    std::string problem = "there is no process 0";
    const std::unique_ptr<Watcher> watcher = watcher_for(options.target, status, problem);
    if (watcher == nullptr) return failed(status, problem);
    status = watcher->Look();
    if (status != kExitDone) return failed(status, watcher->Problem());
    if (options.once || options.json) return print_readings(*watcher, options);
    return run_screen(*watcher, options.intervalMs);
}

}  // namespace

int main(int argc, char** argv) {
    CommandLine line("pz-top", PZ_TOP_VERSION, kUsage);
    Options options;
    if (!parse(line, argc, argv, options)) return kExitUsage;
    return line.Answer() ? kExitDone : watch(options);
}
