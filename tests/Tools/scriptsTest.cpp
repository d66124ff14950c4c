// The scripts tell what they do when they are asked, and refuse what they do not know.

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/RunCommand.h"

namespace {

const std::string kScripts = PZ_ROOT "/scripts/";

class ScriptTest : public testing::TestWithParam<std::string> {};

TEST_P(ScriptTest, PrintsItsManualWhenAskedForHelp) {
    const std::string script = kScripts + GetParam();
    for (const char* option : {" --help", " -h"}) {
        const auto result = pztest::run_command(script + option + " 2>&1");
        EXPECT_EQ(0, result.status) << result.output;
        EXPECT_NE("", result.output);
        // The manual only: nothing was begun.
        EXPECT_EQ(std::string::npos, result.output.find("==")) << result.output;
    }
}

TEST_P(ScriptTest, RefusesAnArgumentThatItDoesNotKnow) {
    const std::string script = kScripts + GetParam();
    const auto result = pztest::run_command(script + " --no-such-option 2>&1");
    EXPECT_EQ(2, result.status) << result.output;
    EXPECT_TRUE(result.output.find("--no-such-option") != std::string::npos ||
                result.output.find("usage:") != std::string::npos)
        << result.output;
}

/// Every script: a new one is tested as soon as it is there.
std::vector<std::string> scripts() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kScripts)) {
        if (::access(entry.path().c_str(), X_OK) == 0) names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

INSTANTIATE_TEST_SUITE_P(Scripts, ScriptTest, testing::ValuesIn(scripts()), [](const auto& script) {
    std::string name = script.param;
    for (char& c : name) c = c == '-' ? '_' : c;
    return name;
});

TEST(TestScriptTest, RefusesAnAreaThatDoesNotExist) {
    const auto result = pztest::run_command(kScripts + "test NoSuchArea 2>&1");
    EXPECT_EQ(2, result.status) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("unknown argument NoSuchArea"));
}

TEST(ProgressOfScriptsTest, HidesStepsThatSucceedAndPrintsFailures) {
    const auto result = pztest::run_command(
        ". " + kScripts +
        "shell-library.sh; printf '%s\\n' '[1/2] Building a' 'FAILED: a' ' 1/2 Test  #1: x ...   "
        "Passed    0.01 sec' ' 2/2 Test  #2: y ...***Failed    0.01 sec' 'why it failed' | "
        "show_progress release 2>&1");
    EXPECT_EQ(0, result.status);
    EXPECT_EQ("FAILED: a\n 2/2 Test  #2: y ...***Failed    0.01 sec\nwhy it failed\n",
              result.output);
}

TEST(ProgressOfScriptsTest, TellsSecondsAsMinutesAndSeconds) {
    const auto result =
        pztest::run_command(". " + kScripts + "shell-library.sh; minutes_of 125; minutes_of 59");
    EXPECT_EQ("2:050:59", result.output);
}

}  // namespace
