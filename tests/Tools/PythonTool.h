#ifndef PZ_TESTS_TOOLS_PYTHONTOOL_H
#define PZ_TESTS_TOOLS_PYTHONTOOL_H

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"

// What the tests of the tools that are Python programs have in common.

namespace pztest {

/// What the tool says to each of these command lines: "STATUS FIRST-LINE-OF-THE-ERRORS", or
/// "accepted". The lines hold no quotes.
inline std::vector<std::string> usage_of(const std::string& tool,
                                         const std::vector<std::string>& lines) {
    std::string command = PZ_PYTHON " -B " PZ_USAGE_OF " " + tool;
    for (const std::string& line : lines) command += " '" + line + "'";
    return lines_of(run_command(command).output);
}

/// The tool refuses each of these command lines with status 2 and one line that begins with its
/// name.
inline void expect_refused(const std::string& tool, const std::string& name,
                           const std::vector<std::string>& lines) {
    const std::vector<std::string> refused = usage_of(tool, lines);
    ASSERT_EQ(lines.size(), refused.size());
    for (size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(0U, refused[i].find("2 " + name + ": ")) << lines[i] << ": " << refused[i];
    }
}

}  // namespace pztest

#endif  // PZ_TESTS_TOOLS_PYTHONTOOL_H
