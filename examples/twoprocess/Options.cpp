#include "Options.h"

#include <cerrno>  // program_invocation_short_name
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Foundation/PZFileSys.h>

#include "common/Program.h"

namespace {

/// A whole number of milliseconds from 1 to one minute; 0 for everything else.
unsigned int milliseconds(const char* text) {
    constexpr unsigned long kMost = 60000;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    const bool isNumber = *text >= '0' && *text <= '9' && *end == '\0';
    return isNumber && value <= kMost ? static_cast<unsigned int>(value) : 0;
}

/// What is wrong with the values, or null.
const char* mistake(const Options& options) {
    if (options.dir.empty()) return "--dir is missing";
    if (options.queue.empty()) return "--queue is missing";
    if (options.queue.size() > PZMsgQ::PZMessageQueue<2>::kMaxNameLength)
        return "the name of --queue has more than 32 characters";
    if (options.queue.find('/') != std::string::npos) return "the name of --queue holds a '/'";
    if (PZFileSys::chkAttribute(options.dir.c_str()) != PZFileSys::en_ATTR_DIRECTORY)
        return "--dir is not a folder";
    if (options.intervalMs == 0) return "--interval is not a number from 1 to 60000";
    return nullptr;
}

Options parse_options(int argc, char** argv, bool hasInterval) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const char* const name = argv[i];
        if (std::strcmp(name, "--help") == 0) {
            options.help = true;
            return options;
        }
        const char* const value = i + 1 < argc ? argv[++i] : "";
        if (std::strcmp(name, "--dir") == 0) {
            options.dir = value;
        } else if (std::strcmp(name, "--queue") == 0) {
            options.queue = value;
        } else if (hasInterval && std::strcmp(name, "--interval") == 0) {
            options.intervalMs = milliseconds(value);
        } else {
            std::fprintf(stderr, "%s: unknown option %s\n", program_invocation_short_name, name);
            options.bad = true;
            return options;
        }
    }
    if (const char* const text = mistake(options)) {
        std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, text);
        options.bad = true;
    }
    return options;
}

}  // namespace

int run_program(const Program& program, int argc, char** argv) {
    const Options options = parse_options(argc, argv, program.hasInterval);
    if (options.bad || options.help) return tell_usage(program.usage, options.bad);
    return run_in_framework(program.name, program.id,
                            [&](const EndOfRun& end) { return program.run(options, end); });
}
