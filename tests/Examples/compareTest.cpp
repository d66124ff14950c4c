#include <algorithm>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// The programs of examples/compare: one job, the same lines with every library, and ours is not
// longer than the shortest. What a job prints stands in its file "expected"; where it leaves files,
// "after" holds the commands that show them.

using pztest::run_command;

namespace {

const std::string kSources = PZ_ROOT "/examples/compare/";
const std::string kPrograms = PZ_PROGRAMS "/";

std::vector<std::string> jobs() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kSources)) {
        if (entry.is_directory()) names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// "JOB/LIBRARY" of the programs that are built.
std::vector<std::string> programs() {
    std::vector<std::string> names;
    for (const std::string& job : jobs()) {
        for (const auto& entry : std::filesystem::directory_iterator(kSources + job)) {
            const std::string name = job + "/" + entry.path().stem().string();
            if (entry.path().extension() != ".cpp") continue;
            if (std::filesystem::exists(kPrograms + name)) names.push_back(name);
        }
    }
    std::sort(names.begin(), names.end());
    return names;
}

/// Whether a line is the pattern, in which "..." stands for anything.
bool is_like(const std::string& line, const std::string& pattern) {
    const size_t gap = pattern.find("...");
    if (gap == std::string::npos) return line == pattern;
    if (line.compare(0, gap, pattern, 0, gap) != 0) return false;
    const std::string rest = pattern.substr(gap + 3);
    for (size_t at = gap; at <= line.size(); ++at) {
        if (is_like(line.substr(at), rest)) return true;
    }
    return false;
}

std::string without_colours(std::string text) {
    for (const std::string colour : {"\033[31m", "\033[0m"}) {
        for (size_t at = text.find(colour); at != std::string::npos; at = text.find(colour)) {
            text.erase(at, colour.size());
        }
    }
    return text;
}

/// The output has the expected lines. Reports of the library may stand between them.
void expect_output(const std::string& expected, const std::string& output) {
    std::vector<std::string> missing = pztest::lines_of(expected);
    for (const std::string& line : pztest::lines_of(without_colours(output))) {
        if (!missing.empty() && is_like(line, missing.front())) {
            missing.erase(missing.begin());
        } else {
            EXPECT_EQ("[error] ", line.substr(0, 8)) << output;
        }
    }
    EXPECT_TRUE(missing.empty()) << "not printed: " << missing.front() << "\n" << output;
}

/// Whether the program of the shell's $pid catches SIGTERM, or waits for it. What an emulator
/// catches for the program tells nothing: there it is the wait that ours begins after it has set
/// its handlers.
constexpr const char* kIsReady =
    *PZ_EMULATOR != '\0' ? "ls -l /proc/$pid/fd 2>/dev/null | grep -q eventpoll"
                         : "grep -qE '^SigCgt:.*[4-7c-f][0-9a-f]{3}$' /proc/$pid/status || "
                           "grep -q sigtimedwait /proc/$pid/wchan";

/// Sends SIGTERM as soon as the program is ready for it, and waits for its end.
std::string end_by_signal() {
    return std::string(" & pid=$!; until ") + kIsReady +
           "; do sleep 0.01; done; kill -TERM $pid; wait $pid";
}

}  // namespace

class compareTest : public testing::TestWithParam<std::string> {};

TEST_P(compareTest, PrintsTheExpectedOutputOfItsJob) {
    const pztest::TempDir dir;
    const std::string job = GetParam().substr(0, GetParam().find('/'));
    const std::string expected = pztest::read_file(kSources + job + "/expected");
    ASSERT_FALSE(expected.empty());
    std::string command = "cd " + dir.Path() + " && { " PZ_EMULATOR + kPrograms + GetParam();
    if (job == "stop_signal") command += end_by_signal();
    command += "; } 2>&1";
    const std::string after = kSources + job + "/after";
    if (std::filesystem::exists(after)) command += " && sh " + after;
    const pztest::CommandResult result = run_command(command);
    EXPECT_EQ(0, result.status);
    expect_output(expected, result.output);
}

INSTANTIATE_TEST_SUITE_P(Programs, compareTest, testing::ValuesIn(programs()),
                         [](const auto& program) {
                             std::string name = program.param;
                             std::replace(name.begin(), name.end(), '/', '_');
                             return name;
                         });

TEST(compareFolderTest, EveryJobHasAProgramOfOursAndOneToCompareItWith) {
    ASSERT_EQ(12U, jobs().size());
    const std::vector<std::string> built = programs();
    for (const std::string& job : jobs()) {
        EXPECT_EQ(1, std::count(built.begin(), built.end(), job + "/easy")) << job;
        const auto files = std::filesystem::directory_iterator(kSources + job);
        EXPECT_GE(
            std::count_if(begin(files), end(files),
                          [](const auto& entry) { return entry.path().extension() == ".cpp"; }),
            2)
            << job << " is compared with nothing";
    }
}

namespace {

/// What stands between a mark of the page and its end.
std::string figures_of(const std::string& name) {
    const std::string page = pztest::read_file(PZ_ROOT "/docs/from-other-libraries.md");
    const std::string mark = "<!--figures:" + name + "-->\n\n";
    const size_t start = page.find(mark);
    if (start == std::string::npos) return "";
    return page.substr(start + mark.size(), page.find("\n<!--end-->", start) - start - mark.size());
}

/// The numbers of a row, without those that are missing.
std::vector<int> numbers_of(const std::string& row) {
    std::vector<int> numbers;
    for (size_t at = row.find('|', 1); at + 1 < row.size(); at = row.find('|', at + 1)) {
        const std::string cell = row.substr(at + 1, row.find('|', at + 1) - at - 1);
        if (!cell.empty()) numbers.push_back(std::stoi(cell));
    }
    return numbers;
}

}  // namespace

TEST(compareLinesTest, ThePageHasTheLinesThatTheScriptCounts) {
    const pztest::CommandResult counted = run_command(PZ_ROOT "/scripts/compare-lines");
    ASSERT_EQ(0, counted.status);
    EXPECT_EQ(figures_of("lines") + "\n", counted.output);
}

TEST(compareLinesTest, OursIsNeverLongerThanTheShortestOther) {
    const std::vector<std::string> rows = pztest::lines_of(figures_of("lines"));
    ASSERT_EQ(2 + jobs().size(), rows.size());
    for (size_t i = 2; i < rows.size(); ++i) {
        const std::vector<int> lines = numbers_of(rows[i]);
        ASSERT_GE(lines.size(), 2U) << rows[i];
        EXPECT_LE(lines.front(), *std::min_element(lines.begin() + 1, lines.end())) << rows[i];
    }
}

TEST(compareLinesTest, CountsNoCommentsAndBlankLines) {
    const pztest::TempDir dir;
    run_command("mkdir -p " + dir.File("scripts") + " " + dir.File("examples/compare/text") +
                " && cp " PZ_ROOT "/scripts/compare-lines " + dir.File("scripts") +
                " && cp " PZ_ROOT "/.clang-format " + dir.Path());
    pztest::write_file(dir.File("examples/compare/text/easy.cpp"),
                       "// a comment\n#include <cstdio>\n\nint main() { // and code\n"
                       "std::puts(\"//\"); std::puts(\"two\");\n}\n");
    const pztest::CommandResult counted = run_command(dir.File("scripts/compare-lines"));
    EXPECT_EQ(0, counted.status);
    EXPECT_NE(std::string::npos,
              counted.output.find("|[text](../examples/compare/text/easy.cpp)|5||||||"))
        << counted.output;
}
