#include <doctor/Checks.h>
#include <doctor/Report.h>
#include <fcntl.h>
#include <iconv.h>
#include <mqueue.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/PZFramework.h>

#include "support/ChildProcess.h"
#include "support/Golden.h"
#include "support/Interposed.h"
#include "support/JsonReader.h"
#include "support/OpenDescriptors.h"
#include "support/RunCommand.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(iconv_open, 2, reinterpret_cast<iconv_t>(-1));
PZ_INTERPOSE(access, 2);
PZ_INTERPOSE(statfs64, 2);
PZ_INTERPOSE(statvfs64, 2);

using pztest::CommandResult;
using pztest::run_command;

namespace {

CommandResult run_doctor(const std::string& arguments) {
    return run_command(PZ_DOCTOR " " + arguments + " 2>&1");
}

/// The bytes that a semaphore of this value has in its file.
std::string semaphore_bytes(unsigned int value) {
    sem_t semaphore;
    std::memset(&semaphore, 0, sizeof semaphore);
    sem_init(&semaphore, 1, value);
    std::string bytes(sizeof semaphore, '\0');
    std::memcpy(&bytes[0], &semaphore, sizeof semaphore);
    sem_destroy(&semaphore);
    return bytes;
}

std::string limits(const std::string& files, const std::string& processes,
                   const std::string& queues, const std::string& nice) {
    return "Limit                     Soft Limit           Hard Limit           Units     \n"
           "Max cpu time              unlimited            unlimited            seconds   \n"
           "Max processes             " +
           processes +
           "                 96365                processes \n"
           "Max open files            " +
           files +
           "                 1048576              files     \n"
           "Max msgqueue size         " +
           queues +
           "               unlimited            bytes     \n"
           "Max nice priority         " +
           nice + "                   40                   \n";
}

/// What /proc/self/stat holds for a program whose name is made to mislead.
std::string stat_line(int nice) {
    return "321 (a) S 5 9 9) S 300 321 300 34816 321 4194304 110 0 0 0 1 2 3 4 20 " +
           std::to_string(nice) + " 1 0 987654 8192000 512\n";
}

std::string segment_row(long key, int id, int mode, int bytes, int creator, int attached) {
    char row[256];
    std::snprintf(row, sizeof row,
                  "%10ld %10d  %4o %21d %5d %5d  %5d     0     0     0     0 1795274892 "
                  "1795274892 1795274892                     0                     0\n",
                  key, id, static_cast<unsigned int>(mode), bytes, creator, creator, attached);
    return row;
}

constexpr char kSegmentColumns[] =
    "       key      shmid perms                  size  cpid  lpid nattch   uid   gid  cuid  cgid"
    "      atime      dtime      ctime                   rss                  swap\n";

/// A file tree that stands for a machine.
class doctorTest : public testing::Test {
protected:
    void TearDown() override {
        access_call.Reset();
        statvfs64_call.Reset();
    }

    std::string Root() const { return dir_.Path(); }

    CommandResult Doctor(const std::string& arguments = "") const {
        return run_doctor("--root " + Root() + " " + arguments);
    }

    /// The table as it should be, below its first lines.
    std::string Table(const std::string& rows) const {
        return "pz-doctor 1.0.0, the files under " + Root() + "\n\n" + rows;
    }

    void Folder(const std::string& path, mode_t mode = 0755) const {
        std::filesystem::create_directories(Root() + path);
        chmod((Root() + path).c_str(), mode);
    }

    /// Makes the folder as well; takes the place of what is there.
    void File(const std::string& path, const std::string& content = "", mode_t mode = 0644) const {
        MakeWay(path);
        pztest::write_file(Root() + path, content);
        chmod((Root() + path).c_str(), mode);
    }

    void QueueLimits(const std::string& messages, const std::string& bytes,
                     const std::string& queues) const {
        File("/proc/sys/fs/mqueue/msg_max", messages + "\n");
        File("/proc/sys/fs/mqueue/msgsize_max", bytes + "\n");
        File("/proc/sys/fs/mqueue/queues_max", queues + "\n");
    }

    void Link(const std::string& path, const std::string& target) const {
        MakeWay(path);
        ASSERT_EQ(0, symlink(target.c_str(), (Root() + path).c_str()));
    }

    /// A device that needs no rights to be made, or a socket.
    void Node(const std::string& path, mode_t mode) const {
        MakeWay(path);
        ASSERT_EQ(0, mknod((Root() + path).c_str(), mode, makedev(0, 0)));
    }

    void Remove(const std::string& path) const { std::filesystem::remove_all(Root() + path); }

    /// The zone files of all rows but those that only a repair brings.
    void ZoneFiles() const {
        for (const PZClock::ST_TIME_ZONE& row : PZClock::timeZoneTbl_) File(row.path, "TZif2");
        for (const PZClock::ST_TIME_ZONE_GMT& row : PZClock::timeZoneGmtTbl_) {
            File(row.path, "TZif2");
        }
    }

    /// Everything that the library needs, and holders for what is in use.
    void GoodMachine() const {
        for (const char* path : {"/temp", "/temp/system_data", "/Syslog", "/tmp", "/dev/shm"}) {
            Folder(path, 01777);
        }
        File("/tmp/tzfile", "TZif2");
        Link("/etc/localtime", "/tmp/tzfile");
        File("/usr/bin/date", "", 0755);
        Link("/bin", "usr/bin");
        Node("/dev/rtc0", S_IFCHR | 0600);
        Node("/run/log/socket", S_IFSOCK | 0666);
        Link("/dev/log", "/run/log/socket");
        ZoneFiles();
        File("/usr/lib/x86_64-linux-gnu/libicui18n.so.72");

        File("/proc/self/limits", limits("4096", "unlimited", "819200", "40"));
        File("/proc/self/status", "Name:\tx\nCapEff:\t0000000002280000\nSeccomp:\t0\n");
        File("/proc/self/stat", stat_line(4));
        File("/proc/self/environ", std::string("HOME=/\0LTZ=UTC\0TZDIR=/x\0", 24));
        QueueLimits("256", "8192", "256");
        File("/proc/sys/kernel/shmmni", "4096\n");
        File("/proc/self/mounts", "nodev /sys/kernel/tracing tracefs rw,relatime 0 0\n");
        File("/sys/kernel/tracing/uprobe_events");

        File("/dev/mqueue/radio");
        File("/dev/mqueue/tuner");
        File("/dev/shm/sem.free", semaphore_bytes(1));
        File("/dev/shm/sem.taken", semaphore_bytes(0));
        File("/dev/shm/other", semaphore_bytes(0));
        File("/proc/sysvipc/shm",
             kSegmentColumns + segment_row(16787, 7, 0666, 40, 900, 2) +
                 segment_row(16788, 8, 0666, 1, 101, 0) + segment_row(16789, 9, 0666, 24, 0, 0) +
                 segment_row(16790, 10, 0600, 40, 900, 0) +
                 segment_row(16791, 11, 0666, 4096, 900, 0) + segment_row(0, 12, 0666, 40, 900, 0) +
                 segment_row(-16792, 15, 0666, 40, 900, 0));
        Link("/proc/101/fd/0", "/dev/null");
        Link("/proc/101/fd/3", "/radio");
        Link("/proc/101/fd/4", "/dev/mqueue/tuner");
        File("/proc/101/maps",
             "7f0000000000-7f0000001000 rw-p 00000000 00:00 0 \n"
             "7f1000000000-7f1000001000 rw-s 00000000 00:1b 5      /dev/shm/sem.taken\n");
    }

private:
    void MakeWay(const std::string& path) const {
        const std::filesystem::path place = Root() + path;
        std::filesystem::create_directories(place.parent_path());
        std::filesystem::remove_all(place);
    }

    const pztest::TempDir dir_;
};

/// The finding of one check, made in the test itself.
Finding find(const Machine& machine, const std::string& name) {
    for (const Check& check : all_checks()) {
        if (name == check.name) return check.run(machine);
    }
    return skipped("no such check");
}

Finding find_here(const std::string& name) {
    return find(Machine(), name);
}

/// Every name in the first column of --list.
std::vector<std::string> all_names() {
    std::istringstream lines(run_doctor("--list").output);
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);) {
        names.push_back(line.substr(0, line.find(' ')));
    }
    return names;
}

}  // namespace

TEST_F(doctorTest, FindsEverythingGreenOnAGoodMachine) {
    GoodMachine();
    const CommandResult doctor = Doctor();
    EXPECT_EQ(Table(pztest::golden("doctor_good_machine.txt")), doctor.output);
    EXPECT_EQ(0, doctor.status);
}

TEST_F(doctorTest, FindsAnEmptyMachineRedAndNamesEveryRepair) {
    const CommandResult doctor = Doctor();
    EXPECT_EQ(Table(pztest::golden("doctor_empty_machine.txt")), doctor.output);
    EXPECT_EQ(13, doctor.status);
}

TEST_F(doctorTest, FindsWrongKindsLowLimitsAndLeftoversRed) {
    GoodMachine();
    Folder("/temp", 0755);
    Remove("/temp/system_data");
    File("/temp/system_data");
    Folder("/Syslog", 0777);
    File("/tmp/tzfile", "UTC0");
    Remove("/etc/localtime");
    Link("/etc/localtime", "/usr/share/zoneinfo/Asia/Tokyo");
    File("/usr/bin/date", "", 0644);
    File("/dev/rtc0");
    Remove("/dev/log");
    File("/dev/log");
    Remove("/usr/share/zoneinfo/Asia/Tokyo");
    File("/usr/share/zoneinfo/Asia/Baku", "text");
    Remove("/usr/share/zoneinfo/Etc/GMT+130");
    Remove("/usr/lib");
    File("/proc/self/limits", limits("36", "63", "71679", "29"));
    File("/proc/self/status", "CapEff:\t0000000001000000\n");
    File("/proc/self/stat", stat_line(5));
    File("/proc/self/environ", std::string("HOME=/\0TZ=UTC\0", 14));
    QueueLimits("10", "1023", "2");
    File("/proc/sys/kernel/shmmni", "7\n");
    File("/proc/sys/kernel/yama/ptrace_scope", "1\n");
    File("/proc/101/maps");
    Remove("/proc/101/fd/3");
    File("/proc/sysvipc/shm", pztest::read_file(Root() + "/proc/sysvipc/shm") +
                                  segment_row(16792, 13, 01666, 40, 900, 0) +
                                  segment_row(16793, 14, 0666, 1, 900, 0));
    const CommandResult doctor = Doctor();
    EXPECT_EQ(Table(pztest::golden("doctor_broken_machine.txt")), doctor.output);
    EXPECT_EQ(20, doctor.status);
}

TEST_F(doctorTest, ShowsLimitsBelowTheRecommendedAsYellow) {
    GoodMachine();
    File("/proc/self/limits", limits("1023", "255", "71680", "30"));
    File("/proc/sys/fs/mqueue/msg_max", "255\n");
    File("/proc/sys/fs/mqueue/queues_max", "17\n");
    const CommandResult doctor =
        Doctor("nice-limit descriptors threads queue-messages queue-count queue-bytes");
    EXPECT_EQ(Table(pztest::golden("doctor_restrictions.txt")), doctor.output);
    EXPECT_EQ(0, doctor.status);
}

TEST_F(doctorTest, TheColourChangesExactlyAtTheLimit) {
    GoodMachine();
    const auto expectAll = [this](const std::string& colour,
                                  const std::vector<std::string>& checks) {
        for (const std::string& check : checks) {
            const std::string table = Doctor(check).output;
            const size_t row = table.find("\n\n") + 2;
            EXPECT_EQ(colour, table.substr(row, table.find(' ', row) - row)) << check;
        }
    };
    File("/proc/self/limits", limits("1024", "256", "unlimited", "39"));
    QueueLimits("64", "1024", "18");
    File("/proc/sys/kernel/shmmni", "9\n");
    expectAll("green", {"descriptors", "threads", "queue-bytes", "queue-message-size",
                        "queue-count", "segment-count"});
    expectAll("yellow", {"nice-limit", "queue-messages"});

    File("/proc/self/limits", limits("256", "64", "0", "0"));
    File("/proc/sys/fs/mqueue/msg_max", "63\n");
    File("/proc/sys/kernel/shmmni", "8\n");
    expectAll("yellow", {"descriptors", "threads"});
    expectAll("red", {"queue-bytes", "nice-limit", "queue-messages", "segment-count"});

    File("/proc/self/limits", limits("255", "63", "0", "unlimited"));
    expectAll("red", {"descriptors", "threads"});
    expectAll("green", {"nice-limit"});
    Remove("/dev/mqueue");
    expectAll("green", {"queue-count"});
}

TEST_F(doctorTest, FindsAFullFileSystemOfLogsRed) {
    Folder("/Syslog");
    static fsblkcnt64_t blocks;
    statvfs64_call.Replace([](const char*, struct statvfs64* status) {
        *status = {};
        status->f_frsize = 4096;
        status->f_bfree = 1000;  // most of them kept for root
        status->f_bavail = blocks;
        return 0;
    });
    blocks = 255;
    const Finding full = find(Machine(Root()), "log-space");
    EXPECT_EQ(Status::Red, full.status);
    EXPECT_EQ("less than 1 MiB is free for /Syslog", full.found);
    EXPECT_EQ("find /Syslog -type f -mtime +7 -delete", full.repair);
    blocks = 256;
    EXPECT_EQ(Status::Green, find(Machine(Root()), "log-space").status);
}

TEST_F(doctorTest, FindsFoldersOfAReadOnlyFileSystemRed) {
    Folder("/temp", 01777);
    access_call.FailNext(EROFS);
    const Finding finding = find(Machine(Root()), "temp-folder");
    EXPECT_EQ(Status::Red, finding.status);
    EXPECT_EQ("the file system of /temp is read-only", finding.found);
    EXPECT_EQ("mount -o remount,rw \"$(findmnt -n -o TARGET -T /temp)\"", finding.repair);
    EXPECT_EQ(Status::Green, find(Machine(Root()), "temp-folder").status);
}

TEST_F(doctorTest, FindsAClockThatOnlyOthersMayWriteYellow) {
    Node("/dev/rtc0", S_IFCHR | 0600);
    access_call.FailNext(EACCES);
    const Finding finding = find(Machine(Root()), "rtc-device");
    EXPECT_EQ(Status::Yellow, finding.status);
    EXPECT_EQ("/dev/rtc0 cannot be written by this user", finding.found);
    EXPECT_EQ("chmod 666 /dev/rtc0", finding.repair);
}

TEST_F(doctorTest, FindsEveryNiceValueAllowedWithTheCapability) {
    GoodMachine();
    File("/proc/self/limits", limits("4096", "unlimited", "819200", "0"));
    File("/proc/self/status", "CapEff:\t0000000000800000\n");
    EXPECT_EQ(Table("green   nice-limit          CAP_SYS_NICE: every nice value\n"
                    "\n1 checks: 1 green, 0 yellow, 0 red, 0 skipped\n"),
              Doctor("nice-limit").output);
}

TEST_F(doctorTest, FindsWhatKeepsFromLookingInsideOfProcessesYellow) {
    GoodMachine();
    const std::string total = "\n1 checks: 0 green, 1 yellow, 0 red, 0 skipped\n";
    const std::string why =
        "                            why:    pz-trace records by probes of the kernel\n";
    Remove("/sys/kernel/tracing/uprobe_events");
    EXPECT_EQ(
        Table("yellow  probes              this kernel has no probes of programs\n" + why +
              "                            repair: zgrep UPROBE_EVENTS /proc/config.gz  # the "
              "kernel needs it\n" +
              total),
        Doctor("probes").output);
    File("/proc/self/mounts", "proc /proc proc rw 0 0\n");
    EXPECT_EQ(
        Table("yellow  probes              tracefs is not mounted\n" + why +
              "                            repair: mount -t tracefs nodev /sys/kernel/tracing  # "
              "as root\n" +
              total),
        Doctor("probes").output);
    File("/proc/self/status", "CapEff:\t0000000000000000\n");
    EXPECT_EQ(Table("green   process-reading     the processes of this user\n"
                    "\n1 checks: 1 green, 0 yellow, 0 red, 0 skipped\n"),
              Doctor("process-reading").output);
}

TEST_F(doctorTest, FindsAKernelWithoutQueuesSegmentsOrLimitsRed) {
    Folder("/proc/self");
    const CommandResult doctor = Doctor(
        "nice-limit own-nice descriptors threads queue-messages queue-message-size queue-count "
        "queue-bytes segment-leftovers segment-count tz-variable");
    EXPECT_EQ(11, doctor.status);
    for (const char* path :
         {"/proc/self/limits", "/proc/self/stat", "/proc/self/environ",
          "/proc/sys/fs/mqueue/msg_max", "/proc/sys/fs/mqueue/msgsize_max",
          "/proc/sys/fs/mqueue/queues_max", "/proc/sysvipc/shm", "/proc/sys/kernel/shmmni"}) {
        EXPECT_NE(std::string::npos, doctor.output.find(path + std::string(" cannot be read\n")))
            << path;
    }
}

TEST_F(doctorTest, LeavesHeldThingsInDoubtWhenAProcessMayNotBeLookedInto) {
    GoodMachine();
    Remove("/proc/101/fd");
    File("/proc/101/maps");
    Folder("/proc/102");
    const CommandResult doctor = Doctor("queue-leftovers semaphore-leftovers");
    EXPECT_EQ(Table(
                  // clang-format off
"yellow  queue-leftovers     queues without a process: radio, tuner, unless one of 2 processes that this user may not look into holds them\n"
"                            why:    the next receiver finds the messages of a dead one\n"
"                            repair: sudo pz-doctor\n"
"yellow  semaphore-leftovers semaphores taken by dead processes: taken, unless one of 2 processes that this user may not look into holds them\n"
"                            why:    a shared lock that died taken is never free again\n"
"                            repair: sudo pz-doctor\n"
"\n"
"2 checks: 0 green, 2 yellow, 0 red, 0 skipped\n"),
              // clang-format on
              doctor.output);
    EXPECT_EQ(0, doctor.status);
}

TEST_F(doctorTest, QuotesNamesInItsRepairsAndKeepsThemFromTheTerminal) {
    GoodMachine();
    const std::string file = "/dev/shm/sem.a b'c\\\x1b[31m\xc3\xa9\n7";
    File(file, semaphore_bytes(0));
    const std::string output = Doctor("semaphore-leftovers").output;
    EXPECT_EQ(Table("red     semaphore-leftovers semaphores taken by dead processes: "
                    "a b'c\\?[31m???7\n"
                    "                            why:    a shared lock that died taken is never "
                    "free again\n"
                    "                            repair: rm -f "
                    "$'/dev/shm/sem.a b\\'c\\\\\\033[31m\\303\\251\\0127'\n"
                    "\n1 checks: 0 green, 0 yellow, 1 red, 0 skipped\n"),
              output);

    // The shell reads the word as the name.
    const size_t word = output.find("$'");
    const std::string script = Root() + "/script";
    pztest::write_file(script, "printf %s " + output.substr(word, output.find('\n', word) - word));
    EXPECT_EQ(file, run_command("bash " + script).output);
}

TEST_F(doctorTest, FollowsLinksInsideOfTheTreeOnly) {
    Folder("/data/temp", 01777);
    Link("/temp", "../../data/./temp");
    EXPECT_EQ(0, Doctor("temp-folder").status);
    Remove("/temp");
    Link("/temp", "/tmp");  // this machine's has the right mode, the tree has none
    EXPECT_EQ(1, Doctor("temp-folder").status);
    Remove("/temp");
    Link("/temp", "temp");
    EXPECT_EQ(1, Doctor("temp-folder").status);
}

TEST_F(doctorTest, ItsZoneSourceRepairsTheOffsets) {
    EXPECT_EQ(1, Doctor("zone-offsets").status);
    ASSERT_EQ(
        0, Doctor("--zones | /usr/sbin/zic -b slim -d " + Root() + "/usr/share/zoneinfo -").status);
    EXPECT_EQ(0, Doctor("zone-offsets").status);
    EXPECT_EQ("", Doctor("--zones").output);

    // A compiled file ends with its rule, whose sign is the inverse one.
    const auto rule = [this](const std::string& name) {
        const std::string file = pztest::read_file(Root() + "/usr/share/zoneinfo/Etc/" + name);
        const size_t start = file.rfind('\n', file.size() - 2);
        return file.substr(start + 1, file.size() - start - 2);
    };
    EXPECT_EQ("<+1445>-14:45", rule("GMT-1445"));
    EXPECT_EQ("<+09>-9", rule("GMT-9").replace(4, 2, ""));
    EXPECT_EQ("<-0030>0:30", rule("GMT+0030"));
    EXPECT_EQ("<-1130>11:30", rule("GMT+130"));
    EXPECT_EQ("<-1145>11:45", rule("GMT+145"));
    EXPECT_EQ("<-1245>12:45", rule("GMT+1345"));
}

TEST_F(doctorTest, ItsZoneSourceIsTheOneThatIsInstalled) {
    for (int hours = -14; hours <= 12; ++hours) {
        char name[32];
        std::snprintf(name, sizeof name, hours == 0 ? "GMT" : "GMT%+d", hours);
        File(std::string("/usr/share/zoneinfo/Etc/") + name, "TZif2");
    }
    const std::string installed = Root() + "/installed";
    ASSERT_EQ(0, run_command(PZ_ROOT "/packaging/zoneinfo/make-source " PZ_ROOT
                                     "/src/Framework/Foundation/private/pz_time_zone_table.cpp " +
                             installed)
                     .status);
    const CommandResult same = run_command("tr -s ' ' <" + installed);
    EXPECT_EQ(84, std::count(same.output.begin(), same.output.end(), '\n'));
    EXPECT_EQ(same.output, Doctor("--zones").output);
}

// The commands themselves, with the paths of the tree in place of the machine's.
TEST_F(doctorTest, ItsRepairsOfFilesMakeTheChecksGreen) {
    const std::string files =
        "temp-folder system-data-folder syslog-folder tmp-folder zone-file date-program "
        "rtc-device queue-leftovers semaphore-leftovers";
    const auto repair = [&] {
        const auto json = pztest::read_json(Doctor("--json " + files).output);
        ASSERT_TRUE(json);
        for (const auto& member : json->At("checks").members) {
            std::string command = member.second.At("repair").text;
            for (size_t at = 0; (at = command.find(" /", at)) != std::string::npos; at += 2) {
                command.insert(at + 1, Root());
            }
            EXPECT_EQ(0, run_command(command).status) << command;
        }
    };
    const auto colours = [&](Status status) {
        return pztest::read_json(Doctor("--json " + files).output)->At(status_name(status)).number;
    };
    GoodMachine();
    File("/usr/share/zoneinfo/Etc/UTC", "TZif2");

    // Missing folders.
    Remove("/temp");
    Remove("/Syslog");
    Remove("/tmp");
    EXPECT_EQ(4, colours(Status::Red));
    EXPECT_EQ(1, colours(Status::Yellow));  // with /tmp its file
    repair();
    EXPECT_EQ(9, colours(Status::Green));

    // Wrong modes, and what dead processes left.
    Folder("/temp", 0700);
    Folder("/temp/system_data", 01777 & ~0002);
    Folder("/Syslog", 0777);
    Folder("/tmp", 01755);
    File("/usr/bin/date", "", 0745);
    Remove("/proc/101/fd/3");
    File("/proc/101/maps");
    EXPECT_EQ(5, colours(Status::Red));
    EXPECT_EQ(2, colours(Status::Yellow));
    repair();
    EXPECT_EQ(9, colours(Status::Green));

    // Other things in their places.
    Remove("/temp");
    File("/temp");
    Remove("/Syslog");
    File("/Syslog");
    Remove("/tmp/tzfile");
    Folder("/tmp/tzfile");
    EXPECT_EQ(4, colours(Status::Red));
    repair();
    EXPECT_EQ(9, colours(Status::Green));
}

TEST_F(doctorTest, WritesTheSameAsJson) {
    GoodMachine();
    File("/proc/sys/fs/mqueue/msg_max", "10\n");
    const CommandResult doctor = Doctor("--json date-program queue-messages code-pages");
    EXPECT_EQ(pztest::golden("doctor_report.json", {{"root", Root()}}), doctor.output);
    EXPECT_EQ(1, doctor.status);
}

TEST_F(doctorTest, EscapesWhatJsonDoesNotTake) {
    Link("/etc/localtime", "/a\"b\\c");
    const auto json = pztest::read_json(Doctor("--json local-zone").output);
    ASSERT_TRUE(json);
    EXPECT_EQ("/etc/localtime leads to /a\"b\\c",
              json->At("checks").members[0].second.At("found").text);

    const Report report = {"1", "/caf\xc3\xa9\n", {}};
    const auto other = pztest::read_json(json_text(report));
    ASSERT_TRUE(other);
    EXPECT_EQ("/caf\xc3\xa9\n", other->At("root").text);
}

TEST_F(doctorTest, ListsEveryCheckWithItsReason) {
    EXPECT_EQ(0U, run_doctor("--list").output.find("temp-folder         every process writes its "
                                                   "thread status to /temp/ThreadInfo\n"));
    EXPECT_EQ(33U, all_names().size());
    for (const std::string& name : all_names()) {
        EXPECT_NE(std::string::npos, Doctor(name).output.find(" " + name + " ")) << name;
    }
}

TEST_F(doctorTest, ItsManualDescribesEveryCheckAndOption) {
    std::string manual = pztest::read_file(PZ_ROOT "/tools/doctor/pz-doctor.1");
    manual.erase(std::remove(manual.begin(), manual.end(), '\\'), manual.end());
    for (const std::string& name : all_names()) {
        EXPECT_NE(std::string::npos, manual.find("\n.TP\n.B " + name + "\n")) << name;
    }
    for (const char* option : {"--root", "--json", "--zones", "--list", "--version", "--help"}) {
        EXPECT_NE(std::string::npos, run_doctor("--help").output.find(option)) << option;
        const bool described =
            manual.find(std::string("\n.TP\n.B ") + option + "\n") != std::string::npos ||
            manual.find(std::string("\n.TP\n.BI ") + option + " ") != std::string::npos;
        EXPECT_TRUE(described) << option;
    }
}

TEST_F(doctorTest, RefusesUnknownOptionsAndChecksAndBadFolders) {
    const auto refused = [](const std::string& arguments, const std::string& problem) {
        const CommandResult doctor = run_doctor(arguments);
        EXPECT_EQ("pz-doctor: " + problem + "\nTry pz-doctor --help.\n", doctor.output);
        EXPECT_EQ(126, doctor.status);
    };
    refused("--jason", "unknown option --jason");
    refused("date", "unknown check date");
    refused("--root", "--root needs a folder");
    refused("--root /dev/null", "not a folder: /dev/null");
    refused("--root " + Root() + "/none", "not a folder: " + Root() + "/none");
    refused("''", "unknown check ");
    refused("--list --zones", "only one of --json, --zones and --list");
    refused("--json --list", "only one of --json, --zones and --list");
    refused("temp-folder --zones", "no check with --zones or --list");
    refused("--list temp-folder", "no check with --zones or --list");
}

TEST_F(doctorTest, PrintsItsUsageAndItsVersion) {
    const CommandResult help = run_doctor("--help");
    EXPECT_EQ(0U, help.output.find("usage: pz-doctor "));
    EXPECT_EQ(0, help.status);
    EXPECT_EQ("pz-doctor 1.0.0\n", run_doctor("--version").output);
}

TEST_F(doctorTest, SaysThatItsAnswerCouldNotBeWritten) {
    const CommandResult doctor = run_command(PZ_DOCTOR " --list 2>&1 >/dev/full");
    EXPECT_EQ("pz-doctor: No space left on device\n", doctor.output);
    EXPECT_EQ(126, doctor.status);
}

TEST(doctorReportTest, ItsStatusIsTheNumberOfRedsUpTo125) {
    Report report = {"1", "", {}};
    for (int i = 0; i < 125; ++i) report.results.push_back({"a", "b", red("c", "d")});
    EXPECT_EQ(125, exit_status(report));
    report.results.push_back({"a", "b", red("c", "d")});
    EXPECT_EQ(125, exit_status(report));
    report.results.assign(3, {"a", "b", red("c", "d")});
    report.results.push_back({"a", "b", yellow("c", "d")});
    EXPECT_EQ(3, exit_status(report));
}

TEST(doctorReportTest, ColoursTheStatusOnly) {
    const Report report = {"1", "", {{"a", "w", green("f")}, {"b", "w", red("f", "r")}}};
    EXPECT_EQ(
        "pz-doctor 1, this machine\n\n"
        "\033[32mgreen   \033[0ma                   f\n"
        "\033[31mred     \033[0mb                   f\n"
        "                            why:    w\n"
        "                            repair: r\n"
        "\n2 checks: 1 green, 0 yellow, 1 red, 0 skipped\n",
        table_text(report, true));
}

TEST(doctorReportTest, AsksRootForWhatItsUserMayNotDo) {
    Report report = {
        "1", "", {{"a", "w", red("f", "r")}, {"b", "w", by_this_user(red("f", "s"))}}, true};
    EXPECT_EQ(
        "pz-doctor 1, this machine\n\n"
        "red     a                   f\n"
        "                            why:    w\n"
        "                            repair: ask root: r\n"
        "red     b                   f\n"
        "                            why:    w\n"
        "                            repair: s\n"
        "\n2 checks: 0 green, 0 yellow, 2 red, 0 skipped\n",
        table_text(report, false));
    report.asksRoot = false;
    EXPECT_EQ(std::string::npos, table_text(report, false).find("ask root"));
}

TEST_F(doctorTest, TellsRepairsOfItsUserFromThoseOfRoot) {
    const Machine machine(Root());
    const auto may = [&machine](const std::string& name) {
        const Finding finding = find(machine, name);
        EXPECT_FALSE(finding.repair.empty()) << name;
        return finding.byThisUser;
    };
    GoodMachine();
    Folder("/temp", 0700);
    Remove("/temp/system_data");
    Remove("/tmp/tzfile");
    File("/proc/self/limits", limits("100", "10", "0", "0"));
    File("/proc/self/environ", std::string("TZ=UTC\0", 7));
    File("/proc/sys/fs/mqueue/msg_max", "10\n");
    Remove("/proc/101/fd/3");
    EXPECT_TRUE(may("temp-folder"));
    EXPECT_TRUE(may("system-data-folder"));
    EXPECT_TRUE(may("zone-file"));
    EXPECT_TRUE(may("tz-variable"));
    EXPECT_TRUE(may("descriptors"));
    EXPECT_TRUE(may("threads"));
    EXPECT_TRUE(may("queue-bytes"));
    EXPECT_TRUE(may("queue-leftovers"));
    EXPECT_FALSE(may("queue-messages"));

    // The hard limits forbid more.
    File("/proc/self/limits",
         "Max processes             10 1023 processes\n"
         "Max open files            100 1023 files\n"
         "Max msgqueue size         0 18350079 bytes\n");
    EXPECT_FALSE(may("descriptors"));
    EXPECT_FALSE(may("threads"));
    EXPECT_FALSE(may("queue-bytes"));
}

TEST(doctorLiveTest, AsksRootForWhatAnOrdinaryUserMayNotDo) {
    const std::string user = geteuid() == 0 ? "setpriv --reuid 65534 --clear-groups " : "";
    const auto advice = [&user](const std::string& limit) {
        const std::string table =
            run_command("bash -c '" + limit + "; exec " + user + PZ_DOCTOR " descriptors'").output;
        const size_t at = table.find("repair: ");
        return at == std::string::npos ? table : table.substr(at, table.find('\n', at) - at);
    };
    const std::string raise = "ulimit -S -n 1024 || ulimit -n 1024  # in a unit: LimitNOFILE=1024";
    EXPECT_EQ("repair: " + raise, advice("ulimit -S -n 100"));
    EXPECT_EQ("repair: ask root: " + raise, advice("ulimit -n 100"));
}

TEST(doctorLiveTest, EndsWithTheNumberOfRedsOfThisMachine) {
    const CommandResult doctor = run_doctor("--json");
    const auto json = pztest::read_json(doctor.output);
    ASSERT_TRUE(json) << doctor.output;
    EXPECT_EQ("", json->At("root").text);
    EXPECT_EQ(33U, json->At("checks").members.size());
    EXPECT_EQ(doctor.status, json->At("red").number);
    EXPECT_EQ(33, json->At("green").number + json->At("yellow").number + json->At("red").number +
                      json->At("skipped").number);
    for (const auto& member : json->At("checks").members) {
        const pztest::JsonValue& check = member.second;
        const std::string& status = check.At("status").text;
        const bool broken = status == "yellow" || status == "red";
        EXPECT_NE("", check.At("name").text);
        EXPECT_NE("", check.At("found").text);
        EXPECT_NE("", check.At("why").text);
        EXPECT_EQ(broken, !check.At("repair").text.empty()) << check.At("name").text;
    }
}

TEST(doctorLiveTest, ReadsTheLimitsThatItInherits) {
    const auto first_row = [](const std::string& before, const std::string& check) {
        const std::string table =
            run_command("bash -c '" + before + " " PZ_DOCTOR " " + check + "'").output;
        const size_t row = table.find("\n\n") + 2;
        return table.substr(row, table.find('\n', row) - row);
    };
    EXPECT_EQ("red     descriptors         100 open files, room for 27 workers",
              first_row("ulimit -S -n 100;", "descriptors"));
    EXPECT_EQ("red     queue-bytes         71679 bytes, room for 0 queues of one user",
              first_row("ulimit -S -q 71679;", "queue-bytes"));
    EXPECT_EQ("red     own-nice            nice value 19", first_row("nice -n 39", "own-nice"));
    EXPECT_EQ("yellow  tz-variable         TZ is set to \":/tmp/tzfile\"",
              first_row("TZ=:/tmp/tzfile", "tz-variable"));
    EXPECT_EQ("green   tz-variable         TZ is not set", first_row("unset TZ;", "tz-variable"));
}

TEST(doctorLiveTest, OpensAConversionForEveryCodePage) {
    iconv_open_call.Reset();
    Finding finding = find_here("code-pages");
    EXPECT_EQ(Status::Green, finding.status);
    EXPECT_EQ("conversions to and from UTF-8 of 49 code pages", finding.found);
    EXPECT_EQ(98, iconv_open_call.Calls());

    iconv_open_call.FailNext(EINVAL, 2, 6);  // to UTF-8: the fourth and, alone, the fifth page
    finding = find_here("code-pages");
    EXPECT_EQ(Status::Red, finding.status);
    EXPECT_EQ("no conversion for 2 of 49 code pages: CP850, CP874", finding.found);
    EXPECT_EQ("apt-get install -y --reinstall libc6 && iconvconfig", finding.repair);
}

TEST(doctorLiveTest, FindsTheSemaphoreOfADeadProcess) {
    const std::string name = "+pz_doctor_" + std::to_string(getpid());  // before other names
    const std::string file = "/dev/shm/sem." + name;
    ASSERT_EQ(0, pztest::run_in_child([&name] {
                     PZSharedSyncObject(name.c_str()).lock();  // never unlocked
                     return 0;
                 }).status);
    const Finding dead = find_here("semaphore-leftovers");
    {
        const PZSync user(name.c_str(), PZSync::en_TYPE_NAMED);
        const Finding used = find_here("semaphore-leftovers");
        EXPECT_EQ(std::string::npos, (used.found + used.repair).find(name));
    }
    sem_unlink(("/" + name).c_str());

    EXPECT_EQ(0U, dead.found.find("semaphores taken by dead processes: " + name)) << dead.found;
    if (dead.status == Status::Red) {
        EXPECT_EQ(0U, (dead.repair + " ").find("rm -f " + file + " ")) << dead.repair;
        return;
    }
    // Some process may not be looked into: here as well, by other means.
    EXPECT_EQ(Status::Yellow, dead.status);
    EXPECT_NE(std::string::npos, run_command("LC_ALL=C cat /proc/[0-9]*/maps 2>&1 >/dev/null")
                                     .output.find("Permission denied"));
}

TEST(doctorLiveTest, TakesNoFolderForTheQueuesThatDoesNotShowThem) {
    const auto answer_type = [](unsigned int type) {
        static unsigned int asked;
        asked = type;
        statfs64_call.Replace([](const char*, struct statfs64* status) {
            *status = {};
            status->f_type = static_cast<decltype(status->f_type)>(asked);
            return 0;
        });
    };
    answer_type(0x01021994);  // a folder in memory
    EXPECT_EQ(Status::Yellow, find_here("queue-folder").status);
    EXPECT_EQ("needs /dev/mqueue", find_here("queue-leftovers").found);
    answer_type(0x19800202);  // the kernel's queues
    const bool folder = Machine().Stat("/dev/mqueue").has_value();
    EXPECT_EQ(folder ? Status::Green : Status::Yellow, find_here("queue-folder").status);
    statfs64_call.Reset();
    statfs64_call.FailNext(ENOENT);
    EXPECT_EQ(Status::Yellow, find_here("queue-folder").status);
    statfs64_call.Reset();
}

TEST(doctorLiveTest, KnowsAnOpenQueueByItsName) {
    const std::string name = "/pz_doctor_" + std::to_string(getpid());
    const mqd_t queue = mq_open(name.c_str(), O_CREAT | O_RDWR, 0600, nullptr);
    ASSERT_NE(-1, queue);
    const auto target = Machine().LinkTarget("/proc/self/fd/" + std::to_string(queue));
    mq_close(queue);
    mq_unlink(name.c_str());
    EXPECT_EQ(name, target);
}

namespace {

/// How many there are beside sockets: whether there is one to the system log depends on the
/// machine.
long descriptors_but_sockets() {
    const std::map<int, std::string> all = pztest::descriptors_of();
    return std::count_if(all.begin(), all.end(), [](const auto& descriptor) {
        return descriptor.second.compare(0, 7, "socket:") != 0;
    });
}

}  // namespace

// What the check of descriptors counts with: 19 with the standard streams and the log, and 3 for
// each worker.
TEST(doctorLiveTest, FrameworkTakes15DescriptorsBesideTheLogAndAWorker3) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const long before = descriptors_but_sockets();
        if (pz_FwInitialize("doctor", 1) == 0) return 1;
        if (!pztest::wait_until([=] { return descriptors_but_sockets() == before + 15; })) return 2;
        PZWorker worker(1, 4000, 1);
        worker.Start("worker");
        const auto all = before + 15 + 3;
        if (!pztest::wait_until([=] { return descriptors_but_sockets() == all; })) return 3;
        worker.End(0);
        pz_FwFinalize();
        return 0;
    });
    EXPECT_EQ(0, child.status) << child.output;
}
