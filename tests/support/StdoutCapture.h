#ifndef PZ_TESTS_SUPPORT_STDOUTCAPTURE_H
#define PZ_TESTS_SUPPORT_STDOUTCAPTURE_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/Uncopyable.h"

namespace pztest {

/// Catches everything the process writes to its standard output, from construction to the end of
/// the scope. One capture at a time. The messages of checks that fail meanwhile are passed on.
class StdoutCapture : private Uncopyable {
public:
    StdoutCapture();
    ~StdoutCapture();

    /// What was written since construction or the last Take.
    std::string Take();

private:
    int savedFd_;
    int fileFd_;
    off_t taken_ = 0;  // bytes of the file
};

/// The line as the debug output prints it: right-aligned to 80 columns between `colour` and the
/// reset code. `line` ends with its own line feed, if any.
std::string padded_line(const std::string& colour, const std::string& line);

/// The messages of the tagged error lines in `output`: what follows "} : " up to the reset code,
/// without the line feed, in order.
std::vector<std::string> error_messages(const std::string& output);

/// True when an error line of `function` in the file `base` says `message` and then ends with a
/// line feed, which is no part of `message`. Shows that a report names the right place.
bool has_report(const std::string& output, const std::string& function, const std::string& base,
                const std::string& message);

/// The same for the few reports that end without a line feed.
bool has_unended_report(const std::string& output, const std::string& function,
                        const std::string& base, const std::string& message);

/// How often `text` stands in `output`.
unsigned int count_of(const std::string& output, const std::string& text);

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_STDOUTCAPTURE_H
