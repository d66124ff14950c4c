#include "CommandLine.h"

#include <cstdio>

CommandLine::CommandLine(const char* program, const char* version, const char* usage)
    : program_(program), version_(version), usage_(usage) {
    AddSwitch("--version", asksVersion_);
    AddSwitch("--help", asksHelp_);
}

bool CommandLine::Read(int argc, char** argv, const Taker& takeWord) const {
    for (int i = 1; i < argc; ++i) {
        const auto option = options_.find(argv[i]);
        const auto toggle = switches_.find(argv[i]);
        if (option != options_.end()) {
            if (!option->second(argv[++i])) return false;
        } else if (toggle != switches_.end()) {
            *toggle->second = true;
        } else if (argv[i][0] == '-') {
            return Refuse("unknown option ", argv[i]);
        } else if (!takeWord(argv[i])) {
            return false;
        }
    }
    return true;
}

bool CommandLine::Answer() const {
    if (asksHelp_) {
        std::fputs(usage_, stdout);
    } else if (asksVersion_) {
        std::printf("%s %s\n", program_, version_);
    }
    return asksHelp_ || asksVersion_;
}

bool CommandLine::Refuse(const char* problem, const char* what) const {
    std::fprintf(stderr, "%s: %s%s\nTry %s --help.\n", program_, problem, what, program_);
    return false;
}
