#ifndef PZ_TESTS_SUPPORT_RUNCOMMAND_H
#define PZ_TESTS_SUPPORT_RUNCOMMAND_H

#include <string>

namespace pztest {

/// How a shell command ended.
struct CommandResult {
    int status;          ///< exit status; -1 when it did not exit by itself
    std::string output;  ///< its standard output; its standard error where the command says so
};

/// Runs a shell command and waits for it.
CommandResult run_command(const std::string& command);

/// How iconv(1) ended.
struct IconvResult {
    int status;
    std::string output;
    std::string error;
};

/// Converts `input` between two code pages with iconv(1), which stops at the first bytes that it
/// cannot convert; with the option "-c" it leaves them out.
IconvResult run_iconv(const std::string& from, const std::string& to, const std::string& input,
                      const std::string& option = "");

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_RUNCOMMAND_H
