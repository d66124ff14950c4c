// All programs tell what they do when they are asked, refuse what they do not know, and bother a
// user without special rights with one line at most.

#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::CommandResult;
using pztest::run_command;

namespace {

std::vector<std::string> programs() {
    std::istringstream words(PZ_PROGRAMS);
    std::vector<std::string> paths;
    for (std::string path; words >> path;) paths.push_back(path);
    return paths;
}

std::string name_of(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

class ProgramTest : public testing::TestWithParam<std::string> {};

/// What the program says to a user who may not raise priorities; root becomes one.
CommandResult run_as_ordinary_user(const std::string& command) {
    const std::string user =
        geteuid() == 0 ? "setpriv --reuid 65534 --regid 65534 --clear-groups " : "";
    return run_command("prlimit --nice=0:0 " + user + command + " 2>&1");
}

size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

}  // namespace

TEST_P(ProgramTest, PrintsItsUsageWhenAskedForHelp) {
    const CommandResult result = run_command(GetParam() + " --help </dev/null 2>/dev/null");
    EXPECT_EQ(0, result.status);
    EXPECT_NE(std::string::npos, result.output.find(name_of(GetParam()))) << result.output;
}

TEST_P(ProgramTest, RefusesAnOptionThatItDoesNotKnow) {
    const CommandResult result =
        run_command(GetParam() + " --no-such-option </dev/null 2>&1 >/dev/null");
    // pz-doctor's small numbers count what is wrong with the machine.
    EXPECT_EQ(name_of(GetParam()) == "pz-doctor" ? 126 : 2, result.status) << result.output;
    EXPECT_NE("", result.output);
}

INSTANTIATE_TEST_SUITE_P(Programs, ProgramTest, testing::ValuesIn(programs()),
                         [](const auto& path) {
                             std::string name = name_of(path.param);
                             for (char& c : name) c = c == '-' ? '_' : c;
                             return name;
                         });

TEST(ProgramOfAnOrdinaryUserTest, TellsInOneLineWhichRightIsMissing) {
    const pztest::TempDir dir;
    pztest::write_file(dir.File("text"), "one line\n");
    ASSERT_EQ(0, run_command("chmod 755 " + dir.Path()).status);
    const CommandResult feed = run_as_ordinary_user(PZ_FEED " " + dir.File("text"));
    EXPECT_EQ(0, feed.status) << feed.output;
    EXPECT_EQ(0U, count_of(feed.output, "Permission denied")) << feed.output;
    EXPECT_EQ(1U, count_of(feed.output, "no right to raise it")) << feed.output;
}

TEST(ProgramOfAnOrdinaryUserTest, TwoProgramsOfOneCommandTellTheMissingRightOnce) {
    const CommandResult both = run_as_ordinary_user(PZ_TWOPROCESS_RUN " 1");
    EXPECT_EQ(0, both.status) << both.output;
    EXPECT_EQ(0U, count_of(both.output, "Permission denied")) << both.output;
    EXPECT_EQ(1U, count_of(both.output, "no right to raise it")) << both.output;
}
