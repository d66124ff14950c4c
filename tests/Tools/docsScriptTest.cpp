// scripts/docs makes the reference pages; scripts/docs-filter gives them their addresses.

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::lines_of;
using pztest::read_file;
using pztest::run_command;
using pztest::TempDir;

namespace {

constexpr char kFilter[] = PZ_ROOT "/scripts/docs-filter ";

/// What the first group of `pattern` is at each place where it fits.
std::vector<std::string> all_matches(const std::string& text, const std::string& pattern) {
    const std::regex regex(pattern);
    std::vector<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        found.push_back((*at)[1]);
    }
    return found;
}

/// The addresses of the guides, in the order of docs/README.md.
std::vector<std::string> guides() {
    std::vector<std::string> addresses;
    for (const std::string& line : lines_of(read_file(PZ_ROOT "/docs/README.md"))) {
        if (line.find("? | [") == std::string::npos) continue;
        for (const std::string& name : all_matches(line, "\\(([a-z-]+)\\.md\\)")) {
            addresses.push_back(name + ".html");
        }
    }
    return addresses;
}

/// All pages of a folder, by their name.
class Pages {
public:
    explicit Pages(const std::string& folder) : folder_(folder) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().extension() != ".html") continue;
            const std::string text = read_file(entry.path());
            const std::vector<std::string> names = all_matches(text, "(?:id|name)=\"([^\"]*)\"");
            anchors_[entry.path().filename()] = {names.begin(), names.end()};
            texts_[entry.path().filename()] = text;
        }
    }

    const std::map<std::string, std::string>& Texts() const { return texts_; }

    /// True when the link of a page leads to a file, and where it names one, to a place in it.
    bool LeadsSomewhere(const std::string& page, const std::string& link) const {
        const std::string path = link.substr(0, link.find('#'));
        const std::string file = path.empty() ? page : path;
        if (!std::filesystem::exists(folder_ + "/" + file)) return false;
        if (link.size() == path.size() || anchors_.count(file) == 0) return true;
        return anchors_.at(file).count(link.substr(path.size() + 1)) != 0;
    }

private:
    const std::string folder_;
    std::map<std::string, std::string> texts_;
    std::map<std::string, std::set<std::string>> anchors_;
};

bool is_elsewhere(const std::string& link) {
    // The last one is doxygen's own: the heading of a list of which only private members are left.
    return std::regex_search(link, std::regex("^(https?:|file:|javascript:|#nested-classes$)"));
}

}  // namespace

TEST(docsScriptTest, EveryLinkLeadsSomewhereAndNothingNamesTheFolderOfTheBuild) {
    const TempDir folder;
    const auto result = run_command(PZ_ROOT "/scripts/docs " + folder.Path() + " 2>&1");
    ASSERT_EQ(0, result.status) << result.output;

    const Pages pages(folder.File("html"));
    EXPECT_LT(100U, pages.Texts().size());
    for (const auto& [page, text] : pages.Texts()) {
        EXPECT_EQ(std::string::npos, text.find(PZ_ROOT)) << page;
        EXPECT_EQ(std::string::npos, text.find(folder.Path())) << page;
        EXPECT_EQ(std::string::npos, text.find("autotoc_md")) << page << ": a numbered heading";
        for (const std::string& link : all_matches(text, "href=\"([^\"]*)\"")) {
            EXPECT_TRUE(is_elsewhere(link) || pages.LeadsSomewhere(page, link))
                << page << ": " << link;
        }
    }

    std::vector<std::string> tree;
    for (const std::string& page : all_matches(read_file(folder.File("html/docs.js")),
                                               "\n    \\[ \"[^\"]*\", \"([^\"#]*)\"")) {
        tree.push_back(page);
    }
    const std::vector<std::string> wanted = guides();
    ASSERT_LT(wanted.size(), tree.size());  // after them the other pages
    tree.resize(wanted.size());
    EXPECT_EQ(wanted, tree);
}

TEST(docsScriptTest, NamesPagesAndHeadingsAfterTheirWords) {
    const std::string timers = run_command(kFilter + std::string(PZ_ROOT "/docs/timers.md")).output;
    EXPECT_EQ(0U, timers.find("# Timers {#timers}\n"));
    EXPECT_NE(std::string::npos, timers.find("\n## Periods drift {#timers-periods-drift}\n"));
    EXPECT_NE(std::string::npos, timers.find("@ref surprises-timers \"surprises\""));
    EXPECT_NE(std::string::npos, timers.find("@ref PZLTimerMng \"PZLTimerMng.h\""));
    EXPECT_NE(std::string::npos, timers.find("`examples/small/tick_wrap.cpp`"));
}

TEST(docsScriptTest, LeavesTheProgramsOfAPageUnchanged) {
    const std::string page = read_file(PZ_ROOT "/docs/timers.md");
    const std::string printed =
        run_command(kFilter + std::string(PZ_ROOT "/docs/timers.md")).output;
    EXPECT_NE("", pztest::block_of(page, "cpp"));
    EXPECT_EQ(pztest::block_of(page, "cpp"), pztest::block_of(printed, "cpp"));
}
