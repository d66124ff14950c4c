#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Easy/GuardedFile.h>
#include <Framework/private/pz_descriptor.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/Interruptions.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

PZ_INTERPOSE(fsync, 1);
PZ_INTERPOSE(rename, 2);
PZ_INTERPOSE(unlink, 1);

using namespace std::chrono_literals;
using pztest::read_file;
using pztest::StdoutCapture;
using pztest::TempDir;
using pztest::wait_until;
using pztest::write_file;

class EasyGuardedFileTest : public testing::Test {
protected:
    ~EasyGuardedFileTest() override {
        fsync_call.Reset();
        rename_call.Reset();
        unlink_call.Reset();
    }

    const TempDir dir;
    const std::string path = dir.File("settings");
    pz::GuardedFile settings{dir.Path().c_str(), "settings"};
};

TEST_F(EasyGuardedFileTest, ReadsChangesAndWritesInOneStep) {
    EXPECT_EQ(std::nullopt, settings.read());
    EXPECT_TRUE(settings.update([](std::string& bytes) {
        EXPECT_EQ("", bytes);
        bytes = std::string("a\0b", 3);
    }));
    EXPECT_EQ(std::string("a\0b", 3), settings.read());
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes += 'c'; }));
    EXPECT_EQ(std::string("a\0bc", 4), read_file(path));
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes.clear(); }));
    EXPECT_EQ("", settings.read());
    EXPECT_FALSE(std::filesystem::exists(dir.File(".settings.new")));
}

TEST_F(EasyGuardedFileTest, LeavesTheFileWhenTheFunctionSaysSoOrThrows) {
    write_file(path, "old");
    EXPECT_FALSE(settings.update([](std::string& bytes) {
        bytes = "new";
        return false;
    }));
    EXPECT_THROW(settings.update([](std::string& bytes) {
        bytes = "new";
        throw std::runtime_error("no");
    }),
                 std::runtime_error);
    EXPECT_EQ("old", settings.read());
    EXPECT_TRUE(settings.update([](std::string& bytes) {
        bytes = "new";
        return true;
    })) << "the lock was given back";
    EXPECT_EQ("new", settings.read());
}

TEST_F(EasyGuardedFileTest, WritesNothingWhenNothingChanges) {
    write_file(path, "old");
    struct stat before = {};
    struct stat after = {};
    ::stat(path.c_str(), &before);
    EXPECT_TRUE(settings.update([](std::string&) {}));
    ::stat(path.c_str(), &after);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(0, fsync_call.Calls());
}

TEST_F(EasyGuardedFileTest, KeepsTheModeOfTheFile) {
    write_file(path, "old");
    ::chmod(path.c_str(), 0640);
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes = "new"; }));
    struct stat info = {};
    ::stat(path.c_str(), &info);
    EXPECT_EQ(0640U, info.st_mode & 07777U);
}

TEST_F(EasyGuardedFileTest, KeepsTheOwnerOfTheFileAsFarAsTheProcessMayGiveItAway) {
    constexpr uid_t kNobody = 65534;
    const bool mayGive = ::geteuid() == 0;
    write_file(path, "old");
    ASSERT_TRUE(!mayGive || ::chown(path.c_str(), kNobody, kNobody) == 0);
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes = "new"; }));
    struct stat info = {};
    ASSERT_EQ(0, ::stat(path.c_str(), &info));
    EXPECT_EQ(mayGive ? kNobody : ::geteuid(), info.st_uid);
    EXPECT_EQ(mayGive ? kNobody : ::getegid(), info.st_gid);
}

TEST_F(EasyGuardedFileTest, TheBytesAreOnTheMediumBeforeTheyGetTheName) {
    static std::vector<std::string> calls;
    calls.clear();
    fsync_call.Replace([](int fd) {
        struct stat info = {};
        ::fstat(fd, &info);
        calls.emplace_back(S_ISDIR(info.st_mode) ? "folder" : "file");
        return 0;
    });
    rename_call.Replace([](const char* from, const char* to) {
        calls.emplace_back("name");
        return rename_call.Real(from, to);
    });
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes = "new"; }));
    EXPECT_EQ((std::vector<std::string>{"file", "name", "folder"}), calls);
}

TEST_F(EasyGuardedFileTest, AFailureLeavesTheFileAsItWas) {
    write_file(path, "old");
    const auto change = [](std::string& bytes) { bytes = "new"; };
    StdoutCapture capture;
    fsync_call.FailNext(EIO);
    EXPECT_FALSE(settings.update(change));
    rename_call.FailNext(EROFS);
    EXPECT_FALSE(settings.update(change));
    EXPECT_EQ("old", settings.read());
    EXPECT_FALSE(std::filesystem::exists(dir.File(".settings.new")));
    EXPECT_EQ(2U, pztest::count_of(capture.Take(), "Refuse()@GuardedFile.cpp"));
    fsync_call.FailNext(EIO, 1, 1);
    EXPECT_FALSE(settings.update(change)) << "the folder's";
    EXPECT_EQ("new", settings.read());
    fsync_call.FailNext(EINVAL, 1, 1);
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes = "x"; }));
}

TEST_F(EasyGuardedFileTest, NoUpdateOfManyThreadsAndProcessesIsLost) {
    const auto count = [this] {
        pz::GuardedFile own(dir.Path().c_str(), "settings");
        for (int i = 0; i < 50; ++i) {
            const bool isDone = own.update([](std::string& bytes) {
                bytes = std::to_string((bytes.empty() ? 0 : std::stoi(bytes)) + 1);
            });
            if (!isDone) return 1;
        }
        return 0;
    };
    fsync_call.Replace([](int) { return 0; });  // the medium is not under test
    pztest::ChildProcess child(count);
    std::thread first([&] { EXPECT_EQ(0, count()); });
    std::thread second([&] { EXPECT_EQ(0, count()); });
    first.join();
    second.join();
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ("150", settings.read());
}

TEST_F(EasyGuardedFileTest, AProcessThatIsKilledInItsStepGivesTheLockBack) {
    write_file(path, "old");
    const std::string begun = dir.File("begun");
    {
        const pztest::ChildProcess child([this, &begun] {
            static_cast<void>(settings.update([&begun](std::string& bytes) {
                bytes = "half";
                write_file(begun, "x");
                for (;;) ::pause();
            }));
            return 1;
        });
        ASSERT_TRUE(wait_until([&] { return std::filesystem::exists(begun); }));
        StdoutCapture capture;
        EXPECT_FALSE(settings.update([](std::string&) {}, 20ms));
        EXPECT_NE(std::string::npos, capture.Take().find("was not free within 20 ms"));
    }  // killed here
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes += " and new"; }, 60s));
    EXPECT_EQ("old and new", settings.read());
}

TEST_F(EasyGuardedFileTest, AnUpdateThatSignalsInterruptGoesOnWaiting) {
    std::atomic<bool> isHeld{false};
    std::atomic<bool> isInterrupted{false};
    std::thread holder([&] {
        EXPECT_TRUE(settings.update([&](std::string& bytes) {
            bytes = "first";
            isHeld = true;
            EXPECT_TRUE(wait_until([&] { return isInterrupted.load(); }));
        }));
    });
    EXPECT_TRUE(wait_until([&] { return isHeld.load(); }));
    {
        const pztest::Interruptions interruptions(1ms);
        std::thread looking([&] {
            wait_until([] { return pztest::Interruptions::Sent() >= 50; });
            isInterrupted = true;
        });
        EXPECT_TRUE(settings.update([](std::string& bytes) { bytes += " second"; }));
        looking.join();
    }
    holder.join();
    EXPECT_EQ("first second", settings.read());
}

TEST_F(EasyGuardedFileTest, AForkedChildThatLivesOnDoesNotKeepTheLock) {
    std::unique_ptr<pztest::ChildProcess> child;
    EXPECT_TRUE(settings.update([&child](std::string& bytes) {
        child = std::make_unique<pztest::ChildProcess>([] {
            for (;;) ::pause();
            return 1;
        });
        bytes = "first";
    }));
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes += " second"; }, 5s));
    EXPECT_FALSE(child->HasEnded());
    EXPECT_EQ("first second", settings.read());
}

TEST_F(EasyGuardedFileTest, AStepIsNotEndedByAForkedChildThatLeavesItToo) {
    write_file(path, "old");
    StdoutCapture capture;
    const pid_t parent = ::getpid();
    pid_t child = -1;
    bool isFree = true;
    const bool isDone = settings.update([&](std::string& bytes) {
        child = ::fork();
        if (child == 0) {
            bytes = "child's";
            return;
        }
        EXPECT_EQ(0, pztest::ChildProcess(child).Wait());
        EXPECT_EQ("old", settings.read());
        std::thread([&] { isFree = settings.update([](std::string&) {}, 1ms); }).join();
        bytes = "parent's";
    });
    if (::getpid() != parent) ::_exit(isDone ? 1 : 0);
    EXPECT_TRUE(isDone);
    EXPECT_FALSE(isFree);
    EXPECT_EQ("parent's", settings.read());
}

TEST_F(EasyGuardedFileTest, AnUpdateInsideItselfIsRefusedInsteadOfWaitingForEver) {
    StdoutCapture capture;
    pz::GuardedFile other(dir.Path().c_str(), "other");
    EXPECT_TRUE(settings.update([&](std::string& bytes) {
        EXPECT_FALSE(settings.update([](std::string&) {}));
        EXPECT_FALSE(pz::GuardedFile(dir.Path().c_str(), "settings").update([](std::string&) {}));
        EXPECT_TRUE(other.update([](std::string& others) { others = "o"; }));
        bytes = "s";
    }));
    EXPECT_EQ(2U, pztest::count_of(capture.Take(), "is being updated by this thread"));
    EXPECT_EQ("s", settings.read());
    EXPECT_EQ("o", other.read());
}

TEST_F(EasyGuardedFileTest, WaitsItsTimeOnlyOnceWhenTheLockIsReplacedAgainAndAgain) {
    const std::string lockPath = dir.File(".settings.lock");
    const auto replaceLock = [&] {
        std::filesystem::remove(lockPath);
        PZDescriptor lock(::open(lockPath.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0644));
        EXPECT_EQ(0, ::flock(lock.Get(), LOCK_EX));
        return lock;
    };
    PZDescriptor held = replaceLock();
    const StdoutCapture capture;
    std::atomic<bool> hasEnded{false};
    std::thread waiting([&] {
        EXPECT_FALSE(settings.update([](std::string&) { FAIL(); }, 300ms));
        hasEnded = true;
    });
    const auto start = std::chrono::steady_clock::now();
    while (!hasEnded && std::chrono::steady_clock::now() - start < 5s) {
        std::this_thread::sleep_for(100ms);
        held = replaceLock();  // that of before is free now
    }
    EXPECT_TRUE(hasEnded);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
    waiting.join();
}

TEST_F(EasyGuardedFileTest, RefusesAndReportsANullPointer) {
    ASSERT_TRUE(settings.update([](std::string& bytes) { bytes = "s"; }));
    StdoutCapture capture;
    void (*nothing)(std::string&) = nullptr;
    EXPECT_FALSE(settings.update(nothing));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "update [settings]: an empty function"));
    EXPECT_EQ("s", settings.read());
    EXPECT_TRUE(settings.update(+[](std::string& bytes) { bytes = "t"; }));
    EXPECT_EQ("t", settings.read());
}

TEST_F(EasyGuardedFileTest, RefusesANullOrEmptyFolderAndWhatIsNoFileName) {
    StdoutCapture capture;
    const std::string folder = dir.Path();
    EXPECT_FALSE(pz::GuardedFile(nullptr, "a"));
    EXPECT_FALSE(pz::GuardedFile("", "a"));
    for (const char* const name : {"", ".", "..", "a/b"}) {
        EXPECT_FALSE(pz::GuardedFile(folder.c_str(), name));
    }
    pz::GuardedFile none(folder.c_str(), nullptr);
    EXPECT_FALSE(none);
    EXPECT_EQ(7U, pztest::count_of(capture.Take(), "no file ["));
    EXPECT_FALSE(none.update([](std::string&) { FAIL(); }));
    EXPECT_EQ(std::nullopt, none.read());
    pz::GuardedFile nowhere(dir.File("nowhere").c_str(), "a");
    EXPECT_TRUE(nowhere);
    EXPECT_FALSE(nowhere.update([](std::string&) { FAIL(); }));
    std::filesystem::create_symlink(path, dir.File("link"));
    pz::GuardedFile link(folder.c_str(), "link");
    EXPECT_FALSE(link.update([](std::string&) { FAIL(); })) << "links are not followed";
}

TEST_F(EasyGuardedFileTest, ALackOfMemoryLeavesTheFileAsItWas) {
    write_file(path, std::string(10000, 'o'));
    fsync_call.Replace([](int) { return 0; });
    const StdoutCapture capture;
    bool isDone = false;
    for (int skip = 0; !isDone && skip < 1000; ++skip) {
        const pztest::MemoryShortage shortage(skip);
        isDone = settings.update([](std::string& bytes) { bytes[0] = 'n'; });
        if (!isDone) {
            EXPECT_NE(0, shortage.Refused());
        }
    }
    EXPECT_TRUE(isDone);
    EXPECT_EQ("n" + std::string(9999, 'o'), settings.read());
}

TEST_F(EasyGuardedFileTest, IsWholeWheneverItsProcessIsKilled) {
    // Texts of one letter, whose number follows from the letter.
    const auto text_of = [](char letter) {
        return std::string(1000U * static_cast<unsigned int>(letter - 'a' + 1), letter);
    };
    ASSERT_TRUE(settings.update([&](std::string& bytes) { bytes = text_of('a'); }));
    char last = 'a';
    int changed = 0;
    for (int round = 0; round < 30; ++round) {
        {
            const pztest::ChildProcess child([&] {
                for (char letter = 'b';;
                     letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1)) {
                    if (!settings.update([&](std::string& bytes) { bytes = text_of(letter); }))
                        return 1;
                }
            });
            ASSERT_TRUE(wait_until([&] { return settings.read() != text_of(last); }));
            std::this_thread::sleep_for(std::chrono::microseconds(97 * round));
        }  // killed here
        const std::string bytes = settings.read().value_or("");
        ASSERT_FALSE(bytes.empty());
        ASSERT_EQ(text_of(bytes[0]), bytes);
        if (bytes[0] != last) ++changed;
        last = bytes[0];
    }
    EXPECT_LT(0, changed);
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes = "whole"; }, 60s));
    EXPECT_EQ("whole", settings.read());
    EXPECT_FALSE(std::filesystem::exists(dir.File(".settings.new")));
}

TEST_F(EasyGuardedFileTest, RefusesWhatIsNoPlainFileWithoutWaitingForAPeer) {
    const StdoutCapture capture;
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0666));
    EXPECT_FALSE(settings.update([](std::string&) { FAIL(); }));
    EXPECT_EQ(std::nullopt, settings.read());
    EXPECT_TRUE(std::filesystem::is_fifo(path));
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_FALSE(settings.update([](std::string&) { FAIL(); }));
    EXPECT_EQ(std::nullopt, settings.read());
    std::filesystem::remove(path);
    std::filesystem::remove(dir.File(".settings.lock"));
    ASSERT_EQ(0, ::mkfifo(dir.File(".settings.lock").c_str(), 0666));
    EXPECT_FALSE(settings.update([](std::string&) { FAIL(); }));
}

TEST_F(EasyGuardedFileTest, DoesNotWriteIntoWhatLiesInThePlaceOfItsNewFile) {
    const std::string victim = dir.File("victim");
    const std::string fresh = dir.File(".settings.new");
    write_file(victim, "precious");
    std::filesystem::create_hard_link(victim, fresh);
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes = "1"; }));
    std::filesystem::create_symlink(victim, fresh);
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes += "2"; }));
    ASSERT_EQ(0, ::mkfifo(fresh.c_str(), 0666));
    EXPECT_TRUE(settings.update([](std::string& bytes) { bytes += "3"; }));
    EXPECT_EQ("123", settings.read());
    EXPECT_EQ("precious", read_file(victim));
    EXPECT_FALSE(std::filesystem::exists(fresh));
}

TEST_F(EasyGuardedFileTest, IsRefusedWhereALinkThatItMayNotRemoveIsInThePlaceOfItsNewFile) {
    const std::string victim = dir.File("victim");
    write_file(victim, "precious");
    std::filesystem::create_symlink(victim, dir.File(".settings.new"));
    StdoutCapture capture;
    unlink_call.FailNext(EPERM, 2);  // a sticky folder, and somebody else's link
    EXPECT_FALSE(settings.update([](std::string& bytes) { bytes = "1"; }));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "open [" + dir.File(".settings.new") + "]"));
    EXPECT_EQ("precious", read_file(victim));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(EasyGuardedFileTest, AMediumWithoutRoomLeavesTheFileAsItWas) {
    write_file(path, "old");
    pztest::ChildProcess child([this] {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {1000, 1000};  // as a full medium: the first bytes are taken
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const StdoutCapture capture;
        const bool isDone =
            settings.update([](std::string& bytes) { bytes = std::string(5000, 'n'); });
        return isDone || settings.read() != "old" ? 1 : 0;
    });
    EXPECT_EQ(0, child.Wait());
    EXPECT_EQ("old", settings.read());
    EXPECT_FALSE(std::filesystem::exists(dir.File(".settings.new")));
}

TEST_F(EasyGuardedFileTest, AFolderThatMayOnlyBeReadIsRefused) {
    write_file(path, "old");
    ASSERT_EQ(0, ::chmod(dir.Path().c_str(), 0555));
    pztest::ChildProcess child([this] {
        constexpr uid_t kNobody = 65534;
        if (::geteuid() == 0 && ::setuid(kNobody) != 0) return 2;
        const StdoutCapture capture;
        const bool isDone = settings.update([](std::string& bytes) { bytes = "new"; });
        return isDone || settings.read() != "old" ? 1 : 0;
    });
    EXPECT_EQ(0, child.Wait());
    ::chmod(dir.Path().c_str(), 0755);
    EXPECT_EQ("old", settings.read());
}

TEST_F(EasyGuardedFileTest, AFolderThatIsExchangedDuringAStepIsLeftAlone) {
    const std::string folder = dir.File("folder");
    const std::string other = dir.File("other");
    std::filesystem::create_directory(folder);
    std::filesystem::create_directory(other);
    write_file(folder + "/a", "old");
    write_file(other + "/a", "others");
    pz::GuardedFile file(folder.c_str(), "a");
    StdoutCapture capture;
    EXPECT_FALSE(file.update([&](std::string& bytes) {
        bytes = "new";
        std::filesystem::rename(folder, dir.File("away"));
        std::filesystem::create_symlink(other, folder);
    }));
    EXPECT_EQ("others", read_file(other + "/a"));
    EXPECT_EQ("old", read_file(dir.File("away/a")));
    EXPECT_EQ(1U, pztest::count_of(capture.Take(), "Refuse()@GuardedFile.cpp"));
    EXPECT_TRUE(file.update([](std::string& bytes) { bytes += " and new"; }));
    EXPECT_EQ("others and new", read_file(other + "/a"));
}

TEST_F(EasyGuardedFileTest, ANameThatIsTooLongForTheFileSystemIsRefused) {
    const StdoutCapture capture;
    const std::string longest(255, 'n');  // with ".lock" it is longer than a name may be
    pz::GuardedFile file(dir.Path().c_str(), longest.c_str());
    EXPECT_FALSE(file.update([](std::string&) { FAIL(); }));
    EXPECT_EQ(std::nullopt, file.read());
}

TEST_F(EasyGuardedFileTest, UpdatesAFreeFileWithNegativeAndEndlessTimes) {
    const auto change = [](std::string& bytes) { bytes += 'x'; };
    EXPECT_TRUE(settings.update(change, -1ms)) << "it is free";
    EXPECT_TRUE(settings.update(change, std::chrono::milliseconds::max()));
    EXPECT_TRUE(settings.update(change, std::chrono::milliseconds::min()));
    EXPECT_EQ("xxx", settings.read());
}

TEST_F(EasyGuardedFileTest, ReadsWhileAnUpdateRunsWhatWasThereBefore) {
    write_file(path, "old");
    EXPECT_TRUE(settings.update([this](std::string& bytes) {
        bytes = "new";
        std::thread reader([this] { EXPECT_EQ("old", settings.read()); });
        reader.join();
        EXPECT_TRUE(std::filesystem::exists(dir.File(".settings.lock")));
    }));
    EXPECT_EQ("new", settings.read());
    EXPECT_TRUE(std::filesystem::exists(dir.File(".settings.lock"))) << "it stays";
}
