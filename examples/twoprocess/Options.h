#ifndef TWOPROCESS_OPTIONS_H
#define TWOPROCESS_OPTIONS_H

#include <string>

/// What the command line of either program says.
struct Options {
    std::string dir;                ///< folder of the settings and of their guard; exists
    std::string queue;              ///< name of the message queue, without "/"
    unsigned int intervalMs = 200;  ///< of the tuner: between two radio texts
    bool help = false;
    bool bad = false;  ///< has been reported
};

/// Reads the command line; `hasInterval`: the program knows --interval. Reports what is wrong.
Options parse_options(int argc, char** argv, bool hasInterval);

constexpr int kExitFailed = 1;

#endif  // TWOPROCESS_OPTIONS_H
