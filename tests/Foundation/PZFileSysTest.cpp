#include "Framework/Foundation/PZFileSys.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Diagnostics/PZCallStack.h>

#include "support/ChildProcess.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"

PZ_INTERPOSE(getdents64, 3);
PZ_INTERPOSE(statfs64, 2);
PZ_INTERPOSE(stat64, 2);
PZ_INTERPOSE(fstatat64, 4);
PZ_INTERPOSE(unlinkat, 3);
PZ_INTERPOSE(unlink, 1);
PZ_INTERPOSE(mkdir, 2);

namespace {

int syncs;

}  // namespace

// The machine's disks stay out of this: every call only counts.
extern "C" void sync() noexcept {
    ++syncs;
}

namespace {

constexpr unsigned int kFile = 32;
constexpr unsigned int kDirectory = 4;
constexpr unsigned int kHidden = 16;
const char* const kNoPath = nullptr;
const wchar_t* const kNoWidePath = nullptr;
using Messages = std::vector<std::string>;

/// The entries that the next getdents64 answers, before the directory's own.
struct FakeEntry {
    ino64_t d_ino;
    off64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[400];
};
static_assert(offsetof(FakeEntry, d_name) == offsetof(dirent64, d_name));
std::vector<FakeEntry> fakeEntries;

ssize_t read_fake(int fd, void* entries, size_t size) {
    if (fakeEntries.empty()) return getdents64_call.Real(fd, entries, size);
    const size_t length = fakeEntries.size() * sizeof fakeEntries[0];
    EXPECT_LE(length, size);
    std::memcpy(entries, fakeEntries.data(), length);
    fakeEntries.clear();
    return static_cast<ssize_t>(length);
}

void fake_entry(const std::string& name, unsigned char type) {
    FakeEntry entry = {};
    entry.d_ino = 1;
    entry.d_reclen = sizeof entry;
    entry.d_type = type;
    std::memcpy(entry.d_name, name.c_str(), name.size() + 1);
    fakeEntries.push_back(entry);
    getdents64_call.Replace(read_fake);
}

/// The directory's own entries, each changed by `change`.
template <typename Change>
ssize_t read_changed(int fd, void* entries, size_t size, Change change) {
    const ssize_t got = getdents64_call.Real(fd, entries, size);
    for (ssize_t at = 0; at < got;) {
        auto* const entry = reinterpret_cast<dirent64*>(static_cast<char*>(entries) + at);
        change(*entry);
        at += entry->d_reclen;
    }
    return got;
}

ssize_t read_untyped(int fd, void* entries, size_t size) {
    return read_changed(fd, entries, size, [](dirent64& entry) { entry.d_type = DT_UNKNOWN; });
}

class PZFileSysTest : public testing::Test {
protected:
    PZFileSysTest() {
        getdents64_call.Reset();
        statfs64_call.Reset();
        stat64_call.Reset();
        fstatat64_call.Reset();
        unlinkat_call.Reset();
        unlink_call.Reset();
        mkdir_call.Reset();
        fakeEntries.clear();
        syncs = 0;
        std::memset(&data, 0x5A, sizeof data);
    }
    ~PZFileSysTest() override { getdents64_call.Reset(); }

    std::string Make(const std::string& name, const std::string& content = "x") {
        pztest::write_file(dir.File(name), content);
        return dir.File(name);
    }
    std::string MakeDir(const std::string& name) {
        EXPECT_EQ(0, mkdir_call.Real(dir.File(name).c_str(), 0755)) << name;
        return dir.File(name);
    }
    static bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }
    static std::wstring Wide(const std::string& ascii) { return {ascii.begin(), ascii.end()}; }

    Messages Reports() { return pztest::error_messages(output.Take()); }

    pztest::TempDir dir;
    PZFileSys files;
    PZFileSys::ST_FIND_DATA data;
    pztest::StdoutCapture output;
};

}  // namespace

static_assert(sizeof(PZFileSys::ST_FIND_DATA::name) == 256);
static_assert(!std::is_copy_constructible_v<PZFileSys>);

// ---- chkAttribute, IsExist ----

TEST_F(PZFileSysTest, NamesTheKindOfAPathAndFollowsLinks) {
    const std::string file = Make("f");
    const std::string folder = MakeDir("d");
    ASSERT_EQ(0, ::symlink("f", dir.File("toFile").c_str()));
    ASSERT_EQ(0, ::symlink("d", dir.File("toFolder").c_str()));
    EXPECT_EQ(kFile, PZFileSys::chkAttribute(file.c_str()));
    EXPECT_EQ(kDirectory, PZFileSys::chkAttribute(folder.c_str()));
    EXPECT_EQ(kFile, PZFileSys::chkAttribute(dir.File("toFile").c_str()));
    EXPECT_EQ(kDirectory, PZFileSys::chkAttribute(dir.File("toFolder").c_str()));
    EXPECT_EQ(0u, PZFileSys::chkAttribute("/dev/null"));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, AnswersNoKindForNullEmptyAndMissingPathsAndSaysNothing) {
    EXPECT_EQ(0u, PZFileSys::chkAttribute(nullptr));
    EXPECT_EQ(0u, PZFileSys::chkAttribute(""));
    EXPECT_EQ(0u, PZFileSys::chkAttribute(dir.File("none").c_str()));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, ReportsAKindThatCannotBeAsked) {
    const std::string below = Make("f") + "/x";
    EXPECT_EQ(0u, PZFileSys::chkAttribute(below.c_str()));
    EXPECT_TRUE(pztest::has_report(output.Take(), "chkAttribute", "PZFileSys.cpp",
                                   "error[20: Not a directory]"));
    stat64_call.FailNext(EACCES);
    EXPECT_EQ(0u, PZFileSys::chkAttribute(dir.Path().c_str()));
    EXPECT_EQ(Messages{"error[13: Permission denied]"}, Reports());
}

TEST_F(PZFileSysTest, CountsOnlyFilesAndDirectoriesAsExisting) {
    const std::string file = Make("f");
    EXPECT_TRUE(PZFileSys::IsExist(file.c_str()));
    EXPECT_TRUE(PZFileSys::IsExist(dir.Path().c_str()));
    EXPECT_FALSE(PZFileSys::IsExist("/dev/null"));
    EXPECT_FALSE(PZFileSys::IsExist(kNoPath));
    EXPECT_FALSE(PZFileSys::IsExist(""));
    EXPECT_TRUE(PZFileSys::IsExist(Wide(file).c_str()));
    EXPECT_FALSE(PZFileSys::IsExist(Wide(dir.File("none")).c_str()));
}

TEST_F(PZFileSysTest, TakesWidePathsAsUtf8) {
    Make("\xC3\xA9\xF0\x9F\x8E\xB5");
    EXPECT_TRUE(PZFileSys::IsExist((Wide(dir.Path()) + L"/\u00E9\U0001F3B5").c_str()));
}

TEST_F(PZFileSysTest, FailsSilentlyForNullAndEmptyWidePaths) {
    PZFileSys::DiskInfo info = {1, 2, 3};
    for (const wchar_t* path : {kNoWidePath, L""}) {
        EXPECT_FALSE(PZFileSys::IsExist(path));
        EXPECT_FALSE(PZFileSys::Delete(path, true));
        EXPECT_FALSE(PZFileSys::RemoveDirectory(path, true));
        EXPECT_FALSE(PZFileSys::GetDiskFreeSpace(path, info));
        EXPECT_FALSE(files.FindFirst(path, data));
        EXPECT_FALSE(files.FindFirstWithFilter(path, data, kFile, false));
    }
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysTest, FailsForWidePathsThatAreNoText) {
    PZFileSys::DiskInfo info = {1, 2, 3};
    mkdir_call.Reset();  // the fixture's own
    // Half a pair of UTF-16, and what no encoding reaches.
    for (const unsigned int noCharacter : {0xD800U, 0x80000000U, 0xFFFFFFFFU}) {
        const std::wstring text = Wide(dir.File("x")) + static_cast<wchar_t>(noCharacter);
        const wchar_t* const bad = text.c_str();
        EXPECT_FALSE(PZFileSys::IsExist(bad)) << noCharacter;
        EXPECT_FALSE(PZFileSys::Delete(bad, true)) << noCharacter;
        EXPECT_FALSE(PZFileSys::RemoveDirectory(bad, true)) << noCharacter;
        EXPECT_FALSE(PZFileSys::CreateDirectory(bad, true)) << noCharacter;
        EXPECT_FALSE(PZFileSys::CreateDirectorySupportingLayers(bad)) << noCharacter;
        EXPECT_FALSE(PZFileSys::GetDiskFreeSpace(bad, info)) << noCharacter;
        EXPECT_FALSE(files.FindFirst(bad, data)) << noCharacter;
        EXPECT_FALSE(files.FindFirstWithFilter(bad, data, kFile, false)) << noCharacter;
    }
    EXPECT_EQ(0, stat64_call.Calls() + mkdir_call.Calls() + statfs64_call.Calls() + syncs);
}

// Behind the last character UTF-8 may go on or not: that is the conversion's choice. What it must
// never do is to leave the character out.
TEST_F(PZFileSysTest, NeverShortensAWidePathByWhatIsNoCharacter) {
    for (const unsigned int noCharacter : {0x110000U, 0x7FFFFFFFU}) {
        const std::wstring text = Wide(dir.File("x")) + static_cast<wchar_t>(noCharacter);
        const bool isCreated = PZFileSys::CreateDirectory(text.c_str(), true);
        EXPECT_EQ(isCreated, PZFileSys::IsExist(text.c_str())) << noCharacter;
        EXPECT_EQ(isCreated, files.FindFirst(dir.Path().c_str(), data)) << noCharacter;
        if (isCreated) {
            EXPECT_EQ('x', data.name[0]);
            EXPECT_LT(1u, std::strlen(data.name));
            EXPECT_FALSE(files.FindNext(data)) << "that directory alone";
        }
        EXPECT_EQ(isCreated, PZFileSys::RemoveDirectory(text.c_str(), false)) << noCharacter;
        EXPECT_FALSE(files.FindFirst(dir.Path().c_str(), data)) << noCharacter;
    }
}

// ---- GetDiskFreeSpace ----

TEST_F(PZFileSysTest, CountsTheSpaceInBytesOf64Bits) {
    statfs64_call.Replace([](const char*, struct statfs64* status) {
        status->f_bsize = 4096;
        status->f_blocks = 0x300000000;
        status->f_bfree = 0x200000000;
        status->f_bavail = 0x100000000;
        return 0;
    });
    for (const bool wide : {false, true}) {
        PZFileSys::DiskInfo info = {};
        EXPECT_TRUE(wide ? PZFileSys::GetDiskFreeSpace(L"/x", info)
                         : PZFileSys::GetDiskFreeSpace("/x", info));
        EXPECT_EQ(0x100000000000u, info.availableBytes);
        EXPECT_EQ(0x300000000000u, info.totalBytes);
        EXPECT_EQ(0x200000000000u, info.freeBytes);
    }
}

TEST_F(PZFileSysTest, WidensTheSignedBlockSizeBeforeItMultiplies) {
    statfs64_call.Replace([](const char*, struct statfs64* status) {
        status->f_bsize = -1;
        status->f_blocks = 2;
        status->f_bfree = 1;
        status->f_bavail = 0;
        return 0;
    });
    PZFileSys::DiskInfo info = {};
    EXPECT_TRUE(PZFileSys::GetDiskFreeSpace("/x", info));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFEu, info.totalBytes);
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, info.freeBytes);
}

TEST_F(PZFileSysTest, ReportsSpaceThatCannotBeAsked) {
    PZFileSys::DiskInfo info = {};
    EXPECT_FALSE(PZFileSys::GetDiskFreeSpace(kNoPath, info));
    EXPECT_EQ("", output.Take());
    EXPECT_FALSE(PZFileSys::GetDiskFreeSpace("", info));
    EXPECT_FALSE(PZFileSys::GetDiskFreeSpace("/no such place", info));
    EXPECT_EQ((Messages{"err(2 : No such file or directory) path()",
                        "err(2 : No such file or directory) path(/no such place)"}),
              Reports());
}

// ---- Delete ----

TEST_F(PZFileSysTest, DeletesAFileAndSyncsOnRequest) {
    EXPECT_TRUE(PZFileSys::Delete(Make("a").c_str(), false));
    EXPECT_EQ(0, syncs);
    EXPECT_TRUE(PZFileSys::Delete(Wide(Make("b")).c_str(), true));
    EXPECT_EQ(1, syncs);
    EXPECT_FALSE(Exists(dir.File("a")));
    EXPECT_FALSE(Exists(dir.File("b")));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, DeletesALinkAndKeepsTheFileItLeadsTo) {
    Make("f");
    ASSERT_EQ(0, ::symlink("f", dir.File("link").c_str()));
    EXPECT_TRUE(PZFileSys::Delete(dir.File("link").c_str(), false));
    EXPECT_FALSE(Exists(dir.File("link")));
    EXPECT_TRUE(Exists(dir.File("f")));
}

TEST_F(PZFileSysTest, DeletesNothingForNullAndEmptyPathsAndSaysNothing) {
    EXPECT_FALSE(PZFileSys::Delete(kNoPath, true));
    EXPECT_FALSE(PZFileSys::Delete("", true));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, RefusesToDeleteWhatIsNoFileWithTenFrames) {
    EXPECT_FALSE(PZFileSys::Delete(dir.Path().c_str(), true));
    const std::string text = output.Take();
    EXPECT_TRUE(pztest::has_report(text, "Delete", "PZFileSys.cpp",
                                   "this is not file [" + dir.Path() + "]"));
    PZCallStack::dumpDirectly(10);
    const std::string frames = output.Take();
    // Both dumps have as many lines: ten frames, or all there are.
    EXPECT_EQ(pztest::count_of(frames, "\n") + 1, pztest::count_of(text, "\n"));
    EXPECT_TRUE(Exists(dir.Path()));
    EXPECT_EQ(0, syncs);

    const std::string none = dir.File("none");
    EXPECT_FALSE(PZFileSys::Delete(none.c_str(), true));
    EXPECT_EQ(1u, pztest::count_of(output.Take(), "this is not file [" + none + "]\n"));
}

TEST_F(PZFileSysTest, ReportsAFileThatCannotBeDeleted) {
    const std::string file = Make("f");
    unlink_call.FailNext(EROFS);
    EXPECT_FALSE(PZFileSys::Delete(file.c_str(), true));
    EXPECT_TRUE(pztest::has_report(output.Take(), "Delete", "PZFileSys.cpp",
                                   "error(30 : Read-only file system)"));
    EXPECT_EQ(0, syncs);
    EXPECT_TRUE(Exists(file));
}

// ---- CreateDirectory ----

TEST_F(PZFileSysTest, CreatesOneDirectoryWithTheModeOfTheUmask) {
    const mode_t umaskBefore = ::umask(027);
    EXPECT_TRUE(PZFileSys::CreateDirectory(dir.File("a").c_str(), false));
    ::umask(umaskBefore);
    struct stat64 status = {};
    ASSERT_EQ(0, stat64_call.Real(dir.File("a").c_str(), &status));
    EXPECT_EQ(0750u, status.st_mode & 07777);
    EXPECT_EQ(1, syncs);
    EXPECT_TRUE(PZFileSys::CreateDirectory(dir.File("a").c_str(), false));
    EXPECT_EQ(1, syncs) << "nothing was created";
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, CreatesEveryMissingLevelInOrder) {
    static std::vector<std::string> made;
    made.clear();
    mkdir_call.Replace([](const char* path, mode_t mode) {
        made.emplace_back(path);
        return mkdir_call.Real(path, mode);
    });
    const std::string a = MakeDir("a");
    EXPECT_TRUE(PZFileSys::CreateDirectory((a + "/b/c").c_str(), true));
    ASSERT_LE(3u, made.size());
    EXPECT_EQ((Messages{a, a + "/b", a + "/b/c"}), Messages(made.end() - 3, made.end()));
    EXPECT_EQ("/tmp", made.front()) << "no empty prefix before a leading '/'";
    EXPECT_EQ(2, syncs);
}

TEST_F(PZFileSysTest, TakesPathsThatEndInASlash) {
    EXPECT_TRUE(PZFileSys::CreateDirectory(dir.File("a/b/").c_str(), true));
    EXPECT_TRUE(Exists(dir.File("a/b")));
    EXPECT_EQ(2, syncs);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, CreatesLevelsUnderBothNamesAndInBothForms) {
    EXPECT_TRUE(PZFileSys::CreateDirectorySupportingLayers(dir.File("a/b").c_str()));
    EXPECT_TRUE(PZFileSys::CreateDirectorySupportingLayers(Wide(dir.File("c/d")).c_str()));
    EXPECT_TRUE(PZFileSys::CreateDirectory(Wide(dir.File("e/f")).c_str(), true));
    EXPECT_TRUE(PZFileSys::CreateDirectory(Wide(dir.File("g")).c_str(), false));
    for (const char* name : {"a/b", "c/d", "e/f", "g"}) EXPECT_TRUE(Exists(dir.File(name))) << name;
}

TEST_F(PZFileSysTest, CreatesNoLevelsUnlessAsked) {
    EXPECT_FALSE(PZFileSys::CreateDirectory(dir.File("a/b").c_str(), false));
    EXPECT_TRUE(pztest::has_report(output.Take(), "createDirectorySub", "PZFileSys.cpp",
                                   "std library error [2 : No such file or directory]"));
    EXPECT_FALSE(Exists(dir.File("a")));
}

TEST_F(PZFileSysTest, FailsWhereAFileIsInTheWay) {
    const std::string file = Make("f");
    EXPECT_FALSE(PZFileSys::CreateDirectory((file + "/c").c_str(), true));
    EXPECT_EQ(Messages{"std library error [17 : File exists]"}, Reports());
    ASSERT_EQ(0, ::symlink("nowhere", dir.File("link").c_str()));
    EXPECT_FALSE(PZFileSys::CreateDirectory(dir.File("link").c_str(), false));
    EXPECT_EQ(Messages{"std library error [17 : File exists]"}, Reports());
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysTest, ReportsEmptyDirectoryNamesWhereTheyAreWide) {
    EXPECT_FALSE(PZFileSys::CreateDirectory(kNoPath, true));
    EXPECT_FALSE(PZFileSys::CreateDirectory("", false));
    EXPECT_FALSE(PZFileSys::CreateDirectorySupportingLayers(kNoPath));
    EXPECT_FALSE(PZFileSys::CreateDirectorySupportingLayers(""));
    EXPECT_EQ("", output.Take());
    EXPECT_FALSE(PZFileSys::CreateDirectory(kNoWidePath, true));
    EXPECT_FALSE(PZFileSys::CreateDirectory(L"", false));
    EXPECT_FALSE(PZFileSys::CreateDirectorySupportingLayers(kNoWidePath));
    EXPECT_FALSE(PZFileSys::CreateDirectorySupportingLayers(L""));
    EXPECT_EQ(Messages(4, "invalid arg"), Reports());
    EXPECT_FALSE(PZFileSys::createDirectorySub(nullptr));
    EXPECT_FALSE(PZFileSys::createDirectorySub(""));
    EXPECT_EQ((Messages{"invalid arg", "invalid arg"}), Reports());
}

// ---- RemoveDirectory ----

TEST_F(PZFileSysTest, RemovesAnEmptyDirectory) {
    EXPECT_TRUE(PZFileSys::RemoveDirectory(MakeDir("a").c_str(), false));
    EXPECT_TRUE(PZFileSys::RemoveDirectory(Wide(MakeDir("b")).c_str(), true));
    EXPECT_FALSE(Exists(dir.File("a")));
    EXPECT_FALSE(Exists(dir.File("b")));
    EXPECT_EQ(2, syncs);
}

TEST_F(PZFileSysTest, KeepsADirectoryWithContentsUnlessAskedForAll) {
    const std::string a = MakeDir("a");
    Make("a/f");
    EXPECT_FALSE(PZFileSys::RemoveDirectory(a.c_str(), false));
    EXPECT_TRUE(Exists(a + "/f"));
    EXPECT_FALSE(PZFileSys::RemoveDirectory((a + "/f").c_str(), false)) << "a file";
    EXPECT_TRUE(Exists(a + "/f"));
    EXPECT_FALSE(PZFileSys::RemoveDirectory(kNoPath, true));
    EXPECT_FALSE(PZFileSys::RemoveDirectory("", true));
    EXPECT_EQ(0, syncs);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, RemovesAWholeTreeWithOneSync) {
    const std::string top = MakeDir("a");
    MakeDir("a/b");
    MakeDir("a/b/.hidden");
    Make("a/b/.hidden/f");
    Make("a/f");
    EXPECT_TRUE(PZFileSys::RemoveDirectory(top.c_str(), true));
    EXPECT_FALSE(Exists(top));
    EXPECT_EQ(1, syncs);
}

TEST_F(PZFileSysTest, AnswersTrueForWhatCannotBeOpenedAsADirectory) {
    const std::string file = Make("f");
    EXPECT_TRUE(PZFileSys::RemoveDirectory(file.c_str(), true));
    EXPECT_TRUE(PZFileSys::RemoveDirectory(dir.File("none").c_str(), true));
    EXPECT_TRUE(Exists(file));
    EXPECT_EQ(2, syncs);
    EXPECT_EQ("", output.Take());
    EXPECT_FALSE(PZFileSys::removeSubDir(file.c_str()));
    EXPECT_FALSE(PZFileSys::removeSubDir(nullptr));
    EXPECT_FALSE(PZFileSys::removeSubDir(""));
}

TEST_F(PZFileSysTest, StopsAtSomethingThatCannotBeRemoved) {
    const std::string top = MakeDir("a");
    MakeDir("a/b");
    Make("a/b/f");
    unlinkat_call.FailNext(EPERM);
    EXPECT_FALSE(PZFileSys::RemoveDirectory(top.c_str(), true));
    EXPECT_TRUE(Exists(top + "/b/f"));
    EXPECT_EQ(2, unlinkat_call.Calls()) << "the file, and the directory that is not empty";
    EXPECT_EQ(0, syncs);
    unlinkat_call.FailNext(EPERM);
    EXPECT_TRUE(PZFileSys::removeSubDir(top.c_str()));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, PassesOverEntriesWithoutAStatus) {
    const std::string top = MakeDir("a");
    Make("a/1");
    Make("a/2");
    fstatat64_call.FailNext(EIO);
    EXPECT_FALSE(PZFileSys::RemoveDirectory(top.c_str(), true));
    EXPECT_NE(Exists(top + "/1"), Exists(top + "/2"));
}

TEST_F(PZFileSysTest, RemovesLinksAndNothingTheyLeadTo) {
    const std::string outside = MakeDir("outside");
    Make("outside/f");
    const std::string top = MakeDir("a");
    ASSERT_EQ(0, ::symlink("../outside", (top + "/toFolder").c_str()));
    ASSERT_EQ(0, ::symlink("../outside/f", (top + "/toFile").c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", (top + "/toNothing").c_str()));
    EXPECT_TRUE(PZFileSys::RemoveDirectory(top.c_str(), true));
    EXPECT_FALSE(Exists(top));
    EXPECT_TRUE(Exists(outside + "/f"));
}

TEST_F(PZFileSysTest, FollowsNoLinkThatTakesThePlaceOfADirectory) {
    static std::string swapped;
    const std::string outside = MakeDir("outside");
    Make("outside/f");
    const std::string top = MakeDir("a");
    swapped = MakeDir("a/b");
    fstatat64_call.Replace([](int fd, const char* path, struct stat64* status, int flags) {
        const int result = fstatat64_call.Real(fd, path, status, flags);
        ::rmdir(swapped.c_str());
        EXPECT_EQ(0, ::symlink("../outside", swapped.c_str()));
        return result;
    });
    EXPECT_TRUE(PZFileSys::RemoveDirectory(top.c_str(), true)) << "b cannot be opened";
    EXPECT_TRUE(Exists(outside + "/f"));
    EXPECT_TRUE(Exists(top));
    EXPECT_EQ(1, syncs);
}

TEST_F(PZFileSysTest, StaysInADirectoryThatGivesWayToALinkWhileItIsEmptied) {
    static std::string swapped;
    static std::string away;
    const std::string outside = MakeDir("outside");
    Make("outside/f");
    const std::string top = MakeDir("a");
    swapped = MakeDir("a/b");
    Make("a/b/f");
    away = dir.File("away");
    unlinkat_call.Replace([](int fd, const char* path, int flags) {
        if (::rename(swapped.c_str(), away.c_str()) == 0) {
            EXPECT_EQ(0, ::symlink("../outside", swapped.c_str()));
        }
        return unlinkat_call.Real(fd, path, flags);
    });
    EXPECT_FALSE(PZFileSys::RemoveDirectory(top.c_str(), true)) << "a link is no directory";
    EXPECT_TRUE(Exists(outside + "/f"));
    EXPECT_FALSE(Exists(away + "/f")) << "the file that was found";
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysTest, EmptiesTheDirectoryThatItsPathLinksToAndKeepsTheLink) {
    const std::string folder = MakeDir("a");
    Make("a/f");
    const std::string link = dir.File("link");
    ASSERT_EQ(0, ::symlink("a", link.c_str()));
    EXPECT_FALSE(PZFileSys::RemoveDirectory(link.c_str(), true));
    EXPECT_FALSE(Exists(folder + "/f"));
    EXPECT_TRUE(Exists(folder));
    EXPECT_TRUE(Exists(link));
    EXPECT_FALSE(PZFileSys::RemoveDirectory(link.c_str(), false));
    EXPECT_TRUE(Exists(link));
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysTest, ReachesPathsOf511BytesAndPassesOverLongerOnes) {
    const std::string top = MakeDir("t");
    std::string deep = top;
    while (deep.size() < 400) {
        deep += "/" + std::string(49, 'd');
        ASSERT_EQ(0, mkdir_call.Real(deep.c_str(), 0755));
    }
    const std::string fits = deep + "/" + std::string(511 - deep.size() - 1, 'f');
    const std::string tooLong = fits + "f";
    pztest::write_file(fits, "x");
    EXPECT_TRUE(PZFileSys::RemoveDirectory(deep.c_str(), true));
    EXPECT_EQ(1, syncs);

    ASSERT_EQ(0, mkdir_call.Real(deep.c_str(), 0755));
    pztest::write_file(fits, "x");
    pztest::write_file(tooLong, "x");
    for (int i = 0; i < 20; ++i) pztest::write_file(deep + "/" + std::to_string(i), "x");
    pztest::write_file(top + "/beside", "x");
    EXPECT_TRUE(PZFileSys::removeSubDir(deep.c_str())) << "the walk came to its end";
    EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(deep),
                               std::filesystem::directory_iterator()));
    EXPECT_TRUE(Exists(tooLong));
    EXPECT_FALSE(PZFileSys::RemoveDirectory(top.c_str(), true)) << "it is not empty";
    EXPECT_TRUE(Exists(tooLong));
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(1, syncs);
}

// ---- FindFirst, FindNext ----

TEST_F(PZFileSysTest, FindsEveryEntryOfADirectoryButItselfAndItsParent) {
    Make("f");
    Make(".profile");
    MakeDir("d");
    MakeDir(".git");
    std::vector<std::pair<std::string, unsigned int>> found;
    for (bool more = files.FindFirst(dir.Path().c_str(), data); more; more = files.FindNext(data)) {
        found.emplace_back(data.name, data.attribute);
        EXPECT_EQ(0u, data.size);
    }
    std::sort(found.begin(), found.end());
    const decltype(found) expected = {{".git", kDirectory | kHidden},
                                      {".profile", kFile | kHidden},
                                      {"d", kDirectory},
                                      {"f", kFile}};
    EXPECT_EQ(expected, found);
    EXPECT_FALSE(files.FindNext(data)) << "the end stays the end";
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, FindsWhatMatchesThePatternWithItsCase) {
    Make("a.mp3");
    Make("a.MP3");
    for (const bool wide : {false, true}) {
        const std::string path = dir.File("*.mp3");
        ASSERT_TRUE(wide ? files.FindFirst(Wide(path).c_str(), data)
                         : files.FindFirst(path.c_str(), data));
        EXPECT_STREQ("a.mp3", data.name);
        EXPECT_FALSE(files.FindNext(data));
    }
}

TEST_F(PZFileSysTest, BeginsThePatternAfterTheLastSlashBeforeTheFirstStar) {
    MakeDir("d");
    Make("d/x");
    EXPECT_TRUE(files.FindFirst(dir.File("?*").c_str(), data));
    EXPECT_FALSE(files.FindFirst(dir.File("*/x").c_str(), data)) << "pattern */x";
    EXPECT_FALSE(files.FindFirst(dir.File("d/*/").c_str(), data)) << "pattern */";
    EXPECT_FALSE(files.FindFirst("*", data)) << "no directory";
    EXPECT_FALSE(files.FindFirst("/*", data)) << "an empty directory name";
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, TakesAQuestionMarkAloneLiterally) {
    Make("ab");
    EXPECT_FALSE(files.FindFirst(dir.File("a?").c_str(), data));
    MakeDir("a?");
    Make("a?/f");
    ASSERT_TRUE(files.FindFirst(dir.File("a?").c_str(), data));
    EXPECT_STREQ("f", data.name);
}

TEST_F(PZFileSysTest, FindsNothingForNullEmptyAndMissingPathsFilesAndEmptyDirectories) {
    const std::string file = Make("f");
    EXPECT_FALSE(files.FindFirst(kNoPath, data));
    EXPECT_FALSE(files.FindFirst("", data));
    EXPECT_FALSE(files.FindFirst(file.c_str(), data));
    EXPECT_FALSE(files.FindFirst(dir.File("none").c_str(), data));
    EXPECT_FALSE(files.FindFirst(dir.File("none/*").c_str(), data));
    EXPECT_FALSE(files.FindFirst(MakeDir("empty").c_str(), data));
    EXPECT_FALSE(files.FindNext(data)) << "idle";
    EXPECT_EQ("", output.Take());
    EXPECT_FALSE(files.FindFirst((file + "/x").c_str(), data));
    EXPECT_EQ(Messages{"error[20: Not a directory]"}, Reports());
    EXPECT_FALSE(files.FindFirst((file + "/x*").c_str(), data));
    EXPECT_EQ("", output.Take()) << "a pattern asks no kind";
}

TEST_F(PZFileSysTest, TakesSearchPathsOf1023Bytes) {
    Make("f");
    const std::string longest = dir.Path() + std::string(1023 - dir.Path().size(), '/');
    EXPECT_TRUE(files.FindFirst(longest.c_str(), data));
    EXPECT_FALSE(files.FindFirst((longest + "/").c_str(), data));
    const std::string pattern = longest.substr(0, 1022) + "*";
    EXPECT_TRUE(files.FindFirst(pattern.c_str(), data));
    EXPECT_FALSE(files.FindFirst((longest + "*").c_str(), data));
    EXPECT_FALSE(files.FindNext(data)) << "the search before has ended";
}

TEST_F(PZFileSysTest, EndsTheSearchForEveryNarrowPathButForNoRefusedWideOne) {
    Make("1");
    Make("2");
    for (const wchar_t* path : {kNoWidePath, L""}) {
        ASSERT_TRUE(files.FindFirst(dir.Path().c_str(), data));
        EXPECT_FALSE(files.FindFirst(path, data));
        EXPECT_TRUE(files.FindNext(data)) << "of the search before";
    }
    for (const std::string& path : {std::string(), dir.File("none"), dir.File("none/*")}) {
        ASSERT_TRUE(files.FindFirst(dir.Path().c_str(), data));
        EXPECT_FALSE(files.FindFirst(path.c_str(), data)) << path;
        EXPECT_FALSE(files.FindNext(data)) << path;
    }
    ASSERT_TRUE(files.FindFirst(dir.Path().c_str(), data));
    EXPECT_FALSE(files.FindFirst(kNoPath, data));
    EXPECT_FALSE(files.FindNext(data));
}

TEST_F(PZFileSysTest, EndsTheSearchOnRequest) {
    Make("1");
    Make("2");
    ASSERT_TRUE(files.FindFirst(dir.Path().c_str(), data));
    files.doFindClose();
    files.doFindClose();
    EXPECT_FALSE(files.FindNext(data));
    ASSERT_TRUE(files.FindFirst(dir.Path().c_str(), data));
    EXPECT_TRUE(files.FindNext(data));
}

TEST_F(PZFileSysTest, ClosesTheDirectoryOfEverySearch) {
    Make("f");
    const int free = ::dup(0);
    ::close(free);
    for (int i = 0; i < 3; ++i) {
        PZFileSys other;
        EXPECT_TRUE(other.FindFirst(dir.Path().c_str(), data));
        EXPECT_TRUE(other.FindFirst(dir.Path().c_str(), data));
    }
    PZFileSys::RemoveDirectory(dir.File("none").c_str(), true);
    const int after = ::dup(0);
    ::close(after);
    EXPECT_EQ(free, after);
}

TEST_F(PZFileSysTest, EndsTheSearchAtANameOf256Bytes) {
    Make("f");
    fake_entry(std::string(255, 'n'), DT_REG);
    fake_entry(std::string(256, 'n'), DT_REG);
    ASSERT_TRUE(files.FindFirst(dir.Path().c_str(), data));
    EXPECT_EQ(std::string(255, 'n'), data.name);
    EXPECT_FALSE(files.FindNext(data));
    EXPECT_STREQ("", data.name);
    EXPECT_EQ(0u, data.attribute);
    EXPECT_FALSE(files.FindNext(data)) << "not passed over";
    fake_entry(std::string(256, 'n'), DT_REG);
    EXPECT_FALSE(files.FindFirst(dir.File("f*").c_str(), data)) << "before the pattern is asked";
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, FindsEveryEntryOfALargeDirectoryOnce) {
    std::vector<std::string> made;
    for (int i = 0; i < 500; ++i) {  // more than one call of the system lists
        made.push_back(std::string(200, 'n') + std::to_string(i));
        Make(made.back(), "");
    }
    std::vector<std::string> found;
    for (bool more = files.FindFirst(dir.Path().c_str(), data); more; more = files.FindNext(data)) {
        found.emplace_back(data.name);
    }
    EXPECT_LT(3, getdents64_call.Calls());
    std::sort(made.begin(), made.end());
    std::sort(found.begin(), found.end());
    EXPECT_EQ(made, found);
}

TEST_F(PZFileSysTest, EndsQuietlyInADirectoryThatIsRemovedMeanwhile) {
    const std::string folder = MakeDir("d");
    Make("d/f");
    ASSERT_TRUE(files.FindFirst(folder.c_str(), data));
    ASSERT_TRUE(PZFileSys::RemoveDirectory(folder.c_str(), true));
    errno = ENOTTY;
    EXPECT_FALSE(files.FindNext(data));
    EXPECT_EQ(ENOTTY, errno);
    getdents64_call.FailNext(ENOENT);  // some file systems refuse to list what is gone
    EXPECT_FALSE(files.FindNext(data));
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysTest, PassesOverEntriesThatTheFileSystemMarksAsDeleted) {
    Make("gone");
    Make("here");
    getdents64_call.Replace([](int fd, void* entries, size_t size) {
        return read_changed(fd, entries, size, [](dirent64& entry) {
            if (std::strcmp(entry.d_name, "gone") == 0) entry.d_ino = 0;
        });
    });
    ASSERT_TRUE(files.FindFirst(dir.Path().c_str(), data));
    EXPECT_STREQ("here", data.name);
    EXPECT_FALSE(files.FindNext(data));
}

TEST_F(PZFileSysTest, AnswersLinksAndDevicesWithoutANameAndWithoutAttributes) {
    for (const unsigned char type : {DT_LNK, DT_CHR, DT_BLK, DT_FIFO, DT_SOCK}) {
        std::memset(&data, 0x5A, sizeof data);
        fake_entry("odd", type);
        ASSERT_TRUE(files.FindFirst(dir.Path().c_str(), data));
        EXPECT_EQ(0u, data.attribute);
        EXPECT_EQ(0u, data.size);
        EXPECT_STREQ("", data.name);
        EXPECT_TRUE(pztest::has_report(output.Take(), "find_next_sub", "PZFileSys.cpp",
                                       "error d_type[" + std::to_string(type) + "][odd]"));
    }
}

TEST_F(PZFileSysTest, AsksTheTypeWhereTheFileSystemTellsNone) {
    Make("f", "abc");
    MakeDir(".d");
    ASSERT_EQ(0, ::symlink("f", dir.File("l").c_str()));
    getdents64_call.Replace(read_untyped);
    PZFileSys::FuncOption option = {true};
    PZFileSys sized(option);
    std::vector<std::pair<std::string, unsigned int>> found;
    for (bool more = sized.FindFirst(dir.Path().c_str(), data); more; more = sized.FindNext(data)) {
        found.emplace_back(data.name, data.attribute);
        EXPECT_EQ(std::strcmp(data.name, "f") == 0 ? 3u : 0u, data.size);
    }
    std::sort(found.begin(), found.end());
    const decltype(found) expected = {{"", 0}, {".d", kDirectory | kHidden}, {"f", kFile}};
    EXPECT_EQ(expected, found);
    EXPECT_EQ(Messages{"error d_type[0][l]"}, Reports());

    ASSERT_TRUE(files.FindFirst(dir.File("f*").c_str(), data));
    EXPECT_EQ(0u, data.attribute) << "the pattern stays in the path that is asked";
    EXPECT_STREQ("", data.name);
    EXPECT_EQ(Messages{"error d_type[0][f]"}, Reports());
}

TEST_F(PZFileSysTest, FillsInSizesOnRequest) {
    Make("f", std::string(1234, 'x'));
    PZFileSys::FuncOption option = {true};
    PZFileSys sized(option);
    ASSERT_TRUE(sized.FindFirst(dir.Path().c_str(), data));
    EXPECT_EQ(1234u, data.size);

    ASSERT_TRUE(sized.FindFirst(dir.File("f*").c_str(), data));
    EXPECT_EQ(0u, data.size);
    EXPECT_EQ(kFile, data.attribute);
    EXPECT_STREQ("f", data.name);
    EXPECT_EQ((Messages{dir.File("f*/f"), "std library error [2 : No such file or directory]"}),
              Reports());
}

TEST_F(PZFileSysTest, AsksForSizesByTheWholePathWhereverThatLeadsMeanwhile) {
    const std::string folder = MakeDir("d");
    Make("d/1", "1");
    Make("d/2", "2");
    PZFileSys::FuncOption option = {true};
    PZFileSys sized(option);
    ASSERT_TRUE(sized.FindFirst(folder.c_str(), data));
    EXPECT_EQ(1u, data.size);
    ASSERT_EQ(0, ::rename(folder.c_str(), dir.File("moved").c_str()));
    MakeDir("d");
    ASSERT_TRUE(sized.FindNext(data));
    EXPECT_EQ(0u, data.size);
    const std::string path = folder + "/" + data.name;
    EXPECT_EQ((Messages{path, "std library error [2 : No such file or directory]"}), Reports());
}

TEST_F(PZFileSysTest, FillsInSizesAbove4GiB) {
    const std::string file = Make("sparse");
    ASSERT_EQ(0, ::truncate64(file.c_str(), 0x140000001));
    PZFileSys::FuncOption option = {true};
    PZFileSys sized(option);
    ASSERT_TRUE(sized.FindFirst(dir.Path().c_str(), data));
    EXPECT_EQ(0x140000001u, data.size);
    EXPECT_EQ(kFile, PZFileSys::chkAttribute(file.c_str()));
    EXPECT_TRUE(PZFileSys::Delete(file.c_str(), false));
}

TEST_F(PZFileSysTest, PassesOverWhatTheFilterRejects) {
    MakeDir("d");
    Make(".f");
    ASSERT_EQ(0, ::symlink("d", dir.File("l").c_str()));
    const std::string path = dir.Path();
    for (const bool wide : {false, true}) {
        const auto find = [&](unsigned int filter, bool exact) {
            return wide ? files.FindFirstWithFilter(Wide(path).c_str(), data, filter, exact)
                        : files.FindFirstWithFilter(path.c_str(), data, filter, exact);
        };
        ASSERT_TRUE(find(kFile, false));
        EXPECT_STREQ(".f", data.name);
        EXPECT_FALSE(files.FindNextWithFilter(data, kFile, false));
        EXPECT_FALSE(find(kFile, true)) << "it is hidden, too";
        ASSERT_TRUE(find(kFile | kHidden, true));
        EXPECT_STREQ(".f", data.name);
        ASSERT_TRUE(find(kDirectory, true));
        EXPECT_STREQ("d", data.name);
        ASSERT_TRUE(find(0, true)) << "the link";
        EXPECT_STREQ("", data.name);
        EXPECT_FALSE(find(0, false));
    }
    EXPECT_FALSE(files.FindFirstWithFilter("/no place", data, kFile, false));
    EXPECT_FALSE(files.FindFirstWithFilter(kNoPath, data, kFile, false));
}

// ---- rules of the search ----

TEST_F(PZFileSysTest, ComparesAttributesExactlyOrByOneCommonBit) {
    data.attribute = kFile | kHidden;
    EXPECT_TRUE(PZFileSys::IsValidData(data, kFile | kHidden, true));
    EXPECT_FALSE(PZFileSys::IsValidData(data, kFile, true));
    EXPECT_TRUE(PZFileSys::IsValidData(data, kFile | kDirectory, false));
    EXPECT_FALSE(PZFileSys::IsValidData(data, kDirectory, false));
    EXPECT_FALSE(PZFileSys::IsValidData(data, 0, false));
    data.attribute = 0;
    EXPECT_TRUE(PZFileSys::IsValidData(data, 0, true));
}

TEST_F(PZFileSysTest, NamesWithALeadingDotAndFilesWithTheEndingCHKAreHidden) {
    const auto file = [](const std::string& name) {
        return PZFileSys::is_hidden_file(name.c_str(), static_cast<unsigned int>(name.size()));
    };
    for (const char* name : {"x.CHK", ".profile", ".DS_Store", "._x", ".", "a.b.CHK", "x..CHK"}) {
        EXPECT_TRUE(file(name)) << name;
    }
    for (const char* name :
         {"x.chk", "CHK", "x.CHK2", "x.CHK.a", "xCHK", "DS_Store", "x.Chk", ""}) {
        EXPECT_FALSE(file(name)) << name;
    }
    EXPECT_TRUE(PZFileSys::is_hidden_folder(".git", 4));
    EXPECT_FALSE(PZFileSys::is_hidden_folder("x.CHK", 5));
    EXPECT_FALSE(PZFileSys::is_hidden_folder("git", 3));
    EXPECT_FALSE(PZFileSys::is_hidden_folder("", 0));
}

namespace {

/// The rules of the pattern, word for word: every skip is tried.
bool matches(const char* pattern, const char* name) {
    if (*pattern == '\0') return *name == '\0';
    if (*pattern == '*') {
        for (const char* rest = name;; ++rest) {
            if (matches(pattern + 1, rest)) return true;
            if (*rest == '\0') return false;
        }
    }
    if (*name == '\0') return false;
    return (*pattern == '?' || *pattern == *name) && matches(pattern + 1, name + 1);
}

/// Every text of at most `length` characters of `alphabet`.
std::vector<std::string> all_texts(const std::string& alphabet, size_t length) {
    std::vector<std::string> texts = {""};
    for (size_t i = 0; i < texts.size() && texts[i].size() < length; ++i) {
        for (const char c : alphabet) texts.push_back(texts[i] + c);
    }
    return texts;
}

}  // namespace

TEST_F(PZFileSysTest, StarsMatchAnyTextAndOtherCharactersMatchThemselves) {
    EXPECT_EQ(0, PZFileSys::strcmp_wild("*", ""));
    EXPECT_EQ(1, PZFileSys::strcmp_wild("?", ""));
    EXPECT_EQ(0, PZFileSys::strcmp_wild("", ""));
    EXPECT_EQ(1, PZFileSys::strcmp_wild("", "a"));
    EXPECT_EQ(0, PZFileSys::strcmp_wild("a*b*c", "axxbyyc"));
    EXPECT_EQ(1, PZFileSys::strcmp_wild("a*b*c", "axxbyycx"));
    EXPECT_EQ(1, PZFileSys::strcmp_wild("A", "a"));
    EXPECT_EQ(0, PZFileSys::strcmp_wild("a", "a"));
    EXPECT_EQ(0, PZFileSys::strcmp_wild("*?*", "*"));
    EXPECT_EQ(1, PZFileSys::strcmp_wild(nullptr, "a"));
    EXPECT_EQ(1, PZFileSys::strcmp_wild("a", nullptr));
}

TEST_F(PZFileSysTest, MatchesWheneverSomeLengthsOfItsStarsMatch) {
    const std::vector<std::string> names = all_texts("ab*", 6);
    unsigned int matching = 0;
    for (const std::string& pattern : all_texts("ab*?", 5)) {
        for (const std::string& name : names) {
            const int expected = matches(pattern.c_str(), name.c_str()) ? 0 : 1;
            if (PZFileSys::strcmp_wild(pattern.c_str(), name.c_str()) != expected) {
                FAIL() << pattern << " " << name << " is not " << expected;
            }
            matching += expected == 0 ? 1 : 0;
        }
    }
    EXPECT_LT(0u, matching);
}

TEST_F(PZFileSysTest, AnswersHostilePatternsAtOnce) {
    // Every skip tried would be more than 10^20 comparisons.
    std::string pattern;
    for (int i = 0; i < 100; ++i) pattern += "a*";
    EXPECT_EQ(1, PZFileSys::strcmp_wild((pattern + "b").c_str(), std::string(255, 'a').c_str()));
    EXPECT_EQ(0, PZFileSys::strcmp_wild(pattern.c_str(), std::string(255, 'a').c_str()));
}

// ---- limits of the machine ----

TEST_F(PZFileSysTest, LeavesTheStandardDescriptorsFreeWhileASearchIsOpen) {
    Make("f");
    const pztest::ChildResult result = pztest::run_in_child([this] {
        ::close(STDIN_FILENO);
        ::close(STDERR_FILENO);
        if (!files.FindFirst(dir.Path().c_str(), data)) return 1;
        const bool areFree =
            ::fcntl(STDIN_FILENO, F_GETFD) == -1 && ::fcntl(STDERR_FILENO, F_GETFD) == -1;
        return areFree ? 42 : 2;
    });
    EXPECT_EQ(42, result.status) << result.output;
}

TEST_F(PZFileSysTest, KeepsTheLastErrorOfItsCallerWhileASearchSucceeds) {
    Make("f");
    errno = ENOTTY;
    EXPECT_TRUE(files.FindFirst(dir.File("f*").c_str(), data));
    EXPECT_FALSE(files.FindNext(data)) << "the end";
    EXPECT_EQ(ENOTTY, errno);
    getdents64_call.FailNext(EIO);
    EXPECT_FALSE(files.FindNext(data));
    EXPECT_EQ(EIO, errno);
}

namespace {

/// The results of one operation with each of its allocations refused in turn; the last one is that
/// of the run in which nothing was refused.
template <typename Operation>
std::vector<bool> without_memory(Operation operation) {
    std::vector<bool> results;
    results.reserve(1000);
    for (int skip = 0;; ++skip) {
        const pztest::MemoryShortage shortage(skip);
        const bool result = operation();
        const bool isLast = shortage.Refused() == 0;
        results.push_back(result);
        if (isLast) return results;
    }
}

}  // namespace

TEST_F(PZFileSysTest, FailsWideOperationsWithoutMemoryAndSaysSoOnce) {
    const std::wstring path = Wide(Make("f"));
    const std::wstring above = Wide(dir.Path());
    const std::wstring created = Wide(dir.File("x/y"));
    PZFileSys::DiskInfo info = {};
    using Operation = std::function<bool()>;
    const std::vector<std::pair<const char*, Operation>> operations = {
        {"IsExist", [&] { return PZFileSys::IsExist(path.c_str()); }},
        {"GetDiskFreeSpace", [&] { return PZFileSys::GetDiskFreeSpace(path.c_str(), info); }},
        {"FindFirst", [&] { return files.FindFirst(above.c_str(), data); }},
        {"FindFirstWithFilter",
         [&] { return files.FindFirstWithFilter(above.c_str(), data, kFile, false); }},
        {"CreateDirectory", [&] { return PZFileSys::CreateDirectory(created.c_str(), true); }},
        {"RemoveDirectory", [&] { return PZFileSys::RemoveDirectory(created.c_str(), true); }},
        {"Delete", [&] { return PZFileSys::Delete(path.c_str(), false); }},
    };
    for (const auto& [name, operation] : operations) {
        output.Take();
        const std::vector<bool> results = without_memory(operation);
        ASSERT_LT(1u, results.size()) << name;
        EXPECT_TRUE(results.back()) << name;
        EXPECT_EQ(1, std::count(results.begin(), results.end(), true)) << name;
        const std::string text = output.Take();
        EXPECT_EQ(results.size() - 1, pztest::count_of(text, "failed to allocate memory\n"))
            << name;
    }
}

TEST_F(PZFileSysTest, NeedsNoMemoryForNarrowPaths) {
    const std::string file = Make("f", "1234");
    const std::string created = dir.File("x/y/z");
    const std::string top = dir.File("x");
    const std::string pattern = dir.File("*");
    PZFileSys::FuncOption option = {true};
    PZFileSys sized(option);
    int done = 0;
    int refused = 0;
    {
        const pztest::MemoryShortage shortage;
        done += PZFileSys::CreateDirectory(created.c_str(), true) ? 1 : 0;
        done += sized.FindFirst(dir.Path().c_str(), data) ? 1 : 0;
        done += sized.FindNext(data) ? 1 : 0;
        done += files.FindFirst(pattern.c_str(), data) ? 1 : 0;
        done += PZFileSys::RemoveDirectory(top.c_str(), true) ? 1 : 0;
        done += PZFileSys::Delete(file.c_str(), true) ? 1 : 0;
        refused = shortage.Refused();
    }
    EXPECT_EQ(6, done);
    EXPECT_EQ(0, refused);
}
