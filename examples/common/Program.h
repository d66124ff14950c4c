#ifndef EXAMPLES_PROGRAM_H
#define EXAMPLES_PROGRAM_H

#include <functional>

#include "EndOfRun.h"

// The exit statuses of a program that has not done its work.
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kExitInterrupted = 130;  ///< as a shell reports Ctrl-C

/// Prints the usage, to standard error when it was not asked for; the exit status.
int tell_usage(const char* usage, bool isBad);

/// Starts the framework, does the work and stops the framework. The work's exit status; 1 after a
/// message when the framework does not start.
int run_in_framework(const char* name, int id, const std::function<int(const EndOfRun&)>& work);

#endif  // EXAMPLES_PROGRAM_H
