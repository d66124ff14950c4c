#include "Framework/Foundation/PZStorage.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/ChildProcess.h"
#include "support/FullDisk.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OpenDescriptors.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"
#include "support/WaitsForWriter.h"

PZ_INTERPOSE(fsync, 1);
PZ_INTERPOSE(fseeko64, 3);
PZ_INTERPOSE(ftello64, 1);

namespace {

pztest::Interposed<FILE*(const char*, const char*)> fopen_call("fopen64", nullptr);

int inherited;  // opened files that a program would get, were one started at once

}  // namespace

extern "C" {
FILE* fopen64(const char* path, const char* mode) {
    FILE* const stream = fopen_call(path, mode);
    if (stream != nullptr && fcntl(fileno(stream), F_GETFD) == 0) ++inherited;
    return stream;
}
// The tests' own system log is not the machine's.
void syslog(int /*priority*/, const char* /*format*/, ...) {}
}

namespace {

using pztest::has_report;
using pztest::open_descriptors;
using pztest::read_file;
using pztest::StdoutCapture;
using pztest::write_file;

constexpr long long kFiveGiB = 5LL << 30;

std::string last_error_text(int error) {
    return "std library error [" + std::to_string(error) + " : " + std::strerror(error) + "]";
}

std::wstring Wide(const std::string& ascii) {
    return {ascii.begin(), ascii.end()};
}

long long size_on_disk(const std::string& path) {
    struct stat64 status = {};
    return stat64(path.c_str(), &status) == 0 ? static_cast<long long>(status.st_size) : -1;
}

pztest::FullDisk medium = {0};

ssize_t write_to_medium(void* /*cookie*/, const char* data, size_t size) {
    return medium.Take(data, size);
}

/// A stream without a buffer.
FILE* open_medium(const char* /*path*/, const char* mode) {
    cookie_io_functions_t calls = {};
    calls.write = &write_to_medium;
    FILE* stream = fopencookie(nullptr, mode, calls);
    setvbuf(stream, nullptr, _IONBF, 0);
    return stream;
}

class PZStorageTest : public testing::Test {
protected:
    PZStorageTest() {
        fsync_call.Reset();
        fopen_call.Reset();
        fseeko64_call.Reset();
        ftello64_call.Reset();
        inherited = 0;
    }

    /// The file, with `content`, open for reading.
    void Read(const std::string& content) {
        write_file(path, content);
        ASSERT_EQ(0, storage.Open(path.c_str(), "rb"));
    }

    /// The empty file, open for reading and writing.
    void Create() { ASSERT_EQ(0, storage.Open(path.c_str(), "wb+")); }

    /// The storage writes to a medium that takes `good` bytes.
    void OpenMedium(size_t good) {
        medium = {good};
        fopen_call.Replace(&open_medium);
        ASSERT_EQ(0, storage.Open("medium", "w"));
        fopen_call.Replace(nullptr);
    }

    pztest::TempDir dir;
    const std::string path = dir.File("data");
    PZStorage storage;
};

}  // namespace

static_assert(!std::is_copy_constructible_v<PZStorage> && !std::is_copy_assignable_v<PZStorage>);
static_assert(PZStorage::en_POS_BEGIN == 0 && PZStorage::en_POS_CURRENT == 1 &&
              PZStorage::en_POS_END == 2);

// Open and close

TEST_F(PZStorageTest, IsClosedAtFirst) {
    EXPECT_FALSE(storage.IsOpen());
}

TEST_F(PZStorageTest, MakesAnEmptyFileWhenItOpensForWriting) {
    EXPECT_EQ(0, storage.Open(path.c_str(), "wb"));
    EXPECT_TRUE(storage.IsOpen());
    EXPECT_EQ(0, size_on_disk(path));
}

TEST_F(PZStorageTest, TheConstructorOpensAFile) {
    write_file(path, "abc");
    EXPECT_TRUE(PZStorage(path.c_str(), "rb").IsOpen());
    const std::wstring widePath(path.begin(), path.end());
    EXPECT_TRUE(PZStorage(widePath.c_str(), L"rb").IsOpen());
}

TEST_F(PZStorageTest, AConstructorThatCannotOpenLeavesTheObjectClosed) {
    StdoutCapture output;
    EXPECT_FALSE(PZStorage(path.c_str(), "rb").IsOpen());
    EXPECT_TRUE(has_report(output.Take(), "Open", "PZStorage.cpp", last_error_text(ENOENT)));
}

TEST_F(PZStorageTest, RefusesAMissingFileAndReportsWhy) {
    StdoutCapture output;
    EXPECT_EQ(1, storage.Open(path.c_str(), "rb"));
    EXPECT_FALSE(storage.IsOpen());
    const std::string text = output.Take();
    EXPECT_TRUE(has_report(text, "Open", "PZStorage.cpp", last_error_text(ENOENT))) << text;
    EXPECT_EQ(1U, pztest::error_messages(text).size());
}

TEST_F(PZStorageTest, ReportsTheErrorOfTheOpenCall) {
    StdoutCapture output;
    fopen_call.FailNext(EMFILE);
    EXPECT_EQ(1, storage.Open(path.c_str(), "wb"));
    EXPECT_TRUE(has_report(output.Take(), "Open", "PZStorage.cpp", last_error_text(EMFILE)));
}

TEST_F(PZStorageTest, RefusesAModeThatTheCLibraryDoesNotKnow) {
    StdoutCapture output;
    EXPECT_EQ(1, storage.Open(path.c_str(), "?"));
    EXPECT_TRUE(has_report(output.Take(), "Open", "PZStorage.cpp", last_error_text(EINVAL)));
}

TEST_F(PZStorageTest, RefusesNullTexts) {
    const char* const noText = nullptr;
    StdoutCapture output;
    EXPECT_EQ(1, storage.Open(noText, "rb"));
    EXPECT_EQ(1, storage.Open(path.c_str(), noText));
    EXPECT_FALSE(storage.IsOpen());
    EXPECT_EQ(2U, pztest::count_of(output.Take(), last_error_text(EINVAL)));
}

TEST_F(PZStorageTest, OpensWidePathsInUtf8) {
    const std::wstring name = std::wstring(dir.Path().begin(), dir.Path().end()) + L"/\u00e9\u3042";
    ASSERT_EQ(0, storage.Open(name.c_str(), L"wb"));
    EXPECT_EQ(3, storage.Write("abc", 3));
    storage.Close();
    EXPECT_EQ("abc", read_file(dir.File("\xC3\xA9\xE3\x81\x82")));
    EXPECT_EQ(3, PZStorage::GetSize(name.c_str()));
}

TEST_F(PZStorageTest, RefusesWideTextsThatCannotBeConverted) {
    const std::wstring widePath(path.begin(), path.end());
    StdoutCapture output;
    // Half a pair of UTF-16, and what no encoding reaches.
    for (const unsigned int noCharacter : {0xD800U, 0x80000000U, 0xFFFFFFFFU}) {
        const std::wstring badPath = widePath + static_cast<wchar_t>(noCharacter);
        const std::wstring badMode = std::wstring(L"wb") + static_cast<wchar_t>(noCharacter);
        EXPECT_EQ(1, storage.Open(badPath.c_str(), L"wb")) << noCharacter;
        EXPECT_EQ(1, storage.Open(widePath.c_str(), badMode.c_str())) << noCharacter;
        EXPECT_EQ(0, PZStorage::GetSize(badPath.c_str())) << noCharacter;
        EXPECT_FALSE(storage.IsOpen()) << noCharacter;
        EXPECT_EQ(2U, pztest::count_of(output.Take(), last_error_text(EINVAL))) << noCharacter;
    }
    EXPECT_EQ(0, fopen_call.Calls());
}

TEST_F(PZStorageTest, ClosesTheFirstFileWhenTheSecondHasNoName) {
    Create();
    StdoutCapture output;
    const wchar_t* const noText = nullptr;
    EXPECT_EQ(1, storage.Open(noText, L"rb"));
    EXPECT_FALSE(storage.IsOpen());
}

// Behind the last character UTF-8 may go on or not: that is the conversion's choice.
TEST_F(PZStorageTest, NeverShortensAWidePathByWhatIsNoCharacter) {
    const std::wstring widePath(path.begin(), path.end());
    StdoutCapture output;
    for (const unsigned int noCharacter : {0x110000U, 0x7FFFFFFFU}) {
        const std::wstring text = widePath + static_cast<wchar_t>(noCharacter);
        const bool isOpen = storage.Open(text.c_str(), L"wb") == 0;
        EXPECT_EQ(isOpen, storage.IsOpen()) << noCharacter;
        EXPECT_EQ(isOpen ? 3 : 0, storage.Write("abc", 3)) << noCharacter;
        storage.Close();
        EXPECT_EQ(isOpen ? 3 : 0, PZStorage::GetSize(text.c_str())) << noCharacter;
        EXPECT_EQ(-1, size_on_disk(path)) << noCharacter;
    }
}

TEST_F(PZStorageTest, RefusesNullWideTexts) {
    const wchar_t* const noText = nullptr;
    StdoutCapture output;
    EXPECT_EQ(1, storage.Open(noText, L"rb"));
    EXPECT_EQ(1, storage.Open(L"/tmp", noText));
    EXPECT_EQ(0, PZStorage::GetSize(noText));
    EXPECT_FALSE(storage.IsOpen());
    EXPECT_EQ(0, fopen_call.Calls());
}

TEST_F(PZStorageTest, RefusesAnEmptyPath) {
    StdoutCapture output;
    EXPECT_EQ(1, storage.Open("", "rb"));
    EXPECT_EQ(1, storage.Open(L"", L"rb"));
    EXPECT_EQ(2U, pztest::count_of(output.Take(), last_error_text(ENOENT)));
}

TEST_F(PZStorageTest, ClosesTheFirstFileBeforeItOpensTheSecond) {
    Create();
    storage.Write("abc", 3);
    const int descriptors = open_descriptors();
    EXPECT_EQ(0, storage.Open(dir.File("other").c_str(), "wb"));
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_EQ("abc", read_file(path));
    EXPECT_EQ(0, storage.GetCurPos());
}

TEST_F(PZStorageTest, ClosesTheFirstFileWhenTheSecondCannotBeOpened) {
    Create();
    const int descriptors = open_descriptors();
    StdoutCapture output;
    EXPECT_EQ(1, storage.Open(dir.File("missing").c_str(), "rb"));
    EXPECT_FALSE(storage.IsOpen());
    EXPECT_EQ(descriptors + 1, open_descriptors());  // one less, and the capture's two
}

TEST_F(PZStorageTest, ASecondCloseDoesNothing) {
    const int descriptors = open_descriptors();
    Create();
    EXPECT_EQ(descriptors + 1, open_descriptors());
    storage.Close();
    EXPECT_FALSE(storage.IsOpen());
    EXPECT_EQ(descriptors, open_descriptors());
    storage.Close();
    EXPECT_FALSE(storage.IsOpen());
}

TEST_F(PZStorageTest, ClosesInTheDestructor) {
    const int descriptors = open_descriptors();
    {
        PZStorage local(path.c_str(), "wb");
        local.Write("abc", 3);
    }
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_EQ("abc", read_file(path));
    EXPECT_EQ(1, fsync_call.Calls());
}

// When data go to the medium

TEST_F(PZStorageTest, DoesNotSyncAFileThatWasOnlyRead) {
    Read("abc");
    char buffer[3];
    EXPECT_EQ(3, storage.Read(buffer, 3));
    storage.Close();
    EXPECT_EQ(0, fsync_call.Calls());
}

TEST_F(PZStorageTest, SyncsOnceInCloseHoweverOftenItWasWritten) {
    Create();
    for (int i = 0; i < 100; ++i) storage.Write("abc", 3);
    storage.WriteLine("abc");
    EXPECT_EQ(0, fsync_call.Calls());
    storage.Close();
    EXPECT_EQ(1, fsync_call.Calls());
}

TEST_F(PZStorageTest, SyncsInCloseAfterEitherWrite) {
    Create();
    storage.WriteLine("abc");
    storage.Close();
    EXPECT_EQ(1, fsync_call.Calls());
    PZStorage other(path.c_str(), "wb");
    other.Write("abc", 3);
    other.Close();
    EXPECT_EQ(2, fsync_call.Calls());
}

TEST_F(PZStorageTest, DoesNotCountRefusedWritesAsWritten) {
    Create();
    storage.Write(nullptr, 3);
    storage.Write("abc", 0);
    storage.WriteLine(nullptr);
    storage.Close();
    EXPECT_EQ(0, fsync_call.Calls());
}

TEST_F(PZStorageTest, CountsFailedWritesAsWritten) {
    OpenMedium(/*good=*/0);
    EXPECT_EQ(0, storage.Write("abc", 3));
    storage.Close();
    EXPECT_EQ(1, fsync_call.Calls());
}

TEST_F(PZStorageTest, SyncsEveryLaterFileOnceItWasWritten) {
    Create();
    storage.Write("abc", 3);
    storage.Close();
    ASSERT_EQ(0, storage.Open(path.c_str(), "rb"));
    storage.Close();
    EXPECT_EQ(2, fsync_call.Calls());
}

TEST_F(PZStorageTest, SyncsInFlushWhetherItWasWrittenOrNot) {
    Read("abc");
    EXPECT_EQ(0, storage.Flush());
    EXPECT_EQ(1, fsync_call.Calls());
    storage.Close();
    EXPECT_EQ(1, fsync_call.Calls());
}

namespace {

std::string synced_path;
std::string content_at_sync;

int look_at_sync(int /*fd*/) {
    content_at_sync = read_file(synced_path);
    return 0;
}

}  // namespace

TEST_F(PZStorageTest, HandsBufferedDataOverBeforeItSyncs) {
    synced_path = path;
    fsync_call.Replace(&look_at_sync);
    Create();
    storage.Write("abc", 3);
    EXPECT_EQ("", read_file(path));
    EXPECT_EQ(0, storage.Flush());
    EXPECT_EQ("abc", content_at_sync);
    storage.Write("def", 3);
    storage.Close();
    EXPECT_EQ("abcdef", content_at_sync);
}

TEST_F(PZStorageTest, SyncsTheDescriptorOfItsFile) {
    static bool isOfFile = false;
    synced_path = path;
    fsync_call.Replace([](int fd) {
        struct stat64 ofFd = {};
        struct stat64 ofPath = {};
        isOfFile = fstat64(fd, &ofFd) == 0 && stat64(synced_path.c_str(), &ofPath) == 0 &&
                   ofFd.st_ino == ofPath.st_ino && ofFd.st_dev == ofPath.st_dev;
        return 0;
    });
    Create();
    storage.Flush();
    EXPECT_TRUE(isOfFile);
}

TEST_F(PZStorageTest, FlushAnswersOneWhenTheDataCannotBeHandedOver) {
    ASSERT_TRUE(std::filesystem::is_character_file("/dev/full"));
    ASSERT_EQ(0, storage.Open("/dev/full", "wb"));
    EXPECT_EQ(3, storage.Write("abc", 3));  // buffered
    EXPECT_EQ(1, storage.Flush());
    EXPECT_EQ(1, fsync_call.Calls());
}

TEST_F(PZStorageTest, FlushAnswersZeroEvenWhenTheMediumFails) {
    Create();
    fsync_call.FailNext(EIO);
    storage.Write("abc", 3);
    EXPECT_EQ(0, storage.Flush());
    EXPECT_EQ("abc", read_file(path));
}

// Reading

TEST_F(PZStorageTest, ReadsNoMoreThanTheFileStillHolds) {
    Read("abcdef");
    char buffer[8] = "";
    EXPECT_EQ(4, storage.Read(buffer, 4));
    EXPECT_STREQ("abcd", buffer);
    EXPECT_EQ(2, storage.Read(buffer, 8));
    EXPECT_STREQ("efcd", buffer);
    EXPECT_EQ(0, storage.Read(buffer, 8));
}

TEST_F(PZStorageTest, ReadsNothingWithoutABufferOrASize) {
    Read("abc");
    char buffer[3];
    EXPECT_EQ(0, storage.Read(nullptr, 3));
    EXPECT_EQ(0, storage.Read(buffer, 0));
    EXPECT_EQ(0, storage.Read(buffer, -1));
    EXPECT_EQ(0, storage.GetCurPos());
}

TEST_F(PZStorageTest, CountsTheLow32BitsOfASizeOnly) {
    Read("abcdef");
    char buffer[4] = "";
    EXPECT_EQ(3, storage.Read(buffer, 0x100000003));
    EXPECT_STREQ("abc", buffer);
    EXPECT_EQ(0, storage.Read(buffer, 0x100000000));
    EXPECT_EQ(3, storage.GetCurPos());
}

TEST_F(PZStorageTest, ReadsLinesWithTheirNewline) {
    Read("one\n\nlast");
    char line[16];
    for (const char* const expected : {"one\n", "\n", "last"}) {
        EXPECT_EQ(0, storage.ReadLine(line, sizeof line));
        EXPECT_STREQ(expected, line);
    }
    EXPECT_EQ(2, storage.ReadLine(line, sizeof line));
}

TEST_F(PZStorageTest, ReadsALongLineInPieces) {
    Read("abcdef\n");
    char line[4];
    for (const char* const expected : {"abc", "def", "\n"}) {
        EXPECT_EQ(0, storage.ReadLine(line, sizeof line));
        EXPECT_STREQ(expected, line);
    }
}

TEST_F(PZStorageTest, ALineOfSizeOneIsEmptyAndReadsNothing) {
    Read("abc");
    char line[2] = "?";
    EXPECT_EQ(0, storage.ReadLine(line, 1));
    EXPECT_STREQ("", line);
    EXPECT_EQ(0, storage.GetCurPos());
}

TEST_F(PZStorageTest, AnEmptyFileHasNoLine) {
    Read("");
    char line[16];
    EXPECT_EQ(2, storage.ReadLine(line, sizeof line));
}

TEST_F(PZStorageTest, ReadsNoLineWithoutABufferOrASize) {
    Read("abc");
    char line[16];
    EXPECT_EQ(1, storage.ReadLine(nullptr, sizeof line));
    EXPECT_EQ(1, storage.ReadLine(line, 0));
    EXPECT_EQ(1, storage.ReadLine(line, -1));
}

TEST_F(PZStorageTest, TellsAFailedReadFromTheEndOfTheFile) {
    ASSERT_EQ(0, storage.Open(dir.Path().c_str(), "rb"));  // opens, but cannot be read
    char line[16];
    EXPECT_EQ(1, storage.ReadLine(line, sizeof line));
    EXPECT_EQ(0, storage.Read(line, sizeof line));
    EXPECT_FALSE(storage.IsEndOfFile());
}

TEST_F(PZStorageTest, IsAtTheEndOnlyAfterAReadBeyondTheLastByte) {
    Read("abc");
    char buffer[4];
    EXPECT_EQ(3, storage.Read(buffer, 3));
    EXPECT_FALSE(storage.IsEndOfFile());
    EXPECT_EQ(0, storage.Read(buffer, 1));
    EXPECT_TRUE(storage.IsEndOfFile());
    EXPECT_EQ(0, storage.Seek(0, PZStorage::en_POS_BEGIN));
    EXPECT_FALSE(storage.IsEndOfFile());
}

// Writing

TEST_F(PZStorageTest, WritesAWholeBlock) {
    Create();
    EXPECT_EQ(3, storage.Write("a\0b", 3));
    EXPECT_EQ(1, storage.Write("c", 1));
    storage.Close();
    EXPECT_EQ(std::string("a\0bc", 4), read_file(path));
}

TEST_F(PZStorageTest, WritesNothingWithoutDataOrASize) {
    Create();
    EXPECT_EQ(0, storage.Write(nullptr, 3));
    EXPECT_EQ(0, storage.Write("abc", 0));
    EXPECT_EQ(0, storage.Write("abc", -1));
    storage.Close();
    EXPECT_EQ("", read_file(path));
}

TEST_F(PZStorageTest, AnswersZeroForABlockThatIsWrittenInPart) {
    OpenMedium(/*good=*/2);
    EXPECT_EQ(0, storage.Write("abc", 3));
    EXPECT_EQ("ab", medium.taken);
}

TEST_F(PZStorageTest, AnswersZeroForAFileThatIsOpenForReading) {
    Read("abc");
    EXPECT_EQ(0, storage.Write("x", 1));
    EXPECT_EQ(1, storage.WriteLine("x"));
    storage.Close();
    EXPECT_EQ("abc", read_file(path));
}

#if __SIZEOF_POINTER__ == 4
TEST_F(PZStorageTest, WritesNoBlockThatTheMachineCannotHold) {
    Create();
    EXPECT_EQ(0, storage.Write("abc", 0x100000003));
    storage.Close();
    EXPECT_EQ("", read_file(path));
}
#endif

TEST_F(PZStorageTest, WritesLinesAndAddsTheMissingNewline) {
    Create();
    EXPECT_EQ(0, storage.WriteLine("abc\n"));
    EXPECT_EQ(4, storage.GetCurPos());
    EXPECT_EQ(0, storage.WriteLine("abc"));
    EXPECT_EQ(8, storage.GetCurPos());
    EXPECT_EQ(0, storage.WriteLine("a\nb"));
    storage.Close();
    EXPECT_EQ("abc\nabc\na\nb\n", read_file(path));
}

TEST_F(PZStorageTest, WritesAnEmptyTextAsAnEmptyLine) {
    Create();
    EXPECT_EQ(0, storage.WriteLine(""));
    EXPECT_EQ(0, storage.WriteLine("\n"));
    storage.Close();
    EXPECT_EQ("\n\n", read_file(path));
}

TEST_F(PZStorageTest, WritesNoLineForNull) {
    Create();
    EXPECT_EQ(1, storage.WriteLine(nullptr));
    storage.Close();
    EXPECT_EQ("", read_file(path));
}

TEST_F(PZStorageTest, AnswersOneWhenTheTextOfALineCannotBeWritten) {
    OpenMedium(/*good=*/0);
    EXPECT_EQ(1, storage.WriteLine("abc\n"));
}

TEST_F(PZStorageTest, AnswersOneWhenTheNewlineAloneCannotBeWritten) {
    OpenMedium(/*good=*/3);
    EXPECT_EQ(1, storage.WriteLine("abc"));
    EXPECT_EQ("abc", medium.taken);
}

TEST_F(PZStorageTest, AppendsInAppendMode) {
    write_file(path, "abc");
    ASSERT_EQ(0, storage.Open(path.c_str(), "ab+"));
    storage.Write("def", 3);
    storage.Close();
    EXPECT_EQ("abcdef", read_file(path));
}

// Positions and sizes

TEST_F(PZStorageTest, SeeksFromEachOrigin) {
    Read("abcdefgh");
    EXPECT_EQ(0, storage.Seek(5, PZStorage::en_POS_BEGIN));
    EXPECT_EQ(5, storage.GetCurPos());
    EXPECT_EQ(0, storage.Seek(-2, PZStorage::en_POS_CURRENT));
    EXPECT_EQ(3, storage.GetCurPos());
    EXPECT_EQ(0, storage.Seek(-1, PZStorage::en_POS_END));
    EXPECT_EQ(7, storage.GetCurPos());
    char last = '?';
    EXPECT_EQ(1, storage.Read(&last, 1));
    EXPECT_EQ('h', last);
}

TEST_F(PZStorageTest, ReportsAFailedSeek) {
    Read("abc");
    StdoutCapture output;
    EXPECT_EQ(1, storage.Seek(-1, PZStorage::en_POS_BEGIN));
    const std::string message =
        "fseek error[" + std::to_string(EINVAL) + " : " + std::strerror(EINVAL) + "]";
    EXPECT_TRUE(has_report(output.Take(), "Seek", "PZStorage.cpp", message));
    EXPECT_EQ(0, storage.GetCurPos());
}

TEST_F(PZStorageTest, ReportsTheErrorOfTheSeekCall) {
    Read("abc");
    StdoutCapture output;
    fseeko64_call.FailNext(EIO);
    EXPECT_EQ(1, storage.Seek(1, PZStorage::en_POS_BEGIN));
    const std::string message =
        "fseek error[" + std::to_string(EIO) + " : " + std::strerror(EIO) + "]";
    EXPECT_TRUE(has_report(output.Take(), "Seek", "PZStorage.cpp", message));
}

TEST_F(PZStorageTest, MeasuresTheOpenFileAndKeepsThePosition) {
    Read("abcdef");
    storage.Seek(2, PZStorage::en_POS_BEGIN);
    EXPECT_EQ(6, storage.GetSize());
    EXPECT_EQ(2, storage.GetCurPos());
    char next = '?';
    EXPECT_EQ(1, storage.Read(&next, 1));
    EXPECT_EQ('c', next);
}

TEST_F(PZStorageTest, MeasuresDataThatAreStillBuffered) {
    Create();
    storage.Write("abcdef", 6);
    EXPECT_EQ(6, storage.GetSize());
    EXPECT_EQ(6, storage.GetCurPos());
}

TEST_F(PZStorageTest, MeasuresANamedFile) {
    write_file(path, std::string(1000, 'x'));
    const std::wstring widePath(path.begin(), path.end());
    EXPECT_EQ(1000, PZStorage::GetSize(path.c_str()));
    EXPECT_EQ(1000, PZStorage::GetSize(widePath.c_str()));
}

TEST_F(PZStorageTest, MeasuresANamedFileWithoutTouchingTheOpenOne) {
    Read("abcdef");
    storage.Seek(2, PZStorage::en_POS_BEGIN);
    write_file(dir.File("other"), "xyz");
    const int descriptors = open_descriptors();
    EXPECT_EQ(3, storage.GetSize(dir.File("other").c_str()));
    EXPECT_EQ(2, storage.GetCurPos());
    EXPECT_EQ(descriptors, open_descriptors());
}

TEST_F(PZStorageTest, AFileThatCannotBeOpenedHasNoSize) {
    StdoutCapture output;
    const char* const noText = nullptr;
    EXPECT_EQ(0, PZStorage::GetSize(path.c_str()));
    EXPECT_EQ(0, PZStorage::GetSize(noText));
    EXPECT_EQ("", output.Take());
}

TEST_F(PZStorageTest, AFileThatCannotBeMeasuredHasNoSize) {
    write_file(path, "abc");
    fseeko64_call.FailNext(EIO);
    EXPECT_EQ(0, PZStorage::GetSize(path.c_str()));
    ftello64_call.FailNext(EIO);
    EXPECT_EQ(0, PZStorage::GetSize(path.c_str()));
    OpenMedium(/*good=*/0);
    EXPECT_EQ(0, storage.GetSize());
}

TEST_F(PZStorageTest, WaitsForTheOtherSideOfAFifo) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    int opened = -1;
    EXPECT_TRUE(
        pztest::waits_for_writer(path, "", [&] { opened = storage.Open(path.c_str(), "rb"); }));
    EXPECT_EQ(0, opened);
    storage.Close();
    long long size = -1;
    EXPECT_TRUE(
        pztest::waits_for_writer(path, "", [&] { size = PZStorage::GetSize(path.c_str()); }));
    EXPECT_EQ(0, size) << "it cannot be measured";
}

TEST_F(PZStorageTest, AnswersMinus1WhenThePositionCannotBeRead) {
    Read("abc");
    ftello64_call.FailNext(EIO);
    EXPECT_EQ(-1, storage.GetCurPos());
}

TEST_F(PZStorageTest, SeeksWritesAndMeasuresBeyondFourGiB) {
    Create();
    EXPECT_EQ(0, storage.Seek(kFiveGiB, PZStorage::en_POS_BEGIN));
    EXPECT_EQ(kFiveGiB, storage.GetCurPos());
    EXPECT_EQ(3, storage.Write("end", 3));
    EXPECT_EQ(kFiveGiB + 3, storage.GetSize());
    EXPECT_EQ(kFiveGiB + 3, storage.GetCurPos());
    EXPECT_EQ(0, storage.Seek(-kFiveGiB, PZStorage::en_POS_CURRENT));
    EXPECT_EQ(3, storage.GetCurPos());
    EXPECT_EQ(0, storage.Seek(-3, PZStorage::en_POS_END));
    char buffer[4] = "";
    EXPECT_EQ(3, storage.Read(buffer, 3));
    EXPECT_STREQ("end", buffer);
    storage.Close();
    EXPECT_EQ(kFiveGiB + 3, PZStorage::GetSize(path.c_str()));
    EXPECT_EQ(kFiveGiB + 3, size_on_disk(path));
}

// A closed object

TEST_F(PZStorageTest, EveryOperationOfAClosedObjectAnswersItsOwnFailureValue) {
    char buffer[4];
    StdoutCapture output;
    EXPECT_EQ(0, storage.Read(buffer, 3));
    EXPECT_EQ(1, storage.ReadLine(buffer, 3));
    EXPECT_EQ(0, storage.Write("abc", 3));
    EXPECT_EQ(1, storage.WriteLine("abc"));
    EXPECT_EQ(0, storage.GetSize());
    EXPECT_EQ(0, storage.GetCurPos());
    EXPECT_EQ(1, storage.Flush());
    EXPECT_EQ("", output.Take());
    EXPECT_EQ(0, fsync_call.Calls());
}

TEST_F(PZStorageTest, AClosedObjectReportsSeekAndEndOfFile) {
    StdoutCapture output;
    EXPECT_EQ(1, storage.Seek(0, PZStorage::en_POS_BEGIN));
    EXPECT_TRUE(has_report(output.Take(), "Seek", "PZStorage.cpp", "file is not opened"));
    EXPECT_FALSE(storage.IsEndOfFile());
    EXPECT_TRUE(has_report(output.Take(), "IsEndOfFile", "PZStorage.cpp", "file is not opened"));
}

TEST_F(PZStorageTest, AWriteToAClosedObjectDoesNotCountAsWritten) {
    storage.Write("abc", 3);
    storage.WriteLine("abc");
    Create();
    storage.Close();
    EXPECT_EQ(0, fsync_call.Calls());
}

// Descriptors

TEST_F(PZStorageTest, KeepsItsFileFromProgramsThatTheProcessStarts) {
    write_file(path, "x");
    inherited = 0;
    for (const char* mode : {"r", "rb", "rb+", "rbe", "w", "wb+", "a", "ab+", "w+b"}) {
        EXPECT_EQ(0, storage.Open(path.c_str(), mode)) << mode;
        EXPECT_EQ(0, storage.Open(Wide(path).c_str(), Wide(mode).c_str())) << mode;
    }
    PZStorage::GetSize(path.c_str());
    EXPECT_EQ(0, inherited) << "not even for a moment";
}

TEST_F(PZStorageTest, LeavesTheStandardDescriptorsFree) {
    const pztest::ChildResult result = pztest::run_in_child([this] {
        ::close(STDIN_FILENO);
        ::close(STDERR_FILENO);
        if (storage.Open(path.c_str(), "wb+") != 0) return 1;
        const bool areFree =
            ::fcntl(STDIN_FILENO, F_GETFD) == -1 && ::fcntl(STDERR_FILENO, F_GETFD) == -1;
        storage.WriteLine("abc");
        storage.Seek(0, PZStorage::en_POS_BEGIN);
        char line[10] = {};
        const bool isRead = storage.ReadLine(line, sizeof line) == 0;
        storage.Close();
        return areFree && isRead && std::strcmp(line, "abc\n") == 0 ? 42 : 2;
    });
    EXPECT_EQ(42, result.status) << result.output;
    EXPECT_EQ("abc\n", read_file(path));
}

// Without memory

TEST_F(PZStorageTest, FailsWidePathsWithoutMemoryAndSaysSoOnce) {
    write_file(path, "12345");
    const std::wstring widePath = Wide(path);
    int refusals = 0;
    for (int skip = 0;; ++skip) {
        ASSERT_EQ(0, storage.Open(path.c_str(), "rb"));
        const StdoutCapture output;
        int opened = -1;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            opened = storage.Open(widePath.c_str(), L"rb");
            refused = shortage.Refused();
        }
        if (refused == 0) break;
        ++refusals;
        EXPECT_EQ(1, opened) << skip;
        EXPECT_FALSE(storage.IsOpen()) << "as after every failed open";
    }
    EXPECT_LT(1, refusals);
    EXPECT_TRUE(storage.IsOpen());

    StdoutCapture output;
    for (int skip = 0;; ++skip) {
        long long size = -1;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            size = PZStorage::GetSize(widePath.c_str());
            refused = shortage.Refused();
        }
        const std::string text = output.Take();
        if (refused == 0) {
            EXPECT_EQ(5, size);
            break;
        }
        EXPECT_EQ(0, size);
        EXPECT_EQ(1U, pztest::count_of(text, "failed to allocate memory\n"));
    }
}

// Threads that are cancelled

namespace {

std::atomic<int> syncs_begun{0};

/// A medium that never gets done.
int wait_for_the_medium(int /*fd*/) {
    ++syncs_begun;
    for (;;) ::pause();
}

void* close_a_written_storage(void* path) {
    PZStorage storage(static_cast<const std::string*>(path)->c_str(), "wb");
    storage.WriteLine("text");
    storage.Close();  // waits for the medium
    return nullptr;
}

constexpr int kPipeSize = 65536;

/// A storage whose destructor waits for somebody who reads.
void fill_a_pipe(const std::string& path) {
    PZStorage storage(path.c_str(), "rb+");
    static const std::string block(kPipeSize, 'x');
    storage.Write(block.data(), kPipeSize);
    storage.Write("left", 4);
}

void* leave_a_full_pipe(void* path) {
    fill_a_pipe(*static_cast<const std::string*>(path));
    pthread_testcancel();
    return nullptr;
}

class PZStorageCancelTest : public PZStorageTest {
protected:
    void Start(void* (*run)(void*)) {
        syncs_begun = 0;
        ASSERT_EQ(0, pthread_create(&thread, nullptr, run, &file));
    }
    void* Join() const {
        void* result = nullptr;
        pthread_join(thread, &result);
        return result;
    }

    std::string file = path;
    pthread_t thread = {};
};

}  // namespace

TEST_F(PZStorageCancelTest, ClosesTheFileOfAThreadThatWaitsForTheMedium) {
    fsync_call.Replace(&wait_for_the_medium);
    const int before = open_descriptors();
    Start(&close_a_written_storage);
    EXPECT_TRUE(pztest::wait_until([] { return syncs_begun > 0; }));
    pthread_cancel(thread);
    EXPECT_EQ(PTHREAD_CANCELED, Join());
    EXPECT_EQ(before, open_descriptors());
    EXPECT_EQ("text\n", read_file(path));
}

TEST_F(PZStorageCancelTest, IsDestroyedCompletelyOnAThreadThatIsCancelledMeanwhile) {
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    const int reader = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_NE(-1, reader);
    const int before = open_descriptors();
    Start(&leave_a_full_pipe);
    EXPECT_TRUE(pztest::wait_until([&] {
        int waiting = 0;
        return ::ioctl(reader, FIONREAD, &waiting) == 0 && waiting == kPipeSize;
    }));
    pthread_cancel(thread);
    std::string arrived;
    EXPECT_TRUE(pztest::wait_until([&] {
        char bytes[4096];
        const ssize_t got = ::read(reader, bytes, sizeof bytes);
        if (got > 0) arrived.append(bytes, static_cast<size_t>(got));
        return arrived.size() == kPipeSize + 4;
    }));
    EXPECT_EQ(PTHREAD_CANCELED, Join());
    EXPECT_EQ("left", arrived.substr(kPipeSize));
    EXPECT_EQ(before, open_descriptors());
    ::close(reader);
}
