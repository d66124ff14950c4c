#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/OpenDescriptors.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

using pztest::CommandResult;
using pztest::read_file;
using pztest::run_command;
using pztest::write_file;

namespace {

/// Runs the scan in a folder of its own for the log; "FOLDER" in `arguments` is that of the files.
class scanTest : public testing::Test {
protected:
    scanTest() { mkdir(Files().c_str(), 0755); }

    std::string Files() const { return dir_.File("files"); }
    std::string File(const std::string& name) const { return Files() + "/" + name; }
    std::string Log() const { return read_file(dir_.File("log/scan_0.log")); }
    std::string Temp(const std::string& name) const { return dir_.File(name); }

    CommandResult Scan(const std::string& options = "") const {
        return ScanFolders(options + " " + Files());
    }
    CommandResult ScanFolders(const std::string& arguments) const {
        return run_command(PZ_SCAN " --log " + dir_.File("log") + " " + arguments + " 2>&1");
    }

private:
    const pztest::TempDir dir_;
};

/// The lines of the table for one file: its row and what stands below it.
std::vector<std::string> rows_of(const std::string& output, const std::string& path) {
    std::istringstream lines(output);
    std::vector<std::string> rows;
    for (std::string line; std::getline(lines, line);) {
        const bool isRow = line.size() > path.size() &&
                           line.compare(line.size() - path.size(), path.size(), path) == 0;
        const size_t text = line.find_first_not_of(' ');
        const bool isBelow = text == 39;
        if (rows.empty() ? isRow : isBelow) {
            rows.push_back(isBelow ? line.substr(text) : line);
        } else if (!rows.empty()) {
            break;
        }
    }
    return rows;
}

/// Size, code page and checksum of the row.
std::vector<std::string> columns_of(const std::string& row) {
    std::istringstream words(row);
    std::vector<std::string> columns(3);
    for (std::string& column : columns) words >> column;
    return columns;
}

/// The CRC-32 that gzip(1) writes behind the compressed file.
std::string crc_of(const std::string& path) {
    const std::string command =
        "gzip -nc < " + path + " | tail -c 8 | head -c 4 | od -An -tx4 | tr -d ' \\n'";
    return run_command(command).output;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

}  // namespace

TEST_F(scanTest, DetectsTheCodePageOfEverySampleAndShowsItsFirstLine) {
    if (!PZ_WITH_ICU) return SUCCEED() << "built without ICU: nothing is detected";
    const std::string data = PZ_ROOT "/examples/data";
    const CommandResult result = ScanFolders(data);
    ASSERT_EQ(0, result.status) << result.output;
    struct Sample {
        const char* file;
        const char* page;
        const char* firstLine;
    };
    const Sample samples[] = {
        {"pan-tadeusz.UTF-8.txt", "UTF-8", "Litwo! Ojczyzno moja! ty jesteś jak zdrowie;"},
        {"ruslan.KOI8-R.txt", "KOI8-R", "У лукоморья дуб зелёный;"},
        {"karenina.windows-1251.txt", "windows-1251", "Все счастливые семьи похожи"},
        {"swann.ISO-8859-1.txt", "ISO-8859-1", "Longtemps, je me suis couché de bonne heure."},
        {"neko.SJIS.txt", "SJIS", "吾輩は猫である。名前はまだ無い。"},
        {"botchan.EUC-JP.txt", "EUC-JP", "親譲りの無鉄砲で小供の時から損ばかりしている。"},
        {"rashomon.ISO-2022-JP.txt", "ISO-2022-JP", "ある日の暮方の事である。"},
        {"guxiang.GB18030.txt", "GB18030", "我冒了严寒，回到相隔二千余里"},
        {"taohuayuan.Big5.txt", "Big5", "晉太元中，武陵人，捕魚為業"},
        {"seosi.EUC-KR.txt", "EUC-KR", "죽는 날까지 하늘을 우러러"},
        {"radiotext.RDS.bin", "RDS", "Jetzt: Schubert, Die schöne Müllerin."},
        {"radiotext.RDS-2017.bin", "RDS-2017", "Teraz: Stanisław Moniuszko, Prząśniczka."},
    };
    for (const Sample& sample : samples) {
        SCOPED_TRACE(sample.file);
        const std::string path = data + "/" + sample.file;
        const std::vector<std::string> rows = rows_of(result.output, path);
        ASSERT_EQ(2U, rows.size()) << result.output;
        EXPECT_EQ(sample.page, columns_of(rows[0])[1]);
        EXPECT_EQ(crc_of(path), columns_of(rows[0])[2]);
        EXPECT_EQ(0U, rows[1].find(sample.firstLine)) << rows[1];
    }
}

TEST_F(scanTest, ComputesTheChecksumOfFilesOfManySizes) {
    std::vector<size_t> sizes = {1, 65535, 65536, 65537, 10 * 65536, 1000000};
    for (const size_t size : sizes) {
        std::string bytes;
        for (unsigned int i = 0; bytes.size() < size; ++i) bytes += std::to_string(i * 2654435761U);
        bytes.resize(size);
        write_file(File("file" + std::to_string(size)), bytes);
    }
    const CommandResult result = Scan();
    ASSERT_EQ(0, result.status);
    for (const size_t size : sizes) {
        SCOPED_TRACE(size);
        const std::string path = File("file" + std::to_string(size));
        const std::vector<std::string> rows = rows_of(result.output, path);
        ASSERT_FALSE(rows.empty()) << result.output;
        EXPECT_EQ(std::to_string(size), columns_of(rows[0])[0]);
        EXPECT_EQ(crc_of(path), columns_of(rows[0])[2]);
    }
}

TEST_F(scanTest, WalksAllFoldersBelow) {
    ASSERT_EQ(0, run_command("mkdir -p " + File("a/b/c") + " " + File("d")).status);
    for (const char* name : {"top", "a/one", "a/b/two", "a/b/c/three", "d/.hidden"}) {
        write_file(File(name), "text\n");
    }
    const CommandResult result = Scan();
    EXPECT_EQ(0, result.status);
    for (const char* name : {"top", "a/one", "a/b/two", "a/b/c/three", "d/.hidden"}) {
        EXPECT_FALSE(rows_of(result.output, File(name)).empty()) << name;
    }
    EXPECT_TRUE(contains(result.output, "5 files, 25 bytes; 0 with a remark, 0 other lines\n"))
        << result.output;
}

TEST_F(scanTest, TakesSingleFilesToo) {
    write_file(File("text"), "one line\n");
    const CommandResult result = ScanFolders(File("text"));
    EXPECT_EQ(0, result.status);
    const std::vector<std::string> rows = rows_of(result.output, File("text"));
    ASSERT_EQ(2U, rows.size()) << result.output;
    EXPECT_EQ("9", columns_of(rows[0])[0]);
    EXPECT_EQ("one line", rows[1]);
}

TEST_F(scanTest, GoesOnPastEverythingThatCannotBeReadWithALineForEach) {
    write_file(File("a"), "first\n");
    write_file(File("empty"), "");
    write_file(File("huge"), std::string(200000, 'h'));
    write_file(File("binary"), std::string("\x7F\x45\x00\x01", 4));
    write_file(File("z"), "last\n");
    ASSERT_EQ(0, symlink("/etc/passwd", File("link").c_str()));
    ASSERT_EQ(0, mkfifo(File("pipe").c_str(), 0600));
    const CommandResult result = Scan("--huge 100000 " + Temp("missing") + " /proc/self/mem");
    EXPECT_EQ(0, result.status);
    for (const char* name : {"a", "z"}) {
        EXPECT_EQ(crc_of(File(name)), columns_of(rows_of(result.output, File(name)).at(0))[2]);
    }
    EXPECT_EQ("(empty)", rows_of(result.output, File("empty")).at(1));
    EXPECT_EQ("00000000", columns_of(rows_of(result.output, File("empty"))[0])[2]);
    EXPECT_EQ("(huge: only the beginning was read)", rows_of(result.output, File("huge")).back());
    EXPECT_EQ("-", columns_of(rows_of(result.output, File("huge"))[0])[2]);
    EXPECT_EQ("(no text)", rows_of(result.output, File("binary")).at(1));
    EXPECT_EQ("(cannot be read: Input/output error)",
              rows_of(result.output, "/proc/self/mem").at(1));
    EXPECT_TRUE(contains(result.output, "\n" + Files() + ": 2 links or devices passed over\n"));
    EXPECT_TRUE(contains(result.output,
                         "\n" + Temp("missing") + ": cannot be read: No such file or directory\n"));
    EXPECT_TRUE(contains(result.output, "6 files, 200015 bytes; 4 with a remark, 2 other lines\n"))
        << result.output;
}

TEST_F(scanTest, ReportsFilesAndFoldersWithoutPermission) {
    // The rights of a file do not stop root: the scan runs without that privilege then. Another
    // user might not reach the program, as in root's own folder.
    const std::string unprivileged =
        geteuid() == 0 ? "setpriv --bounding-set -dac_override,-dac_read_search " : "";
    write_file(File("locked"), "text\n");
    ASSERT_EQ(0, run_command("mkdir -p " + File("closed") + " " + Temp("log")).status);
    ASSERT_EQ(0, chmod(File("locked").c_str(), 0));
    ASSERT_EQ(0, chmod(File("closed").c_str(), 0));
    const CommandResult result =
        run_command(unprivileged + PZ_SCAN " --log " + Temp("log") + " " + Files() + " 2>&1");
    EXPECT_EQ(0, result.status) << result.output;
    EXPECT_EQ("(cannot be read: Permission denied)", rows_of(result.output, File("locked")).at(1));
    EXPECT_TRUE(contains(result.output, File("closed") + ": cannot be read: Permission denied\n"));
    chmod(File("closed").c_str(), 0700);
}

TEST_F(scanTest, ShowsNamesInBrokenEncodingsWithTheirBytes) {
    write_file(File("caf\xE9.txt"), "text\n");
    write_file(File("caf\xC3\xA9.txt"), "text\n");
    const CommandResult result = Scan();
    EXPECT_EQ(0, result.status);
    EXPECT_FALSE(rows_of(result.output, File("caf\\xE9.txt")).empty()) << result.output;
    EXPECT_FALSE(rows_of(result.output, File("café.txt")).empty()) << result.output;
}

TEST_F(scanTest, ShortensLongLinesAndSkipsBlankOnes) {
    write_file(File("long"), "\n  \n\t" + std::string(100, 'x') + "\nsecond\n");
    const std::vector<std::string> rows = rows_of(Scan().output, File("long"));
    ASSERT_EQ(2U, rows.size());
    EXPECT_EQ(std::string(60, 'x') + "...", rows[1]);
}

TEST_F(scanTest, LogsEverythingWithTheTimeAndPrintsThePathOfTheLog) {
    write_file(File("text"), "one line\n");
    const CommandResult result = Scan();
    EXPECT_TRUE(contains(result.output, "\nlog: " + Temp("log") + "/scan_0.log\n"));
    std::istringstream lines(Log());
    std::vector<std::string> texts;
    for (std::string line; std::getline(lines, line);) {
        int numbers[6] = {};
        int end = 0;
        ASSERT_EQ(6,
                  std::sscanf(line.c_str(), "%4d-%2d-%2d %2d:%2d:%2d %n", &numbers[0], &numbers[1],
                              &numbers[2], &numbers[3], &numbers[4], &numbers[5], &end));
        texts.push_back(line.substr(static_cast<size_t>(end)));
    }
    ASSERT_EQ(3U, texts.size()) << Log();
    EXPECT_EQ("folder " + Files(), texts[0]);
    EXPECT_EQ("file " + File("text"), texts[1]);
    EXPECT_EQ(0U, texts[2].find("text " + File("text") + ": ")) << texts[2];
}

TEST_F(scanTest, ASecondRunTellsWhatIsNewChangedAndGone) {
    const std::string catalogue = "--catalogue " + Temp("catalogue");
    for (const char* name : {"same", "changed", "gone"}) write_file(File(name), "text\n");
    EXPECT_FALSE(contains(Scan(catalogue).output, "since the last scan"));
    write_file(File("changed"), "TEXT\n");
    write_file(File("new"), "text\n");
    unlink(File("gone").c_str());
    const std::string output = Scan(catalogue).output;
    EXPECT_TRUE(contains(output, "  new      " + File("new") + "\n")) << output;
    EXPECT_TRUE(contains(output, "  changed  " + File("changed") + "\n"));
    EXPECT_TRUE(contains(output, "  gone     " + File("gone") + "\n"));
    EXPECT_TRUE(contains(output, "since the last scan: 1 new, 1 changed, 1 gone\n"));
    EXPECT_TRUE(
        contains(Scan(catalogue).output, "since the last scan: 0 new, 0 changed, 0 gone\n"));
}

TEST_F(scanTest, ADamagedCatalogueIsReplaced) {
    const std::string catalogue = Temp("catalogue");
    write_file(File("text"), "text\n");
    ASSERT_EQ(0, Scan("--catalogue " + catalogue).status);
    std::string bytes = read_file(catalogue);
    ASSERT_GT(bytes.size(), 20U);
    bytes[10] = static_cast<char>(bytes[10] ^ 1);
    write_file(catalogue, bytes);
    const CommandResult damaged = Scan("--catalogue " + catalogue);
    EXPECT_EQ(0, damaged.status);
    EXPECT_FALSE(contains(damaged.output, "since the last scan"));
    EXPECT_TRUE(contains(Scan("--catalogue " + catalogue).output,
                         "since the last scan: 0 new, 0 changed, 0 gone\n"));
}

TEST_F(scanTest, ACatalogueThatCannotBeSavedIsStatus1) {
    write_file(File("text"), "text\n");
    const CommandResult result = Scan("--catalogue " + Temp("missing/catalogue"));
    EXPECT_EQ(1, result.status);
    EXPECT_TRUE(
        contains(result.output, "pz_scan: cannot save " + Temp("missing/catalogue") + "\n"));
}

TEST_F(scanTest, CtrlCStopsEarlyWithWhatWasFound) {
    write_file(File("endless"), "");
    ASSERT_EQ(0, truncate64(File("endless").c_str(), off64_t{1} << 40));
    const std::string output = Temp("output");
    pztest::ChildProcess scan(pztest::program(
        {PZ_SCAN, "--huge", "9999999999999", "--log", Temp("log"), Files()}, {output, output}));
    EXPECT_TRUE(pztest::wait_until([&] {
        const std::map<int, std::string> open = pztest::descriptors_of(scan.Pid());
        return std::any_of(open.begin(), open.end(),
                           [&](const auto& file) { return file.second == File("endless"); });
    }));
    scan.Signal(SIGINT);
    EXPECT_EQ(130, scan.Wait());
    EXPECT_TRUE(contains(read_file(output), "stopped early: what was found until then\n"));
    EXPECT_FALSE(rows_of(read_file(output), File("endless")).empty());
}

TEST_F(scanTest, TellsItsUsageAndRefusesBadArguments) {
    EXPECT_EQ(0, run_command(PZ_SCAN " --help").status);
    EXPECT_TRUE(contains(run_command(PZ_SCAN " --help").output, "usage: pz_scan [OPTION]... "));
    EXPECT_EQ(2, run_command(PZ_SCAN " 2>&1").status);
    for (const char* bad : {"--nonsense /tmp", "--huge", "--huge x /tmp", "/tmp --catalogue"}) {
        EXPECT_EQ(2, run_command(std::string(PZ_SCAN " ") + bad + " 2>&1").status) << bad;
    }
}
