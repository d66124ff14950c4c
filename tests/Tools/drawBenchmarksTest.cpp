// scripts/draw-benchmarks: from the results of benchmarks to the tables and charts of a page.

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::CommandResult;
using pztest::lines_of;
using pztest::read_file;
using pztest::run_command;
using pztest::write_file;

namespace {

constexpr char kPage[] =
    "# Costs\n"
    "<!--figures:peers-->\nold\n<!--end-->\n"
    "between\n"
    "<!--figures:growth-->\nold\n<!--end-->\n"
    "behind\n";

/// One repetition, as Google Benchmark writes it.
std::string run_of(const std::string& name, double time, const std::string& unit = "ns") {
    return R"({"name": ")" + name + R"(", "run_name": ")" + name +
           R"(", "run_type": "iteration", "real_time": )" + std::to_string(time) +
           R"(, "time_unit": ")" + unit + R"("})";
}

std::string results_of(const std::vector<std::string>& runs) {
    std::string json = R"({"context": {}, "benchmarks": [)";
    for (const std::string& run : runs) json += (&run == &runs.front() ? "" : ",") + run;
    return json + "]}";
}

size_t count_of(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class DrawBenchmarksTest : public testing::Test {
protected:
    void SetUp() override { write_file(Page(), kPage); }

    std::string Page() const { return dir.File("page.md"); }

    /// Draws what `json` holds into the page.
    CommandResult Draw(const std::string& option, const std::string& json) const {
        write_file(dir.File("results.json"), json);
        return run_command(PZ_ROOT "/scripts/draw-benchmarks " + Page() + " " + option + " " +
                           dir.File("results.json") + " 2>&1");
    }

    /// The chart, when it is well-formed.
    std::string Chart(const std::string& name) const {
        const CommandResult parsed =
            run_command("python3 -c 'import sys, xml.dom.minidom as xml; xml.parse(sys.argv[1])' " +
                        dir.File(name) + " 2>&1");
        EXPECT_EQ(0, parsed.status) << parsed.output;
        return read_file(dir.File(name));
    }

    const pztest::TempDir dir;
};

TEST_F(DrawBenchmarksTest, DrawsAGroupForEachWorkWithItsRatioToTheFastestOther) {
    const CommandResult drawn =
        Draw("--peers",
             results_of({run_of("lock/POCO", 20), run_of("lock/pzframework", 10),
                         run_of("lock/Qt", 40), run_of("post_batch/pzframework/real_time", 3, "us"),
                         run_of("post_batch/Boost.Asio/real_time", 1.5, "us")}));
    ASSERT_EQ(0, drawn.status) << drawn.output;

    const std::string chart = Chart("performance-peers.svg");
    EXPECT_EQ(2U, count_of(chart, "<g class=\"work\""));
    EXPECT_EQ(2U, count_of(chart, "<rect class=\"ours\""));
    EXPECT_EQ(3U, count_of(chart, "<rect class=\"other\""));
    EXPECT_TRUE(contains(chart, ">0.50<"));
    EXPECT_TRUE(contains(chart, ">2.00<"));
    EXPECT_TRUE(contains(chart, "prefers-color-scheme: dark"));

    EXPECT_EQ(
        "# Costs\n"
        "<!--figures:peers-->\n"
        "\n"
        "|Work|ours|others|ratio|\n"
        "|---|---:|---|---:|\n"
        "|`post_batch`|3.00 us|Boost.Asio 1.50 us|2.00|\n"
        "|`lock`|10.0 ns|POCO 20.0 ns, Qt 40.0 ns|0.50|\n"
        "\n"
        "<!--end-->\n"
        "between\n"
        "<!--figures:growth-->\nold\n<!--end-->\n"
        "behind\n",
        read_file(Page()));
}

TEST_F(DrawBenchmarksTest, CountsTheMedianOfSeveralRepetitions) {
    const std::string other = run_of("lock/POCO", 100);
    const std::string ours = "lock/pzframework";
    const CommandResult drawn =
        Draw("--peers", results_of({other, run_of(ours, 900), run_of(ours, 110), run_of(ours, 50),
                                    R"({"name": "lock/pzframework_median", "run_type": "aggregate",
                             "run_name": "lock/pzframework", "real_time": 7, "time_unit": "ns"})"}));
    ASSERT_EQ(0, drawn.status) << drawn.output;
    EXPECT_TRUE(contains(read_file(Page()), "|`lock`|110 ns|POCO 100 ns|1.10|\n"));
}

TEST_F(DrawBenchmarksTest, DrawsOneChartForPostsAndOneForTimers) {
    std::vector<std::string> runs;
    for (const char* curve :
         {"post_at_once", "post_at_once_1cpu", "post_bytes", "post_from_posters",
          "timer_add+remove", "timer_fire", "notify_observers", "convert_bytes"}) {
        const std::string name = std::string("growth/") + curve;
        runs.push_back(run_of(name + "/100/real_time", 2000));
        runs.push_back(run_of(name + "/1/real_time", 300));
        runs.push_back(run_of(name + "/1000/real_time", 5, "ms"));
    }
    const CommandResult drawn = Draw("--growth", results_of(runs));
    ASSERT_EQ(0, drawn.status) << drawn.output;
    for (const char* chart : {"performance-post.svg", "performance-timers.svg"}) {
        EXPECT_EQ(2U, count_of(Chart(chart), "<g class=\"curve\"")) << chart;
        EXPECT_EQ(6U, count_of(Chart(chart), "<circle")) << chart;
    }
    EXPECT_TRUE(contains(read_file(Page()),
                         "|active timers, one more|1: 300 ns|100: 2.00 us|1,000: 5.00 ms|\n"));
}

TEST_F(DrawBenchmarksTest, TellsTheSystemCallsOfEachSizeOfBatch) {
    write_file(Page(), "<!--figures:calls-->\n<!--end-->\n");
    const CommandResult drawn = Draw("--calls",
                                     "batches of 1, calls per message:\n"
                                     "  total            3.25\n"
                                     "  futex            2.25\n"
                                     "  write            1.00\n"
                                     "batches of 200, calls per message:\n");
    ASSERT_EQ(0, drawn.status) << drawn.output;
    EXPECT_EQ(
        "<!--figures:calls-->\n"
        "\n"
        "- in batches of 1: 2.25 `futex`, 1.00 `write`\n"
        "- in batches of 200: none\n"
        "\n"
        "<!--end-->\n",
        read_file(Page()));
}

TEST_F(DrawBenchmarksTest, RefusesBadInputWithOneLineAndWritesNothing) {
    const std::string ours = run_of("lock/pzframework", 10);
    const std::string theirs = run_of("lock/POCO", 10);
    const std::string failed =
        R"({"name": "lock/Qt", "run_name": "lock/Qt", "run_type": "iteration", )"
        R"("error_occurred": true, "error_message": "wrong result"})";
    const struct {
        const char* option;
        std::string json;
        const char* told;
    } cases[] = {
        {"--peers", "", "no results of benchmarks"},
        {"--peers", "[1, 2]", "no results of benchmarks"},
        {"--peers", "{}", "no results of benchmarks"},
        {"--peers", results_of({}), "no works"},
        {"--peers", results_of({theirs}), "lock: needs pzframework"},
        {"--peers", results_of({ours}), "lock: needs pzframework"},
        {"--peers", results_of({ours, theirs, failed}), "lock/Qt: wrong result"},
        {"--peers", results_of({ours, theirs, run_of("unheard/of", 1)}), "unheard/of: no work"},
        {"--peers", results_of({ours, run_of("lock/POCO", 0)}), "lock/POCO: a time of 0"},
        {"--peers", results_of({ours, run_of("lock/POCO", 1, "weeks")}), "1.0 weeks"},
        {"--growth", results_of({ours}), "lock/pzframework: no curve"},
        {"--growth", results_of({run_of("growth/timer_fire/10", 1)}), "needs two sizes"},
        {"--raw", results_of({ours}), "lock/free: not measured"},
        {"--calls", "no calls", "no counts of calls"},
        {"--machine here --peers", results_of({ours, theirs}), "no place for the figures: machine"},
        {"--peers /nonexistent --growth", results_of({}), "/nonexistent: No such file"},
    };
    for (const auto& each : cases) {
        const CommandResult drawn = Draw(each.option, each.json);
        EXPECT_EQ(1, drawn.status) << each.told;
        EXPECT_EQ(1U, lines_of(drawn.output).size()) << drawn.output;
        EXPECT_TRUE(contains(drawn.output, each.told)) << drawn.output;
        EXPECT_EQ(kPage, read_file(Page()));
        EXPECT_FALSE(std::filesystem::exists(dir.File("performance-peers.svg")));
    }
}

/// All sources right in a folder of the benchmarks.
std::string sources_of(const std::string& folder) {
    std::string sources;
    for (const auto& entry : std::filesystem::directory_iterator(PZ_ROOT "/" + folder)) {
        if (entry.path().extension() == ".cpp") sources += read_file(entry.path().string());
    }
    return sources;
}

/// What matches the first group.
std::set<std::string> all_of(const std::string& text, const char* expression) {
    const std::regex regex(expression);
    std::set<std::string> found;
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

/// What stands between the marks in docs/performance.md.
std::string figures_of(const std::string& name) {
    const std::string page = read_file(PZ_ROOT "/docs/performance.md");
    const size_t start = page.find("<!--figures:" + name + "-->");
    if (start == std::string::npos) return "";
    return page.substr(start, page.find("<!--end-->", start) - start);
}

TEST(PerformancePageTest, ComparesAllWorksThatAreMeasuredBesideOtherLibrariesAndNoOthers) {
    const std::set<std::string> works = all_of(figures_of("peers"), R"(\|`([^`]+)`\|)");
    EXPECT_LE(15U, works.size());
    EXPECT_EQ(all_of(sources_of("benchmarks/peers"), R"re(Name\("([^"/]+)/pzframework"\))re"),
              works);
    for (const std::string& work : works) {
        const std::string chart = read_file(PZ_ROOT "/docs/performance-peers.svg");
        EXPECT_TRUE(contains(chart, "id=\"" + work + "\"")) << work;
    }
}

TEST(PerformancePageTest, ShowsOnlyWorksThatAreMeasuredBesideTheirMechanism) {
    const std::string sources = sources_of("benchmarks");
    const std::set<std::string> works = all_of(figures_of("raw"), R"(\|`([^/`]+/[^/`]+)[^`]*`\|)");
    EXPECT_LE(5U, works.size());
    for (const std::string& work : works) {
        EXPECT_TRUE(contains(sources, "\"" + work + "\"")) << work;
        EXPECT_TRUE(contains(sources, "\"" + work + ":raw\"")) << work;
    }
}

TEST(PerformancePageTest, IsMeasuredByProgramsThatExist) {
    const CommandResult programs = run_command(PZ_ROOT "/scripts/draw-benchmarks --programs");
    ASSERT_EQ(0, programs.status);
    EXPECT_LE(5U, lines_of(programs.output).size());
    for (const std::string& line : lines_of(programs.output)) {
        const std::string program = line.substr(0, line.find(' '));
        EXPECT_TRUE(std::filesystem::exists(PZ_ROOT "/benchmarks/" + program + ".cpp")) << line;
    }
}

}  // namespace
