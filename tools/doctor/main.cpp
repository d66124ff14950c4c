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
    bool version = false;
    bool help = false;
    std::vector<Check> checks;  // in the order of the table
};

std::vector<Check> all_checks() {
    std::vector<Check> all;
    for (const auto& family : {folder_checks(), device_checks(), zone_checks(), text_checks(),
                               limit_checks(), queue_checks(), leftover_checks(), look_checks()}) {
        all.insert(all.end(), family.begin(), family.end());
    }
    return all;
}

bool usage_error(const char* problem, const char* what) {
    std::fprintf(stderr, "pz-doctor: %s%s\nTry pz-doctor --help.\n", problem, what);
    return false;
}

bool parse_root(const char* folder, Options& options) {
    if (folder == nullptr) return usage_error("--root needs a folder", "");
    const auto info = Machine().Stat(folder);
    if (!info || !S_ISDIR(info->st_mode)) return usage_error("not a folder: ", folder);
    options.root = Machine(folder).Root();
    return true;
}

bool parse_check(const char* name, Options& options) {
    for (const Check& check : all_checks()) {
        if (std::strcmp(check.name, name) != 0) continue;
        options.checks.push_back(check);
        return true;
    }
    return usage_error("unknown check ", name);
}

/// The switch of that name; null when there is none.
bool* find_switch(const std::string& name, Options& options) {
    if (name == "--json") return &options.json;
    if (name == "--zones") return &options.zones;
    if (name == "--list") return &options.list;
    if (name == "--version") return &options.version;
    if (name == "--help") return &options.help;
    return nullptr;
}

/// False after a message when two of the switches ask for different answers.
bool check_switches(const Options& options) {
    const int answers = options.json + options.zones + options.list;
    if (answers > 1) return usage_error("only one of --json, --zones and --list", "");
    const bool fixed = options.zones || options.list;
    if (fixed && !options.checks.empty()) return usage_error("no check with --zones or --list", "");
    return true;
}

/// False after a message.
bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--root") == 0) {
            if (!parse_root(argv[++i], options)) return false;
        } else if (bool* const on = find_switch(argv[i], options)) {
            *on = true;
        } else if (argv[i][0] == '-') {
            return usage_error("unknown option ", argv[i]);
        } else if (!parse_check(argv[i], options)) {
            return false;
        }
    }
    if (!check_switches(options)) return false;
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
int answer(const Options& options) {
    if (options.help) {
        std::fputs(kUsage, stdout);
    } else if (options.version) {
        std::puts("pz-doctor " PZ_DOCTOR_VERSION);
    } else if (options.list) {
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
    Options options;
    if (!parse(argc, argv, options)) return kExitTrouble;
    const int status = answer(options);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    std::perror("pz-doctor");
    return kExitTrouble;
}
