#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

// README.md and docs/*.md do what they show. Each document has a folder, in which its blocks are
// taken one after the other:
//
//   ```cpp            with `int main`: compiled, warnings being errors, linked and run
//   ```sh             run by bash, where scripts/, examples/ and build/release/ are those of the
//                     source tree; but for the commands in commands-not-run.txt
//   ```text           directly after one of these: what it prints, on both outputs together
//   ```LANGUAGE NAME  the block is also the file NAME of the folder
//
// In such a text `...` stands for anything within a line, or as a line for any number of lines, and
// ~5 for a number that differs from run to run. Colours and blanks at the end of a line are not
// compared, nor the padding and the line number of a report.

using pztest::CommandResult;
using pztest::lines_of;
using pztest::read_file;
using pztest::run_command;
using pztest::TempDir;
using pztest::write_file;

namespace {

/// A fenced block of a document.
struct Block {
    std::string language;
    std::string file;  // "" when the block is no file
    std::string text;
    bool isResult;  // of the block before it: no heading stands between them
};

std::vector<std::string> split(const std::string& text, char separator) {
    std::istringstream stream(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
    return parts;
}

bool starts_with(const std::string& text, const std::string& start) {
    return text.compare(0, start.size(), start) == 0;
}

bool is_digit(char character) {
    return std::isdigit(static_cast<unsigned char>(character)) != 0;
}

std::string trimmed(const std::string& text) {
    const size_t start = text.find_first_not_of(" \t");
    if (start == std::string::npos) return "";
    return text.substr(start, text.find_last_not_of(" \t") + 1 - start);
}

std::vector<Block> blocks_of(const std::string& document) {
    std::vector<Block> blocks;
    bool isInside = false;
    bool isHeadingSeen = true;
    for (const std::string& line : lines_of(document)) {
        if (starts_with(line, "```")) {
            isInside = !isInside;
            if (!isInside) continue;
            Block block;
            std::istringstream(line.substr(3)) >> block.language >> block.file;
            block.isResult = block.language == "text" && !isHeadingSeen;
            blocks.push_back(block);
            isHeadingSeen = false;
        } else if (isInside) {
            blocks.back().text += line + "\n";
        } else if (starts_with(line, "#")) {
            isHeadingSeen = true;
        }
    }
    return blocks;
}

/// The document without its blocks.
std::string prose_of(const std::string& document) {
    std::string prose;
    bool isInside = false;
    for (const std::string& line : lines_of(document)) {
        if (starts_with(line, "```")) {
            isInside = !isInside;
        } else if (!isInside) {
            prose += line + "\n";
        }
    }
    return prose;
}

/// The commands of a sh block: lines, put together where they go on, without comments.
std::vector<std::string> commands_of(const std::string& text) {
    std::vector<std::string> commands;
    std::string command;
    for (std::string line : lines_of(text)) {
        line = line.substr(0, starts_with(line, "#") ? 0 : line.find("  #"));
        command += trimmed(line);
        if (!command.empty() && command.back() == '\\') {
            command.pop_back();
            continue;
        }
        if (!command.empty()) commands.push_back(command);
        command.clear();
    }
    return commands;
}

/// What must not or need not be run. A command without a reason is none of them.
std::set<std::string> commands_not_run() {
    std::set<std::string> commands;
    for (const std::string& line : lines_of(read_file(PZ_NOT_RUN))) {
        const size_t reason = line.find("  # ");
        if (reason == std::string::npos || starts_with(line, "#")) continue;
        commands.insert(trimmed(line.substr(0, reason)));
    }
    return commands;
}

const char* behind_number(const char* text) {
    while (is_digit(*text) || (*text == '.' && is_digit(text[1]))) ++text;
    return text;
}

bool line_matches(const char* pattern, const char* line) {
    if (*pattern == '\0') return *line == '\0';
    if (std::strncmp(pattern, "...", 3) == 0) {
        while (!line_matches(pattern + 3, line)) {
            if (*line++ == '\0') return false;
        }
        return true;
    }
    if (*pattern == '~' && is_digit(pattern[1])) {
        return is_digit(*line) && line_matches(behind_number(pattern + 1), behind_number(line));
    }
    return *pattern == *line && line_matches(pattern + 1, line + 1);
}

using LineIterator = std::vector<std::string>::const_iterator;

bool lines_match(LineIterator pattern, LineIterator patternEnd, LineIterator line,
                 LineIterator lineEnd) {
    if (pattern == patternEnd) return line == lineEnd;
    if (*pattern == "...") {
        while (!lines_match(pattern + 1, patternEnd, line, lineEnd)) {
            if (line++ == lineEnd) return false;
        }
        return true;
    }
    return line != lineEnd && line_matches(pattern->c_str(), line->c_str()) &&
           lines_match(pattern + 1, patternEnd, line + 1, lineEnd);
}

/// The lines without colours and blanks at their ends; those that name a place in a source, without
/// padding and number.
std::vector<std::string> comparable(std::string text) {
    for (size_t at = 0; (at = text.find("\033[", at)) != std::string::npos;)
        text.erase(at, text.find('m', at) + 1 - at);
    std::vector<std::string> lines = lines_of(text);
    for (std::string& line : lines) {
        line.erase(line.find_last_not_of(' ') + 1);
        const size_t place = line.find("()@");
        if (place == std::string::npos) continue;
        const size_t number = line.find('(', place + 3) + 1;
        line.erase(number, line.find(')', number) - number);
        line = trimmed(line);
    }
    return lines;
}

/// What a timer thread reports to a user who has no right to nice values below 0.
bool is_refused_priority(const std::string& line) {
    return (line.find("SetPriority()@PZThreadMng.cpp") != std::string::npos &&
            line.find("[13 : Permission denied]") != std::string::npos) ||
           line.find("timers keep the usual priority") != std::string::npos;
}

bool output_matches(const std::string& expected, const std::string& output) {
    const std::vector<std::string> pattern = comparable(expected);
    std::vector<std::string> lines = comparable(output);
    lines.erase(std::remove_if(lines.begin(), lines.end(), is_refused_priority), lines.end());
    return lines_match(pattern.begin(), pattern.end(), lines.begin(), lines.end());
}

/// The heading's name in a link, as the usual viewers make it.
std::string anchor_of(const std::string& heading) {
    std::string anchor;
    for (const char character : trimmed(heading.substr(heading.find_first_not_of('#')))) {
        const auto byte = static_cast<unsigned char>(character);
        if (std::isalnum(byte) != 0 || byte >= 0x80 || byte == '-' || byte == '_') {
            anchor += static_cast<char>(std::tolower(byte));
        } else if (byte == ' ') {
            anchor += '-';
        }
    }
    return anchor;
}

bool has_anchor(const std::string& document, const std::string& anchor) {
    for (const std::string& line : lines_of(prose_of(document))) {
        if (starts_with(line, "#") && anchor_of(line) == anchor) return true;
    }
    return false;
}

/// What stands between the marks, wherever they follow each other within a line.
std::vector<std::string> between(const std::string& text, const std::string& open,
                                 const std::string& close) {
    std::vector<std::string> found;
    for (const std::string& line : lines_of(text)) {
        size_t at = line.find(open);
        while (at != std::string::npos) {
            const size_t start = at + open.size();
            const size_t end = line.find(close, start);
            if (end == std::string::npos) break;
            found.push_back(line.substr(start, end - start));
            at = line.find(open, end + close.size());
        }
    }
    return found;
}

std::string without_code(const std::string& prose) {
    std::string text;
    bool isCode = false;
    for (const char character : prose) {
        if (character == '`') isCode = !isCode;
        if (character == '\n') isCode = false;
        if (!isCode) text += character;
    }
    return text;
}

/// Whether a word that stands as code names something in the source tree.
bool is_path(const std::string& word) {
    if (word.find_first_of("*<>{}%$") != std::string::npos) return false;
    if (word.find("...") != std::string::npos) return false;
    for (const char* const folder :
         {"scripts/", "src/", "examples/", "tools/", "docs/", "packaging/", "abi/"}) {
        if (starts_with(word, folder) || starts_with(word, std::string("./") + folder)) return true;
    }
    return false;
}

/// As part of a test's name: letters, digits and underscores.
std::string name_of_document(const testing::TestParamInfo<std::string>& document) {
    if (document.param == "docs/README.md") return "index";
    std::string name = std::filesystem::path(document.param).stem().string();
    std::replace(name.begin(), name.end(), '-', '_');
    return name;
}

/// A document, its folder, and the library installed for it when a command asks for that.
class docsTest : public testing::TestWithParam<std::string> {
protected:
    void SetUp() override {
        std::filesystem::create_directories(folder() + "/build");
        for (const char* const name : {"examples", "scripts"}) {
            std::filesystem::create_symlink(std::string(PZ_ROOT "/") + name, folder() + "/" + name);
        }
        std::filesystem::create_symlink(PZ_BUILD, folder() + "/build/release");
        ASSERT_NE("", document);
    }

    std::string folder() const { return dir.File("work"); }
    std::string prefix() const { return dir.File("usr"); }

    void install() {
        if (std::filesystem::exists(prefix())) return;
        const CommandResult result =
            run_command(PZ_CMAKE " --install " PZ_BUILD " --prefix " + prefix() + " 2>&1");
        ASSERT_EQ(0, result.status) << result.output;
    }

    void run(const Block& block, CommandResult& result) {
        result = {0, ""};
        if (block.language == "cpp" && block.text.find("int main") != std::string::npos) {
            run_program(block.text, result);
        } else if (block.language == "sh") {
            run_commands(block.text, result);
        }
    }

    void run_program(const std::string& source, CommandResult& result) {
        write_file(dir.File("program.cpp"), source);
        const std::string program = dir.File("program");
        result = run_command("{ " PZ_COMPILE " -Werror " + program + ".cpp -o " + program +
                             " " PZ_LINK "; } 2>&1");
        ASSERT_EQ(0, result.status) << source << result.output;
        result = run_command("cd " + folder() + " && timeout 60 " + program + " 2>&1 </dev/null");
    }

    void run_commands(const std::string& text, CommandResult& result) {
        const std::set<std::string> notRun = commands_not_run();
        std::string script;
        for (const std::string& command : commands_of(text)) {
            if (notRun.count(command) == 0) script += command + "\n";
        }
        if (script.empty()) return;
        install();
        const std::string library = prefix() + "/" PZ_LIBDIR;
        write_file(dir.File("commands"), script);
        result = run_command("cd " + folder() + " && CMAKE_PREFIX_PATH=" + prefix() +
                             " PATH=" + prefix() + "/bin:$PATH PKG_CONFIG_PATH=" + library +
                             "/pkgconfig LD_LIBRARY_PATH=" + library +
                             " timeout 120 bash -e ../commands 2>&1 </dev/null");
    }

    const std::string document = read_file(PZ_ROOT "/" + GetParam());
    const TempDir dir;
};

}  // namespace

TEST_P(docsTest, ItsProgramsAndCommandsDoWhatItShows) {
    CommandResult last = {0, ""};
    for (const Block& block : blocks_of(document)) {
        if (block.isResult && !last.output.empty()) {
            EXPECT_TRUE(output_matches(block.text, last.output)) << "shown:\n"
                                                                 << block.text << "printed:\n"
                                                                 << last.output;
        }
        if (!block.file.empty()) write_file(folder() + "/" + block.file, block.text);
        ASSERT_NO_FATAL_FAILURE(run(block, last));
        EXPECT_EQ(0, last.status) << block.text << last.output;
    }
}

TEST_P(docsTest, ItsLinksLeadSomewhere) {
    const std::filesystem::path path = PZ_ROOT "/" + GetParam();
    const std::string prose = prose_of(document);
    for (const std::string& link : between(without_code(prose), "](", ")")) {
        if (starts_with(link, "http://") || starts_with(link, "https://")) continue;
        const size_t mark = std::min(link.find('#'), link.size());
        const std::filesystem::path target =
            mark == 0 ? path : path.parent_path() / link.substr(0, mark);
        EXPECT_TRUE(std::filesystem::exists(target)) << link;
        if (mark == link.size()) continue;
        EXPECT_TRUE(has_anchor(read_file(target.string()), link.substr(mark + 1))) << link;
    }
}

TEST_P(docsTest, ThePathsThatItNamesExist) {
    for (const std::string& code : between(prose_of(document), "`", "`")) {
        const std::string word = code.substr(0, code.find(' '));
        if (!is_path(word)) continue;
        EXPECT_TRUE(std::filesystem::exists(PZ_ROOT "/" + word)) << word;
    }
}

TEST_P(docsTest, QuotesReportsOfTheLibraryWithoutTheirLineNumbers) {
    // These two describe what such a line consists of.
    if (GetParam() == "docs/error-texts.md" || GetParam() == "docs/formats.md") return;
    const std::regex numbered(R"(\(\)@(?!program\.)\w+\.(cpp|h)\(\d)");
    for (const std::string& line : lines_of(document)) {
        EXPECT_FALSE(std::regex_search(line, numbered)) << "it changes with the source: " << line;
    }
}

INSTANTIATE_TEST_SUITE_P(Documents, docsTest, testing::ValuesIn(split(PZ_DOCUMENTS, ':')),
                         name_of_document);

TEST(docsIndexTest, LinksToEveryDocument) {
    const std::string index = read_file(PZ_ROOT "/docs/README.md");
    for (const std::string& document : split(PZ_DOCUMENTS, ':')) {
        if (!starts_with(document, "docs/") || document == "docs/README.md") continue;
        const std::string link = "](" + document.substr(std::strlen("docs/")) + ")";
        EXPECT_NE(std::string::npos, index.find(link)) << document;
    }
}

TEST(docsIndexTest, LeavesOutOnlyCommandsThatTheDocumentsHave) {
    std::set<std::string> commands;
    for (const std::string& document : split(PZ_DOCUMENTS, ':')) {
        for (const Block& block : blocks_of(read_file(PZ_ROOT "/" + document))) {
            if (block.language != "sh") continue;
            for (const std::string& command : commands_of(block.text)) commands.insert(command);
        }
    }
    for (const std::string& command : commands_not_run()) {
        EXPECT_EQ(1U, commands.count(command)) << command;
    }
}

// What the comparisons rest on.

TEST(docsRulesTest, FindsTheBlocksAndWhatBelongsTogether) {
    const std::vector<Block> blocks = blocks_of(
        "a\n```cpp main.cpp\nint main() {}\n```\nprints\n```text\nx\n```\n# next\n"
        "```text\ny\n```\n```sh\n\n```\n");
    ASSERT_EQ(4U, blocks.size());
    EXPECT_EQ("cpp", blocks[0].language);
    EXPECT_EQ("main.cpp", blocks[0].file);
    EXPECT_EQ("int main() {}\n", blocks[0].text);
    EXPECT_TRUE(blocks[1].isResult);
    EXPECT_FALSE(blocks[2].isResult);
    EXPECT_EQ("y\n", blocks[2].text);
    EXPECT_EQ("sh", blocks[3].language);
    EXPECT_EQ("a\nb\n", prose_of("a\n```sh\nx\n```\nb\n"));
}

TEST(docsRulesTest, ReadsCommandsWithoutTheirComments) {
    EXPECT_EQ((std::vector<std::string>{"a b", "c d", "e '#'"}),
              commands_of("a b    # why\n# not this\n\nc \\\n  d\ne '#'\n"));
}

TEST(docsRulesTest, ComparesOutputsButForWhatDiffersFromRunToRun) {
    EXPECT_TRUE(output_matches("a\nb\n", "a\nb\n"));
    EXPECT_FALSE(output_matches("a\n", "a\nb\n"));
    EXPECT_FALSE(output_matches("a\nb\n", "a\n"));
    EXPECT_TRUE(output_matches("a ~5 ms\n", "a 17.25 ms\n"));
    EXPECT_FALSE(output_matches("a ~5 ms\n", "a ms\n"));
    EXPECT_FALSE(output_matches("a 5 ms\n", "a 17 ms\n"));
    EXPECT_TRUE(output_matches("a ... c\n", "a b c\n"));
    EXPECT_FALSE(output_matches("a ... c\n", "a b\n"));
    EXPECT_TRUE(output_matches("a\n...\nd\n", "a\nb\nc\nd\n"));
    EXPECT_FALSE(output_matches("a\n...\nd\n", "a\nb\nc\n"));
    EXPECT_TRUE(output_matches(" a\n", " a  \n"));
    EXPECT_FALSE(output_matches("a\n", " a\n"));
    EXPECT_TRUE(output_matches("[error] f()@a.cpp(7) {p} : x\n",
                               "\033[31m   [error] f()@a.cpp(1234) {p} : x\n\033[0m"));
    EXPECT_FALSE(output_matches("[error] f()@a.cpp(7) {p} : x\n",
                                "\033[31m   [error] f()@a.cpp(7) {p} : y\n\033[0m"));
}

TEST(docsRulesTest, FindsLinksAndPaths) {
    EXPECT_EQ((std::vector<std::string>{"a.md", "b.md#c"}),
              between(without_code("[x](a.md) `[n](m)` [`y`](b.md#c)\n"), "](", ")"));
    EXPECT_EQ("what-follows-for-callbacks", anchor_of("## What follows, for callbacks!"));
    EXPECT_TRUE(has_anchor("# A\n```text\n# B\n```\n## C d\n", "c-d"));
    EXPECT_FALSE(has_anchor("# A\n```text\n# B\n```\n## C d\n", "b"));
    EXPECT_TRUE(is_path("./scripts/demo"));
    EXPECT_FALSE(is_path("docs/*.md"));
    EXPECT_FALSE(is_path("main.cpp"));
}

TEST(docsRulesTest, EveryCommandThatIsNotRunHasAReason) {
    EXPECT_FALSE(commands_not_run().empty());
    for (const std::string& line : lines_of(read_file(PZ_NOT_RUN))) {
        if (line.empty() || starts_with(line, "#")) continue;
        EXPECT_NE(std::string::npos, line.find("  # ")) << line;
    }
}
