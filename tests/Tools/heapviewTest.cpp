#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "PythonTool.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"

using pztest::CommandResult;
using pztest::read_file;
using pztest::run_command;
using pztest::TempDir;
using pztest::write_file;

namespace {

CommandResult run_heapview(const std::string& arguments) {
    return run_command(PZ_HEAPVIEW " " + arguments + " 2>&1");
}

/// " (FILE:LINE)" of the first line of the leaky program that contains `code`.
std::string place_of(const std::string& code) {
    const std::string source = read_file(PZ_LEAKY_SOURCE);
    const size_t at = source.find(code);
    if (at == std::string::npos) return "no line with " + code;
    const auto line = 1 + std::count(source.begin(), source.begin() + static_cast<long>(at), '\n');
    return " (heapview_program.cpp:" + std::to_string(line) + ")";
}

/// As a regular expression.
std::string quoted(const std::string& text) {
    return std::regex_replace(text, std::regex(R"([().])"), R"(\$&)");
}

const std::string kInMakeStation = place_of("= Malloc(100)");
const std::string kInLoadList = place_of("i < 5;");
const std::string kInMain = place_of("    load_list();");

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// Runs the program, which leaves blocks behind; its report and map then lie in the folder.
class LeakyRun {
public:
    explicit LeakyRun(const std::string& program = PZ_LEAKY) : LeakyRun(program, "report.maps") {}

    /// The program writes the map to `mapName`; with an empty one whatever lies beside its report
    /// comes along.
    LeakyRun(const std::string& program, const std::string& mapName) {
        const std::string argument = mapName.empty() ? "" : " " + folder_.File(mapName);
        const CommandResult run = run_command(program + argument + " 2>&1");
        EXPECT_EQ(0, run.status) << run.output;
        // A copy: the files of the folder that is read are removed.
        std::vector<std::filesystem::path> files;
        for (const auto& entry : std::filesystem::directory_iterator("/Syslog")) {
            // The name of the process is cut to what a log's name holds.
            const std::string name = entry.path().filename().string();
            if (name.rfind("HeapList_pz_heapview_tes", 0) == 0) files.push_back(entry.path());
        }
        for (const std::filesystem::path& file : files) {
            std::filesystem::copy_file(file, folder_.File("report" + file.extension().string()));
            std::filesystem::remove(file);
        }
        EXPECT_TRUE(std::filesystem::exists(Report()));
        EXPECT_TRUE(std::filesystem::exists(Map()));
    }

    std::string Report() const { return folder_.File("report.txt"); }
    std::string Map() const { return folder_.File("report.maps"); }
    const TempDir& Folder() const { return folder_; }

private:
    TempDir folder_;
};

/// One line of a block, with one caller.
std::string block_line(int number, unsigned int size, const std::string& caller,
                       const std::string& mark = "-") {
    std::string line = std::to_string(number) + "\t0x0000007b\t0x00010000\t" +
                       std::to_string(size) + "\t" + mark + "\t" + caller;
    for (int i = 1; i < 10; ++i) line += "\t0000000000";
    return line + "\n";
}

std::string report_of(const std::string& blocks) {
    return "[Memory Info Summary]\nCurrent Total Count = 0, Max Total Count = 9, Current Total "
           "Size "
           "= 0, Max Total Size = 99\n\n[Memory Info about Each Thread]\n   TID   : Current Count "
           ": "
           "Max Count : Current Size : Max Size\n0x0000007b     00001         00001        0000001 "
           " "
           "   0000001\n\n[Memory Leak Info]\n#\tTID\t\tAddress\t\tSize\tOverrun\n" +
           blocks;
}

/// The beginning of a command whose symbolizer is these lines of a shell.
std::string with_symbolizer(const TempDir& folder, const std::string& lines) {
    const std::string tools = folder.File("bin");
    std::filesystem::create_directory(tools);
    write_file(tools + "/addr2line", "#!/bin/sh\n" + lines + "\n");
    EXPECT_EQ(0, chmod((tools + "/addr2line").c_str(), 0755));
    return "PATH=" + tools + ":$PATH ";
}

TEST(HeapviewTest, NamesFunctionsAndLinesAndShowsEqualBlocksOnce) {
    const LeakyRun run;
    const CommandResult shown = run_heapview(run.Report());
    EXPECT_EQ(0, shown.status) << shown.output;
    EXPECT_TRUE(contains(shown.output, ": 8 blocks, 1608 bytes; at most 8 blocks, 1608 bytes\n"))
        << shown.output;
    const std::regex five(" +500 +5 +100  heapview_progra\n +[^\n]*make_station\\(\\)" +
                          quoted(kInMakeStation) + "\n +[^\n]*load_list\\(\\)" +
                          quoted(kInLoadList) + "\n +main" + quoted(kInMain) + "\n");
    EXPECT_TRUE(std::regex_search(shown.output, five)) << shown.output;
    const std::regex alone(
        " +100 +1 +100  heapview_progra\n +[^\n]*make_station[^\n]*\n +main \\(heapview_program");
    EXPECT_TRUE(std::regex_search(shown.output, alone)) << shown.output;
}

TEST(HeapviewTest, OrdersByBytesOrByBlocks) {
    const LeakyRun run;
    const std::string byBytes = run_heapview(run.Report()).output;
    EXPECT_LT(byBytes.find("allocate_on_a_thread"), byBytes.find("load_list"));
    const std::string byBlocks = run_heapview("--by blocks " + run.Report()).output;
    EXPECT_GT(byBlocks.find("allocate_on_a_thread"), byBlocks.find("load_list"));
}

TEST(HeapviewTest, ShowsOverrunBlocksFirstWhenAsked) {
    const LeakyRun run;
    const CommandResult shown = run_heapview("--corrupt " + run.Report());
    EXPECT_EQ(0, shown.status);
    EXPECT_EQ(0U, shown.output.find("OVERRUN  0x")) << shown.output;
    EXPECT_TRUE(contains(shown.output.substr(0, shown.output.find('\n')), "8 bytes"));
    EXPECT_TRUE(contains(shown.output, "intact "));
}

TEST(HeapviewTest, NeedsNothingButTheEnvironmentOfAPositionIndependentProgram) {
    const LeakyRun run("PZ_HEAP_MAPS=1 " PZ_LEAKY, "");
    const CommandResult shown = run_heapview(run.Report());
    EXPECT_EQ(0, shown.status) << shown.output;
    const std::regex five(" +500 +5 +100  heapview_progra\n +[^\n]*make_station\\(\\)" +
                          quoted(kInMakeStation) + "\n +[^\n]*load_list\\(\\)" +
                          quoted(kInLoadList) + "\n");
    EXPECT_TRUE(std::regex_search(shown.output, five)) << shown.output;
    const std::regex ofThread(" +1000 +1 +1000  tuner\n +[^\n]*allocate_on_a_thread");
    EXPECT_TRUE(std::regex_search(shown.output, ofThread)) << shown.output;
}

TEST(HeapviewTest, CallsThreadsByTheirNamesWhenTheMapTellsThem) {
    const LeakyRun run;
    const std::regex named(" +1000 +1 +1000  tuner\n");
    const std::string shown = run_heapview(run.Report()).output;
    EXPECT_TRUE(std::regex_search(shown, named)) << shown;
    write_file(run.Map(),
               std::regex_replace(read_file(run.Map()), std::regex("thread [^\n]*\n"), ""));
    const std::string numbered = run_heapview(run.Report()).output;
    EXPECT_TRUE(std::regex_search(numbered, std::regex(" +1000 +1 +1000  \\d+\n"))) << numbered;
}

TEST(HeapviewTest, FoldsEachCallStackIntoOneLineWithItsBytes) {
    const LeakyRun run;
    const CommandResult shown = run_heapview("--folded " + run.Report());
    EXPECT_EQ(0, shown.status);
    EXPECT_TRUE(std::regex_search(shown.output,
                                  std::regex("(^|\n)heapview_progra;[^\n]*main" + quoted(kInMain) +
                                             ";[^\n;]*load_list[^\n;]*;"
                                             "[^\n;]*make_station[^\n;]* 500\n")))
        << shown.output;
    unsigned long sum = 0;
    const std::regex last(" (\\d+)\n");
    for (std::sregex_iterator it(shown.output.begin(), shown.output.end(), last), end; it != end;
         ++it) {
        sum += std::stoul((*it)[1]);
    }
    EXPECT_EQ(1608U, sum);
}

TEST(HeapviewTest, DrawsAFlameGraphAsWellFormedXml) {
    const LeakyRun run;
    const std::string picture = run.Folder().File("picture.svg");
    const CommandResult drawn = run_command(PZ_HEAPVIEW " --svg " + run.Report() + " >" + picture);
    EXPECT_EQ(0, drawn.status);
    const CommandResult parsed =
        run_command(PZ_PYTHON
                    " -c 'import sys, xml.dom.minidom as m; d = m.parse(sys.argv[1]); "
                    "print(d.documentElement.tagName, len(d.getElementsByTagName(\"script\")))' " +
                    picture);
    EXPECT_EQ("svg 0\n", parsed.output);
    const std::string text = read_file(picture);
    EXPECT_TRUE(contains(text, "<title>all: 1608 bytes, 100.0 %</title>")) << text;
    EXPECT_TRUE(contains(text, "prefers-color-scheme: dark"));
    EXPECT_TRUE(contains(text, "load_list()" + kInLoadList + ": 500 bytes, 31.1 %"));
}

TEST(HeapviewTest, SaysThatAddressesHaveNoNamesWithoutAMap) {
    const LeakyRun run;
    std::filesystem::remove(run.Map());
    const CommandResult nothing = run_heapview(run.Report());
    EXPECT_EQ(1, nothing.status);
    EXPECT_TRUE(contains(nothing.output, "has no maps file beside it")) << nothing.output;
    EXPECT_TRUE(contains(nothing.output, "        0x")) << nothing.output;
    const CommandResult program = run_heapview("--program " PZ_LEAKY " " + run.Report());
    EXPECT_EQ(1, program.status);
    EXPECT_TRUE(contains(program.output, "the program is position-independent")) << program.output;
}

TEST(HeapviewTest, NamesTheFunctionsOfAFixedProgramWithoutAMap) {
    const LeakyRun run(PZ_LEAKY_FIXED);
    std::filesystem::remove(run.Map());
    const CommandResult shown = run_heapview("--program " PZ_LEAKY_FIXED " " + run.Report());
    EXPECT_EQ(0, shown.status) << shown.output;
    EXPECT_TRUE(contains(shown.output, "load_list()" + kInLoadList)) << shown.output;
}

TEST(HeapviewTest, ReadsAnotherMachinesProgramAndItsSeparateSymbols) {
    const LeakyRun run;
    const std::string root = run.Folder().File("root");
    const std::string program = root + "/opt/radio";
    const std::string made = "set -e; mkdir -p " + root +
                             "/opt; objcopy --only-keep-debug " PZ_LEAKY " " + program +
                             ".debug; strip -o " + program + " " PZ_LEAKY;
    ASSERT_EQ(0, run_command(made).status);
    const std::string here = std::filesystem::canonical(PZ_LEAKY).string();
    std::string map = read_file(run.Map());
    for (size_t at = 0; (at = map.find(here, at)) != std::string::npos;) {
        map.replace(at, here.size(), "/opt/radio");
    }
    write_file(run.Map(), map);

    const std::string shown = run_heapview("--sysroot " + root + " " + run.Report()).output;
    EXPECT_TRUE(contains(shown, "load_list()" + kInLoadList)) << shown;
    // The libraries of that machine are not here: one line for each, and the rest is named.
    EXPECT_TRUE(contains(shown, "libpzframework") || contains(shown, "libc.so")) << shown;

    // Symbols of another build are not taken.
    std::filesystem::remove(program + ".debug");
    std::filesystem::copy_file(PZ_LEAKY_FIXED, program + ".debug");
    EXPECT_FALSE(
        contains(run_heapview("--sysroot " + root + " " + run.Report()).output, "load_list()"));
}

TEST(HeapviewTest, TellsWhatGrewBetweenTwoReports) {
    const TempDir folder;
    const std::string before = folder.File("old.txt");
    const std::string after = folder.File("new.txt");
    write_file(before, report_of(block_line(0, 100, "0x00001000") + block_line(1, 7, "0x00002000") +
                                 block_line(2, 9, "0x00004000")));
    write_file(after, report_of(block_line(0, 100, "0x00001000") + block_line(1, 50, "0x00001000") +
                                block_line(2, 9, "0x00004000") + block_line(3, 10, "0x00003000")));
    const CommandResult shown =
        run_command(PZ_HEAPVIEW " --diff " + before + " " + after + " 2>/dev/null");
    EXPECT_EQ(
        "+53 bytes, +1 blocks, from " + before + " to " + after +
            "\n\n       bytes   blocks\n         +50       +1\n        0x1000\n         +10   "
            "    +1\n        0x3000\n          -7       -1\n        0x2000\n",
        shown.output);
}

TEST(HeapviewTest, RefusesWhatItCannotReadWithOneLineEach) {
    const TempDir folder;
    write_file(folder.File("foreign.txt"), "hello\n");
    const CommandResult foreign = run_heapview(folder.File("foreign.txt"));
    EXPECT_EQ(1, foreign.status);
    EXPECT_EQ(
        "pz-heapview: " + folder.File("foreign.txt") + ": is no report of the accounted heap\n",
        foreign.output);
    const CommandResult missing = run_heapview(folder.File("missing.txt"));
    EXPECT_EQ(1, missing.status);
    EXPECT_TRUE(contains(missing.output, "No such file")) << missing.output;
    ASSERT_EQ(0, mkfifo(folder.File("pipe").c_str(), 0600));
    const CommandResult pipe =
        run_command("timeout 20 " PZ_HEAPVIEW " " + folder.File("pipe") + " 2>&1");
    EXPECT_EQ(1, pipe.status);
    EXPECT_TRUE(contains(pipe.output, "is no regular file")) << pipe.output;
}

TEST(HeapviewTest, ShowsWhatATruncatedReportStillHolds) {
    const TempDir folder;
    const std::string whole =
        report_of(block_line(0, 100, "0x00001000") + block_line(1, 50, "0x00001000"));
    write_file(folder.File("report.txt"), whole.substr(0, whole.size() - 40));
    const CommandResult shown = run_heapview(folder.File("report.txt"));
    EXPECT_EQ(1, shown.status);
    EXPECT_TRUE(contains(shown.output, "line 11: ends in the middle of a block")) << shown.output;
    EXPECT_TRUE(contains(shown.output, "1 block, 100 bytes")) << shown.output;
}

/// No cut and no exchanged byte makes it fail other than by its own lines.
TEST(HeapviewTest, AnswersHostileReportsAndMapsWithItsOwnLinesOnly) {
    const LeakyRun run;
    const std::string report = read_file(run.Report());
    const std::string map = read_file(run.Map());
    std::mt19937 random(20);
    const auto position = [&random](const std::string& text) {
        return std::uniform_int_distribution<size_t>(0, text.size() - 1)(random);
    };
    for (int round = 0; round < 2; ++round) {
        std::string badReport = report;
        std::string badMap = map;
        for (int i = 0; i < 20; ++i) {
            badReport[position(badReport)] = static_cast<char>(random());
            badMap[position(badMap)] = static_cast<char>(random());
        }
        if (round % 2 == 0) badReport.resize(position(badReport));
        write_file(run.Report(), badReport);
        write_file(run.Map(), badMap);
        for (const char* form : {"", "--svg ", "--folded "}) {
            const CommandResult shown = run_heapview(form + run.Report());
            EXPECT_TRUE(shown.status == 0 || shown.status == 1) << shown.output;
            EXPECT_FALSE(contains(shown.output, "Traceback")) << shown.output;
        }
    }
}

TEST(HeapviewTest, RefusesNumbersOfThousandsOfDigits) {
    const TempDir folder;
    const std::string endless(5000, '9');
    std::string report = report_of(block_line(0, 100, "0x00001000"));
    report = std::regex_replace(report, std::regex("Current Total Count = 0"),
                                "Current Total Count = " + endless);
    report = std::regex_replace(report, std::regex(" 00001 +0000001 "), " " + endless + " 1 ");
    write_file(folder.File("report.txt"), report);
    const CommandResult shown = run_heapview(folder.File("report.txt"));
    EXPECT_TRUE(contains(shown.output, "report.txt: line 2: is no line of totals\n"))
        << shown.output;
    EXPECT_TRUE(contains(shown.output, "report.txt: line 6: is no line of a thread\n"))
        << shown.output;
    EXPECT_TRUE(contains(shown.output, "1 block, 100 bytes\n")) << shown.output;
}

/// Cuts everywhere, then hundreds of faults in the report, the map, the program and the
/// symbolizer's answer.
TEST(HeapviewTest, TellsEachProblemInOneLineWhateverItIsGiven) {
    const LeakyRun run;
    const CommandResult shown =
        run_command(PZ_PYTHON " -B " PZ_HEAPVIEW_MUTATIONS " " PZ_HEAPVIEW " " + run.Report() +
                    " " + run.Map() + " " PZ_LEAKY " " + run.Folder().Path() + " 250 2>&1");
    EXPECT_EQ(0, shown.status) << shown.output;
    const std::regex counts("([1-9]\\d*) ([1-9]\\d*)\n");
    EXPECT_TRUE(std::regex_match(shown.output, counts)) << shown.output;
}

TEST(HeapviewTest, TakesNoPathWithAZeroInIt) {
    const TempDir folder;
    write_file(folder.File("report.txt"), report_of(block_line(0, 1, "0x00001000")));
    write_file(folder.File("report.maps"),
               std::string("00000000-00002000 r-xp 00000000 00:00 0 /tmp/a\0b\n", 50));
    const CommandResult shown = run_heapview(folder.File("report.txt"));
    EXPECT_EQ(1, shown.status);
    EXPECT_TRUE(contains(shown.output, "report.maps: line 1: is no line of a map\n"))
        << shown.output;
}

TEST(HeapviewTest, NeverPrintsControlCharactersOfAFile) {
    const TempDir folder;
    write_file(folder.File("report.txt"), report_of(block_line(0, 1, "0x00001000")));
    write_file(
        folder.File("report.maps"),
        "00001000-00002000 r-xp 00000000 00:00 0 /tmp/\x1b[31mred\nthread 0x7b \x1b[2Jname\n");
    const CommandResult shown = run_heapview(folder.File("report.txt"));
    EXPECT_FALSE(contains(shown.output, "\x1b")) << shown.output;
    EXPECT_TRUE(contains(shown.output, "?[2Jname")) << shown.output;

    // Nor of the symbolizer's answer, as of debug information that names such a source.
    const std::string path = with_symbolizer(
        folder, "while read a; do printf '%s\\nmain\\n/a\\033[2J.cpp:9\\n' \"$a\"; done");
    std::filesystem::remove(folder.File("report.maps"));
    const CommandResult named = run_command(path + PZ_HEAPVIEW " --program " PZ_LEAKY_FIXED " " +
                                            folder.File("report.txt") + " 2>&1");
    EXPECT_TRUE(contains(named.output, "main (a?[2J.cpp:9)")) << named.output;
}

TEST(HeapviewTest, DrawsCallStacksOfThousandsOfInlinedCalls) {
    const TempDir folder;
    write_file(folder.File("report.txt"), report_of(block_line(0, 1, "0x00001000")));
    const std::string path =
        with_symbolizer(folder, "read a; echo $a; yes 'f\n/a.cpp:9' | head -n 4000");
    const CommandResult drawn =
        run_command(path + PZ_HEAPVIEW " --svg --program " PZ_LEAKY_FIXED " " +
                    folder.File("report.txt") + " 2>/dev/null | tail -n 1");
    EXPECT_EQ("</svg>\n", drawn.output);
}

TEST(HeapviewTest, SaysThatItsAnswerCannotBeWritten) {
    const TempDir folder;
    write_file(folder.File("report.txt"), report_of(block_line(0, 1, "0x00001000")));
    const std::string command = PZ_HEAPVIEW " " + folder.File("report.txt") + " 2>&1 ";
    const CommandResult full = run_command("(" + command + ">/dev/full) | tail -n 1");
    EXPECT_EQ("pz-heapview: standard output: No space left on device\n", full.output);
    EXPECT_EQ(1, run_command(command + ">/dev/full").status);
    const CommandResult closed = run_command(command + ">&- | tail -n 1");
    EXPECT_EQ("pz-heapview: standard output: is closed\n", closed.output);
    EXPECT_EQ(1, run_command(command + ">&-").status);
}

TEST(HeapviewTest, PrintsWhatTheTerminalHasNoLettersForAsQuestionMarks) {
    const TempDir folder;
    write_file(folder.File("report.txt"), report_of(block_line(0, 1, "0x00001000")));
    write_file(folder.File("report.maps"), "thread 0x7b t\xc3\xb8y\n");
    const std::string command = "PYTHONIOENCODING=ascii " PZ_HEAPVIEW " ";
    const std::string shown = run_command(command + folder.File("report.txt") + " 2>&1").output;
    EXPECT_TRUE(contains(shown, "  t?y\n")) << shown;
    // A picture is not for the terminal.
    const std::string drawn = run_command(command + "--svg " + folder.File("report.txt")).output;
    EXPECT_TRUE(contains(drawn, "t\xc3\xb8y")) << drawn;
}

TEST(HeapviewTest, EndsQuietlyWhenItIsInterrupted) {
    const TempDir folder;
    write_file(folder.File("report.txt"), report_of(block_line(0, 1, "0x00001000")));
    const std::string path = with_symbolizer(folder, "kill -INT $PPID; exec sleep 60");
    const CommandResult shown = run_command("env --default-signal=INT " + path +
                                            PZ_HEAPVIEW " --program " PZ_LEAKY_FIXED " " +
                                            folder.File("report.txt") + " 2>&1");
    EXPECT_EQ(130, shown.status);
    EXPECT_FALSE(contains(shown.output, "Traceback")) << shown.output;
}

TEST(HeapviewTest, RefusesWrongUsageWithStatus2) {
    const std::vector<std::string> wrong = {
        "", "--no-such-option", "--by weight r", "--diff one", "--by", "--svg --folded r"};
    pztest::expect_refused(PZ_HEAPVIEW, "pz-heapview", wrong);
    EXPECT_EQ(2, run_heapview("").status);
    EXPECT_EQ(0, run_heapview("--help").status);
    EXPECT_EQ("pz-heapview " PZ_VERSION "\n", run_heapview("--version").output);
}

}  // namespace
