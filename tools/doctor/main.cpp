// Checks whether a machine has what the library needs around it, and says how to mend what is
// missing. Changes nothing.

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "Checks.h"
#include "Report.h"
#include "ZoneFile.h"
#include "common/CommandLine.h"

namespace {

constexpr int kExitTrouble = 126;  // bad usage, or nobody reads the answer

constexpr char kUsage[] =
    "usage: pz-doctor [--root DIR] [--json] [CHECK...]\n"
    "       pz-doctor [--root DIR] --zones\n"
    "       pz-doctor --list | --version | --help\n"
    "\n"
    "Checks whether this machine has what programs on the PZFramework library need, and prints\n"
    "a table with the command that repairs each finding; for what its user may not do it says\n"
    "to ask root. Changes nothing.\n"
    "\n"
    "  CHECK...     only these checks\n"
    "  --root DIR   look at the file tree in DIR, for example of an image; what only a running\n"
    "               machine can tell is skipped\n"
    "  --json       print one JSON object instead of the table\n"
    "  --zones      print the source of the missing zone files of UTC offsets, for zic(8)\n"
    "  --list       print the names of all checks, and why they matter\n"
    "  --version    print the version\n"
    "  --help       show this help\n"
    "\n"
    "Limits are those that the program itself inherits: run it as the user, and in the service,\n"
    "of the device's programs.\n"
    "\n"
    "Exit status: the number of reds, at most 125; 126 for bad usage, or when the answer could "
    "not\n"
    "be written.\n";

struct Options {
    std::string root;
    bool json = false;
    bool zones = false;
    bool list = false;
    std::vector<Check> checks;  // in the order of the table
};

/// False after a message.
bool take_root(const CommandLine& line, const char* folder, Options& options) {
    if (folder == nullptr) return line.Refuse("--root needs a folder");
    const auto info = Machine().Stat(folder);
    if (!info || !S_ISDIR(info->st_mode)) return line.Refuse("not a folder: ", folder);
    options.root = Machine(folder).Root();
    return true;
}

/// False after a message.
bool take_check(const CommandLine& line, const char* name, Options& options) {
    for (const Check& check : all_checks()) {
        if (std::strcmp(check.name, name) != 0) continue;
        options.checks.push_back(check);
        return true;
    }
    return line.Refuse("unknown check ", name);
}

/// False after a message when two of the switches ask for different answers.
bool fit_together(const CommandLine& line, const Options& options) {
    const int answers = options.json + options.zones + options.list;
    if (answers > 1) return line.Refuse("only one of --json, --zones and --list");
    const bool fixed = options.zones || options.list;
    if (fixed && !options.checks.empty()) return line.Refuse("no check with --zones or --list");
    return true;
}

/// False after a message.
bool parse(CommandLine& line, int argc, char** argv, Options& options) {
    line.AddSwitch("--json", options.json);
    line.AddSwitch("--zones", options.zones);
    line.AddSwitch("--list", options.list);
    line.AddOption("--root", [&](const char* root) { return take_root(line, root, options); });
    const auto takeCheck = [&](const char* name) { return take_check(line, name, options); };
    if (!line.Read(argc, argv, takeCheck) || !fit_together(line, options)) return false;
    if (options.checks.empty()) options.checks = all_checks();
    return true;
}

void print_list() {
    for (const Check& check : all_checks()) std::printf("%-20s%s\n", check.name, check.why);
}

/// Runs the checks and prints their report; the exit status.
int look(const Options& options) {
    const Machine machine(options.root);
    // The commands for a file tree are for the one who works on it.
    Report report = {PZ_DOCTOR_VERSION, options.root, {}, machine.IsLive() && geteuid() != 0};
    for (const Check& check : options.checks) {
        report.results.push_back({check.name, check.why, check.run(machine)});
    }
    const bool colours = isatty(STDOUT_FILENO) == 1;
    const std::string text = options.json ? json_text(report) : table_text(report, colours);
    std::fputs(text.c_str(), stdout);
    return exit_status(report);
}

/// Does what is asked for; the exit status.
int answer(const CommandLine& line, const Options& options) {
    if (line.Answer()) return 0;
    if (options.list) {
        print_list();
    } else if (options.zones) {
        std::fputs(missing_zone_source(Machine(options.root)).c_str(), stdout);
    } else {
        return look(options);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CommandLine line("pz-doctor", PZ_DOCTOR_VERSION, kUsage);
    Options options;
    if (!parse(line, argc, argv, options)) return kExitTrouble;
    const int status = answer(line, options);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    std::perror("pz-doctor");
    return kExitTrouble;
}
