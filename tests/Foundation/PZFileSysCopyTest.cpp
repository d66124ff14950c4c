#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <Framework/Foundation/PZFileSys.h>

#include "support/Interposed.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"

namespace {

pztest::Interposed<size_t(void*, size_t, size_t, FILE*)> fread_call("fread", 0);
pztest::Interposed<size_t(const void*, size_t, size_t, FILE*)> fwrite_call("fwrite", 0);
pztest::Interposed<FILE*(const char*, const char*)> fopen_call("fopen64", nullptr);
pztest::Interposed<int(int, const char*, int)> unlinkat_call("unlinkat");

int syncs;
bool watching;  // the calls of the copy, not those of the test

}  // namespace

// The machine's disks stay out of this: every call only counts.
extern "C" void sync() noexcept {
    ++syncs;
}
extern "C" size_t fread(void* data, size_t size, size_t count, FILE* stream) {
    return watching ? fread_call(data, size, count, stream)
                    : fread_call.Real(data, size, count, stream);
}
extern "C" size_t fwrite(const void* data, size_t size, size_t count, FILE* stream) {
    return watching ? fwrite_call(data, size, count, stream)
                    : fwrite_call.Real(data, size, count, stream);
}
extern "C" FILE* fopen64(const char* path, const char* mode) {
    return fopen_call(path, mode);
}
extern "C" int unlinkat(int fd, const char* path, int flags) noexcept {
    return unlinkat_call(fd, path, flags);
}

namespace {

using Messages = std::vector<std::string>;
using Sizes = std::vector<size_t>;

const char* const kNoPath = nullptr;
const wchar_t* const kNoWidePath = nullptr;

Sizes asked;    // by each fread
Sizes written;  // by each fwrite

size_t record_read(void* data, size_t size, size_t count, FILE* stream) {
    asked.push_back(size * count);
    return fread_call.Real(data, size, count, stream);
}

size_t record_write(const void* data, size_t size, size_t count, FILE* stream) {
    if (size * count > 0) written.push_back(size * count);
    return fwrite_call.Real(data, size, count, stream);
}

/// A source whose first `good` bytes can be read, and no more. Every other file is the real one.
struct BadSource {
    std::string path;
    size_t good;
};
BadSource badSource;

ssize_t read_bad_source(void* /*cookie*/, char* data, size_t size) {
    const size_t got = std::min(size, badSource.good);
    if (got == 0) {
        errno = EIO;
        return -1;
    }
    std::memset(data, 'x', got);
    badSource.good -= got;
    return static_cast<ssize_t>(got);
}

FILE* open_bad_source(const char* path, const char* mode) {
    if (badSource.path != path) return fopen_call.Real(path, mode);
    cookie_io_functions_t calls = {};
    calls.read = &read_bad_source;
    return fopencookie(nullptr, "r", calls);
}

/// Within the scope no file of this process can be written beyond `size` bytes (EFBIG).
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t size) : signalBefore_(std::signal(SIGXFSZ, SIG_IGN)) {
        EXPECT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before_));
        const rlimit limit = {size, before_.rlim_max};
        EXPECT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &before_);
        std::signal(SIGXFSZ, signalBefore_);
    }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    void (*signalBefore_)(int);
    rlimit before_ = {};
};

class PZFileSysCopyTest : public testing::Test {
protected:
    PZFileSysCopyTest() {
        fread_call.Reset();
        fwrite_call.Reset();
        fopen_call.Reset();
        unlinkat_call.Reset();
        asked.clear();
        written.clear();
        syncs = 0;
    }
    ~PZFileSysCopyTest() override {
        watching = false;
        fopen_call.Reset();
    }

    std::string Make(const std::string& name, const std::string& content) {
        pztest::write_file(dir.File(name), content);
        return dir.File(name);
    }
    std::string MakeDir(const std::string& name) {
        EXPECT_EQ(0, ::mkdir(dir.File(name).c_str(), 0755)) << name;
        return dir.File(name);
    }
    /// "a" with the file f, the folder b with g, and below it c with h.
    std::string MakeTree() {
        MakeDir("a");
        MakeDir("a/b");
        MakeDir("a/b/c");
        Make("a/.f", "1");
        Make("a/b/g", "22");
        Make("a/b/c/h", "333");
        return dir.File("a");
    }
    bool Copy(const std::string& src, const std::string& dst, bool failIfExists = false,
              bool createDirs = false) {
        return PZFileSys::Copy(src.c_str(), dst.c_str(), failIfExists, createDirs);
    }
    static bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }
    static std::wstring Wide(const std::string& ascii) { return {ascii.begin(), ascii.end()}; }

    Messages Reports() { return pztest::error_messages(output.Take()); }

    pztest::TempDir dir;
    pztest::StdoutCapture output;
};

std::string some_bytes(size_t size) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 256);
    return bytes;
}

}  // namespace

// ---- one file ----

TEST_F(PZFileSysCopyTest, CopiesFilesOfEverySizeAroundTheChunkWithOneSync) {
    for (const size_t size : {0u, 1u, 1023u, 1024u, 1025u, 2048u, 10240u, 10241u}) {
        syncs = 0;
        const std::string src = Make("src", some_bytes(size));
        EXPECT_TRUE(Copy(src, dir.File("dst")));
        EXPECT_EQ(some_bytes(size), pztest::read_file(dir.File("dst"))) << size;
        EXPECT_EQ(1, syncs);
    }
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, ReadsAndWrites1024BytesAtATime) {
    const std::string src = Make("src", some_bytes(2500));
    fread_call.Replace(record_read);
    fwrite_call.Replace(record_write);
    watching = true;
    EXPECT_TRUE(Copy(src, dir.File("dst")));
    watching = false;
    EXPECT_EQ((Sizes{1024, 1024, 1024}), asked);
    EXPECT_EQ((Sizes{1024, 1024, 452}), written);
}

TEST_F(PZFileSysCopyTest, CopiesWidePaths) {
    const std::string src = Make("\xC3\xA9", "text");
    const std::wstring folder = Wide(dir.Path());
    EXPECT_TRUE(
        PZFileSys::Copy((folder + L"/\u00E9").c_str(), (folder + L"/\u00EA").c_str(), true, false));
    EXPECT_EQ("text", pztest::read_file(dir.File("\xC3\xAA")));
}

TEST_F(PZFileSysCopyTest, OverwritesAndTruncatesUnlessTheDestinationIsProtected) {
    const std::string src = Make("src", "new");
    const std::string dst = Make("dst", "a longer text");
    EXPECT_FALSE(Copy(src, dst, true));
    EXPECT_TRUE(pztest::has_report(output.Take(), "Copy", "PZFileSys.cpp",
                                   "[" + dst + "] is already exist."));
    EXPECT_EQ(0, syncs);
    EXPECT_TRUE(Copy(src, dst));
    EXPECT_EQ("new", pztest::read_file(dst));
}

TEST_F(PZFileSysCopyTest, RefusesNullAndEmptyPaths) {
    const std::string src = Make("src", "x");
    const std::string dst = dir.File("dst");
    for (const char* none : {kNoPath, ""}) {
        EXPECT_FALSE(PZFileSys::Copy(none, dst.c_str(), true, true));
        EXPECT_FALSE(PZFileSys::Copy(src.c_str(), none, true, true));
        EXPECT_EQ((Messages{"invalid args", "invalid args"}), Reports());
        EXPECT_FALSE(PZFileSys::Move(none, dst.c_str()));
        EXPECT_FALSE(PZFileSys::Move(src.c_str(), none));
    }
    for (const wchar_t* none : {kNoWidePath, L""}) {
        EXPECT_FALSE(PZFileSys::Copy(none, Wide(dst).c_str(), true, true));
        EXPECT_FALSE(PZFileSys::Copy(Wide(src).c_str(), none, true, true));
        EXPECT_FALSE(PZFileSys::Move(none, Wide(dst).c_str()));
        EXPECT_FALSE(PZFileSys::Move(Wide(src).c_str(), none));
    }
    EXPECT_EQ("", output.Take());
    EXPECT_FALSE(Exists(dst));
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, RefusesWidePathsThatAreNoText) {
    const std::wstring src = Wide(Make("src", "x"));
    // Half a pair of UTF-16, and what no encoding reaches.
    for (const unsigned int noCharacter : {0xD800U, 0x80000000U, 0xFFFFFFFFU}) {
        const std::wstring bad = Wide(dir.File("x")) + static_cast<wchar_t>(noCharacter);
        EXPECT_FALSE(PZFileSys::Copy(src.c_str(), bad.c_str(), false, true)) << noCharacter;
        EXPECT_FALSE(PZFileSys::Copy(bad.c_str(), src.c_str(), false, true)) << noCharacter;
        EXPECT_FALSE(PZFileSys::Move(src.c_str(), bad.c_str())) << noCharacter;
        EXPECT_FALSE(PZFileSys::Move(bad.c_str(), src.c_str())) << noCharacter;
    }
    EXPECT_EQ("x", pztest::read_file(dir.File("src")));
    EXPECT_FALSE(Exists(dir.File("x"))) << "not the part before it either";
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, ReportsASourceThatCannotBeOpened) {
    EXPECT_FALSE(Copy(dir.File("none"), dir.File("dst")));
    const std::string text = output.Take();
    EXPECT_TRUE(pztest::has_report(text, "copyFile", "PZFileSys.cpp",
                                   "failed to open [" + dir.File("none") + "]"));
    EXPECT_TRUE(pztest::has_report(text, "copyFile", "PZFileSys.cpp",
                                   "std library error [2 : No such file or directory]"));
    EXPECT_FALSE(Exists(dir.File("dst")));
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, ReportsADestinationThatCannotBeOpened) {
    const std::string src = Make("src", "x");
    EXPECT_FALSE(Copy(src, dir.File("no/dst")));
    EXPECT_EQ(Messages{"failed to open [" + dir.File("no/dst") + "]"}, Reports());
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, StopsAtAFailedReadAndLeavesTheChunksBeforeIt) {
    const std::string dst = dir.File("dst");
    badSource = {Make("src", "never read"), 2048};
    fopen_call.Replace(open_bad_source);
    EXPECT_FALSE(Copy(badSource.path, dst));
    EXPECT_EQ(Messages{"failed to read [" + badSource.path + "]"}, Reports());
    EXPECT_EQ(std::string(2048, 'x'), pztest::read_file(dst));
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, ReportsADirectoryThatIsTakenForAFile) {
    MakeDir("d");
    // A directory opens for reading, and cannot be read.
    EXPECT_FALSE(PZFileSys::copyFile(dir.File("d").c_str(), dir.File("dst").c_str(), false, false));
    EXPECT_EQ(Messages{"failed to read [" + dir.File("d") + "]"}, Reports());
    EXPECT_TRUE(Exists(dir.File("dst")));
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, StopsAtAFailedWriteAndLeavesWhatItHas) {
    const std::string src = Make("src", some_bytes(3000));
    const std::string dst = dir.File("dst");
    fwrite_call.FailNext(ENOSPC, 1, 1);
    watching = true;
    EXPECT_FALSE(Copy(src, dst));
    watching = false;
    EXPECT_EQ(Messages{"failed to write [" + dst + "]"}, Reports());
    EXPECT_EQ(some_bytes(1024), pztest::read_file(dst));
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, StopsWhereTheSystemTakesNoMoreAndLeavesWhatItHas) {
    constexpr size_t kLimit = 5000;
    const std::string src = Make("src", some_bytes(100000));
    const std::string dst = Make("dst", some_bytes(20));
    bool copied = true;
    {
        const FileSizeLimit limit(kLimit);
        copied = Copy(src, dst);
    }
    EXPECT_FALSE(copied);
    EXPECT_EQ(Messages{"failed to write [" + dst + "]"}, Reports());
    EXPECT_EQ(some_bytes(kLimit), pztest::read_file(dst));
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, CopiesFromFilesAbove4GiB) {
    // It opens: only the limit ends the copy, before it fills the disk.
    const std::string src = Make("src", "begin");
    ASSERT_EQ(0, ::truncate64(src.c_str(), 0x140000001));
    const std::string dst = dir.File("dst");
    {
        const FileSizeLimit limit(4096);
        EXPECT_FALSE(Copy(src, dst));
    }
    EXPECT_EQ(Messages{"failed to write [" + dst + "]"}, Reports());
    EXPECT_EQ("begin" + std::string(4091, '\0'), pztest::read_file(dst));
}

TEST_F(PZFileSysCopyTest, EmptiesAFileThatIsCopiedOntoItself) {
    const std::string src = Make("src", some_bytes(3000));
    EXPECT_FALSE(Copy(src, src, true, true)) << "it exists";
    EXPECT_EQ(Messages{"[" + src + "] is already exist."}, Reports());
    EXPECT_EQ(some_bytes(3000), pztest::read_file(src));
    EXPECT_EQ(0, syncs);

    EXPECT_TRUE(Copy(src, src));
    ASSERT_TRUE(Exists(src));
    EXPECT_EQ("", pztest::read_file(src));
    EXPECT_EQ(1, syncs);
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, SeesADeviceThatIsFullOnlyAtTheEnd) {
    ASSERT_TRUE(std::filesystem::is_character_file("/dev/full"));
    const std::string src = Make("src", "x");
    EXPECT_FALSE(Copy(src, "/dev/full"));
    EXPECT_EQ(Messages{"failed to write [/dev/full]"}, Reports());
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, GivesTheCopyThePermissionsOfANewFile) {
    const std::string src = Make("src", "x");
    ASSERT_EQ(0, ::chmod(src.c_str(), 0700));
    const mode_t umaskBefore = ::umask(022);
    EXPECT_TRUE(Copy(src, dir.File("dst")));
    ::umask(umaskBefore);
    struct stat status = {};
    ASSERT_EQ(0, ::stat(dir.File("dst").c_str(), &status));
    EXPECT_EQ(0644u, status.st_mode & 07777);
}

TEST_F(PZFileSysCopyTest, CreatesTheFoldersAboveTheCopyInAnyScript) {
    const std::string src = Make("src", "x");
    const std::string folder = dir.File("\xE6\x97\xA5\xE6\x9C\xAC/\xFF");
    EXPECT_TRUE(Copy(src, folder + "/dst", true, true));
    EXPECT_EQ("x", pztest::read_file(folder + "/dst"));
    EXPECT_EQ(3, syncs) << "two folders and the file";
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, CreatesNoFolderForADestinationWithoutASlash) {
    const std::string src = Make("src", "x");
    char before[4096];
    ASSERT_NE(nullptr, ::getcwd(before, sizeof before));
    ASSERT_EQ(0, ::chdir(dir.Path().c_str()));
    EXPECT_TRUE(Copy(src, "dst", true, true));
    ASSERT_EQ(0, ::chdir(before));
    EXPECT_EQ("x", pztest::read_file(dir.File("dst")));
    EXPECT_EQ(1, syncs);
}

TEST_F(PZFileSysCopyTest, CreatesTheFoldersAboveTheCopyBeforeItLooksAtTheSource) {
    EXPECT_FALSE(Copy(dir.File("none"), dir.File("x/dst"), true, true));
    EXPECT_TRUE(Exists(dir.File("x")));
    EXPECT_FALSE(Exists(dir.File("x/dst")));
    EXPECT_EQ(1, syncs) << "x";
}

TEST_F(PZFileSysCopyTest, OpensTheDestinationEvenWhenItsFoldersCannotBeCreated) {
    const std::string src = Make("src", "x");
    const std::string dst = Make("f", "in the way") + "/dst";
    EXPECT_FALSE(Copy(src, dst, false, true));
    EXPECT_EQ((Messages{"std library error [17 : File exists]", "failed to open [" + dst + "]"}),
              Reports());
    EXPECT_EQ("in the way", pztest::read_file(dir.File("f")));
}

TEST_F(PZFileSysCopyTest, ClosesItsFilesHoweverTheCopyEnds) {
    const std::string src = Make("src", some_bytes(3000));
    const std::string dst = dir.File("dst");
    const int before = pztest::open_descriptors();
    EXPECT_TRUE(Copy(src, dst));
    EXPECT_EQ(before, pztest::open_descriptors());
    EXPECT_FALSE(Copy(src, dir.File("no/dst"))) << "no destination";
    EXPECT_EQ(before, pztest::open_descriptors());
    fwrite_call.FailNext(ENOSPC);
    watching = true;
    EXPECT_FALSE(Copy(src, dst));
    watching = false;
    EXPECT_EQ(before, pztest::open_descriptors());
    badSource = {src, 1024};
    fopen_call.Replace(open_bad_source);
    EXPECT_FALSE(Copy(src, dst));
    EXPECT_EQ(before, pztest::open_descriptors());
}

TEST_F(PZFileSysCopyTest, ProtectsTheDestinationOfOneFileWithItsOwnMessage) {
    const std::string src = Make("src", "x");
    const std::string dst = Make("dst", "y");
    EXPECT_FALSE(PZFileSys::copyFile(src.c_str(), dst.c_str(), true, true));
    EXPECT_EQ(Messages{"already exist [" + dst + "]"}, Reports());
    EXPECT_EQ("y", pztest::read_file(dst));
}

// ---- directories ----

TEST_F(PZFileSysCopyTest, CopiesAWholeTree) {
    const std::string src = MakeTree();
    EXPECT_TRUE(Copy(src, dir.File("x/y"), true, true));
    EXPECT_EQ("1", pztest::read_file(dir.File("x/y/.f")));
    EXPECT_EQ("22", pztest::read_file(dir.File("x/y/b/g")));
    EXPECT_EQ("333", pztest::read_file(dir.File("x/y/b/c/h")));
    EXPECT_TRUE(Exists(src + "/b/c/h"));
    EXPECT_EQ(7, syncs) << "x, y, b, c and three files";
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, CopiesOnlyTheFirstLevelWithoutCreateDirs) {
    EXPECT_TRUE(Copy(MakeTree(), dir.File("z")));
    EXPECT_EQ(3, syncs) << "z, b and one file";
    EXPECT_EQ("", output.Take());
    EXPECT_EQ("1", pztest::read_file(dir.File("z/.f")));
    EXPECT_TRUE(Exists(dir.File("z/b")));
    EXPECT_FALSE(Exists(dir.File("z/b/g")));
    EXPECT_FALSE(Exists(dir.File("z/b/c")));
}

TEST_F(PZFileSysCopyTest, CopiesAnEmptyDirectory) {
    EXPECT_TRUE(Copy(MakeDir("a"), dir.File("z")));
    EXPECT_TRUE(Exists(dir.File("z")));
    EXPECT_TRUE(PZFileSys::copyDirectory("/no place", dir.File("y").c_str(), true, true));
    EXPECT_FALSE(Exists(dir.File("y")));
    EXPECT_EQ(1, syncs) << "z";
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, FailsWhenTheDestinationCannotBeCreated) {
    const std::string src = MakeTree();
    EXPECT_FALSE(Copy(src, dir.File("x/y"))) << "no levels";
    EXPECT_FALSE(Copy(src, Make("f", ""), false, true)) << "a file";
    EXPECT_EQ(0, syncs);
    MakeDir("z");
    Make("z/b", "in the way");
    EXPECT_FALSE(Copy(src, dir.File("z"), false, true));
    EXPECT_EQ("in the way", pztest::read_file(dir.File("z/b")));
}

TEST_F(PZFileSysCopyTest, ProtectsTheFilesOfTheFirstLevelOnly) {
    const std::string src = MakeTree();
    const std::string dst = MakeDir("z");
    MakeDir("z/b");
    Make("z/b/g", "old");
    EXPECT_TRUE(PZFileSys::copyDirectory(src.c_str(), dst.c_str(), true, true));
    EXPECT_EQ("22", pztest::read_file(dst + "/b/g")) << "below, everything is overwritten";
    Make("z/.f", "old");
    EXPECT_FALSE(PZFileSys::copyDirectory(src.c_str(), dst.c_str(), true, true));
    EXPECT_EQ("old", pztest::read_file(dst + "/.f"));
    EXPECT_EQ(Messages{"already exist [" + dst + "/.f]"}, Reports());
}

TEST_F(PZFileSysCopyTest, FailsAtALinkAsAtAFileWithoutAName) {
    const std::string src = MakeDir("a");
    ASSERT_EQ(0, ::symlink("nowhere", (src + "/link").c_str()));
    EXPECT_FALSE(Copy(src, dir.File("z")));
    EXPECT_EQ((Messages{"error d_type[10][link]", "failed to open [" + dir.File("z/") + "]"}),
              Reports());
    EXPECT_FALSE(Exists(dir.File("z/link")));
    EXPECT_EQ(1, syncs) << "z";
}

TEST_F(PZFileSysCopyTest, CopiesADirectoryIntoItselfUntilAPathIsTooLong) {
    const std::string src = MakeDir("a");
    Make("a/f", "1");
    const std::string level = "/" + std::string(200, 'd');
    EXPECT_TRUE(Copy(src, src + level, false, true));
    std::string notSearched = src;
    while (notSearched.size() < 1024) notSearched += level;
    EXPECT_TRUE(Exists(notSearched + level)) << "the copy of the last one that was found";
    EXPECT_FALSE(Exists(notSearched + level + level));
}

TEST_F(PZFileSysCopyTest, ClosesEveryDirectoryOfACopyThatFailsBelow) {
    const std::string src = MakeTree();
    ASSERT_EQ(0, ::symlink("nowhere", (src + "/b/c/link").c_str()));
    const int before = pztest::open_descriptors();
    EXPECT_FALSE(Copy(src, dir.File("z"), false, true));
    EXPECT_EQ(before, pztest::open_descriptors());
    EXPECT_TRUE(Exists(dir.File("z/b/c"))) << "what was copied stays";
}

// ---- moving ----

TEST_F(PZFileSysCopyTest, MovesAWholeTree) {
    for (const bool wide : {false, true}) {
        syncs = 0;
        const std::string src = MakeTree();
        const std::string dst = dir.File(wide ? "wide" : "narrow");
        EXPECT_TRUE(wide ? PZFileSys::Move(Wide(src).c_str(), Wide(dst).c_str())
                         : PZFileSys::Move(src.c_str(), dst.c_str()));
        EXPECT_FALSE(Exists(src));
        EXPECT_EQ("333", pztest::read_file(dst + "/b/c/h"));
        EXPECT_EQ(8, syncs) << "three folders, three files, the removal, the move";
    }
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, MovesAFileAndLeavesItInItsPlace) {
    const std::string src = Make("src", "x");
    EXPECT_TRUE(PZFileSys::Move(src.c_str(), dir.File("new/dst").c_str()));
    EXPECT_EQ("x", pztest::read_file(src));
    EXPECT_EQ("x", pztest::read_file(dir.File("new/dst")));
    EXPECT_EQ(4, syncs) << "the folder, the file, the removal, the move";
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, MovesOntoNothingThatExists) {
    const std::string src = MakeTree();
    const std::string dst = Make("dst", "y");
    EXPECT_FALSE(PZFileSys::Move(src.c_str(), dst.c_str()));
    EXPECT_TRUE(pztest::has_report(output.Take(), "Move", "PZFileSys.cpp",
                                   "[" + dst + "] is already exist."));
    EXPECT_EQ("y", pztest::read_file(dst));
    EXPECT_TRUE(Exists(src + "/b/c/h"));
    EXPECT_EQ(0, syncs);
}

TEST_F(PZFileSysCopyTest, CleansUpAfterAFailedMoveOfADirectory) {
    const std::string src = MakeDir("a");
    ASSERT_EQ(0, ::symlink("nowhere", (src + "/link").c_str()));
    const std::string dst = dir.File("z");
    EXPECT_FALSE(PZFileSys::Move(src.c_str(), dst.c_str()));
    EXPECT_FALSE(Exists(dst));
    EXPECT_EQ(0, ::access(src.c_str(), F_OK));
    EXPECT_EQ(1u, pztest::count_of(output.Take(), "dst [" + dst + "]\n"));
    EXPECT_EQ(2, syncs) << "z is created, and removed";
}

TEST_F(PZFileSysCopyTest, LeavesAPartialFileAfterAFailedMove) {
    const std::string src = Make("src", some_bytes(3000));
    const std::string dst = dir.File("dst");
    fwrite_call.FailNext(ENOSPC, 1, 1);
    watching = true;
    EXPECT_FALSE(PZFileSys::Move(src.c_str(), dst.c_str()));
    watching = false;
    EXPECT_EQ(some_bytes(1024), pztest::read_file(dst));
    EXPECT_EQ(some_bytes(3000), pztest::read_file(src));
    const std::string text = output.Take();
    EXPECT_EQ(1u, pztest::count_of(text, "[28 : No space left on device]"));
    EXPECT_EQ(1u, pztest::count_of(text, "dst [" + dst + "]\n"));
    EXPECT_EQ(1, syncs) << "the removal that removes nothing";
}

TEST_F(PZFileSysCopyTest, ReportsASourceThatCannotBeRemoved) {
    const std::string src = MakeTree();
    unlinkat_call.FailNext(EPERM);
    EXPECT_FALSE(PZFileSys::Move(src.c_str(), dir.File("z").c_str()));
    const std::string text = output.Take();
    EXPECT_EQ(1u, pztest::count_of(text, "src [" + src + "]\n"));
    // Not the reason of the first failure: the last call is that for the directory itself.
    EXPECT_EQ(1u, pztest::count_of(text, "[39 : Directory not empty]"));
    EXPECT_TRUE(Exists(dir.File("z/b/c/h")));
    EXPECT_EQ(6, syncs) << "three folders and three files; no removal, no move";
}
