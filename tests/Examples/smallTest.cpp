#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/GuardFiles.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// Every program of examples/small prints exactly what stands in the file beside it.

using pztest::CommandResult;
using pztest::make_key_file;
using pztest::read_file;
using pztest::run_command;
using pztest::TempDir;

namespace {

std::vector<std::string> names_with(const std::string& extension) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(PZ_SOURCES)) {
        if (entry.path().extension() == extension) names.push_back(entry.path().stem());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// Without ICU there is no program that detects.
std::vector<std::string> programs() {
    std::vector<std::string> names = names_with(".cpp");
    if (!PZ_WITH_ICU) names.erase(std::find(names.begin(), names.end(), "detection"));
    return names;
}

}  // namespace

class smallTest : public testing::TestWithParam<std::string> {};

TEST_P(smallTest, PrintsTheOutputThatIsStoredBesideIt) {
    const TempDir dir;
    const std::string expected = read_file(PZ_SOURCES "/" + GetParam() + ".expected");
    ASSERT_FALSE(expected.empty());
    if (GetParam() == "file_guard") {
        for (const char* file : {"number_mutex", "number_initflag"}) make_key_file(dir.File(file));
    }
    const CommandResult result =
        run_command("cd " + dir.Path() + " && " PZ_PROGRAMS "/" + GetParam() + " 2>&1");
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(expected, result.output);
    EXPECT_TRUE(std::filesystem::is_empty(dir.Path())) << "files are left behind";
}

TEST_P(smallTest, IsShortAndBeginsWithWhatItShows) {
    const std::string source = read_file(PZ_SOURCES "/" + GetParam() + ".cpp");
    EXPECT_LT(std::count(source.begin(), source.end(), '\n'), 60);
    EXPECT_EQ("// ", source.substr(0, 3));
}

TEST_P(smallTest, IsListedInTheReadme) {
    const std::string readme = read_file(PZ_SOURCES "/README.md");
    EXPECT_NE(std::string::npos, readme.find("[" + GetParam() + "](" + GetParam() + ".cpp)"));
}

INSTANTIATE_TEST_SUITE_P(Programs, smallTest, testing::ValuesIn(programs()),
                         [](const auto& program) { return program.param; });

TEST(smallFolderTest, EveryExpectedOutputBelongsToAProgram) {
    EXPECT_EQ(names_with(".cpp"), names_with(".expected"));
}
