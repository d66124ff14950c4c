#include "support/RunCommand.h"

#include <sys/wait.h>

#include <cstdio>

#include "support/TempDir.h"

namespace pztest {

CommandResult run_command(const std::string& command) {
    CommandResult result = {-1, ""};
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return result;
    char buffer[4096];
    size_t got = 0;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, got);
    const int status = pclose(pipe);
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    return result;
}

IconvResult run_iconv(const std::string& from, const std::string& to, const std::string& input,
                      const std::string& option) {
    const TempDir dir;
    write_file(dir.File("in"), input);
    const CommandResult result = run_command("LC_ALL=C iconv " + option + " -f " + from + " -t " +
                                             to + " " + dir.File("in") + " 2>" + dir.File("error"));
    return {result.status, result.output, read_file(dir.File("error"))};
}

}  // namespace pztest
