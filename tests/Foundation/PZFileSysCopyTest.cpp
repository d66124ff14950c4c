#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZFileSys.h>

#include "support/ChildProcess.h"
#include "support/FewDescriptors.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/Uncopyable.h"
#include "support/WaitUntil.h"
#include "support/WaitsForWriter.h"

PZ_INTERPOSE(fopen64, 2);
PZ_INTERPOSE(unlinkat, 3);
PZ_INTERPOSE(mkdir, 2);
PZ_INTERPOSE(getdents64, 3);
PZ_INTERPOSE(copy_file_range, 6);

namespace {

pztest::Interposed<size_t(void*, size_t, size_t, FILE*)> fread_call("fread", 0);
pztest::Interposed<size_t(const void*, size_t, size_t, FILE*)> fwrite_call("fwrite", 0);

int syncs;
std::atomic<bool> watching{false};  // the calls of the copy, not those of the test

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
    if (badSource.path != path) return fopen64_call.Real(path, mode);
    cookie_io_functions_t calls = {};
    calls.read = &read_bad_source;
    return fopencookie(nullptr, "r", calls);
}

/// Within the scope no file of this process can be written beyond `size` bytes (EFBIG).
class FileSizeLimit : private pztest::Uncopyable {
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

private:
    void (*signalBefore_)(int);
    rlimit before_ = {};
};

class PZFileSysCopyTest : public testing::Test {
protected:
    PZFileSysCopyTest() {
        fread_call.Reset();
        fwrite_call.Reset();
        fopen64_call.Reset();
        unlinkat_call.Reset();
        mkdir_call.Reset();
        getdents64_call.Reset();
        copy_file_range_call.Reset();
        asked.clear();
        written.clear();
        syncs = 0;
    }
    ~PZFileSysCopyTest() override {
        watching = false;
        fopen64_call.Reset();
        mkdir_call.Reset();
        getdents64_call.Reset();
        copy_file_range_call.Reset();
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
    /// The kernel copies nothing itself: as between most kinds of file systems.
    static void LetTheKernelRefuse(int error = EXDEV) {
        copy_file_range_call.FailNext(error, 1000000);
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

TEST_F(PZFileSysCopyTest, ReadsAndWrites1024BytesAtATimeWhatTheKernelDoesNotCopy) {
    const std::string src = Make("src", some_bytes(2500));
    LetTheKernelRefuse();
    fread_call.Replace(record_read);
    fwrite_call.Replace(record_write);
    watching = true;
    EXPECT_TRUE(Copy(src, dir.File("dst")));
    watching = false;
    EXPECT_EQ((Sizes{1024, 1024, 1024}), asked);
    EXPECT_EQ((Sizes{1024, 1024, 452}), written);
}

namespace {

/// The kernel, which copies at most 3000 bytes with the first call and answers 0 or fails then.
int laterError;
int kernelCalls;
ssize_t copy_a_part(int in, off64_t* inOffset, int out, off64_t* outOffset, size_t length,
                    unsigned int flags) {
    if (kernelCalls++ == 0) {
        return copy_file_range_call.Real(in, inOffset, out, outOffset,
                                         std::min(length, size_t{3000}), flags);
    }
    errno = laterError;
    return laterError == 0 ? 0 : -1;
}

}  // namespace

TEST_F(PZFileSysCopyTest, TheKernelCopiesAFileWithoutTheBuffer) {
    const std::string src = Make("src", some_bytes(300000));
    fwrite_call.Replace(record_write);
    watching = true;
    EXPECT_TRUE(Copy(src, dir.File("dst")));
    watching = false;
    EXPECT_EQ(some_bytes(300000), pztest::read_file(dir.File("dst")));
    EXPECT_EQ(Sizes(), written) << "nothing went through the buffer";
    EXPECT_EQ(1, syncs);
}

TEST_F(PZFileSysCopyTest, CopiesOnFromWhereTheKernelStopped) {
    const std::string src = Make("src", some_bytes(10000));
    for (const int error :
         {0, EXDEV, EINVAL, ENOSYS, EOPNOTSUPP, EPERM, EBADF, EIO, ENOMEM, EINTR}) {
        kernelCalls = 0;
        laterError = error;
        copy_file_range_call.Replace(copy_a_part);
        written.clear();
        fwrite_call.Replace(record_write);
        watching = true;
        EXPECT_TRUE(Copy(src, dir.File("dst"))) << error;
        watching = false;
        EXPECT_EQ(some_bytes(10000), pztest::read_file(dir.File("dst"))) << error;
        EXPECT_EQ((Sizes{1024, 1024, 1024, 1024, 1024, 1024, 856}), written) << error;
    }
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, CopiesWhatTheKernelDoesNotTellTheSizeOf) {
    struct stat status = {};
    ASSERT_EQ(0, ::stat("/proc/self/limits", &status));
    ASSERT_EQ(0, status.st_size);
    EXPECT_TRUE(Copy("/proc/self/limits", dir.File("dst")));
    EXPECT_EQ(pztest::read_file("/proc/self/limits"), pztest::read_file(dir.File("dst")));
    EXPECT_LT(100u, pztest::read_file(dir.File("dst")).size());
}

TEST_F(PZFileSysCopyTest, CopiesFromAndToPipes) {
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const std::string src = Make("src", some_bytes(200000));
    std::string arrived;
    std::thread reader([&] { arrived = pztest::read_file(fifo); });
    EXPECT_TRUE(Copy(src, fifo));
    reader.join();
    EXPECT_EQ(some_bytes(200000), arrived);

    std::thread writer([&] { pztest::write_file(fifo, some_bytes(200000)); });
    EXPECT_TRUE(Copy(fifo, dir.File("dst")));
    writer.join();
    EXPECT_EQ(some_bytes(200000), pztest::read_file(dir.File("dst")));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, CopyAndMoveWaitForTheWriterOfAFifo) {
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    bool isDone = false;
    EXPECT_TRUE(
        pztest::waits_for_writer(fifo, "copied", [&] { isDone = Copy(fifo, dir.File("copy")); }));
    EXPECT_TRUE(isDone);
    EXPECT_EQ("copied", pztest::read_file(dir.File("copy")));
    EXPECT_TRUE(pztest::waits_for_writer(
        fifo, "moved", [&] { isDone = PZFileSys::Move(fifo.c_str(), dir.File("moved").c_str()); }));
    EXPECT_TRUE(isDone);
    EXPECT_EQ("moved", pztest::read_file(dir.File("moved")));
}

TEST_F(PZFileSysCopyTest, CopiesHolesAsZeroes) {
    const std::string src = Make("src", "begin");
    ASSERT_EQ(0, ::truncate64(src.c_str(), 3000000));
    const int file = ::open(src.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    ASSERT_EQ(3, ::write(file, "end", 3));
    ::close(file);
    EXPECT_TRUE(Copy(src, dir.File("dst")));
    EXPECT_EQ("begin" + std::string(2999995, '\0') + "end", pztest::read_file(dir.File("dst")));
}

TEST_F(PZFileSysCopyTest, CopiesWhatAGrowingFileHasGotMeanwhile) {
    static std::string growing;
    growing = Make("src", some_bytes(5000));
    copy_file_range_call.Replace([](int in, off64_t* inOffset, int out, off64_t* outOffset,
                                    size_t length, unsigned int flags) {
        const ssize_t copied =
            copy_file_range_call.Real(in, inOffset, out, outOffset, length, flags);
        if (copied == 0) {  // the kernel has met the end
            FILE* const more = fopen64_call.Real(growing.c_str(), "ab");
            std::fputs("more", more);
            std::fclose(more);
        }
        return copied;
    });
    EXPECT_TRUE(Copy(growing, dir.File("dst")));
    EXPECT_EQ(some_bytes(5000) + "more", pztest::read_file(dir.File("dst")));
}

TEST_F(PZFileSysCopyTest, CopiesFilesOfWidePaths) {
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
    fopen64_call.Replace(open_bad_source);
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
    LetTheKernelRefuse();
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
    LetTheKernelRefuse();
    fwrite_call.FailNext(ENOSPC);
    watching = true;
    EXPECT_FALSE(Copy(src, dst));
    watching = false;
    EXPECT_EQ(before, pztest::open_descriptors());
    badSource = {src, 1024};
    fopen64_call.Replace(open_bad_source);
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

TEST_F(PZFileSysCopyTest, RefusesToMoveOntoAPathThatExists) {
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
    LetTheKernelRefuse();
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

// ---- races ----

namespace {

std::string contested;  // where somebody else is faster, while this source is opened
std::string opened;

void make_winner() {
    mkdir_call.Real(contested.c_str(), 0755);
    pztest::write_file(contested + "/winner", "w");
}

int lose_to_a_directory(const char* path, mode_t mode) {
    if (path == contested) make_winner();
    return mkdir_call.Real(path, mode);
}

/// A program that opens the source finds that the destination has appeared since it looked.
FILE* lose_to_a_file(const char* path, const char* mode) {
    FILE* const stream = fopen64_call.Real(path, mode);
    if (path != opened) return stream;
    FILE* const winner = fopen64_call.Real(contested.c_str(), "wb");
    std::fputs("winner", winner);
    std::fclose(winner);
    return stream;
}

FILE* lose_a_file_to_a_directory(const char* path, const char* mode) {
    if (path == opened) make_winner();
    return fopen64_call.Real(path, mode);
}

/// Moves a file while `lose` is faster.
void expect_lost_move(const std::string& src, const std::string& dst,
                      FILE* (*lose)(const char*, const char*)) {
    opened = src;
    contested = dst;
    fopen64_call.Replace(lose);
    EXPECT_FALSE(PZFileSys::Move(src.c_str(), dst.c_str()));
}

}  // namespace

TEST_F(PZFileSysCopyTest, LeavesADestinationAloneThatHasAppearedMeanwhile) {
    const std::string src = MakeTree();
    contested = dir.File("z");
    mkdir_call.Replace(lose_to_a_directory);
    EXPECT_FALSE(PZFileSys::Move(src.c_str(), contested.c_str()));
    EXPECT_EQ("w", pztest::read_file(contested + "/winner"));
    EXPECT_FALSE(Exists(contested + "/b")) << "nothing was mixed into it";
    EXPECT_EQ("333", pztest::read_file(src + "/b/c/h"));
    EXPECT_TRUE(pztest::has_report(output.Take(), "Copy", "PZFileSys.cpp",
                                   "[" + contested + "] is already exist."));
}

TEST_F(PZFileSysCopyTest, LeavesAFileAloneThatHasAppearedMeanwhile) {
    expect_lost_move(Make("src", "x"), dir.File("dst"), lose_to_a_file);
    EXPECT_EQ("winner", pztest::read_file(contested));
    EXPECT_TRUE(pztest::has_report(output.Take(), "copyFile", "PZFileSys.cpp",
                                   "already exist [" + contested + "]"));
}

TEST_F(PZFileSysCopyTest, LeavesADirectoryAloneThatHasAppearedInThePlaceOfAFile) {
    expect_lost_move(Make("src", "x"), dir.File("dst"), lose_a_file_to_a_directory);
    EXPECT_EQ("w", pztest::read_file(contested + "/winner"));
}

TEST_F(PZFileSysCopyTest, MovesATreeToOneOfTwoThatWantTheSamePlace) {
    const std::string dst = dir.File("z");
    for (int round = 0; round < 50; ++round) {
        const std::string a = MakeDir("a");
        const std::string b = MakeDir("b");
        Make("a/fromA", "1");
        Make("b/fromB", "2");
        std::atomic<int> ready{0};
        bool moved[2] = {};
        const auto run = [&](int who) {
            ++ready;
            while (ready != 2) {
            }
            moved[who] = PZFileSys::Move((who == 0 ? a : b).c_str(), dst.c_str());
        };
        std::thread other(run, 1);
        run(0);
        other.join();
        ASSERT_EQ(1, moved[0] + moved[1]) << round;
        EXPECT_EQ(moved[0] ? "1" : "", pztest::read_file(dst + "/fromA"));
        EXPECT_EQ(moved[1] ? "2" : "", pztest::read_file(dst + "/fromB"));
        EXPECT_EQ(moved[0], Exists(b + "/fromB")) << "the other one keeps its tree";
        EXPECT_EQ(moved[1], Exists(a + "/fromA"));
        std::filesystem::remove_all(dst);
        std::filesystem::remove_all(a);
        std::filesystem::remove_all(b);
        output.Take();
    }
}

TEST_F(PZFileSysCopyTest, CopiesToNewDirectoriesHoweverTheirPathEnds) {
    const std::string src = MakeTree();
    for (const char* end : {"x", "x/", "x//", "x/.", "y/x", "y/x/", "y/./x/./", "y/.."}) {
        EXPECT_TRUE(Copy(src, dir.File("new/") + end, true, true)) << end;
        EXPECT_EQ("22", pztest::read_file(dir.File("new/") + end + "/b/g")) << end;
        std::filesystem::remove_all(dir.File("new"));
    }
    EXPECT_EQ("", output.Take());
}

TEST_F(PZFileSysCopyTest, WritesIntoALinkThatLeadsNowhereYet) {
    const std::string src = Make("src", "x");
    ASSERT_EQ(0, ::symlink("target", dir.File("link").c_str()));
    EXPECT_TRUE(Copy(src, dir.File("link"), true)) << "what it leads to does not exist";
    EXPECT_EQ("x", pztest::read_file(dir.File("target")));
}

// ---- too few descriptors, failing listings, no memory ----

TEST_F(PZFileSysCopyTest, FailsInsteadOfLosingFilesWhenDescriptorsRunOut) {
    const std::string src = MakeTree();
    for (unsigned int more = 0; more < 3; ++more) {
        const std::string first = dir.File("z");
        const std::string second = dir.File("y");
        bool copied = true;
        bool moved = true;
        {
            const pztest::FewDescriptors limit(more);
            copied = PZFileSys::Copy(src.c_str(), first.c_str(), false, true);
            moved = PZFileSys::Move(src.c_str(), second.c_str());
        }
        EXPECT_FALSE(copied) << more;
        EXPECT_FALSE(moved) << more;
        EXPECT_LT(0u, pztest::count_of(output.Take(), "[24 : Too many open files]")) << more;
        EXPECT_EQ("333", pztest::read_file(src + "/b/c/h")) << more;
        EXPECT_EQ("1", pztest::read_file(src + "/.f")) << more;
        std::filesystem::remove_all(first);
        std::filesystem::remove_all(second);
    }
}

TEST_F(PZFileSysCopyTest, FailsAMoveWhoseSourceCannotBeOpenedForRemovalForWantOfDescriptors) {
    static rlimit before;
    const std::string src = MakeDir("a");
    Make("a/f", "1");
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    // The descriptors run out once everything is copied: with the end of the listing.
    getdents64_call.Replace([](int fd, void* entries, size_t size) {
        const ssize_t got = getdents64_call.Real(fd, entries, size);
        if (got == 0) {
            const rlimit limit = {3, before.rlim_max};
            ::setrlimit(RLIMIT_NOFILE, &limit);
        }
        return got;
    });
    const bool moved = PZFileSys::Move(src.c_str(), dir.File("z").c_str());
    ::setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_FALSE(moved);
    EXPECT_EQ("1", pztest::read_file(dir.File("z/f")));
    EXPECT_EQ("1", pztest::read_file(src + "/f"));
    const std::string text = output.Take();
    EXPECT_EQ(1u, pztest::count_of(text, "[24 : Too many open files]"));
    EXPECT_EQ(1u, pztest::count_of(text, "src [" + src + "]\n"));
}

TEST_F(PZFileSysCopyTest, FailsWhenAListingFails) {
    const std::string src = MakeTree();
    // The entries of the folder, those of the ones in it, and the end of each.
    for (int skip = 0; skip < 6; ++skip) {
        getdents64_call.FailNext(EIO, 1, skip);
        EXPECT_FALSE(PZFileSys::Move(src.c_str(), dir.File("z").c_str())) << skip;
        const std::string text = output.Take();
        EXPECT_TRUE(pztest::has_report(text, "copyDirectory", "PZFileSys.cpp",
                                       "std library error [5 : Input/output error]"));
        EXPECT_EQ(1u, pztest::count_of(text, "dst [")) << skip;
        EXPECT_EQ("333", pztest::read_file(src + "/b/c/h")) << skip;
        EXPECT_FALSE(Exists(dir.File("z")));
    }
}

TEST_F(PZFileSysCopyTest, CopiesDirectoriesWithStarsInTheirNames) {
    const std::string src = MakeDir("a");
    MakeDir("a/b*b");
    Make("a/b*b/f", "1");
    EXPECT_TRUE(PZFileSys::Move(src.c_str(), dir.File("z").c_str()));
    EXPECT_EQ("1", pztest::read_file(dir.File("z/b*b/f")));
}

TEST_F(PZFileSysCopyTest, CountsADirectoryWithoutRightsAsEmpty) {
    if (::geteuid() == 0) {
        ASSERT_EQ(0, ::chmod(dir.Path().c_str(), 0755));
    }
    const std::string src = MakeDir("a");
    MakeDir("a/closed");
    ASSERT_EQ(0, ::chmod(dir.File("a/closed").c_str(), 0));
    const std::string dst = MakeDir("z");
    ASSERT_EQ(0, ::chmod(dst.c_str(), 0777));
    const pztest::ChildResult result = pztest::run_in_child([&] {
        if (::geteuid() == 0 && ::setuid(65534) != 0) return 1;
        return PZFileSys::copyDirectory(src.c_str(), dst.c_str(), false, true) ? 42 : 2;
    });
    EXPECT_EQ(42, result.status) << result.output;
    EXPECT_TRUE(Exists(dst + "/closed"));
    ::chmod(dir.File("a/closed").c_str(), 0755);
}

TEST_F(PZFileSysCopyTest, FailsWithoutMemoryAndLosesNothing) {
    const std::string src = MakeTree();
    const std::string dst = dir.File("z");
    const std::wstring wideSrc = Wide(src);
    const std::wstring wideDst = Wide(dst);
    for (const bool wide : {false, true}) {
        int refusals = 0;
        for (int skip = 0;; ++skip) {
            bool moved = false;
            int refused = 0;
            {
                const pztest::MemoryShortage shortage(skip);
                moved = wide ? PZFileSys::Move(wideSrc.c_str(), wideDst.c_str())
                             : PZFileSys::Move(src.c_str(), dst.c_str());
                refused = shortage.Refused();
            }
            const std::string text = output.Take();
            EXPECT_EQ(refused == 0, moved) << skip;
            if (refused == 0) break;
            ++refusals;
            EXPECT_EQ(1u, pztest::count_of(text, "failed to allocate memory\n")) << skip;
            EXPECT_EQ("333", pztest::read_file(src + "/b/c/h")) << skip;
            EXPECT_FALSE(Exists(dst)) << skip;
        }
        EXPECT_LT(0, refusals);
        EXPECT_EQ("333", pztest::read_file(dst + "/b/c/h"));
        ASSERT_EQ(0, ::rename(dst.c_str(), src.c_str()));
    }
}

// ---- threads that are cancelled ----

TEST_F(PZFileSysCopyTest, ClosesItsFilesWhenItsThreadIsCancelled) {
    const std::string fifo = dir.File("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const int before = pztest::open_descriptors();
    const int writer = ::open(fifo.c_str(), O_RDWR | O_CLOEXEC);  // who never writes
    watching = true;
    pthread_t thread = {};
    std::string paths[2] = {fifo, dir.File("dst")};
    ASSERT_EQ(0, pthread_create(
                     &thread, nullptr,
                     [](void* argument) -> void* {
                         const auto* const names = static_cast<std::string*>(argument);
                         PZFileSys::Copy(names[0].c_str(), names[1].c_str(), false, false);
                         return nullptr;
                     },
                     paths));
    EXPECT_TRUE(pztest::wait_until([] { return fread_call.Calls() > 0; }));
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    watching = false;
    EXPECT_EQ(PTHREAD_CANCELED, result);
    ::close(writer);
    EXPECT_EQ(before, pztest::open_descriptors());
}
