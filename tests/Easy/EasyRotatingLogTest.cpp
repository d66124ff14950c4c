#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iterator>
#include <limits>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/RotatingLog.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(flock, 2);

using namespace pz::literals;
using pztest::read_file;
using pztest::StdoutCapture;
using pztest::TempDir;
using pztest::wait_until;
using pztest::write_file;

namespace {

/// All bytes of the log's files.
std::uintmax_t size_of(const std::string& folder) {
    std::uintmax_t size = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) size += entry.file_size();
    return size;
}

size_t count_files(const std::string& folder) {
    const std::filesystem::directory_iterator files(folder);
    return static_cast<size_t>(std::distance(begin(files), end(files)));
}

/// The numbers of the lines "line N", the oldest file first.
std::vector<int> numbers_in(const std::string& folder, unsigned int generations) {
    std::vector<int> numbers;
    for (unsigned int i = generations + 1; i-- > 0;) {
        const std::string name = i == 0 ? "/app.log" : "/app.log." + std::to_string(i);
        std::istringstream lines(read_file(folder + name));
        for (std::string line; std::getline(lines, line);) {
            EXPECT_EQ("line ", line.substr(0, 5)) << "torn: " << line;
            numbers.push_back(std::stoi(line.substr(5)));
        }
    }
    return numbers;
}

}  // namespace

class EasyRotatingLogTest : public testing::Test {
protected:
    const TempDir dir;
    const std::string folder = dir.File("log");
    const std::string file = folder + "/app.log";
};

TEST_F(EasyRotatingLogTest, WritesEveryLineAtOnceAndMakesTheFolder) {
    const std::string deep = folder + "/a/b";
    pz::RotatingLog log(deep.c_str(), "app", 64_KiB, 3);
    ASSERT_TRUE(log);
    EXPECT_TRUE(log.line("tuned to %u", 98500U));
    EXPECT_TRUE(log.line("with a line feed\n"));
    EXPECT_TRUE(log.text("100 %s"));
    EXPECT_TRUE(log.text(""));
    EXPECT_EQ("tuned to 98500\nwith a line feed\n100 %s\n\n", read_file(deep + "/app.log"));
}

TEST_F(EasyRotatingLogTest, KeepsTheNewestLinesAndNeverMoreThanItsSize) {
    pz::RotatingLog log(folder.c_str(), "app", 100, 2);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(log.line("line %d", i));
        ASSERT_LE(size_of(folder), 300U);
    }
    const std::vector<int> numbers = numbers_in(folder, 2);
    ASSERT_GT(numbers.size(), 20U);
    for (size_t i = 0; i < numbers.size(); ++i) {
        EXPECT_EQ(1000 - static_cast<int>(numbers.size() - i), numbers[i]);
    }
    EXPECT_EQ(3U, count_files(folder));
}

TEST_F(EasyRotatingLogTest, FillsAFileToItsLastByteBeforeItBeginsTheNext) {
    pz::RotatingLog log(folder.c_str(), "app", 100, 1);
    const std::string line(49, 'x');
    EXPECT_TRUE(log.text(line));
    EXPECT_TRUE(log.text(line));
    EXPECT_EQ(line + "\n" + line + "\n", read_file(file));
    EXPECT_FALSE(std::filesystem::exists(file + ".1"));
    EXPECT_TRUE(log.text("next"));
    EXPECT_EQ("next\n", read_file(file));
    EXPECT_EQ(100U, std::filesystem::file_size(file + ".1"));
}

TEST_F(EasyRotatingLogTest, WithoutGenerationsItBeginsItsOnlyFileAgain) {
    pz::RotatingLog log(folder.c_str(), "app", 64, 0);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(log.line("line %d", i));
    EXPECT_EQ(99, numbers_in(folder, 0).back());
    EXPECT_LE(size_of(folder), 64U);
    EXPECT_EQ(1U, count_files(folder));
}

TEST_F(EasyRotatingLogTest, GoesOnWhereTheLastProcessEnded) {
    pz::RotatingLog(folder.c_str(), "app", 1_KiB, 1).line("line 1");
    pz::RotatingLog(folder.c_str(), "app", 1_KiB, 1).line("line 2");
    EXPECT_EQ("line 1\nline 2\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, ShrinksALogThatLargerSettingsHaveLeft) {
    std::filesystem::create_directory(folder);
    for (const char* const name : {"", ".1", ".2", ".4", ".5"}) {
        std::string lines;
        for (int i = 0; i < 50; ++i) lines += "line " + std::to_string(i) + "\n";
        write_file(file + name, lines);
    }
    const pz::RotatingLog log(folder.c_str(), "app", 100, 1);
    EXPECT_LE(size_of(folder), 200U);
    EXPECT_EQ(2U, count_files(folder));
    EXPECT_EQ(49, numbers_in(folder, 0).back());
    EXPECT_GT(numbers_in(folder, 0).size(), 10U);
}

TEST_F(EasyRotatingLogTest, GoesOnInAFileThatItHasShrunk) {
    std::filesystem::create_directory(folder);
    std::string lines;
    for (int i = 10; i < 50; ++i) {
        lines += "line " + std::to_string(i) + std::string(22, ' ') + "\n";  // 30 bytes
    }
    write_file(file, lines);
    pz::RotatingLog log(folder.c_str(), "app", 100, 1);
    EXPECT_TRUE(log.line("line 50"));
    EXPECT_EQ((std::vector<int>{47, 48, 49, 50}), numbers_in(folder, 0));
    EXPECT_EQ(1U, count_files(folder));
}

TEST_F(EasyRotatingLogTest, CutsALineThatIsLongerThanAFile) {
    pz::RotatingLog log(folder.c_str(), "app", 64, 1);
    EXPECT_TRUE(log.line("%s", std::string(5000, 'x').c_str()));
    EXPECT_EQ(std::string(63, 'x') + "\n", read_file(file));
    pz::RotatingLog wide(folder.c_str(), "wide", 10_KiB, 1);
    EXPECT_TRUE(wide.line("%s", std::string(5000, 'y').c_str()));
    EXPECT_EQ(std::string(5000, 'y') + "\n", read_file(folder + "/wide.log"));
}

TEST_F(EasyRotatingLogTest, BeginsALineWithDateAndTimeOnRequest) {
    pz::RotatingLogOptions options;
    options.time = true;
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3, options);
    log.line("line 1");
    EXPECT_TRUE(std::regex_match(
        read_file(file), std::regex("\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} line 1\n")))
        << read_file(file);
}

TEST_F(EasyRotatingLogTest, CutsALineWithItsTimeToTheSizeOfAFile) {
    pz::RotatingLogOptions options;
    options.time = true;
    pz::RotatingLog log(folder.c_str(), "app", 64, 1, options);
    EXPECT_TRUE(log.line("%s", std::string(100, 'x').c_str()));
    const std::string written = read_file(file);
    EXPECT_EQ(64U, written.size()) << written;
    EXPECT_EQ(" " + std::string(39, 'x') + "\n",
              written.substr(std::min<size_t>(23, written.size())));
}

TEST_F(EasyRotatingLogTest, CollectsLinesOnRequestUntilTheyAreFlushed) {
    pz::RotatingLogOptions options;
    options.buffer = 30;
    {
        pz::RotatingLog log(folder.c_str(), "app", 100, 3, options);
        for (int i = 0; i < 4; ++i) EXPECT_TRUE(log.line("line %d", i));
        EXPECT_EQ("", read_file(file));
        EXPECT_TRUE(log.line("line 4"));
        EXPECT_EQ("line 0\nline 1\nline 2\nline 3\n", read_file(file));
        EXPECT_TRUE(log.flush());
        EXPECT_EQ(5U, numbers_in(folder, 3).size());
        for (int i = 5; i < 40; ++i) log.line("line %d", i);
        EXPECT_LE(size_of(folder), 400U);
    }
    EXPECT_EQ(39, numbers_in(folder, 3).back());
}

TEST_F(EasyRotatingLogTest, LinesOfSeveralThreadsDoNotMix) {
    pz::RotatingLog log(folder.c_str(), "app", 10_KiB, 3);
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < 1000; ++i) log.line("line %d", t * 1000 + i);
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(3000U, numbers_in(folder, 3).size());
}

TEST_F(EasyRotatingLogTest, HoldsWholeLinesInOrderAfterAKillAtAnyMoment) {
    for (int round = 0; round < 20; ++round) {
        const pztest::ChildProcess child([this] {
            pz::RotatingLog log(folder.c_str(), "app", 200, 2);
            for (int i = 0;; ++i) {
                if (!log.line("line %d", i)) return 1;
            }
            return 0;
        });
        ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(file + ".2"); }));
        std::this_thread::sleep_for(std::chrono::microseconds(300 * round));
        ::kill(child.Pid(), SIGKILL);
        siginfo_t info = {};
        ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(child.Pid()), &info, WEXITED | WNOWAIT));
        EXPECT_EQ(CLD_KILLED, info.si_code);
        EXPECT_LE(size_of(folder), 600U);
        EXPECT_LE(count_files(folder), 3U);
        const std::vector<int> numbers = numbers_in(folder, 2);
        ASSERT_FALSE(numbers.empty());
        EXPECT_TRUE(pz::RotatingLog(folder.c_str(), "app", 200, 2).line("line 0"));
        std::filesystem::remove_all(folder);
    }
}

TEST_F(EasyRotatingLogTest, GoesOnWhenItsFolderComesBackAndTellsWhatWasLost) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    EXPECT_TRUE(log.line("line 1"));
    StdoutCapture capture;
    std::filesystem::rename(folder, dir.File("away"));
    ASSERT_TRUE(wait_until([&] { return !log.line("lost"); }));
    EXPECT_FALSE(log.line("lost"));
    EXPECT_TRUE(log);
    EXPECT_GE(log.lost(), 2U);
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "RotatingLog.cpp")) << "reported once";
    std::filesystem::create_directory(folder);
    ASSERT_TRUE(wait_until([&] { return log.line("back"); }));
    EXPECT_EQ("(" + std::to_string(log.lost()) + " lines lost)\nback\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, MakesAFileAgainThatSomebodyHasRemoved) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    EXPECT_TRUE(log.line("line 1"));
    std::filesystem::remove(file);
    EXPECT_TRUE(wait_until([&] {
        log.line("line 2");
        return std::filesystem::exists(file);
    }));
}

TEST_F(EasyRotatingLogTest, TwoObjectsDoNotShareALog) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    const StdoutCapture capture;
    pz::RotatingLog other(folder.c_str(), "app", 100, 0);
    EXPECT_FALSE(other.line("line 2"));
    EXPECT_TRUE(log.line("line 1"));
    EXPECT_EQ("line 1\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, SaysOnceThatAnotherObjectHasItsFile) {
    const pz::RotatingLog owner(folder.c_str(), "app", 64_KiB, 3);
    StdoutCapture capture;
    pz::RotatingLog other(folder.c_str(), "app", 64_KiB, 3);
    EXPECT_FALSE(other.line("lost"));
    EXPECT_FALSE(other.line("lost"));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "open [" + file + "]"));
}

TEST_F(EasyRotatingLogTest, StaysWithItsOwnerWhileOthersTryToOpenIt) {
    const StdoutCapture capture;
    pz::RotatingLog log(folder.c_str(), "app", 64, 2);
    std::atomic<bool> isDone{false};
    std::thread others([&] {
        while (!isDone) const pz::RotatingLog other(folder.c_str(), "app", 64, 2);
    });
    for (int i = 0; i < 1000; ++i) log.text(std::string(60, 'x'));  // a file for each
    isDone = true;
    others.join();
    EXPECT_EQ(0U, log.lost());
}

TEST_F(EasyRotatingLogTest, AProcessTakesTheLogOverFromOneThatWasKilled) {
    const std::string begun = dir.File("begun");
    const auto child = std::make_unique<pztest::ChildProcess>([&] {
        pz::RotatingLog own(folder.c_str(), "app", 64_KiB, 3);
        if (!own.line("line 1")) return 1;
        write_file(begun, "x");
        for (;;) ::pause();
    });
    ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(begun); }));
    const StdoutCapture capture;
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    EXPECT_FALSE(log.line("lost"));
    ::kill(child->Pid(), SIGKILL);
    EXPECT_EQ(-1, child->Wait());
    ASSERT_TRUE(wait_until([&] { return log.line("line 2"); }));
    EXPECT_EQ("line 1\n(" + std::to_string(log.lost()) + " lines lost)\nline 2\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, AFileThatItsOwnerRenamesMeanwhileIsNotTakenForTheNewest) {
    static pz::RotatingLog* owner = nullptr;
    pz::RotatingLog log(folder.c_str(), "app", 200, 1);
    ASSERT_TRUE(log.text(std::string(150, 'x')));
    owner = &log;
    flock_call.Replace([](int fd, int operation) {
        pz::RotatingLog* const renaming = std::exchange(owner, nullptr);
        if (renaming != nullptr) renaming->text(std::string(150, 'y'));
        return flock_call.Real(fd, operation);
    });
    const StdoutCapture capture;
    pz::RotatingLog other(folder.c_str(), "app", 64, 0);
    flock_call.Reset();
    EXPECT_EQ(nullptr, owner);
    EXPECT_FALSE(other.line("lost"));
    EXPECT_EQ(std::string(150, 'y') + "\n", read_file(file)) << "not cut to 64 bytes";
    EXPECT_EQ(std::string(150, 'x') + "\n", read_file(file + ".1"));
}

TEST_F(EasyRotatingLogTest, RemovesWhatAProcessHasLeftThatWasKilledWhileItCutAFile) {
    std::filesystem::create_directory(folder);
    write_file(file + ".new", std::string(200, 'n'));
    pz::RotatingLog log(folder.c_str(), "app", 200, 1);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(log.line("line %d", i));
    EXPECT_LE(size_of(folder), 400U);
    EXPECT_EQ(2U, count_files(folder));
}

TEST_F(EasyRotatingLogTest, LosesWholeLinesWhileTheMediumHasNoRoom) {
    pztest::ChildProcess child([this] {
        ::signal(SIGXFSZ, SIG_IGN);
        const StdoutCapture capture;
        pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1);
        const rlimit full = {1000, RLIM_INFINITY};  // as a full medium: the first bytes are taken
        ::setrlimit(RLIMIT_FSIZE, &full);
        int written = 0;
        while (log.line("line %d", written)) ++written;
        if (log.line("line %d of more", 0)) return 1;
        const rlimit room = {RLIM_INFINITY, RLIM_INFINITY};
        ::setrlimit(RLIMIT_FSIZE, &room);
        if (log.lost() != 2 || !log.line("line %d", written)) return 2;
        std::string expected;
        for (int i = 0; i < written; ++i) expected += "line " + std::to_string(i) + "\n";
        expected += "(2 lines lost)\nline " + std::to_string(written) + "\n";
        return read_file(file) == expected ? 0 : 3;
    });
    EXPECT_EQ(0, child.Wait());
}

TEST_F(EasyRotatingLogTest, LosesLinesWhileItMayOnlyReadItsFolder) {
    std::filesystem::create_directory(folder);
    ASSERT_EQ(0, ::chmod(folder.c_str(), 0555));
    ASSERT_EQ(0, ::chmod(dir.Path().c_str(), 0755));
    pztest::ChildProcess child([this] {
        constexpr uid_t kNobody = 65534;
        if (::geteuid() == 0 && ::setuid(kNobody) != 0) return 4;
        const StdoutCapture capture;
        pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1);
        if (!log || log.line("lost")) return 1;
        return log.lost() == 1 ? 0 : 2;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ(0U, count_files(folder));
}

TEST_F(EasyRotatingLogTest, WritesToNoLinkAndWaitsForNoReaderOfAFifo) {
    std::filesystem::create_directory(folder);
    const std::string victim = dir.File("victim");
    write_file(victim, "precious\n");
    std::filesystem::create_symlink(victim, file);
    const StdoutCapture capture;
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1);
    EXPECT_FALSE(log.line("lost"));
    std::filesystem::remove(file);
    ASSERT_EQ(0, ::mkfifo(file.c_str(), 0666));
    EXPECT_FALSE(log.line("lost"));
    pz::RotatingLog(folder.c_str(), "app", 64_KiB, 1).line("lost");
    std::filesystem::remove(file);
    ASSERT_TRUE(wait_until([&] { return log.line("back"); }));
    EXPECT_EQ("precious\n", read_file(victim));
    EXPECT_EQ("(" + std::to_string(log.lost()) + " lines lost)\nback\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, GoesOnInTheFolderThatALinkLeadsTo) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1);
    EXPECT_TRUE(log.line("line 1"));
    const std::string elsewhere = dir.File("elsewhere");
    std::filesystem::create_directory(elsewhere);
    std::filesystem::rename(folder, dir.File("away"));
    std::filesystem::create_symlink(elsewhere, folder);
    ASSERT_TRUE(wait_until([&] {
        log.line("line 2");
        return std::filesystem::exists(elsewhere + "/app.log");
    }));
    EXPECT_EQ(0U, log.lost());
    EXPECT_EQ("line 2\n", read_file(elsewhere + "/app.log"));
}

TEST_F(EasyRotatingLogTest, ANameThatIsTooLongForTheFileSystemLosesItsLines) {
    const StdoutCapture capture;
    pz::RotatingLog log(folder.c_str(), std::string(300, 'n').c_str(), 64_KiB, 1);
    EXPECT_TRUE(log);
    EXPECT_FALSE(log.line("lost"));
    EXPECT_EQ(1U, log.lost());
}

TEST_F(EasyRotatingLogTest, RefusesBadFoldersAndNames) {
    StdoutCapture capture;
    pz::RotatingLog none(nullptr, "app", 64_KiB, 3);
    EXPECT_FALSE(none);
    EXPECT_FALSE(none.line("x"));
    EXPECT_FALSE(none.text("x"));
    EXPECT_FALSE(none.flush());
    EXPECT_EQ(0U, none.lost());
    EXPECT_FALSE(pz::RotatingLog("", "app", 64_KiB, 3));
    EXPECT_FALSE(pz::RotatingLog(folder.c_str(), nullptr, 64_KiB, 3));
    EXPECT_FALSE(pz::RotatingLog(folder.c_str(), "", 64_KiB, 3));
    EXPECT_FALSE(pz::RotatingLog(folder.c_str(), "a/b", 64_KiB, 3));
    EXPECT_FALSE(pz::RotatingLog(folder.c_str(), "app", 63, 3));
    EXPECT_FALSE(pz::RotatingLog(folder.c_str(), "app", 64_KiB, 1001));
    EXPECT_EQ(7U, pztest::count_of(capture.Take(), "no log ["));
}

TEST_F(EasyRotatingLogTest, SaysWhichLogItRefuses) {
    StdoutCapture capture;
    EXPECT_FALSE(pz::RotatingLog(folder.c_str(), "app", 63, 3));
    EXPECT_NE(std::string::npos, capture.Take().find("no log [app] of 63 bytes in [" + folder));
    EXPECT_FALSE(pz::RotatingLog(nullptr, nullptr, 64, 3));
    EXPECT_NE(std::string::npos, capture.Take().find("no log [(null)] of 64 bytes in [(null)]"));
}

TEST_F(EasyRotatingLogTest, AMovedLogGoesOnWithItsFile) {
    pz::RotatingLog first(folder.c_str(), "app", 64_KiB, 3);
    pz::RotatingLog second(std::move(first));
    EXPECT_FALSE(first);
    EXPECT_FALSE(first.line("x"));
    EXPECT_TRUE(second.line("line 1"));
    first = std::move(second);
    EXPECT_TRUE(first.line("line 2"));
    EXPECT_EQ("line 1\nline 2\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, ALogThatAnotherIsMovedOntoIsFlushedBefore) {
    pz::RotatingLogOptions options;
    options.buffer = 30;
    pz::RotatingLog log(folder.c_str(), "app", 100, 3, options);
    EXPECT_TRUE(log.line("line 1"));
    EXPECT_EQ("", read_file(file));
    log = pz::RotatingLog(folder.c_str(), "other", 100, 3);
    EXPECT_EQ("line 1\n", read_file(file));
    EXPECT_TRUE(log.line("line 2"));
    EXPECT_EQ("line 2\n", read_file(folder + "/other.log"));
}

TEST_F(EasyRotatingLogTest, ALackOfMemoryLosesALineAtMost) {
    const StdoutCapture capture;
    pz::RotatingLog log(folder.c_str(), "app", 200, 2);
    const std::string longLine(100, 'x');
    for (int skip = 0; skip < 1000; ++skip) {
        const pztest::MemoryShortage shortage(skip);
        log.line("line %d %s", skip, longLine.c_str());
        if (shortage.Refused() == 0) break;
    }
    EXPECT_TRUE(log.line("line 1"));
    EXPECT_LE(size_of(folder), 600U);
    bool isMade = false;
    for (int skip = 0; !isMade && skip < 1000; ++skip) {
        const pztest::MemoryShortage shortage(skip);
        const pz::RotatingLog other(folder.c_str(), "other", 200, 2);
        isMade = shortage.Refused() == 0 && other;
    }
    EXPECT_TRUE(isMade);
}

TEST_F(EasyRotatingLogTest, ABufferThatNoTextCanHaveIsALackOfMemory) {
    StdoutCapture capture;
    constexpr auto kMost = std::numeric_limits<size_t>::max();
    pz::RotatingLogOptions options;
    options.buffer = kMost;
    pz::RotatingLog log(folder.c_str(), "app", kMost, 1, options);
    EXPECT_FALSE(log);
    EXPECT_FALSE(log.line("x"));
    EXPECT_NE(std::string::npos, capture.Take().find("no memory for the log [app]"));
}

TEST_F(EasyRotatingLogTest, WritesAnEmptyTextAsALineAndRefusesANullFormat) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    EXPECT_TRUE(log.text({}));
    EXPECT_TRUE(log.text("\n"));
    const char* const none = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    EXPECT_FALSE(log.line(none));
#pragma GCC diagnostic pop
    EXPECT_TRUE(log.flush());
    EXPECT_EQ("\n\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, PrintsTextsOfEveryLength) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    std::string expected;
    for (const size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 5000U}) {
        const std::string text(length, 'x');
        EXPECT_TRUE(log.line("%s", text.c_str()));
        expected += text + "\n";
    }
    EXPECT_TRUE(expected == read_file(file));  // too long to be printed
}

TEST_F(EasyRotatingLogTest, RefusesATextThatTheLocaleCannotPrint) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    EXPECT_FALSE(log.line("%ls", L"\u20AC"));
    EXPECT_TRUE(log.line("%ls", L"x"));
    EXPECT_EQ("x\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, CutsALongTextThatFindsNoMemoryTo1023Characters) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    ASSERT_TRUE(log.line("%s", std::string(1023, 'x').c_str()));  // takes memory that is kept
    const std::string text(5000, 'y');
    bool isWritten = false;
    {
        const pztest::MemoryShortage shortage;
        isWritten = log.line("%s", text.c_str());
    }
    EXPECT_TRUE(isWritten);
    EXPECT_TRUE(read_file(file) == std::string(1023, 'x') + "\n" + std::string(1023, 'y') + "\n");
}

TEST_F(EasyRotatingLogTest, CountsALineThatFindsNoMemoryAsLost) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 3);
    ASSERT_TRUE(log.line("first"));
    const std::string text(5000, 'x');
    bool isWritten = true;
    {
        const pztest::MemoryShortage shortage;
        isWritten = log.text(text);
    }
    EXPECT_FALSE(isWritten);
    EXPECT_EQ(1U, log.lost());
    EXPECT_TRUE(log.line("second"));
    EXPECT_EQ("first\nsecond\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, CountsSizesInUnitsOf1024) {
    static_assert(0_KiB == 0 && 64_KiB == 65536);
    static_assert(1_MiB == 1048576 && 3_MiB == 3072_KiB);
    pz::RotatingLog log(folder.c_str(), "app", 1_KiB, 0);
    EXPECT_TRUE(log.text(std::string(2000, 'x')));
    EXPECT_EQ(1024U, size_of(folder));
}

TEST_F(EasyRotatingLogTest, TakesTheSmallestSizeAndTheMostGenerations) {
    pz::RotatingLog log(folder.c_str(), "app", 64, 1000);
    ASSERT_TRUE(log);
    EXPECT_TRUE(log.text("line 1"));
    EXPECT_EQ("line 1\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, AnAssignmentFlushesTheLogThatWasHereBefore) {
    pz::RotatingLogOptions options;
    options.buffer = 1_KiB;
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1, options);
    EXPECT_TRUE(log.line("line 1"));
    EXPECT_EQ("", read_file(file));
    log = pz::RotatingLog(folder.c_str(), "other", 64_KiB, 1);
    EXPECT_EQ("line 1\n", read_file(file));
    EXPECT_TRUE(log.line("line 2"));
    EXPECT_EQ("line 2\n", read_file(folder + "/other.log"));
}

TEST_F(EasyRotatingLogTest, CollectsNoMoreThanTheSizeOfAFile) {
    pz::RotatingLogOptions options;
    options.buffer = 64_KiB;
    pz::RotatingLog log(folder.c_str(), "app", 100, 1, options);
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(log.text("123456789"));
    EXPECT_EQ(0U, size_of(folder));
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(log.text("123456789"));
    EXPECT_LE(100U, size_of(folder)) << "200 bytes do not wait";
}

TEST_F(EasyRotatingLogTest, AKilledProcessLosesOnlyTheLinesThatItHasCollected) {
    pztest::ChildProcess child([this] {
        pz::RotatingLogOptions options;
        options.buffer = 1_KiB;
        pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1, options);
        log.line("line 1");
        if (!log.flush()) return 1;
        log.line("line 2");
        ::raise(SIGKILL);
        return 2;
    });
    EXPECT_EQ(-1, child.Wait());
    EXPECT_EQ("line 1\n", read_file(file));
}

TEST_F(EasyRotatingLogTest, IsLeftAloneByAForkedChildThatDestroysIt) {
    pz::RotatingLogOptions options;
    options.buffer = 1_KiB;
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1, options);
    pz::RotatingLog assigned(folder.c_str(), "other", 64_KiB, 1, options);
    log.line("line 1");
    assigned.line("line 1");
    const pztest::ChildResult child = pztest::run_in_child([&] {
        const auto destroyed = std::make_unique<pz::RotatingLog>(std::move(log));
        assigned = pz::RotatingLog(folder.c_str(), "third", 64_KiB, 1);
        return 42;
    });
    EXPECT_EQ(42, child.status) << child.output;
    EXPECT_TRUE(log.flush());
    EXPECT_TRUE(assigned.flush());
    EXPECT_EQ("line 1\n", read_file(file));
    EXPECT_EQ("line 1\n", read_file(folder + "/other.log"));
}

TEST_F(EasyRotatingLogTest, AForkedChildDestroysItWhileAThreadOfTheParentWrites) {
    constexpr int kChildren = 20;
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1);
    std::atomic<bool> end{false};
    std::thread writer([&] {
        while (!end) log.line("line");
    });
    int ended = 0;
    for (int i = 0; i < kChildren && ended == i; ++i) {
        pztest::ChildProcess child([&log] {
            const pz::RotatingLog destroyed(std::move(log));
            return 0;
        });
        if (child.Wait(std::chrono::seconds(10)) == 0) ++ended;
    }
    end = true;
    writer.join();
    EXPECT_EQ(kChildren, ended);
}

TEST_F(EasyRotatingLogTest, AFlushIsFalseWhenItsLinesAreLost) {
    pz::RotatingLogOptions options;
    options.buffer = 1_KiB;
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1, options);
    EXPECT_TRUE(log.flush()) << "nothing is collected";
    std::filesystem::remove_all(folder);
    write_file(folder, "no folder");
    StdoutCapture capture;
    ASSERT_TRUE(wait_until([&] {
        log.line("lost");
        return !log.flush();
    }));
    EXPECT_LE(1U, log.lost());
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "RotatingLog.cpp"));
}

TEST_F(EasyRotatingLogTest, ReportsAFailureOnceMoreAfterTheLogHasWorkedAgain) {
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1);
    for (int round = 0; round < 2; ++round) {
        StdoutCapture capture;
        std::filesystem::rename(folder, dir.File("away"));
        ASSERT_TRUE(wait_until([&] { return !log.line("lost"); }));
        for (int i = 0; i < 10; ++i) EXPECT_FALSE(log.line("lost"));
        EXPECT_EQ(1U, pztest::count_of(capture.Take(), "RotatingLog.cpp"));
        std::filesystem::rename(dir.File("away"), folder);
        ASSERT_TRUE(wait_until([&] { return log.line("back"); }));
    }
}

TEST_F(EasyRotatingLogTest, TriesToOpenItsFileTenTimesASecondAndNotWithEveryLine) {
    const pz::RotatingLog owner(folder.c_str(), "app", 64_KiB, 1);
    const StdoutCapture capture;
    pz::RotatingLog log(folder.c_str(), "app", 64_KiB, 1);
    flock_call.Reset();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(wait_until([&] {
        for (int i = 0; i < 1000; ++i) EXPECT_FALSE(log.line("lost"));
        return flock_call.Calls() >= 2;
    }));
    const auto tenths = (std::chrono::steady_clock::now() - start) / std::chrono::milliseconds(100);
    EXPECT_LE(flock_call.Calls(), tenths + 1);
    EXPECT_LE(1000U, log.lost());
}
