#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Foundation/PZClock.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Wrapper/pz_cp_conv.h>

#include "support/ChildProcess.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"
#include "support/TestQueue.h"

// The files that are installed beside the library do what it needs of its device.

namespace {

/// What follows the shared folder of zone files in a row's path: "Etc/GMT-1445".
std::string zone_name(const char* path) {
    const std::string kFolder = "/usr/share/zoneinfo/";
    const std::string text = path;
    EXPECT_EQ(0U, text.find(kFolder));
    return text.substr(kFolder.size());
}

bool exists(const std::string& path) {
    return std::ifstream(path).good();
}

/// The offset, in seconds, that a zone file gives at `when`.
long offset_of(const std::string& file, time_t when) {
    setenv("TZ", (":" + file).c_str(), 1);
    tzset();
    tm local = {};
    localtime_r(&when, &local);
    unsetenv("TZ");
    tzset();
    return local.tm_gmtoff;
}

struct ST_PAGE {
    int page;
    std::string name;
    std::set<std::string> modules;  // empty: built into the C library
};

std::vector<ST_PAGE> listed_pages() {
    std::ifstream list(PZ_ROOT "/packaging/iconv-modules.txt");
    std::vector<ST_PAGE> pages;
    for (std::string line; std::getline(list, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream words(line);
        ST_PAGE page;
        words >> page.page >> page.name;
        for (std::string module; words >> module;) {
            if (module != "-") page.modules.insert(module);
        }
        pages.push_back(page);
    }
    return pages;
}

/// The iconv modules that are mapped into this process.
std::set<std::string> mapped_modules() {
    std::ifstream maps("/proc/self/maps");
    std::set<std::string> modules;
    for (std::string line; std::getline(maps, line);) {
        const std::string kFolder = "/gconv/";
        const size_t at = line.find(kFolder);
        if (at == std::string::npos) continue;
        const std::string name = line.substr(at + kFolder.size());
        if (name.find(".so") != std::string::npos) modules.insert(name);
    }
    return modules;
}

constexpr char kFolders[] = "tmpfiles.d/pzframework.conf";
constexpr char kKernel[] = "sysctl.d/60-pzframework.conf";
constexpr char kService[] = "systemd/pzframework-app@.service";
constexpr char kLogins[] = "limits.d/pzframework.conf";

/// The line with single spaces between its words.
std::string words_of(const std::string& line) {
    std::istringstream words(line);
    std::string text;
    for (std::string word; words >> word;) text += (text.empty() ? "" : " ") + word;
    return text;
}

/// The lines of a file of packaging/ that are neither empty nor comments nor headings.
std::vector<std::string> settings_of(const std::string& file) {
    std::istringstream lines(pztest::read_file(PZ_ROOT "/packaging/" + file));
    std::vector<std::string> settings;
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != '#' && line[0] != '[') settings.push_back(words_of(line));
    }
    return settings;
}

/// What follows `start` in the one line of the file that begins with it.
std::string setting(const std::string& file, const std::string& start) {
    std::string rest;
    for (const std::string& line : settings_of(file)) {
        if (line.compare(0, start.size(), start) != 0) continue;
        EXPECT_EQ("", rest) << start << " twice in " << file;
        rest = line.substr(start.size());
    }
    EXPECT_NE("", rest) << start << " is not in " << file;
    return rest;
}

/// The first column of the table in the section of docs/deployment.md that ends with the file's
/// name.
std::vector<std::string> explained_lines_of(const std::string& file) {
    std::istringstream lines(pztest::read_file(PZ_ROOT "/docs/deployment.md"));
    const std::string kTitle = ": " + file;
    std::vector<std::string> explained;
    bool inside = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 3, "## ") == 0) {
            inside = line.size() > kTitle.size() &&
                     line.compare(line.size() - kTitle.size(), kTitle.size(), kTitle) == 0;
        } else if (inside && line.compare(0, 3, "| `") == 0) {
            explained.push_back(line.substr(3, line.find("` |") - 3));
        }
    }
    return explained;
}

/// What the kernel counts for one queue of the framework, as docs/deployment.md derives it.
constexpr unsigned long kQueueBytes = 64UL * (48 + 48 + 1024);

/// True when a user who has no other queue may open one of the framework with this limit.
bool may_open_queue(rlim_t limitBytes) {
    const pztest::QueueName name;
    const pztest::ChildResult child = pztest::run_in_child([limitBytes, &name] {
        const rlimit limit = {limitBytes, limitBytes};
        const auto user = static_cast<uid_t>(100000 + getpid());  // nobody else's
        if (setrlimit(RLIMIT_MSGQUEUE, &limit) != 0 || setuid(user) != 0) return 2;
        PZMsgQ::PZMessageQueue<2> queue;
        if (!queue.open({name.Get(), 64})) return 1;
        queue.close(true);
        return 0;
    });
    EXPECT_TRUE(child.exited);
    EXPECT_NE(2, child.status) << child.output;
    return child.exited && child.status == 0;
}

}  // namespace

class deviceFileTest : public testing::TestWithParam<const char*> {};

TEST_P(deviceFileTest, EachOfItsLinesAndNoOtherIsExplained) {
    EXPECT_FALSE(settings_of(GetParam()).empty());
    EXPECT_EQ(settings_of(GetParam()), explained_lines_of(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Installed, deviceFileTest,
                         testing::Values(kFolders, kKernel, kService, kLogins));

TEST(deviceFilesTest, MakeTheFoldersThatTheTestsRunIn) {
    std::string folders;
    for (const std::string& line : settings_of(kFolders)) {
        if (line.compare(0, 2, "d ") != 0) continue;
        const size_t end = line.find(' ', 2);
        EXPECT_EQ(" 1777 root root - -", line.substr(end));
        folders += (folders.empty() ? "" : " ") + line.substr(2, end - 2);
    }
    EXPECT_EQ("/temp /temp/system_data /Syslog", folders);
    EXPECT_NE(std::string::npos, pztest::read_file(PZ_ROOT "/scripts/bootstrap")
                                     .find("\ndevice_folders=(" + folders + ")\n"));
}

TEST(deviceFilesTest, MakeUtcTheFirstZone) {
    EXPECT_EQ("0644 root root - /usr/share/zoneinfo/Etc/UTC", setting(kFolders, "C /tmp/tzfile "));
    EXPECT_EQ(0, offset_of("/usr/share/zoneinfo/Etc/UTC", 0));
}

TEST(deviceFilesTest, RaiseTheQueueLimitAsTheTestsDo) {
    const std::string messages = setting(kKernel, "fs.mqueue.msg_max = ");
    EXPECT_LE(64, std::stoi(messages));
    EXPECT_NE(std::string::npos, pztest::read_file(PZ_ROOT "/scripts/bootstrap")
                                     .find("\nwanted_msg_max=" + messages + "\n"));
}

TEST(deviceFilesTest, AllowTheWholeTableOfPriorities) {
    const std::string lowest = std::to_string(PZThreadMng::GetInstance()->get_narrow_priority(177));
    EXPECT_EQ(lowest, setting(kService, "LimitNICE="));
    EXPECT_EQ(lowest, setting(kLogins, "@pzframework - nice "));
}

TEST(deviceFilesTest, AllowOneUserAllQueuesOfTheMachine) {
    const unsigned long queues = std::stoul(setting(kKernel, "fs.mqueue.queues_max = "));
    const std::string bytes = std::to_string(queues * kQueueBytes);
    EXPECT_EQ(bytes, setting(kService, "LimitMSGQUEUE="));
    EXPECT_EQ(bytes, setting(kLogins, "@pzframework - msgqueue "));
}

TEST(deviceFilesTest, AQueueTakesTheBytesThatTheLimitCounts) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become a user without queues";
    EXPECT_TRUE(may_open_queue(kQueueBytes));
    EXPECT_FALSE(may_open_queue(kQueueBytes - 1));
}

class zoneinfoTest : public testing::TestWithParam<time_t> {};

TEST_P(zoneinfoTest, EveryGeneratedFileGivesTheOffsetOfItsRow) {
    int generated = 0;
    for (const PZClock::ST_TIME_ZONE_GMT& row : PZClock::timeZoneGmtTbl_) {
        const std::string file = PZ_ZONEINFO "/" + zone_name(row.path);
        const bool isWholeHour = row.hours == std::floor(row.hours);
        EXPECT_EQ(!isWholeHour, exists(file)) << file;
        if (isWholeHour) continue;
        ++generated;
        EXPECT_EQ(std::lround(row.hours * 3600), offset_of(file, GetParam())) << file;
    }
    EXPECT_EQ(84, generated);
}

TEST_P(zoneinfoTest, TheMachinesOwnDatabaseHasTheOtherRows) {
    for (const PZClock::ST_TIME_ZONE_GMT& row : PZClock::timeZoneGmtTbl_) {
        if (row.hours != std::floor(row.hours)) continue;
        ASSERT_TRUE(exists(row.path)) << row.path;
        EXPECT_EQ(std::lround(row.hours * 3600), offset_of(row.path, GetParam())) << row.path;
    }
}

// 1970, the summer of 2024, and the last second of 32 bits.
INSTANTIATE_TEST_SUITE_P(AtAnyTime, zoneinfoTest,
                         testing::Values(time_t{0}, time_t{1721000000}, time_t{0x7FFFFFFF}));

// ---- the Debian package's scripts, run by dpkg over a machine of their own ----

namespace {

/// A folder that stands for a machine, and a package of the shipped scripts alone.
class debianScriptsTest : public testing::Test {
protected:
    void SetUp() override {
        Run("mkdir -p package/DEBIAN machine/var/lib/dpkg/info machine/var/lib/dpkg/updates "
            "machine/tmp && touch machine/var/lib/dpkg/status");
        for (const std::string script : {"preinst", "postrm"}) {
            Run("[ ! -e " PZ_ROOT "/packaging/debian/pzframework-common." + script +
                " ] || install -m 755 " PZ_ROOT "/packaging/debian/pzframework-common." + script +
                " package/DEBIAN/" + script);
        }
        pztest::write_file(dir_.File("package/DEBIAN/control"),
                           "Package: pzframework-common\nVersion: 1.0.0\nArchitecture: all\n"
                           "Maintainer: nobody <nobody@localhost>\nDescription: scripts\n");
        Run("dpkg-deb --build package package.deb");
    }

    /// The shell commands in the folder of the test.
    void Run(const std::string& commands) {
        const auto result =
            pztest::run_command("cd " + dir_.Path() + " && { " + commands + "; } 2>&1");
        EXPECT_EQ(0, result.status) << commands << "\n" << result.output;
    }

    void Dpkg(const std::string& arguments) {
        Run("PATH=$PATH:/usr/sbin:/sbin dpkg --root=$PWD/machine --force-script-chrootless "
            "--force-not-root " +
            arguments);
    }

    /// With what systemd-tmpfiles makes when the package is installed, and what programs leave.
    void InstallAndUse() {
        Dpkg("-i package.deb");
        Run("cd machine && mkdir -p temp/system_data Syslog && touch temp/ThreadInfo && "
            "[ -e tmp/tzfile ] || touch tmp/tzfile");
    }

    void Purge() { Dpkg("--purge pzframework-common"); }

    bool Has(const std::string& path) const {
        return std::filesystem::exists(dir_.File("machine" + path));
    }

    const pztest::TempDir dir_;
};

}  // namespace

TEST_F(debianScriptsTest, APurgeRemovesTheFoldersThatThePackageBrought) {
    InstallAndUse();
    Dpkg("--remove pzframework-common");
    EXPECT_TRUE(Has("/temp/system_data"));
    Purge();
    for (const char* const path :
         {"/temp", "/Syslog", "/tmp/tzfile", "/var/lib/pzframework-common"}) {
        EXPECT_FALSE(Has(path)) << path;
    }
}

TEST_F(debianScriptsTest, APurgeLeavesWhatWasThereBefore) {
    Run("cd machine && mkdir temp Syslog && echo zone >tmp/tzfile");
    InstallAndUse();
    Purge();
    EXPECT_TRUE(Has("/temp"));
    EXPECT_TRUE(Has("/Syslog"));
    EXPECT_TRUE(Has("/tmp/tzfile"));
    EXPECT_FALSE(Has("/temp/system_data"));
    EXPECT_FALSE(Has("/temp/ThreadInfo"));
}

TEST_F(debianScriptsTest, AnUpgradeAndASecondInstallationRememberTheFirst) {
    InstallAndUse();
    Dpkg("-i package.deb");
    Dpkg("--remove pzframework-common");
    Dpkg("-i package.deb");
    Purge();
    EXPECT_FALSE(Has("/temp"));
    EXPECT_FALSE(Has("/Syslog"));
}

TEST_F(debianScriptsTest, APurgeLeavesFoldersThatHoldSomething) {
    InstallAndUse();
    Run("touch machine/Syslog/app_0.txt");
    Purge();
    EXPECT_TRUE(Has("/Syslog/app_0.txt"));
    EXPECT_FALSE(Has("/temp"));
}

TEST(iconvModulesTest, TheListIsPrintedFromTheMachinesOwnConfiguration) {
    const pztest::CommandResult list =
        pztest::run_command(PZ_ROOT "/packaging/list-iconv-modules 2>&1");
    EXPECT_EQ(0, list.status);
    EXPECT_EQ(list.output, pztest::read_file(PZ_ROOT "/packaging/iconv-modules.txt"));
}

TEST(iconvModulesTest, ListsEveryPageThatIconvConverts) {
    const std::vector<ST_PAGE> pages = listed_pages();
    ASSERT_EQ(static_cast<size_t>(XCP_RDS), pages.size());
    for (int page = 0; page < XCP_RDS; ++page) {
        EXPECT_EQ(page, pages[static_cast<size_t>(page)].page);
    }
}

TEST(iconvModulesTest, AConversionLoadsTheListedModulesAndNoOther) {
    for (const ST_PAGE& page : listed_pages()) {
        const pztest::ChildResult child = pztest::run_in_child([&page] {
            EXPECT_EQ(std::set<std::string>(), mapped_modules());
            wchar_t wide[8] = {};
            const char text[8] = {'A', 0, 0, 0};
            const auto from = static_cast<EN_XCP>(page.page);
            pz_cp_conv(reinterpret_cast<char*>(wide), sizeof wide, XCP_WCHAR, text, 4, from);
            EXPECT_EQ(page.modules, mapped_modules()) << page.page << " " << page.name;
            return testing::Test::HasFailure() ? 1 : 0;
        });
        EXPECT_TRUE(child.exited);
        EXPECT_EQ(0, child.status) << child.output;
    }
}
