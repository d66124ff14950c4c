#ifndef PZ_TESTS_TOOLS_TRACETOOL_H
#define PZ_TESTS_TOOLS_TRACETOOL_H

#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "support/RunCommand.h"
#include "support/TempDir.h"

// What the tests of pz-trace ask it.

namespace pztest {

/// Its standard error is part of the output.
inline CommandResult run_trace(const std::string& arguments) {
    return run_command(PZ_TRACE " " + arguments + " 2>&1");
}

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// How often a probe was passed, as show says; -1 when it says nothing of it.
inline int passed(const std::string& shown, const std::string& probe) {
    std::smatch match;
    return std::regex_search(shown, match, std::regex("\n +(\\d+)  " + probe + "(\n|$)"))
               ? std::stoi(match[1])
               : -1;
}

/// What the check of the exported form says of a recording.
inline std::string checked_export(const std::string& recording) {
    const TempDir folder;
    const std::string json = folder.File("trace.json");
    const CommandResult exported = run_command(PZ_TRACE " export " + recording + " >" + json);
    EXPECT_EQ(0, exported.status);
    return run_command(PZ_PYTHON " " PZ_TRACE_CHECK " " + json + " 2>&1").output;
}

}  // namespace pztest

#endif  // PZ_TESTS_TOOLS_TRACETOOL_H
