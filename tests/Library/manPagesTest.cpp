#include <cctype>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "support/RunCommand.h"
#include "support/TempDir.h"

namespace {

/// The man pages of the repository: a name, a dot and a section. Relative to its root.
std::set<std::string> man_pages() {
    std::set<std::string> pages;
    for (const char* const folder : {"/examples", "/packaging", "/tools"}) {
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(std::string(PZ_ROOT) + folder)) {
            const std::string section = entry.path().extension().string();
            const bool isPage =
                section.size() == 2 && std::isdigit(static_cast<unsigned char>(section[1])) != 0;
            if (isPage) pages.insert(entry.path().string());
        }
    }
    return pages;
}

/// What groff has to say about a page, with all its warnings on; "" for a page without fault.
std::string complaints_about(const std::string& page) {
    const auto result =
        pztest::run_command("'" PZ_GROFF "' -man -ww -Tutf8 -z '" + page + "' 2>&1");
    return result.status == 0 ? result.output : "groff failed: " + result.output;
}

/// The page as a reader sees it on a wide terminal, without bold and underlined letters.
std::string rendered(const std::string& page) {
    return pztest::run_command("'" PZ_GROFF "' -man -Tutf8 -P-cbou -rLL=500n '" + page + "'")
        .output;
}

/// Adds what the pattern's group finds in the line.
void collect(std::set<std::string>& found, const std::string& line, const std::regex& pattern) {
    for (std::sregex_iterator it(line.begin(), line.end(), pattern); it != std::sregex_iterator();
         ++it) {
        found.insert((*it)[1].str());
    }
}

/// The options that have an entry in the page.
std::set<std::string> options_in_page(const std::string& page) {
    std::set<std::string> options;
    std::istringstream lines(rendered(page));
    std::string section;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != ' ') section = line;
        if (section != "OPTIONS" || line.rfind("       -", 0) != 0) continue;
        collect(options, line, std::regex("(?:^ {7}|, )(-[-a-z]+)"));
    }
    return options;
}

/// The options that a program's help names.
std::set<std::string> options_in_help(const std::string& program) {
    std::set<std::string> options;
    const std::string help = pztest::run_command("'" + program + "' --help").output;
    collect(options, help, std::regex("[ \n\\[](--?[a-z][-a-z]*)"));
    return options;
}

}  // namespace

TEST(manPagesTest, RenderWithoutWarnings) {
    const std::set<std::string> pages = man_pages();
    EXPECT_EQ(1U, pages.count(PZ_ROOT "/packaging/man/pzframework.7"));
    EXPECT_EQ(1U, pages.count(PZ_ROOT "/examples/textconv/textconv.1"));
    for (const std::string& page : pages) EXPECT_EQ("", complaints_about(page)) << page;
}

TEST(manPagesTest, AnUnknownMacroInAPageIsNoticed) {
    const pztest::TempDir dir;
    pztest::write_file(dir.File("faulty.1"), ".TH FAULTY 1\n.SH NAME\n.NOSUCHMACRO\n");
    EXPECT_NE("", complaints_about(dir.File("faulty.1")));
}

TEST(manPagesTest, TheOverviewNamesTheOtherPages) {
    const std::string overview = rendered(PZ_ROOT "/packaging/man/pzframework.7");
    ASSERT_NE(std::string::npos, overview.find("pz_FwInitialize"));
    for (const std::string& path : man_pages()) {
        const std::filesystem::path page(path);
        if (page.stem() == "pzframework") continue;
        const std::string reference =
            page.stem().string() + "(" + page.extension().string().substr(1) + ")";
        EXPECT_NE(std::string::npos, overview.find(reference)) << reference;
    }
}

TEST(manPagesTest, ThePagesAndTheHelpOfTheProgramsNameTheSameOptions) {
    const std::string tools = PZ_ROOT "/tools/";
    const std::pair<std::string, std::string> programs[] = {
        {tools + "heapview/pz-heapview", tools + "heapview/pz-heapview.1"},
        {tools + "trace/pz-trace", tools + "trace/pz-trace.1"},
#ifdef PZ_TOP
        {PZ_TOP, tools + "top/pz-top.1"},
#endif
    };
    for (const auto& [program, page] : programs) {
        const std::set<std::string> options = options_in_page(page);
        EXPECT_EQ(1U, options.count("--version")) << page;
        EXPECT_EQ(options, options_in_help(program)) << page;
    }
}
