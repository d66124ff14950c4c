#include <cctype>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/TempDir.h"

// docs/error-texts.md explains every text that the library reports: what the sources report and
// what the page explains is compared, class by class. Texts are compared as they are written in
// the source, with their escapes.

namespace {

/// Texts by the class (the name of the file, or the heading) that reports them.
using Texts = std::map<std::string, std::set<std::string>>;

constexpr char kAssertion[] = "ASSERT Failed! - %s(%d)";
constexpr char kLastError[] = "std library error [%d : %s]\\n";

/// Where the literal or character constant that begins at `at` ends: behind its closing quote.
size_t end_of_literal(const std::string& code, size_t at) {
    const char quote = code[at++];
    while (at < code.size() && code[at] != quote) at += code[at] == '\\' ? 2 : 1;
    return at + 1;
}

/// The source without its comments.
std::string without_comments(const std::string& source) {
    std::string code;
    for (size_t at = 0; at < source.size();) {
        size_t end = at + 1;
        if (source[at] == '"' || source[at] == '\'') {
            end = end_of_literal(source, at);
        } else if (source.compare(at, 2, "//") == 0) {
            at = end = std::min(source.find('\n', at), source.size());
        } else if (source.compare(at, 2, "/*") == 0) {
            at = end = std::min(source.find("*/", at), source.size() - 2) + 2;
        }
        code.append(source, at, end - at);
        at = end;
    }
    return code;
}

/// What stands between the bracket at `open` and the one that closes it.
std::string arguments_at(const std::string& code, size_t open) {
    int depth = 0;
    for (size_t at = open; at < code.size();) {
        if (code[at] == '"' || code[at] == '\'') {
            at = end_of_literal(code, at);
            continue;
        }
        if (code[at] == '(') ++depth;
        if (code[at] == ')' && --depth == 0) return code.substr(open + 1, at - open - 1);
        ++at;
    }
    return "";
}

/// The first literal behind `from`, put together with those that follow it at once; "" for none.
std::string first_literal(const std::string& arguments, size_t from = 0) {
    std::string text;
    size_t at = arguments.find('"', from);
    while (at < arguments.size() && arguments[at] == '"') {
        const size_t end = end_of_literal(arguments, at);
        text.append(arguments, at + 1, end - at - 2);
        at = arguments.find_first_not_of(" \t\n", end);
    }
    return text;
}

bool is_part_of_name(char character) {
    return std::isalnum(static_cast<unsigned char>(character)) != 0 || character == '_';
}

/// The arguments of every call of `function` in the code.
std::vector<std::string> calls_of(const std::string& code, const std::string& function) {
    std::vector<std::string> calls;
    const std::string call = function + "(";
    for (size_t at = code.find(call); at != std::string::npos; at = code.find(call, at + 1)) {
        if (at > 0 && is_part_of_name(code[at - 1])) continue;
        calls.push_back(arguments_at(code, at + call.size() - 1));
    }
    return calls;
}

/// What perror prints: its argument, a literal, a constant of the file or a variable, and a text.
std::string perror_text(const std::string& code, const std::string& argument) {
    if (argument.front() == '"') return first_literal(argument) + ": %s";
    const size_t constant = code.find("constexpr char " + argument + "[] =");
    if (constant == std::string::npos) return "%s: %s";
    return first_literal(code, constant) + ": %s";
}

/// A report without a text of its own counts as "", which the page cannot have.
std::set<std::string> reports_of(const std::string& code) {
    std::set<std::string> texts;
    for (const char* const macro : {"PZ_REPORT_ERROR", "PZ_REPORT_ERRNO"}) {
        for (const std::string& call : calls_of(code, macro)) texts.insert(first_literal(call));
    }
    for (const std::string& call : calls_of(code, "PZ_REPORT_ERROR_OF")) {
        texts.insert(first_literal(call, call.find(',')));  // after the function
    }
    for (const std::string& call : calls_of(code, "PZ_REPORT_ERROR_ON")) {
        texts.insert(first_literal(call, call.find(',', call.find(',') + 1)));  // after the object
    }
    for (const std::string& call : calls_of(code, "DbgPrint")) {
        const size_t tag = call.find("en_TAG_ERROR");
        if (tag != std::string::npos) texts.insert(first_literal(call, tag));
        if (call.front() == '"') texts.insert(first_literal(call));
    }
    for (const char* const function : {"perror", "pz_end_child_without_program"}) {
        for (const std::string& call : calls_of(code, function)) {
            texts.insert(perror_text(code, call));
        }
    }
    for (const char* const lastError :
         {"PZ_REPORT_LAST_ERROR", "PZ_REPORT_LAST_ERROR_ON", "put_error"}) {
        if (!calls_of(code, lastError).empty()) texts.insert(kLastError);
    }
    if (!calls_of(code, "PZ_REPORT_ASSERTION").empty()) texts.insert(kAssertion);
    return texts;
}

Texts texts_of_the_library() {
    Texts texts;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(PZ_ROOT "/src")) {
        const std::filesystem::path& file = entry.path();
        if (file.filename() == "PZReport.h") continue;  // the macros themselves
        if (file.filename() == "pz_child.h") continue;  // what perror does, for its callers
        if (file.extension() != ".h" && file.extension() != ".cpp") continue;
        for (const std::string& text :
             reports_of(without_comments(pztest::read_file(file.string())))) {
            texts[file.stem().string()].insert(text);
        }
    }
    return texts;
}

/// The page: its headings, and the code in the first column of the tables below them.
Texts texts_of_the_page() {
    Texts texts;
    std::string heading;
    for (const std::string& line :
         pztest::lines_of(pztest::read_file(PZ_ROOT "/docs/error-texts.md"))) {
        if (line.compare(0, 3, "## ") == 0) heading = line.substr(3);
        if (line.compare(0, 3, "| `") != 0) continue;
        const std::string text = line.substr(3, line.find("` |") - 3);
        EXPECT_TRUE(texts[heading].insert(text).second) << heading << " twice: " << text;
    }
    return texts;
}

}  // namespace

TEST(errorTextsTest, ThePageExplainsWhatTheLibraryReportsAndNothingElse) {
    const Texts library = texts_of_the_library();
    const Texts page = texts_of_the_page();
    for (const auto& [name, texts] : library) {
        const auto section = page.find(name);
        ASSERT_NE(page.end(), section) << "docs/error-texts.md has no section " << name;
        for (const std::string& text : texts) {
            EXPECT_EQ(1U, section->second.count(text)) << name << " is not explained: " << text;
        }
    }
    for (const auto& [name, texts] : page) {
        const auto file = library.find(name);
        ASSERT_NE(library.end(), file) << "nothing in src is named " << name;
        for (const std::string& text : texts) {
            EXPECT_EQ(1U, file->second.count(text)) << name << " does not report: " << text;
        }
    }
}

// What the comparison rests on: the texts of the two reports that have none at their call.
TEST(errorTextsTest, TheReportsWithoutATextOfTheirOwnAreFound) {
    const Texts library = texts_of_the_library();
    EXPECT_EQ(1U, library.at("PZDbgOutput").count(kLastError));
    ASSERT_EQ(1U, library.at("PZReport").size());
    EXPECT_NE(std::string::npos, library.at("PZReport").begin()->find(kAssertion));
}

TEST(errorTextsTest, ReadsReportsAsTheyAreWritten) {
    EXPECT_EQ((std::set<std::string>{"a \\\"b\\\" (c)\\n"}),
              reports_of("PZ_REPORT_ERROR(\n  \"a \\\"b\\\" \"\n  \"(c)\\n\", f(1, ')'));"));
    EXPECT_EQ((std::set<std::string>{"x"}),
              reports_of("PZDbgOutput::DbgPrint(__FILE__, \"Lock\", 1, en_TAG_ERROR, \"x\");"));
    EXPECT_EQ((std::set<std::string>{"wait: %s"}), reports_of("std::perror(\"wait\");"));
    EXPECT_EQ((std::set<std::string>{"/bin/x: %s"}),
              reports_of("constexpr char kX[] = \"/bin/x\";\nstd::perror(kX);"));
    EXPECT_EQ((std::set<std::string>{"%s: %s"}), reports_of("std::perror(program);"));
    EXPECT_EQ((std::set<std::string>{""}), reports_of("PZ_REPORT_ERROR(format);"));
    EXPECT_EQ((std::set<std::string>{}), reports_of("MY_PZ_REPORT_ERROR(\"no\");"));
    EXPECT_EQ("a \"// b\" ", without_comments("a \"// b\" // c"));
    EXPECT_EQ("a  b", without_comments("a /* \"c */ b"));
}
