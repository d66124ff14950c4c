#include "Framework/Utility/PZLSysFileOut.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZClock.h>

#include "support/ChildProcess.h"
#include "support/FullDisk.h"
#include "support/Interposed.h"
#include "support/MemoryShortage.h"
#include "support/OpenDescriptors.h"
#include "support/OwnStreams.h"
#include "support/StdoutCapture.h"
#include "support/TempDir.h"
#include "support/WaitsForWriter.h"

PZ_INTERPOSE(sync, 0);

namespace {

struct OpenedFile {
    std::string path;
    std::string mode;  // without the 'e' that closes it in programs the process starts
    FILE* stream;
    bool isInherited;  // by such a program, were one started at once
};

std::vector<OpenedFile> opened_files;
bool remembers_files = true;  // which takes memory
PZClock::ST_CLOCK utc;
bool utc_fails = false;

void do_not_sync() {}

void remember(const char* path, const char* openMode, FILE* stream) {
    if (!remembers_files) return;
    std::string mode = openMode;
    mode.erase(std::remove(mode.begin(), mode.end(), 'e'), mode.end());
    const bool isInherited =
        stream != nullptr && (fcntl(fileno(stream), F_GETFD) & FD_CLOEXEC) == 0;
    opened_files.push_back({path, mode, stream, isInherited});
}

pztest::Interposed<FILE*(const char*, const char*)> fopen_call("fopen64", nullptr);

}  // namespace

extern "C" {
FILE* fopen64(const char* path, const char* mode) {
    FILE* const stream = fopen_call(path, mode);
    remember(path, mode, stream);
    return stream;
}
// The tests' own system log is not the machine's.
void syslog(int /*priority*/, const char* /*format*/, ...) {}
}

bool PZClock::GetUtc(ST_CLOCK* clock) {
    *clock = utc;
    return !utc_fails;
}

namespace {

using pztest::count_of;
using pztest::fdopen_call;
using pztest::open_call;
using pztest::open_descriptors;
using pztest::read_file;
using pztest::StdoutCapture;
using pztest::write_file;

constexpr wchar_t kNoCharacter[] = {L'x', static_cast<wchar_t>(0xD800), L'\0'};
constexpr unsigned int kNoSize = 0xFFFFFFFF;

std::wstring wide(const std::string& ascii) {
    return {ascii.begin(), ascii.end()};
}

std::set<std::string> names_in(const std::string& directory) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

/// In the order in which the file system lists them.
std::vector<std::string> listed_names(const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

/// A file of `size` bytes that takes no space.
void make_sparse_file(const std::string& path, long long size) {
    std::filesystem::remove(path);
    write_file(path, "");
    ASSERT_EQ(0, truncate64(path.c_str(), size));
}

/// The file that the log opens: its path, and then its stream.
/// @{
char log_path[PATH_MAX];

int open_log(const char* path, int flags, mode_t mode) {
    std::snprintf(log_path, sizeof log_path, "%s", path);
    return open_call.Real(path, flags, mode);
}

FILE* log_stream(int fd, const char* mode) {
    FILE* const stream = fdopen_call.Real(fd, mode);
    remember(log_path, mode, stream);
    return stream;
}
/// @}

pztest::FullDisk disk = {0};

ssize_t write_to_disk(void* /*cookie*/, const char* data, size_t size) {
    return disk.Take(data, size);
}

FILE* open_on_disk(int fd, const char* mode) {
    return pztest::stream_instead(fd, mode, &write_to_disk);
}

class PZLSysFileOutTest : public testing::Test {
protected:
    void SetUp() override {
        sync_call.Reset();
        sync_call.Replace(&do_not_sync);
        fopen_call.Reset();
        open_call.Reset();
        open_call.Replace(&open_log);
        fdopen_call.Reset();
        fdopen_call.Replace(&log_stream);
        opened_files.clear();
        remembers_files = true;
        utc = {2024, 3, 2, 5, 7, 8, 9};
        utc_fails = false;
    }

    /// A log "app" with extension "txt" in the test's folder.
    struct Log : PZLSysFileOut {
        Log(const PZLSysFileOutTest& test, unsigned int maxSize, int fileCount, bool binary = false)
            : PZLSysFileOut(wide(test.dir.Path()).c_str(), L"app", L"txt", binary, maxSize,
                            fileCount) {}
        ~Log() { Close(); }
        int Text(const std::string& text) {
            return Write(text.data(), static_cast<unsigned int>(text.size()));
        }
    };

    std::string Path(const std::string& name) const { return dir.File(name); }
    std::string Content(const std::string& name) const { return read_file(dir.File(name)); }
    bool Exists(const std::string& name) const { return std::filesystem::exists(dir.File(name)); }

    /// The last opened path, below the test's folder.
    std::string LastOpened() const {
        if (opened_files.empty()) return "(none)";
        const std::string& path = opened_files.back().path;
        const bool isBelow = path.compare(0, dir.Path().size(), dir.Path()) == 0;
        return isBelow ? path.substr(dir.Path().size()) : path;
    }

    /// Opens the log, writes the text and closes it: one run of a program.
    void RunOnce(unsigned int maxSize, int fileCount, const std::string& text) {
        Log log(*this, maxSize, fileCount);
        ASSERT_TRUE(log.Open());
        EXPECT_EQ(1, log.Text(text));
    }

    /// There is space on the disk now: what is left of before is written, and, by `write`, what
    /// comes then.
    static void ExpectWrittenWithSpace(Log& log, void (PZLSysFileOut::*write)()) {
        disk.space = 1000000;
        log.Flush();
        disk.taken.clear();
        EXPECT_EQ(1, log.Text("space again"));
        (log.*write)();
        EXPECT_EQ("space again", disk.taken);
    }

    pztest::TempDir dir;
    pztest::TempDir elsewhere;  // somebody else's folder
    StdoutCapture output;       // the messages of file-system operations
};

}  // namespace

static_assert(!std::is_copy_constructible_v<PZLSysFileOut>);
static_assert(PZLSysFileOut::kNoSize == kNoSize);

// Names

TEST_F(PZLSysFileOutTest, NamesTheSingleFile) {
    Log log(*this, 0, 0);
    EXPECT_TRUE(log.Open());
    EXPECT_EQ("/app.txt", LastOpened());
}

TEST_F(PZLSysFileOutTest, NamesTheCurrentGeneration) {
    Log log(*this, 100, 1);
    EXPECT_TRUE(log.Open());
    EXPECT_EQ("/app_0.txt", LastOpened());
}

TEST_F(PZLSysFileOutTest, NamesATimeStampedFile) {
    Log log(*this, 0, -1);
    EXPECT_TRUE(log.Open());
    EXPECT_EQ("/app240305_0708.txt", LastOpened());
}

TEST_F(PZLSysFileOutTest, FillsEachFieldOfATimeStampToTwoDigits) {
    Log log(*this, 0, -1);
    utc = {1999, 12, 5, 31, 23, 59, 0};
    EXPECT_TRUE(log.Open());
    EXPECT_EQ("/app991231_2359.txt", LastOpened());
    utc = {2000, 1, 6, 1, 0, 0, 0};
    EXPECT_TRUE(log.Open());
    EXPECT_EQ("/app000101_0000.txt", LastOpened());
}

TEST_F(PZLSysFileOutTest, StampsTheTimeOfEachOpen) {
    Log log(*this, 0, -1);
    utc.minute = 30;
    EXPECT_TRUE(log.Open());
    log.Text("first");
    utc.minute = 31;
    EXPECT_TRUE(log.Open());
    log.Text("second");
    log.Close();
    EXPECT_EQ("first", Content("app240305_0730.txt"));
    EXPECT_EQ("second", Content("app240305_0731.txt"));
}

TEST_F(PZLSysFileOutTest, HasNoStampedFileWithoutATime) {
    Log log(*this, 0, -1);
    utc_fails = true;
    EXPECT_FALSE(log.Open());
    EXPECT_EQ(std::set<std::string>(), names_in(dir.Path()));
    utc_fails = false;
    EXPECT_TRUE(log.Open());
}

TEST_F(PZLSysFileOutTest, OpensNoFileForACountBelowMinusOne) {
    Log log(*this, 0, -2);
    EXPECT_FALSE(log.Open());
    EXPECT_EQ(0, log.Text("x"));
    EXPECT_EQ(std::set<std::string>(), names_in(dir.Path()));
}

TEST_F(PZLSysFileOutTest, AddsASlashAlsoAfterASlash) {
    PZLSysFileOut log(wide(dir.Path() + "/").c_str(), L"app", L"txt", false, 0, 0);
    EXPECT_TRUE(log.Open());
    log.Close();
    EXPECT_EQ("//app.txt", LastOpened());
}

TEST_F(PZLSysFileOutTest, CountsNullTextsAsEmpty) {
    PZLSysFileOut withoutName(wide(dir.Path()).c_str(), nullptr, L"txt", false, 0, 0);
    EXPECT_TRUE(withoutName.Open());
    withoutName.Close();
    EXPECT_EQ("/.txt", LastOpened());
    PZLSysFileOut withoutExtension(wide(dir.Path()).c_str(), L"app", nullptr, false, 0, 0);
    EXPECT_TRUE(withoutExtension.Open());
    withoutExtension.Close();
    EXPECT_EQ("/app.", LastOpened());
}

TEST_F(PZLSysFileOutTest, WritesNamesInUtf8) {
    PZLSysFileOut log(wide(dir.Path()).c_str(), L"\u00e9\u3042", L"txt", false, 0, 0);
    EXPECT_TRUE(log.Open());
    log.Close();
    EXPECT_EQ("/\xC3\xA9\xE3\x81\x82.txt", LastOpened());
}

// The bounds of the fields

TEST_F(PZLSysFileOutTest, CountsTheFirst24CharactersOfTheName) {
    const std::string name = "abcdefghijklmnopqrstuvwxyz";
    for (const size_t length : {23U, 24U, 25U, 26U}) {
        PZLSysFileOut log(wide(dir.Path()).c_str(), wide(name.substr(0, length)).c_str(), L"txt",
                          false, 0, 0);
        EXPECT_TRUE(log.Open());
        log.Close();
        EXPECT_EQ("/" + name.substr(0, std::min<size_t>(length, 24)) + ".txt", LastOpened());
    }
}

TEST_F(PZLSysFileOutTest, CountsTheFirst4CharactersOfTheExtension) {
    const std::string extension = "abcdef";
    for (const size_t length : {0U, 3U, 4U, 5U, 6U}) {
        // A binary flag and a count behind the field, which must not be read as characters.
        PZLSysFileOut log(wide(dir.Path()).c_str(), L"app",
                          wide(extension.substr(0, length)).c_str(), true, 0x41, 0x41);
        EXPECT_TRUE(log.Open());
        log.Close();
        EXPECT_EQ("/app_0." + extension.substr(0, std::min<size_t>(length, 4)), LastOpened());
    }
}

TEST_F(PZLSysFileOutTest, RefusesAPathOfMoreThan255Bytes) {
    for (const size_t length : {255U, 256U, 257U, 400U}) {
        // The rest of the path: "/app.txt".
        std::string directory = dir.Path() + "/";
        directory.append(length - 8 - directory.size(), 'd');
        PZLSysFileOut log(wide(directory).c_str(), L"app", L"txt", false, 0, 0);
        EXPECT_EQ(length == 255, log.Open()) << length;
        log.Close();
    }
}

TEST_F(PZLSysFileOutTest, CountsBytesNotCharactersOfALongPath) {
    std::wstring directory = wide(dir.Path()) + L"/";
    directory.append(120, L'\u00e9');  // 240 bytes
    PZLSysFileOut log(directory.c_str(), L"app", L"txt", false, 0, 0);
    EXPECT_FALSE(log.Open());
}

TEST_F(PZLSysFileOutTest, RefusesADirectoryThatFillsItsField) {
    for (const size_t length : {255U, 256U, 300U, 1000U}) {
        std::string directory = dir.Path();
        directory.append("/").append(length - directory.size() - 1, 'd');
        PZLSysFileOut log(wide(directory).c_str(), L"app", L"txt", false, 0, 0);
        EXPECT_FALSE(log.Open()) << length;
        EXPECT_EQ(0, log.Write("x", 1));
    }
}

TEST_F(PZLSysFileOutTest, RefusesTextsThatCannotBeConverted) {
    PZLSysFileOut ofName(wide(dir.Path()).c_str(), kNoCharacter, L"txt", false, 0, 0);
    EXPECT_FALSE(ofName.Open());
    PZLSysFileOut ofExtension(wide(dir.Path()).c_str(), L"app", kNoCharacter, false, 0, 3);
    EXPECT_FALSE(ofExtension.Open());
    PZLSysFileOut ofDirectory(kNoCharacter, L"app", L"txt", false, 100, -1);
    EXPECT_FALSE(ofDirectory.Open());
    EXPECT_EQ(0, ofDirectory.Write("x", 1));
    EXPECT_EQ(std::set<std::string>(), names_in(dir.Path()));
}

// The directory

TEST_F(PZLSysFileOutTest, MakesTheDirectoryWithEveryMissingLevel) {
    const PZLSysFileOut log(wide(Path("a/b/c")).c_str(), L"app", L"txt", false, 0, 0);
    EXPECT_TRUE(std::filesystem::is_directory(Path("a/b/c")));
    EXPECT_FALSE(Exists("a/b/c/app.txt"));
}

TEST_F(PZLSysFileOutTest, OpenFailsWhereTheDirectoryCouldNotBeMade) {
    write_file(Path("file"), "x");
    PZLSysFileOut log(wide(Path("file/below")).c_str(), L"app", L"txt", false, 0, 0);
    EXPECT_FALSE(log.Open());
    EXPECT_EQ(0, log.Write("x", 1));
    EXPECT_EQ("x", Content("file"));
}

// Opening

TEST_F(PZLSysFileOutTest, OpensInTheModeOfItsKind) {
    const auto mode = [this](unsigned int maxSize, bool binary) {
        Log log(*this, maxSize, 0, binary);
        EXPECT_TRUE(log.Open());
        return opened_files.back().mode;
    };
    EXPECT_EQ("w+", mode(0, false));
    EXPECT_EQ("wb+", mode(0, true));
    EXPECT_EQ("a+", mode(1000, false));
    EXPECT_EQ("ab+", mode(1000, true));
}

TEST_F(PZLSysFileOutTest, KeepsItsFileFromProgramsThatTheProcessStarts) {
    for (const unsigned int maxSize : {0U, 1000U}) {
        Log log(*this, maxSize, 0);
        ASSERT_TRUE(log.Open());
        EXPECT_FALSE(opened_files.back().isInherited) << "not even for a moment";
    }
    EXPECT_NE(kNoSize, PZLSysFileOut::GetSize(wide(Path("app.txt")).c_str()));
    EXPECT_FALSE(opened_files.back().isInherited);
}

TEST_F(PZLSysFileOutTest, LeavesTheStandardDescriptorsFree) {
    const pztest::ChildResult result = pztest::run_in_child([this] {
        Log log(*this, 10, 0);
        ::close(STDIN_FILENO);
        ::close(STDERR_FILENO);
        if (!log.Open()) return 1;
        if (::fcntl(STDIN_FILENO, F_GETFD) != -1 || ::fcntl(STDERR_FILENO, F_GETFD) != -1) return 2;
        log.Text("0123456789");  // opens it again
        if (::fcntl(STDIN_FILENO, F_GETFD) != -1 || ::fcntl(STDERR_FILENO, F_GETFD) != -1) return 3;
        log.Text("abc");
        log.Close();
        return 42;
    });
    EXPECT_EQ(42, result.status) << result.output;
    EXPECT_EQ("0123456789abc", Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, EmptiesTheSingleFileAtEveryOpenWithoutAMaximum) {
    Log log(*this, 0, 0);
    ASSERT_TRUE(log.Open());
    log.Text("first");
    log.Close();
    EXPECT_EQ("first", Content("app.txt"));
    ASSERT_TRUE(log.Open());
    log.Close();
    EXPECT_EQ("", Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, AppendsAtEveryOpenWithAMaximum) {
    RunOnce(1000, 0, "first ");
    RunOnce(1000, 0, "second");
    EXPECT_EQ("first second", Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, OpenTellsThatTheFileCannotBeOpened) {
    Log log(*this, 0, 0);
    open_call.FailNext(EMFILE);
    EXPECT_FALSE(log.Open());
    EXPECT_EQ(0, log.Text("x"));
    EXPECT_TRUE(log.Open());
    EXPECT_EQ(1, log.Text("x"));
}

TEST_F(PZLSysFileOutTest, RefusesALinkInThePlaceOfItsFile) {
    const std::string victim = elsewhere.File("victim");
    write_file(victim, "precious");
    ASSERT_EQ(0, symlink(victim.c_str(), Path("app.txt").c_str()));
    for (const unsigned int maxSize : {0U, 1000U}) {
        Log log(*this, maxSize, 0);
        errno = 0;
        EXPECT_FALSE(log.Open());
        EXPECT_EQ(ELOOP, errno);
        EXPECT_EQ(0, log.Text("x"));
        EXPECT_EQ("precious", read_file(victim));
    }
    std::filesystem::remove(victim);
    Log log(*this, 0, 0);
    EXPECT_FALSE(log.Open());
    EXPECT_FALSE(std::filesystem::exists(victim)) << "nor is it made";
}

TEST_F(PZLSysFileOutTest, FollowsALinkThatIsItsFolder) {
    ASSERT_EQ(0, symlink(dir.Path().c_str(), elsewhere.File("logs").c_str()));
    PZLSysFileOut log(wide(elsewhere.File("logs")).c_str(), L"app", L"txt", false, 0, 0);
    ASSERT_TRUE(log.Open());
    log.FWrite("text");
    log.Close();
    EXPECT_EQ("text", Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, OpenClosesTheFileThatIsOpen) {
    Log log(*this, 1000, 0);
    ASSERT_TRUE(log.Open());
    log.Text("kept");
    const int descriptors = open_descriptors();
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_EQ("kept", Content("app.txt"));
}

// Time-stamped files

TEST_F(PZLSysFileOutTest, NeverDeletesATimeStampedFile) {
    Log log(*this, 0, -1);
    std::set<std::string> expected;
    for (unsigned int minute = 10; minute < 30; ++minute) {
        utc.minute = minute;
        ASSERT_TRUE(log.Open());
        expected.insert("app240305_07" + std::to_string(minute) + ".txt");
    }
    EXPECT_EQ(expected, names_in(dir.Path()));
}

namespace {

/// A folder that bears the search pattern as its name: the one case in which the search finds
/// something. What it lists is looked for beside the folder.
class PZLSysFileOutPatternTest : public PZLSysFileOutTest {
protected:
    void MakeFiles(const std::vector<std::string>& names) {
        std::filesystem::create_directory(pattern);
        for (const std::string& name : names) {
            write_file(pattern + "/" + name, "");
            write_file(Path(name), "");
        }
    }

    /// Those of the files beside the folder that the next Open deletes.
    std::vector<std::string> DeletedByOpen() {
        const std::vector<std::string> before = listed_names(pattern);
        Log log(*this, 0, -1);
        EXPECT_TRUE(log.Open());
        std::vector<std::string> deleted;
        for (const std::string& name : before) {
            if (!Exists(name)) deleted.push_back(name);
        }
        return deleted;
    }

    const std::string pattern =
        Path("app" + std::string(6, '?') + "_" + std::string(4, '?') + ".txt");
};

}  // namespace

TEST_F(PZLSysFileOutPatternTest, DeletesNothingForFourEntries) {
    MakeFiles({"a", "b", "c", "d"});
    EXPECT_EQ(std::vector<std::string>(), DeletedByOpen());
}

TEST_F(PZLSysFileOutPatternTest, DeletesTheLastListedOfFiveEntriesWhosePathComparesBelow) {
    // The path begins with '/', which is below every letter: each entry replaces the one before.
    MakeFiles({"a", "b", "c", "d", "e"});
    const int syncs = sync_call.Calls();
    const std::vector<std::string> expected = {listed_names(pattern).back()};
    EXPECT_EQ(expected, DeletedByOpen());
    EXPECT_LT(syncs, sync_call.Calls());
}

TEST_F(PZLSysFileOutPatternTest, DeletesTheFirstListedOfFiveEntriesWhosePathComparesAbove) {
    MakeFiles({"!a", "!b", "!c", "!d", "!e"});
    const std::vector<std::string> expected = {listed_names(pattern).front()};
    EXPECT_EQ(expected, DeletedByOpen());
}

TEST_F(PZLSysFileOutPatternTest, CountsEntriesWhoseNamesAreNoUtf8) {
    MakeFiles(
        {"\xFF"
         "a",
         "\xFF"
         "b",
         "\xFF"
         "c",
         "\xFF"
         "d",
         "\xFF"
         "e"});
    EXPECT_EQ(std::vector<std::string>(), DeletedByOpen());  // the folder itself is no file
    EXPECT_EQ(1U, count_of(output.Take(), "this is not file [" + dir.Path() + "/]"));
}

// Generations

TEST_F(PZLSysFileOutTest, KeepsTheTextBeforeTheLastAsGenerationOne) {
    RunOnce(0, 1, "first");
    EXPECT_EQ((std::set<std::string>{"app_0.txt"}), names_in(dir.Path()));
    for (const char* text : {"second", "third", "fourth"}) {
        const std::string before = Content("app_0.txt");
        RunOnce(0, 1, text);
        EXPECT_EQ(text, Content("app_0.txt"));
        EXPECT_EQ(before, Content("app_1.txt"));
    }
    EXPECT_EQ((std::set<std::string>{"app_0.txt", "app_1.txt"}), names_in(dir.Path()));
}

TEST_F(PZLSysFileOutTest, ShiftsOnEveryOpenBeforeItEmptiesTheCurrentGeneration) {
    RunOnce(0, 3, "A");
    RunOnce(0, 3, "B");  // 0 is copied to 1
    EXPECT_EQ("B", Content("app_0.txt"));
    EXPECT_EQ("A", Content("app_1.txt"));
    RunOnce(0, 3, "C");  // 1 is copied to 2 and stays, so 0 cannot be copied
    EXPECT_EQ("C", Content("app_0.txt"));
    EXPECT_EQ("A", Content("app_1.txt"));
    EXPECT_EQ("A", Content("app_2.txt"));
    EXPECT_FALSE(Exists("app_3.txt"));
    output.Take();
    RunOnce(0, 3, "D");  // 2 is copied to 3 and stays
    EXPECT_EQ("D", Content("app_0.txt"));
    EXPECT_EQ("A", Content("app_1.txt"));
    EXPECT_EQ("A", Content("app_2.txt"));
    EXPECT_EQ("A", Content("app_3.txt"));
    const std::string text = output.Take();
    EXPECT_EQ(1U, count_of(text, "[" + Path("app_1.txt") + "] is already exist."));
    EXPECT_EQ(1U, count_of(text, "[" + Path("app_2.txt") + "] is already exist."));
    EXPECT_EQ(0U, count_of(text, "[" + Path("app_3.txt") + "] is already exist."));
}

TEST_F(PZLSysFileOutTest, DeletesTheLastGenerationFirst) {
    write_file(Path("app_0.txt"), "0");
    write_file(Path("app_2.txt"), "2");
    write_file(Path("app_3.txt"), "3");
    RunOnce(0, 3, "now");
    EXPECT_EQ("now", Content("app_0.txt"));
    EXPECT_EQ("0", Content("app_1.txt"));
    EXPECT_EQ("2", Content("app_2.txt"));
    EXPECT_EQ("2", Content("app_3.txt"));
}

TEST_F(PZLSysFileOutTest, ReportsGenerationsThatAreMissing) {
    Log log(*this, 0, 1);
    EXPECT_TRUE(log.Open());
    const std::string text = output.Take();
    EXPECT_EQ(1U, count_of(text, "this is not file [" + Path("app_1.txt") + "]"));
    EXPECT_EQ(1U, count_of(text, "failed to open [" + Path("app_0.txt") + "]"));
}

TEST_F(PZLSysFileOutTest, ShiftsNeitherFromNorToALink) {
    const std::string secret = elsewhere.File("secret");
    const std::string missing = elsewhere.File("missing");
    write_file(secret, "secret");
    ASSERT_EQ(0, symlink(secret.c_str(), Path("app_0.txt").c_str()));
    ASSERT_EQ(0, symlink(missing.c_str(), Path("app_2.txt").c_str()));
    write_file(Path("app_1.txt"), "1");
    Log log(*this, 0, 3);
    EXPECT_FALSE(log.Open());
    EXPECT_EQ("1", Content("app_1.txt"));
    EXPECT_FALSE(std::filesystem::exists(missing)) << "app_1.txt was written to it";
    std::filesystem::remove(Path("app_1.txt"));
    EXPECT_FALSE(log.Open());
    EXPECT_FALSE(Exists("app_1.txt")) << "everybody may read a log";
    EXPECT_EQ("secret", read_file(secret));
}

TEST_F(PZLSysFileOutTest, AShiftEmptiesNoFolderThatALinkLeadsTo) {
    write_file(elsewhere.File("precious"), "precious");
    ASSERT_EQ(0, symlink(elsewhere.Path().c_str(), Path("app_0.txt").c_str()));
    Log log(*this, 0, 1);
    EXPECT_FALSE(log.Open());
    EXPECT_EQ("precious", read_file(elsewhere.File("precious")));
    EXPECT_FALSE(Exists("app_1.txt"));
}

TEST_F(PZLSysFileOutTest, DoesNotShiftOnOpenWithAMaximum) {
    write_file(Path("app_0.txt"), "0");
    RunOnce(100, 3, "now");
    EXPECT_EQ("0now", Content("app_0.txt"));
    EXPECT_FALSE(Exists("app_1.txt"));
}

// The maximum

TEST_F(PZLSysFileOutTest, NeverShiftsForBlocksBelowTheMaximum) {
    Log log(*this, 1000, 2);
    ASSERT_TRUE(log.Open());
    const size_t opened = opened_files.size();
    for (int i = 0; i < 10; ++i) EXPECT_EQ(1, log.Text(std::string(600, 'x')));
    EXPECT_EQ(1, log.Text(std::string(999, 'x')));
    EXPECT_EQ(opened, opened_files.size());
    log.Close();
    EXPECT_EQ(std::string(6999, 'x'), Content("app_0.txt"));
    EXPECT_FALSE(Exists("app_1.txt"));
}

TEST_F(PZLSysFileOutTest, ShiftsBeforeABlockOfTheMaximum) {
    Log log(*this, 1000, 2);
    ASSERT_TRUE(log.Open());
    log.Text("before");
    EXPECT_EQ(1, log.Text(std::string(1000, 'x')));
    log.Close();
    EXPECT_EQ("before", Content("app_1.txt"));
    // The current generation was copied, not moved, and is written on.
    EXPECT_EQ("before" + std::string(1000, 'x'), Content("app_0.txt"));
}

TEST_F(PZLSysFileOutTest, AddsTheSizeThatTheFileHadWhenTheLogWasMade) {
    write_file(Path("app_0.txt"), std::string(400, 'o'));
    Log log(*this, 1000, 2);
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(1, log.Text(std::string(599, 'a')));
    EXPECT_FALSE(Exists("app_1.txt"));
    EXPECT_EQ(1, log.Text(std::string(600, 'b')));
    EXPECT_EQ(std::string(400, 'o') + std::string(599, 'a'), Content("app_1.txt"));
    // The counter is 0 now: nothing shifts any more.
    const size_t opened = opened_files.size();
    for (int i = 0; i < 10; ++i) EXPECT_EQ(1, log.Text(std::string(999, 'c')));
    EXPECT_EQ(opened, opened_files.size());
}

TEST_F(PZLSysFileOutTest, KeepsTheSizeOfTheBeginningWhenItOpensAgain) {
    Log log(*this, 1000, 2);
    write_file(Path("app_0.txt"), std::string(400, 'o'));  // later: not counted
    ASSERT_TRUE(log.Open());
    log.Text(std::string(900, 'a'));
    log.Close();
    ASSERT_TRUE(log.Open());
    log.Text(std::string(900, 'b'));
    log.Close();
    EXPECT_FALSE(Exists("app_1.txt"));
    EXPECT_EQ(2200U, Content("app_0.txt").size());
}

TEST_F(PZLSysFileOutTest, ReopensTheSingleFileAgainAndAgainOnceItIsFull) {
    write_file(Path("app.txt"), std::string(1000, 'o'));
    Log log(*this, 1000, 0);
    ASSERT_TRUE(log.Open());
    const size_t opened = opened_files.size();
    EXPECT_EQ(1, log.Text("a"));
    EXPECT_EQ(1, log.Text("b"));
    EXPECT_EQ(opened + 2, opened_files.size());
    log.Close();
    EXPECT_EQ(std::string(1000, 'o') + "ab", Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, HandsTheOldFileOverWithoutASyncWhenItOpensAgain) {
    write_file(Path("app.txt"), std::string(1000, 'o'));
    Log log(*this, 1000, 0);
    ASSERT_TRUE(log.Open());
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(1000U + static_cast<unsigned int>(std::max(0, i - 1)), Content("app.txt").size());
        EXPECT_EQ(1, log.Text("x"));
    }
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(1100U, Content("app.txt").size());
    EXPECT_EQ(0, sync_call.Calls()) << "the data are with the system, not yet on the disk";
    log.Close();
    EXPECT_EQ(1, sync_call.Calls());
}

TEST_F(PZLSysFileOutTest, SyncsInAShiftForItsDeletionAndItsCopiesOnly) {
    write_file(Path("app_0.txt"), "0");
    write_file(Path("app_1.txt"), "1");
    Log log(*this, 0, 1);
    ASSERT_TRUE(log.Open());
    // The deletion; the copy, the removal that leaves the file, the move.
    EXPECT_EQ(4, sync_call.Calls());
}

TEST_F(PZLSysFileOutTest, ReopensTheSameTimeStampedFile) {
    Log log(*this, 10, -1);
    ASSERT_TRUE(log.Open());
    utc.minute = 59;
    EXPECT_EQ(1, log.Text("0123456789"));
    EXPECT_EQ("/app240305_0708.txt", LastOpened());
    EXPECT_EQ(2U, opened_files.size());
}

TEST_F(PZLSysFileOutTest, AddsBlockAndCounterWithoutOverflow) {
    make_sparse_file(Path("app.txt"), 0xFFFFFFFFLL);
    Log log(*this, 100, 0);
    ASSERT_TRUE(log.Open());
    const size_t opened = opened_files.size();
    EXPECT_EQ(1, log.Text("ab"));  // 1 in 32 bits
    EXPECT_EQ(opened + 1, opened_files.size());
}

TEST_F(PZLSysFileOutTest, GoesOnWithoutAFileWhenItCannotBeReopened) {
    Log log(*this, 10, 0);
    ASSERT_TRUE(log.Open());
    const int descriptors = open_descriptors();
    open_call.FailNext(EMFILE);
    EXPECT_EQ(1, log.Text("0123456789"));
    EXPECT_EQ(descriptors - 1, open_descriptors());
    EXPECT_EQ(0, log.Text("x"));
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(1, log.Text("x"));
    log.Close();
    EXPECT_EQ("x", Content("app.txt"));
}

// Results of writing

TEST_F(PZLSysFileOutTest, WritesNothingWithoutAFile) {
    Log log(*this, 0, 0);
    EXPECT_EQ(0, log.Write("x", 1));
    EXPECT_EQ(0, log.Write("x", 0));
    EXPECT_EQ(0, log.Write(nullptr, 0));
    EXPECT_EQ(0, log.SWrite("x", 1));
    EXPECT_EQ(0, log.FWrite("%d", 1));
}

TEST_F(PZLSysFileOutTest, RefusesNullWithALengthAndAcceptsItWithout) {
    Log log(*this, 10, 0);
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(0, log.Write(nullptr, 1));
    EXPECT_EQ(0, log.Write(nullptr, 10));
    EXPECT_EQ(0, log.SWrite(nullptr, 1));
    EXPECT_EQ(1, log.Write(nullptr, 0));
    EXPECT_EQ(1, log.SWrite(nullptr, 0));
    EXPECT_EQ(1, log.Write("x", 0));
    EXPECT_EQ(1U, opened_files.size());
    log.Close();
    EXPECT_EQ("", Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, ABlockOfNoBytesDoesNotReopenAFullFile) {
    write_file(Path("app.txt"), "0123456789");
    Log log(*this, 10, 0);
    ASSERT_TRUE(log.Open());
    const size_t opened = opened_files.size();
    EXPECT_EQ(1, log.Write("x", 0));
    EXPECT_EQ(opened, opened_files.size());
}

TEST_F(PZLSysFileOutTest, WritesAnyBytes) {
    Log log(*this, 0, 0, /*binary=*/true);
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(1, log.Write("a\0\n", 3));
    EXPECT_EQ(1, log.SWrite("b\r", 2));
    log.Close();
    EXPECT_EQ(std::string("a\0\nb\r", 5), Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, WritesEverySingleByteBetweenBlocksWhereverTheBufferEnds) {
    Log log(*this, 0, 0, /*binary=*/true);
    ASSERT_TRUE(log.Open());
    std::string expected;
    for (int i = 0; i < 30000; ++i) {
        const char byte = static_cast<char>(i);  // all values, 0xFF included
        EXPECT_EQ(1, log.Write(&byte, 1));
        expected += byte;
        if (i % 256 != 0) continue;
        const std::string block(static_cast<size_t>(i % 97), 'b');
        EXPECT_EQ(1, log.Text(block));
        expected += block;
    }
    log.Close();
    EXPECT_EQ(expected, Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, WritesFormattedTextWithoutItsTerminator) {
    Log log(*this, 0, 0);
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(1, log.FWrite("%s=%03d;", "n", 7));
    EXPECT_EQ(1, log.FWrite("%s", ""));
    log.Close();
    EXPECT_EQ("n=007;", Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, CutsFormattedTextToItsBuffer) {
    for (const size_t length : {278U, 279U, 280U, 281U, 100000U}) {
        Log log(*this, 0, 0);
        ASSERT_TRUE(log.Open());
        EXPECT_EQ(1, log.FWrite("%s", std::string(length, 'x').c_str()));
        log.Close();
        EXPECT_EQ(std::string(std::min<size_t>(length, 279), 'x'), Content("app.txt"));
    }
}

TEST_F(PZLSysFileOutTest, RefusesAFormatThatIsNullOrFails) {
    const char* const noFormat = nullptr;
    Log log(*this, 0, 0);
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(0, log.FWrite(noFormat));
    EXPECT_EQ(0, log.FWrite("a%ls", kNoCharacter));
    log.Close();
    EXPECT_EQ("", Content("app.txt"));
}

// A full disk

TEST_F(PZLSysFileOutTest, AnswersOneWhileTheDiskIsFullAndWritesOnAfterwards) {
    disk = {0};
    fdopen_call.Replace(&open_on_disk);
    Log log(*this, 0, 0);
    ASSERT_TRUE(log.Open());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(1, log.Text(std::string(100000, 'x')));
        EXPECT_EQ(1, log.Text("lost"));
        EXPECT_EQ(1, log.FWrite("%s", "lost"));
        log.Flush();
    }
    EXPECT_EQ("", disk.taken);
    ExpectWrittenWithSpace(log, &PZLSysFileOut::Flush);
}

TEST_F(PZLSysFileOutTest, AnswersOneForSingleBytesWhileTheDiskIsFullAndWritesOnAfterwards) {
    disk = {0};
    fdopen_call.Replace(&open_on_disk);
    Log log(*this, 0, 0);
    ASSERT_TRUE(log.Open());
    for (int i = 0; i < 100000; ++i) EXPECT_EQ(1, log.Text("x"));
    log.Flush();
    EXPECT_EQ("", disk.taken);
    disk.space = 1000000;
    log.Flush();
    disk.taken.clear();
    EXPECT_EQ(1, log.Text("s"));
    EXPECT_EQ(1, log.Text("\n"));
    log.Flush();
    EXPECT_EQ("s\n", disk.taken);
}

TEST_F(PZLSysFileOutTest, AnswersOneForABlockThatIsWrittenInPart) {
    disk = {10};
    fdopen_call.Replace(&open_on_disk);
    Log log(*this, 0, 0);
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(1, log.Text("0123456789abc" + std::string(100000, 'x')));
    log.Flush();
    EXPECT_EQ("0123456789", disk.taken);
    ExpectWrittenWithSpace(log, &PZLSysFileOut::Close);
}

TEST_F(PZLSysFileOutTest, AnswersOneForWritesToAFullDevice) {
    open_call.Replace([](const char* /*path*/, int flags, mode_t mode) {
        return open_call.Real("/dev/full", flags, mode);
    });
    Log log(*this, 1000, 0);
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(1, log.Text("x"));
    EXPECT_EQ(1, log.Text(std::string(100000, 'x')));
    log.Flush();
    EXPECT_EQ(1, log.Text("x"));
    log.Close();
    EXPECT_EQ(0, log.Text("x"));
}

// Flush and Close

TEST_F(PZLSysFileOutTest, FlushHandsTheDataOverAndSyncs) {
    Log log(*this, 0, 0);
    ASSERT_TRUE(log.Open());
    log.Text("abc");
    EXPECT_EQ("", Content("app.txt"));
    const int syncs = sync_call.Calls();
    log.Flush();
    EXPECT_EQ("abc", Content("app.txt"));
    EXPECT_EQ(syncs + 1, sync_call.Calls());
}

TEST_F(PZLSysFileOutTest, NeitherWritingNorOpeningAnEmptyFileSyncs) {
    Log log(*this, 0, 0);
    ASSERT_TRUE(log.Open());
    for (int i = 0; i < 1000; ++i) log.Text(std::string(100, 'x'));
    EXPECT_EQ(0, sync_call.Calls());
}

TEST_F(PZLSysFileOutTest, FlushLeavesOtherStreamsAlone) {
    FILE* other = std::fopen(Path("other").c_str(), "w");
    std::fputs("buffered", other);
    Log log(*this, 0, 0);
    log.Flush();
    ASSERT_TRUE(log.Open());
    log.Flush();
    log.Close();
    log.Flush();
    EXPECT_EQ("", Content("other"));
    std::fclose(other);
}

TEST_F(PZLSysFileOutTest, FlushAndCloseDoNothingWithoutAFile) {
    Log log(*this, 0, 0);
    log.Flush();
    log.Close();
    EXPECT_EQ(0, sync_call.Calls());
}

TEST_F(PZLSysFileOutTest, ClosesOnceAndCanBeOpenedAgain) {
    Log log(*this, 1000, 0);
    const int descriptors = open_descriptors();
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(descriptors + 1, open_descriptors());
    log.Text("abc");
    log.Close();
    EXPECT_EQ(1, sync_call.Calls());
    EXPECT_EQ(descriptors, open_descriptors());
    EXPECT_EQ("abc", Content("app.txt"));
    EXPECT_EQ(0, log.Text("x"));
    log.Close();
    EXPECT_EQ(1, sync_call.Calls());
    ASSERT_TRUE(log.Open());
    EXPECT_EQ(1, log.Text("def"));
    log.Close();
    EXPECT_EQ("abcdef", Content("app.txt"));
}

TEST_F(PZLSysFileOutTest, LeavesItsFileOpenWhenItIsDestroyed) {
    const int descriptors = open_descriptors();
    {
        PZLSysFileOut log(wide(dir.Path()).c_str(), L"app", L"txt", false, 0, 0);
        ASSERT_TRUE(log.Open());
    }
    EXPECT_EQ(descriptors + 1, open_descriptors());
    EXPECT_EQ(0, std::fclose(opened_files.back().stream));
}

// Without memory

namespace {

/// One operation with each of its allocations refused in turn, until it needs no more of them.
template <typename Operation>
void without_memory(Operation operation) {
    for (int skip = 0;; ++skip) {
        const pztest::MemoryShortage shortage(skip);
        operation();
        if (shortage.Refused() == 0) return;
    }
}

}  // namespace

TEST_F(PZLSysFileOutTest, NeedsNoMemoryToOpenToShiftAndToWrite) {
    remembers_files = false;
    const std::wstring directory = wide(Path("a/b"));
    std::filesystem::create_directories(Path("a/b"));
    write_file(Path("a/b/app_0.txt"), std::string(1000, 'o'));
    bool opened = false;
    int written = 0;
    int refused = 0;
    {
        const pztest::GeneralMemoryShortage shortage;
        PZLSysFileOut log(directory.c_str(), L"app", L"txt", false, 1000, 3);
        opened = log.Open();
        written = log.Write("x", 1);  // reaches the maximum
        log.Flush();
        log.Close();
        refused = shortage.Refused();
    }
    EXPECT_TRUE(opened);
    EXPECT_EQ(1, written);
    EXPECT_EQ(std::string(1000, 'o') + "x", Content("a/b/app_0.txt"));
    EXPECT_EQ(std::string(1000, 'o'), Content("a/b/app_1.txt"));
    EXPECT_EQ(0, refused);
}

TEST_F(PZLSysFileOutTest, StaysOpenWhateverFailsInAShiftWithoutMemory) {
    remembers_files = false;
    const std::wstring directory = wide(dir.Path());
    int answers = 1;
    without_memory([&] {
        PZLSysFileOut log(directory.c_str(), L"app", L"txt", false, 100, 4);
        answers &= log.Open() ? 1 : 0;
        const char block[200] = {};
        answers &= log.Write(block, sizeof block);  // reaches the maximum
        answers &= log.FWrite("%d", 1);
        log.Flush();
        log.Close();
    });
    EXPECT_EQ(1, answers);
    EXPECT_LT(0U, Content("app_0.txt").size());
}

TEST_F(PZLSysFileOutTest, OpensATimeStampedFileWithoutMemory) {
    remembers_files = false;
    const std::wstring directory = wide(dir.Path());
    bool opened = true;
    without_memory([&] {
        PZLSysFileOut log(directory.c_str(), L"app", L"txt", false, 0, -1);
        opened = opened && log.Open();
        log.Close();
    });
    EXPECT_TRUE(opened);
    EXPECT_TRUE(Exists("app240305_0708.txt"));
}

TEST_F(PZLSysFileOutTest, HasNoSizeWithoutMemoryAndSaysSo) {
    write_file(Path("file"), "12345");
    remembers_files = false;
    const std::wstring path = wide(Path("file"));
    std::vector<unsigned int> sizes;
    sizes.reserve(100);
    without_memory([&] { sizes.push_back(PZLSysFileOut::GetSize(path.c_str())); });
    ASSERT_LT(1U, sizes.size());
    EXPECT_EQ(5U, sizes.back());
    sizes.pop_back();
    EXPECT_EQ(std::vector<unsigned int>(sizes.size(), kNoSize), sizes);
    EXPECT_EQ(sizes.size(), count_of(output.Take(), "failed to allocate memory\n"));
}

// Sizes of files

TEST_F(PZLSysFileOutTest, MeasuresAFile) {
    write_file(Path("file"), "12345");
    write_file(Path("empty"), "");
    const int descriptors = open_descriptors();
    EXPECT_EQ(5U, PZLSysFileOut::GetSize(wide(Path("file")).c_str()));
    EXPECT_EQ("rb", opened_files.back().mode);
    EXPECT_EQ(0U, PZLSysFileOut::GetSize(wide(Path("empty")).c_str()));
    EXPECT_EQ(descriptors, open_descriptors());
}

TEST_F(PZLSysFileOutTest, MeasuresTheLow32BitsOfASize) {
    make_sparse_file(Path("file"), (1LL << 32) + 7);
    EXPECT_EQ(7U, PZLSysFileOut::GetSize(wide(Path("file")).c_str()));
}

TEST_F(PZLSysFileOutTest, HasNoSizeForAFileThatCannotBeOpened) {
    EXPECT_EQ(kNoSize, PZLSysFileOut::GetSize(wide(Path("missing")).c_str()));
    EXPECT_EQ(kNoSize, PZLSysFileOut::GetSize(kNoCharacter));
    EXPECT_EQ(kNoSize, PZLSysFileOut::GetSize(L""));
    EXPECT_EQ(kNoSize, PZLSysFileOut::GetSize(nullptr));
}

TEST_F(PZLSysFileOutTest, WaitsForTheWriterOfAFifoThatItMeasures) {
    const std::string fifo = Path("fifo");
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    EXPECT_TRUE(
        pztest::waits_for_writer(fifo, "", [&] { PZLSysFileOut::GetSize(wide(fifo).c_str()); }));
}
