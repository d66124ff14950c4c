#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

using pztest::CommandResult;
using pztest::TempDir;
using pztest::write_file;

namespace {

CommandResult feed(const std::string& arguments) {
    return pztest::run_command(PZ_FEED " " + arguments + " 2>&1");
}

/// The words of the table's row that begins with `name`.
std::vector<std::string> row_of(const std::string& table, const std::string& name) {
    std::istringstream lines(table);
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first != name) continue;
        std::vector<std::string> row;
        for (std::string word; words >> word;) row.push_back(word);
        return row;
    }
    return {};
}

enum Column : size_t { kBytes, kLines, kWords, kMessages, kMilliseconds, kChecksum };

/// Compares a file's row with what wc(1) and sum(1) say of the file.
void expect_same_as_wc(const std::string& table, const std::string& path) {
    const std::vector<std::string> row = row_of(table, path);
    ASSERT_GT(row.size(), static_cast<size_t>(kChecksum)) << table;

    std::string lines;
    std::string words;
    std::string bytes;
    std::istringstream wc(pztest::run_command("LC_ALL=C wc < " + path).output);
    wc >> lines >> words >> bytes;
    EXPECT_EQ(lines, row[kLines]);
    EXPECT_EQ(words, row[kWords]);
    EXPECT_EQ(bytes, row[kBytes]);

    std::string checksum;
    std::istringstream sum(pztest::run_command("sum -r < " + path).output);
    sum >> checksum;
    EXPECT_EQ(checksum, row[kChecksum]);
    EXPECT_EQ(std::to_string((std::stoull(bytes) + 255) / 256), row[kMessages]);
}

std::string text_of(size_t bytes) {
    std::string text;
    for (unsigned int i = 0; text.size() < bytes; ++i) {
        text += "line " + std::to_string(i * 2654435761U) + (i % 7 == 0 ? "\n\n" : "\t word\n");
    }
    text.resize(bytes);
    return text;
}

/// What the program prints of a file with more than a box of messages, all of which are counted.
std::string output_for_a_large_file(const std::string& option) {
    const TempDir dir;
    const std::string path = dir.File("text");
    write_file(path, text_of(3000000));
    const CommandResult output = feed(option + path);
    EXPECT_EQ(0, output.status);
    expect_same_as_wc(output.output, path);
    return output.output;
}

}  // namespace

TEST(feedTest, TotalsOfFilesOfManySizesEqualWc) {
    const TempDir dir;
    std::string arguments;
    std::vector<std::string> paths;
    for (const size_t size : {0U, 1U, 255U, 256U, 257U, 4096U, 65536U, 65537U, 1048576U}) {
        paths.push_back(dir.File("text" + std::to_string(size)));
        write_file(paths.back(), text_of(size));
        arguments += " " + paths.back();
    }
    const CommandResult output = feed(arguments);
    EXPECT_EQ(0, output.status);
    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        if (path == dir.File("text0")) {
            EXPECT_EQ("0", row_of(output.output, path).at(kBytes));
            EXPECT_EQ("0", row_of(output.output, path).at(kMessages));
        } else {
            expect_same_as_wc(output.output, path);
        }
    }
}

TEST(feedTest, LosesNothingWhenTheCountersBoxRunsFull) {
    const std::string output = output_for_a_large_file("--flood ");
    EXPECT_NE(std::string::npos, output.find("msg queue is full : worker[2]\n"));
}

TEST(feedTest, HoldsBackBeforeTheBoxIsFull) {
    EXPECT_EQ(std::string::npos, output_for_a_large_file("").find("full"));
}

TEST(feedTest, AnUnreadableFileGivesOneLineAndStatus1AfterTheOthersAreDone) {
    const TempDir dir;
    const std::string path = dir.File("text");
    write_file(path, text_of(1000));
    const std::string missing = dir.File("missing");
    const CommandResult output = feed(missing + " " + dir.Path() + " " + path);
    EXPECT_EQ(1, output.status);
    EXPECT_NE(std::string::npos, output.output.find("pz_feed: cannot read " + missing +
                                                    ": No such file or directory\n"));
    EXPECT_NE(std::string::npos,
              output.output.find("pz_feed: cannot read " + dir.Path() + ": Is a directory\n"));
    EXPECT_TRUE(row_of(output.output, missing).empty());
    expect_same_as_wc(output.output, path);
}

TEST(feedTest, PrintsATotalRowAndTheFrameworksTimes) {
    const TempDir dir;
    write_file(dir.File("a"), "one two\n");
    write_file(dir.File("b"), "three\n");
    const CommandResult output = feed(dir.File("a") + " " + dir.File("b"));
    const std::vector<std::string> total = row_of(output.output, "total");
    ASSERT_GT(total.size(), static_cast<size_t>(kMessages));
    EXPECT_EQ("14", total[kBytes]);
    EXPECT_EQ("2", total[kLines]);
    EXPECT_EQ("3", total[kWords]);
    EXPECT_EQ("2", total[kMessages]);
    double start = -1;
    double stop = -1;
    const size_t at = output.output.find("framework started in ");
    ASSERT_NE(std::string::npos, at);
    ASSERT_EQ(2, std::sscanf(output.output.c_str() + at,
                             "framework started in %lf ms, stopped in %lf ms", &start, &stop));
    EXPECT_GT(start, 0);
    EXPECT_GT(stop, 0);
}

TEST(feedTest, CtrlCStopsEarlyWithAPartialSummary) {
    const TempDir dir;
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    const int writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(-1, writer);
    const std::string result = dir.File("result");
    pztest::ChildProcess feed(pztest::program({PZ_FEED, fifo}, {result}));
    const std::string sent = "one\ntwo\nthree four\n";
    ASSERT_EQ(static_cast<ssize_t>(sent.size()), write(writer, sent.data(), sent.size()));
    EXPECT_TRUE(pztest::wait_until([writer] {
        int unread = -1;
        return ioctl(writer, FIONREAD, &unread) == 0 && unread == 0;
    }));
    feed.Signal(SIGINT);
    EXPECT_EQ(130, feed.Wait());
    close(writer);
    const std::string table = pztest::read_file(result);
    EXPECT_NE(std::string::npos, table.find("stopped early: the counts until then\n"));
    EXPECT_NE(std::string::npos, table.find("framework started in "));
    // Whether the last bytes were counted before the stop came is open; never more than was sent.
    const std::vector<std::string> row = row_of(table, fifo);
    if (!row.empty()) {
        EXPECT_LE(std::stoul(row.at(kBytes)), sent.size());
    }
}

TEST(feedTest, DrawsAProgressLineOnATerminalOnly) {
    const TempDir dir;
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    // A terminal made by script(1); the pipe stays open until the progress line has been drawn.
    const std::string log = dir.File("log");
    const int writer = open(fifo.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_NE(-1, writer);
    const std::string command =
        "script -qfec '" PZ_FEED " " + fifo + "' " + log + " >/dev/null 2>&1 </dev/null & echo $!";
    ASSERT_EQ(0, pztest::run_command(command).status);
    ASSERT_EQ(6, write(writer, "a b c\n", 6));
    EXPECT_TRUE(pztest::wait_until([&log] {
        return pztest::read_file(log).find("6 bytes, 1 messages, ") != std::string::npos;
    }));
    EXPECT_NE(std::string::npos, pztest::read_file(log).find("messages/s"));
    close(writer);  // end of file
    EXPECT_TRUE(pztest::wait_until([&log] {
        return pztest::read_file(log).find("framework started in ") != std::string::npos;
    }));

    const std::string path = dir.File("text");
    write_file(path, text_of(100));
    EXPECT_EQ(std::string::npos, feed(path).output.find("messages/s"));
}

TEST(feedTest, TellsItsUsageAndRefusesUnknownOptions) {
    EXPECT_EQ(0, feed("--help").status);
    EXPECT_NE(std::string::npos, feed("--help").output.find("usage: pz_feed [--flood] FILE..."));
    EXPECT_EQ(2, feed("").status);
    const CommandResult output = feed("--nonsense");
    EXPECT_EQ(2, output.status);
    EXPECT_NE(std::string::npos, output.output.find("pz_feed: unknown option --nonsense\n"));
}
