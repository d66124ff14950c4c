#ifndef TWOPROCESS_OPTIONS_H
#define TWOPROCESS_OPTIONS_H

#include <string>

#include "common/EndOfRun.h"

/// What the command line of either program says.
struct Options {
    std::string dir;                ///< folder of the settings and of their guard; exists
    std::string queue;              ///< name of the message queue, without "/"
    unsigned int intervalMs = 200;  ///< of the tuner: between two radio texts
    bool help = false;
    bool bad = false;  ///< has been reported
};

/// One of the two programs.
struct Program {
    const char* name;
    int id;
    const char* usage;
    bool hasInterval;  ///< knows --interval
    int (*run)(const Options& options, const EndOfRun& end);
};

/// Reads the command line, reports what is wrong with it, and runs the program in the framework;
/// the exit status.
int run_program(const Program& program, int argc, char** argv);

#endif  // TWOPROCESS_OPTIONS_H
