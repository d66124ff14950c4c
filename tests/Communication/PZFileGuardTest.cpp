#include "Framework/Communication/PZFileGuard.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/Document.h"
#include "support/Golden.h"
#include "support/GuardFiles.h"
#include "support/Interposed.h"
#include "support/OpenDescriptors.h"
#include "support/OwnSegments.h"
#include "support/StdoutCapture.h"
#include "support/Uncopyable.h"

PZ_INTERPOSE(pthread_mutex_lock, 1, EINVAL);
PZ_INTERPOSE(pthread_mutex_trylock, 1, EINVAL);
PZ_INTERPOSE(pthread_mutex_unlock, 1, EINVAL);

// One process; the guard's two sides are two objects in it.

namespace {

using pztest::GuardFiles;
using pztest::GuardSegment;
using pztest::Interposed;
using pztest::permissions_of;

using Texts = std::vector<std::string>;

constexpr unsigned char kUsable = 0xA5;
constexpr unsigned char kDestroyed = 0xFF;

void* const kNoAddress = reinterpret_cast<void*>(-1);

Interposed<key_t(const char*, int)> ftok_call("ftok");
Interposed<int(key_t, size_t, int)> shmget_call("shmget");
Interposed<void*(int, const void*, int)> shmat_call("shmat", kNoAddress);
Interposed<int(const void*)> shmdt_call("shmdt");
Interposed<int(int, int, shmid_ds*)> shmctl_call("shmctl");
Interposed<FILE*(const char*, const char*)> fopen_call("fopen", nullptr);
Interposed<DIR*(const char*)> opendir_call("opendir", nullptr);
Interposed<int(const char*, mode_t)> mkdir_call("mkdir");
Interposed<int(int, mode_t)> fchmod_call("fchmod");
Interposed<int(int, const char*, mode_t, int)> fchmodat_call("fchmodat");

// These answer an error number.
Interposed<int(pthread_mutexattr_t*, int)> settype_call("pthread_mutexattr_settype", EINVAL);
Interposed<int(pthread_mutexattr_t*, int)> setpshared_call("pthread_mutexattr_setpshared", EINVAL);
Interposed<int(pthread_mutex_t*, const pthread_mutexattr_t*)> init_call("pthread_mutex_init",
                                                                        EINVAL);
Interposed<int(pthread_mutex_t*)> destroy_call("pthread_mutex_destroy", EBUSY);

void reset_calls() {
    ftok_call.Reset();
    shmget_call.Reset();
    shmat_call.Reset();
    shmdt_call.Reset();
    shmctl_call.Reset();
    fopen_call.Reset();
    opendir_call.Reset();
    mkdir_call.Reset();
    fchmod_call.Reset();
    fchmodat_call.Reset();
    settype_call.Reset();
    setpshared_call.Reset();
    init_call.Reset();
    destroy_call.Reset();
    pthread_mutex_lock_call.Reset();
    pthread_mutex_trylock_call.Reset();
    pthread_mutex_unlock_call.Reset();
}

/// The segments that are attached. A system side never detaches its own, and the machine has a
/// limited number for all processes: the fixture detaches what a test leaves behind.
std::set<const void*> attached_segments;

void detach_segments() {
    for (const void* const address : attached_segments) shmdt_call.Real(address);
    attached_segments.clear();
}

/// The calls of the guard in order, while it is not null.
Texts* trace = nullptr;

void note(const std::string& call) {
    if (trace != nullptr) trace->push_back(call);
}

std::string octal(unsigned int value) {
    char text[16];
    std::snprintf(text, sizeof text, "0%o", value);
    return text;
}

/// Notes the calls between its construction and End.
class Trace : private pztest::Uncopyable {
public:
    Trace() { trace = &calls_; }
    ~Trace() { trace = nullptr; }

    const Texts& End() {
        trace = nullptr;
        return calls_;
    }

private:
    Texts calls_;
};

}  // namespace

extern "C" {

key_t ftok(const char* pathname, int proj_id) noexcept {
    note("ftok " + std::string(pathname) + " " + std::to_string(proj_id));
    return ftok_call(pathname, proj_id);
}
int shmget(key_t key, size_t size, int shmflg) noexcept {
    note("shmget " + std::to_string(size) + " " + octal(static_cast<unsigned int>(shmflg)));
    return shmget_call(key, size, shmflg);
}
void* shmat(int shmid, const void* shmaddr, int shmflg) noexcept {
    note("shmat " + std::string(shmaddr == nullptr ? "anywhere" : "there") + " " +
         std::to_string(shmflg));
    void* const address = shmat_call(shmid, shmaddr, shmflg);
    if (address != kNoAddress) attached_segments.insert(address);
    return address;
}
int shmdt(const void* shmaddr) noexcept {
    note("shmdt");
    const int result = shmdt_call(shmaddr);
    if (result == 0) attached_segments.erase(shmaddr);
    return result;
}
int shmctl(int shmid, int cmd, shmid_ds* buf) noexcept {
    if (cmd == IPC_RMID) note("remove " + std::to_string(shmid));
    return shmctl_call(shmid, cmd, buf);
}
FILE* fopen(const char* filename, const char* modes) {
    note("fopen " + std::string(filename) + " " + modes);
    return fopen_call(filename, modes);
}
FILE* fopen64(const char* filename, const char* modes) {
    return fopen(filename, modes);
}
DIR* opendir(const char* name) {
    note("opendir " + std::string(name));
    return opendir_call(name);
}
int mkdir(const char* path, mode_t mode) noexcept {
    note("mkdir " + std::string(path) + " " + octal(mode));
    return mkdir_call(path, mode);
}
int fchmod(int fd, mode_t mode) noexcept {
    note("fchmod " + pztest::target_of(fd) + " " + octal(mode));
    return fchmod_call(fd, mode);
}
int fchmodat(int dir, const char* file, mode_t mode, int flag) noexcept {
    note(std::string(flag == AT_SYMLINK_NOFOLLOW ? "chmod no link " : "chmod ") + file + " " +
         octal(mode));
    return fchmodat_call(dir, file, mode, flag);
}
int pthread_mutexattr_settype(pthread_mutexattr_t* attr, int kind) noexcept {
    note(kind == PTHREAD_MUTEX_RECURSIVE ? "recursive" : "not recursive");
    return settype_call(attr, kind);
}
int pthread_mutexattr_setpshared(pthread_mutexattr_t* attr, int pshared) noexcept {
    note(pshared == PTHREAD_PROCESS_SHARED ? "shared" : "not shared");
    return setpshared_call(attr, pshared);
}
int pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* mutexattr) noexcept {
    note("init mutex");
    return init_call(mutex, mutexattr);
}
int pthread_mutex_destroy(pthread_mutex_t* mutex) noexcept {
    note("destroy mutex");
    return destroy_call(mutex);
}

}  // extern "C"

namespace {

/// The record of a guard, field by field in the order of their declaration.
struct Record {
    void* dispatchTable;
    std::string dirPath;
    std::string fileName;
    int mutexShmId;
    pthread_mutex_t* mutex;
    int initFlagShmId;
    unsigned char* initFlag;
    bool initialized;
    int mode;
};
static_assert(sizeof(Record) == sizeof(PZFileGuard), "record layout");

/// The part of it that tells what a guard has attached.
struct State {
    int mutexShmId;
    bool hasMutex;
    int initFlagShmId;
    bool hasInitFlag;
    bool initialized;
    int mode;

    bool operator==(const State& other) const {
        return mutexShmId == other.mutexShmId && hasMutex == other.hasMutex &&
               initFlagShmId == other.initFlagShmId && hasInitFlag == other.hasInitFlag &&
               initialized == other.initialized && mode == other.mode;
    }
};

std::ostream& operator<<(std::ostream& out, const State& state) {
    return out << "mutex " << state.mutexShmId << (state.hasMutex ? " attached" : " null")
               << ", flag " << state.initFlagShmId << (state.hasInitFlag ? " attached" : " null")
               << (state.initialized ? ", initialized" : ", not initialized") << ", mode "
               << state.mode;
}

template <typename T>
T field_of(const PZFileGuard& guard, size_t offset) {
    T value;
    std::memcpy(&value, reinterpret_cast<const char*>(&guard) + offset, sizeof value);
    return value;
}

State state_of(const PZFileGuard& guard) {
    return {field_of<int>(guard, offsetof(Record, mutexShmId)),
            field_of<void*>(guard, offsetof(Record, mutex)) != nullptr,
            field_of<int>(guard, offsetof(Record, initFlagShmId)),
            field_of<void*>(guard, offsetof(Record, initFlag)) != nullptr,
            field_of<bool>(guard, offsetof(Record, initialized)),
            field_of<int>(guard, offsetof(Record, mode))};
}

constexpr State kUntouched = {-1, false, -1, false, false, 0};

/// What a thread of its own gets from the function.
template <typename Body>
bool in_other_thread(Body body) {
    bool result = false;
    std::thread([&result, &body] { result = body(); }).join();
    return result;
}

class PZFileGuardTest : public testing::Test {
protected:
    PZFileGuardTest() {
        reset_calls();
        oldMask_ = umask(022);
    }
    ~PZFileGuardTest() override {
        umask(oldMask_);
        reset_calls();  // before the files are cleared away
        detach_segments();
    }

    /// The messages of the error lines since the last call.
    Texts Messages() { return pztest::error_messages(output_.Take()); }

    /// Expects these reports of `operation`, in order, and nothing else.
    void ExpectReports(const std::vector<std::pair<std::string, std::string>>& expected) {
        const std::string text = output_.Take();
        Texts messages;
        for (const auto& [operation, message] : expected) {
            // Those that name a system call end without a line feed.
            const auto says = message.rfind("PZFileGuard::", 0) == 0 ? pztest::has_unended_report
                                                                     : pztest::has_report;
            EXPECT_TRUE(says(text, operation, "PZFileGuard.cpp", message))
                << operation << ": " << message << " in\n"
                << text;
            messages.push_back(message);
        }
        EXPECT_EQ(messages, pztest::error_messages(text));
    }

    /// Expects these reports, followed by the five innermost frames of the call stack.
    void ExpectReportsAndFrames(const Texts& expected) {
        constexpr size_t kFrames = 5;
        const std::string text = output_.Take();
        Texts messages = pztest::error_messages(text);
        ASSERT_EQ(expected.size() + kFrames, messages.size());
        EXPECT_EQ(kFrames, pztest::count_of(text, "dumpDirectly()@PZCallStack.cpp"));
        EXPECT_TRUE(pztest::has_report(text, "dumpDirectly", "PZCallStack.cpp", messages.back()));
        messages.resize(expected.size());
        EXPECT_EQ(expected, messages);
    }

    std::string NoKeyReport(const std::string& keyFile) const {
        return "PZFileGuard::initMutex() ftok(" + keyFile + ") Failed [No such file or directory]";
    }

    const GuardFiles files_;
    const std::string& dir_ = files_.Dir();
    const std::string& name_ = files_.Name();
    pztest::StdoutCapture output_;

private:
    mode_t oldMask_ = 0;
};

// --- Construction and settings ---

TEST_F(PZFileGuardTest, CanBeDerivedFromButNotCopied) {
    EXPECT_TRUE(std::has_virtual_destructor_v<PZFileGuard>);
    EXPECT_FALSE(std::is_copy_constructible_v<PZFileGuard>);
    EXPECT_FALSE(std::is_copy_assignable_v<PZFileGuard>);
}

TEST_F(PZFileGuardTest, IsNotAttachedAtFirst) {
    const PZFileGuard byDefault;
    const PZFileGuard named("x");
    const PZFileGuard placed(dir_, "x");
    EXPECT_EQ(kUntouched, state_of(byDefault));
    EXPECT_EQ(kUntouched, state_of(named));
    EXPECT_EQ(kUntouched, state_of(placed));
}

TEST_F(PZFileGuardTest, LeavesNothingAndPrintsNothingWhenItWasNeverUsed) {
    { const PZFileGuard guard(dir_, name_); }
    EXPECT_EQ("", output_.Take());
    EXPECT_EQ(0, ftok_call.Calls());
    EXPECT_EQ(0, shmdt_call.Calls());
    EXPECT_EQ(0, shmctl_call.Calls());
}

TEST_F(PZFileGuardTest, NeedsAFileNameOnTheSystemSide) {
    PZFileGuard guard;
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    EXPECT_EQ(kUntouched, state_of(guard));
}

TEST_F(PZFileGuardTest, KeepsItsKeyFilesInTheSystemDataDirectoryByDefault) {
    const GuardFiles files("/temp/system_data/", "pz_guard_" + std::to_string(getpid()));
    {
        PZFileGuard guard(files.Name());
        EXPECT_TRUE(guard.initForSystem());
        EXPECT_EQ(0777U, permissions_of(files.MutexFile()));
        EXPECT_EQ(0777U, permissions_of(files.FlagFile()));
    }
    {
        PZFileGuard guard;
        EXPECT_TRUE(guard.setFileName(files.Name()));
        EXPECT_TRUE(guard.initForSystem());
        EXPECT_TRUE(GuardSegment(files.MutexFile()).Exists());
    }
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, AppendsTheSlashThatADirectoryLacks) {
    PZFileGuard guard(dir_.substr(0, dir_.size() - 1), name_);
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_TRUE(GuardSegment(files_.MutexFile()).Exists());
    EXPECT_TRUE(GuardSegment(files_.FlagFile()).Exists());
}

TEST_F(PZFileGuardTest, KeepsTheSlashThatADirectoryHas) {
    PZFileGuard guard(dir_, name_);
    Trace calls;
    EXPECT_FALSE(guard.initForApp());
    EXPECT_EQ(Texts{"ftok " + files_.MutexFile() + " 1"}, calls.End());
}

TEST_F(PZFileGuardTest, TakesAnEmptyDirectoryForTheRoot) {
    fopen_call.FailNext(EACCES);
    PZFileGuard guard("", "pz_guard_nowhere");
    EXPECT_FALSE(guard.initForSystem());
    EXPECT_EQ(
        (Texts{"PZFileGuard::initMutex() fopen(/pz_guard_nowhere_mutex) Failed [Permission denied]",
               "error", "error"}),
        Messages());
}

TEST_F(PZFileGuardTest, CanBeGivenAnotherFileBeforeItIsUsed) {
    PZFileGuard guard(dir_, "first");
    EXPECT_TRUE(guard.setFileName(name_));
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_TRUE(GuardSegment(files_.MutexFile()).Exists());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, CanBeGivenAnotherDirectoryBeforeItIsUsed) {
    PZFileGuard guard;
    EXPECT_TRUE(guard.setFilePath(dir_.substr(0, dir_.size() - 1), name_));
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_TRUE(GuardSegment(files_.MutexFile()).Exists());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, RefusesAnEmptyNameAndKeepsItsSettings) {
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.setFileName(""));
    ExpectReports({{"setFileName", "error"}});
    EXPECT_FALSE(guard.setFilePath("/elsewhere", ""));
    ExpectReports({{"setFilePath", "error"}});
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_TRUE(GuardSegment(files_.MutexFile()).Exists());
}

TEST_F(PZFileGuardTest, RefusesOtherSettingsWhileItIsUsed) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    for (PZFileGuard* const guard : {&system, &app}) {
        EXPECT_FALSE(guard->setFileName("other"));
        ExpectReports({{"setFileName", "error"}});
        EXPECT_FALSE(guard->setFilePath(dir_, "other"));
        ExpectReports({{"setFilePath", "error"}});
    }
}

// --- The system side: directory and key files ---

TEST_F(PZFileGuardTest, MakesDirectoryKeyFilesSegmentsAndMutexInThisOrder) {
    const GuardFiles files(dir_ + "one/two/", "data");
    PZFileGuard guard(files.Dir(), files.Name());
    Trace calls;
    EXPECT_TRUE(guard.initForSystem());
    const Texts made = calls.End();  // before the golden file is read
    const std::string expected = pztest::golden(
        "file_guard_start.txt", {{"folder", dir_.substr(0, dir_.size() - 1)},
                                 {"mutex file", files.MutexFile()},
                                 {"flag file", files.FlagFile()},
                                 {"mutex size", std::to_string(sizeof(pthread_mutex_t))}});
    EXPECT_EQ(pztest::lines_of(expected), made);
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, OpensWhatItMakesToEverybodyWhateverTheUmask) {
    umask(077);
    const GuardFiles files(dir_ + "one/two/", "data");
    PZFileGuard guard(files.Dir(), files.Name());
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_EQ(0777U, permissions_of(dir_ + "one"));
    EXPECT_EQ(0777U, permissions_of(dir_ + "one/two"));
    EXPECT_EQ(0777U, permissions_of(files.MutexFile()));
    EXPECT_EQ(0777U, permissions_of(files.FlagFile()));
    EXPECT_EQ(0666U, GuardSegment(files.MutexFile()).Mode());
    EXPECT_EQ(0666U, GuardSegment(files.FlagFile()).Mode());
}

TEST_F(PZFileGuardTest, LeavesTheModeOfADirectoryThatIsThere) {
    const GuardFiles files(dir_ + "there/", "data");
    ASSERT_EQ(0, mkdir((dir_ + "there").c_str(), 0700));
    PZFileGuard guard(files.Dir(), files.Name());
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_EQ(0700U, permissions_of(dir_ + "there"));
}

TEST_F(PZFileGuardTest, OpensKeyFilesThatAreThereAndLeavesTheirContent) {
    pztest::write_file(files_.MutexFile(), "kept");
    pztest::write_file(files_.FlagFile(), "kept, too");
    PZFileGuard guard(dir_, name_);
    fopen_call.FailNext(EACCES);
    EXPECT_TRUE(guard.initForSystem());
    fopen_call.Reset();
    EXPECT_EQ("kept", pztest::read_file(files_.MutexFile()));
    EXPECT_EQ("kept, too", pztest::read_file(files_.FlagFile()));
    EXPECT_EQ(0777U, permissions_of(files_.MutexFile()));
    EXPECT_EQ(0777U, permissions_of(files_.FlagFile()));
}

TEST_F(PZFileGuardTest, DoesNotMakeTheRootOrAFirstDirectoryOfOneLetter) {
    for (const char* const dir : {"/", "q/", "//"}) {
        SCOPED_TRACE(dir);
        fopen_call.FailNext(ENOENT);
        PZFileGuard guard(dir, "pz_guard_nowhere");
        Trace calls;
        EXPECT_FALSE(guard.initForSystem());
        const std::string file = std::string(dir) + "pz_guard_nowhere_mutex";
        EXPECT_EQ((Texts{"ftok " + file + " 1", "fopen " + file + " a+xe"}), calls.End());
    }
}

TEST_F(PZFileGuardTest, TakesTheFirstSlashBelowTheSecondCharacterForTheFirstDirectory) {
    fopen_call.FailNext(ENOENT);
    mkdir_call.FailNext(EROFS);
    PZFileGuard guard("q/rs/t", "pz_guard_nowhere");
    Trace calls;
    EXPECT_FALSE(guard.initForSystem());
    Texts made = calls.End();
    ASSERT_LE(2U, made.size());
    made.resize(2);
    EXPECT_EQ((Texts{"opendir q/rs", "mkdir q/rs 0777"}), made);
}

TEST_F(PZFileGuardTest, ReportsADirectoryThatItMayNotMakeAndMakesNoneBelow) {
    mkdir_call.FailNext(EACCES);
    PZFileGuard guard(dir_ + "one/two", name_);
    Trace calls;
    EXPECT_FALSE(guard.initForSystem());
    EXPECT_EQ((Texts{"opendir /tmp", "opendir " + dir_.substr(0, dir_.size() - 1),
                     "opendir " + dir_ + "one", "mkdir " + dir_ + "one 0777",
                     "ftok " + dir_ + "one/two/" + name_ + "_mutex 1",
                     "fopen " + dir_ + "one/two/" + name_ + "_mutex a+xe"}),
              calls.End());
    ExpectReports({{"makeDir", "PZFileGuard::makeDir() mkdir() Failed [Permission denied]"},
                   {"getMkeyForSystem", "PZFileGuard::initMutex() fopen(" + dir_ + "one/two/" +
                                            name_ + "_mutex) Failed [No such file or directory]"},
                   {"attachSharedMem", "error"},
                   {"initForSystem", "error"}});
    EXPECT_EQ((State{-1, false, -1, false, false, 1}), state_of(guard));
}

TEST_F(PZFileGuardTest, GoesOnInADirectoryWhoseParentItMayNotRead) {
    // The parent is there, but cannot be opened, and so seems to be missing.
    opendir_call.FailNext(EACCES);
    PZFileGuard guard(dir_, name_);
    EXPECT_TRUE(guard.initForSystem());
    ExpectReports({{"makeDir", "PZFileGuard::makeDir() mkdir() Failed [File exists]"}});
    EXPECT_TRUE(guard.lock());
    EXPECT_TRUE(guard.unlock());
}

TEST_F(PZFileGuardTest, GoesOnWhenModesCannotBeChanged) {
    const GuardFiles files(dir_ + "one/", "data");
    fchmod_call.FailNext(EPERM);
    fchmodat_call.FailNext(EPERM, 2);
    PZFileGuard guard(files.Dir(), files.Name());
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_EQ(1, fchmod_call.Calls());
    EXPECT_EQ(2, fchmodat_call.Calls());
    EXPECT_EQ("", output_.Take());
    EXPECT_EQ(0755U, permissions_of(dir_ + "one"));
    EXPECT_EQ(0644U, permissions_of(files.MutexFile()));
}

TEST_F(PZFileGuardTest, ReportsAKeyFileThatCannotBeMade) {
    fopen_call.FailNext(ENOSPC);
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"getMkeyForSystem", "PZFileGuard::initMutex() fopen(" + files_.MutexFile() +
                                            ") Failed [No space left on device]"},
                   {"attachSharedMem", "error"},
                   {"initForSystem", "error"}});
    EXPECT_EQ((State{-1, false, -1, false, false, 1}), state_of(guard));
    EXPECT_EQ(0, shmget_call.Calls());
}

TEST_F(PZFileGuardTest, ReportsAKeyFileThatHasNoKeyEvenNow) {
    ftok_call.FailNext(EACCES, 2);
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"getMkeyForApp", "PZFileGuard::initMutex() ftok(" + files_.MutexFile() +
                                         ") Failed [Permission denied]"},
                   {"attachSharedMem", "error"},
                   {"initForSystem", "error"}});
    EXPECT_EQ(0, fchmodat_call.Calls());
}

TEST_F(PZFileGuardTest, TreatsEveryNegativeKeyAsAFailure) {
    ftok_call.Replace(+[](const char*, int) -> key_t {
        errno = ENOENT;
        return -2;
    });
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForApp());
    ExpectReportsAndFrames({NoKeyReport(files_.MutexFile()), "error", "error"});
    EXPECT_EQ(0, shmget_call.Calls());
}

TEST_F(PZFileGuardTest, KeepsTheMutexSegmentWhenTheOtherKeyFileCannotBeMade) {
    fopen_call.FailNext(EMFILE, 1, 1);
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"getMkeyForSystem", "PZFileGuard::initMutex() fopen(" + files_.FlagFile() +
                                            ") Failed [Too many open files]"},
                   {"attachSharedMem", "error"},
                   {"initForSystem", "error"}});
    const GuardSegment mutex(files_.MutexFile());
    EXPECT_EQ((State{mutex.Id(), true, -1, false, false, 1}), state_of(guard));
}

// --- The system side: folders that everybody may write ---

/// A file of somebody else's.
std::string make_private_file(const std::string& path) {
    pztest::write_file(path, "private");
    chmod(path.c_str(), 0600);
    return path;
}

TEST_F(PZFileGuardTest, RefusesAKeyFileThatIsALinkAndLeavesWhatItLeadsTo) {
    const std::string victim = make_private_file(dir_ + "private");
    for (const std::string& keyFile : {files_.MutexFile(), files_.FlagFile()}) {
        SCOPED_TRACE(keyFile);
        ASSERT_EQ(0, symlink(victim.c_str(), keyFile.c_str()));
        PZFileGuard guard(dir_, name_);
        EXPECT_FALSE(guard.initForSystem());
        ExpectReports({{"getMkeyForSystem", "PZFileGuard::initMutex() fopen(" + keyFile +
                                                ") Failed [Too many levels of symbolic links]"},
                       {"attachSharedMem", "error"},
                       {"initForSystem", "error"}});
        EXPECT_EQ(0600U, permissions_of(victim));
        ASSERT_EQ(0, unlink(keyFile.c_str()));
    }
}

TEST_F(PZFileGuardTest, MakesNothingWhereAKeyFileThatIsALinkLeads) {
    const std::string target = dir_ + "not_there";
    ASSERT_EQ(0, symlink(target.c_str(), files_.MutexFile().c_str()));
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    EXPECT_NE(0, access(target.c_str(), F_OK));
}

std::string exchanged_file;  // becomes a link to the next
std::string link_target;

FILE* open_and_exchange(const char* path, const char* modes) {
    FILE* const file = fopen_call.Real(path, modes);
    if (path == exchanged_file) {
        unlink(path);
        if (symlink(link_target.c_str(), path) != 0) std::abort();
    }
    return file;
}

TEST_F(PZFileGuardTest, ChangesNoModeThroughALinkThatReplacesTheNewKeyFile) {
    exchanged_file = files_.FlagFile();
    link_target = make_private_file(dir_ + "private");
    fopen_call.Replace(&open_and_exchange);
    PZFileGuard guard(dir_, name_);
    guard.initForSystem();
    EXPECT_LE(2, fopen_call.Calls());
    EXPECT_EQ(0600U, permissions_of(link_target));
}

FILE* open_what_somebody_else_has_made(const char* path, const char* modes) {
    fclose(fopen_call.Real(path, "a+"));
    return fopen_call.Real(path, modes);
}

TEST_F(PZFileGuardTest, TakesTheKeyFilesThatAnotherSystemSideMakesAtTheSameTime) {
    fopen_call.Replace(&open_what_somebody_else_has_made);
    PZFileGuard guard(dir_, name_);
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_EQ("", output_.Take());
    EXPECT_EQ(0777U, permissions_of(files_.MutexFile()));
}

std::string exchange_for;  // takes the place of a directory that was just made

int make_and_exchange_for_a_link(const char* path, mode_t mode) {
    const int result = mkdir_call.Real(path, mode);
    rmdir(path);
    if (symlink(exchange_for.c_str(), path) != 0) std::abort();
    return result;
}

int make_and_exchange_for_a_directory(const char* path, mode_t mode) {
    const int result = mkdir_call.Real(path, mode);
    if (rename(exchange_for.c_str(), path) != 0) std::abort();
    return result;
}

TEST_F(PZFileGuardTest, ChangesNoModeThroughALinkThatReplacesTheNewDirectory) {
    exchange_for = dir_ + "private";
    ASSERT_EQ(0, mkdir_call.Real(exchange_for.c_str(), 0700));
    mkdir_call.Replace(&make_and_exchange_for_a_link);
    PZFileGuard guard(dir_ + "new", name_);
    guard.initForSystem();
    EXPECT_EQ(1, mkdir_call.Calls());
    EXPECT_EQ(0700U, permissions_of(exchange_for));
}

TEST_F(PZFileGuardTest, ChangesNoModeOfADirectoryInUseThatReplacesTheNewOne) {
    exchange_for = dir_ + "private";
    ASSERT_EQ(0, mkdir_call.Real(exchange_for.c_str(), 0700));
    make_private_file(exchange_for + "/secret");
    mkdir_call.Replace(&make_and_exchange_for_a_directory);
    const GuardFiles files(dir_ + "new/", name_);
    PZFileGuard guard(files.Dir(), files.Name());
    guard.initForSystem();
    EXPECT_EQ(1, mkdir_call.Calls());
    EXPECT_EQ(0700U, permissions_of(dir_ + "new"));
}

// --- The system side: segments and mutex ---

unsigned char* flag_while_making = nullptr;
unsigned char flag_seen_while_making = 0;

int look_at_the_flag(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    flag_seen_while_making = __atomic_load_n(flag_while_making, __ATOMIC_ACQUIRE);
    return init_call.Real(mutex, attributes);
}

TEST_F(PZFileGuardTest, LetsNobodyLockWhileTheMutexIsInitialisedAgain) {
    PZFileGuard first(dir_, name_);
    ASSERT_TRUE(first.initForSystem());
    flag_while_making = field_of<unsigned char*>(first, offsetof(Record, initFlag));
    ASSERT_EQ(kUsable, *flag_while_making);
    init_call.Replace(&look_at_the_flag);
    PZFileGuard second(dir_, name_);
    EXPECT_TRUE(second.initForSystem());
    EXPECT_EQ(0, flag_seen_while_making);
    EXPECT_EQ(kUsable, *flag_while_making);
}

TEST_F(PZFileGuardTest, ShowsOtherProgramsAMutexAndAnInitFlag) {
    PZFileGuard guard(dir_, name_);
    ASSERT_TRUE(guard.initForSystem());
    const GuardSegment mutex(files_.MutexFile());
    const GuardSegment flag(files_.FlagFile());
    EXPECT_EQ(sizeof(pthread_mutex_t), mutex.Size());
    EXPECT_EQ(1U, flag.Size());
    EXPECT_EQ(0666U, mutex.Mode());
    EXPECT_EQ(0666U, flag.Mode());
    EXPECT_EQ(1, mutex.Attached());
    EXPECT_EQ(1, flag.Attached());
    EXPECT_EQ(165, flag.Byte());
    EXPECT_EQ((State{mutex.Id(), true, flag.Id(), true, true, 1}), state_of(guard));
}

TEST_F(PZFileGuardTest, ReportsASegmentThatCannotBeMadeOnlyByTheWordError) {
    PZFileGuard withoutMutex(dir_, name_);
    shmget_call.FailNext(ENOSPC);
    EXPECT_FALSE(withoutMutex.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    EXPECT_EQ((State{-1, false, -1, false, false, 1}), state_of(withoutMutex));

    PZFileGuard withoutFlag(dir_, name_);
    shmget_call.FailNext(ENOSPC, 1, 1);
    EXPECT_FALSE(withoutFlag.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    const GuardSegment mutex(files_.MutexFile());
    EXPECT_EQ((State{mutex.Id(), true, -1, false, false, 1}), state_of(withoutFlag));
}

TEST_F(PZFileGuardTest, RemovesAMutexSegmentThatCannotBeAttached) {
    shmat_call.FailNext(ENOMEM);
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    EXPECT_EQ((State{-1, false, -1, false, false, 1}), state_of(guard));
    EXPECT_EQ(1, shmctl_call.Calls());
    EXPECT_FALSE(GuardSegment(files_.MutexFile()).Exists());
}

TEST_F(PZFileGuardTest, RemovesAnInitFlagSegmentThatCannotBeAttached) {
    shmat_call.FailNext(ENOMEM, 1, 1);
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    EXPECT_EQ(1, shmctl_call.Calls());
    const GuardSegment mutex(files_.MutexFile());
    EXPECT_EQ((State{mutex.Id(), true, -1, false, false, 1}), state_of(guard));
    EXPECT_FALSE(GuardSegment(files_.FlagFile()).Exists());
}

TEST_F(PZFileGuardTest, ReportsAMutexThatCannotBeMadeRecursive) {
    settype_call.FailNext(0);
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"initMutex",
                    "PZFileGuard::initMutexForSystem() pthread_mutexattr_settype() Failed. "
                    "[Invalid argument]."},
                   {"initForSystem", "error"}});
    EXPECT_EQ(0, init_call.Calls());
    EXPECT_EQ(0, GuardSegment(files_.FlagFile()).Byte());
    EXPECT_FALSE(state_of(guard).initialized);
    EXPECT_FALSE(guard.canLock());
}

TEST_F(PZFileGuardTest, ReportsAMutexThatCannotBeSharedByTheErrorsNumber) {
    setpshared_call.FailNext(0);
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports(
        {{"initMutex",
          "PZFileGuard::initMutexForSystem() pthread_mutexattr_setpshared Failed() [22s."},
         {"initForSystem", "error"}});
    EXPECT_EQ(0, init_call.Calls());
    EXPECT_EQ(0, GuardSegment(files_.FlagFile()).Byte());
}

TEST_F(PZFileGuardTest, DoesNotAskWhetherTheMutexCouldBeInitialised) {
    init_call.FailNext(0);
    PZFileGuard guard(dir_, name_);
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_EQ(1, init_call.Calls());
    EXPECT_EQ(kUsable, GuardSegment(files_.FlagFile()).Byte());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, ASystemSideRefusesToStartASecondTimeAsEitherSide) {
    PZFileGuard guard(dir_, name_);
    ASSERT_TRUE(guard.initForSystem());
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    EXPECT_FALSE(guard.initForApp());
    ExpectReports({{"initForApp", "error already init [1]"}});
    EXPECT_TRUE(guard.canLock());
}

TEST_F(PZFileGuardTest, ASystemSideThatFailedRefusesASecondStart) {
    fopen_call.FailNext(EACCES);
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.initForSystem());
    Messages();
    EXPECT_FALSE(guard.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    EXPECT_FALSE(guard.canLock());
    EXPECT_EQ("", output_.Take());
    EXPECT_FALSE(guard.destroyMutex());
    ExpectReportsAndFrames({"error not initialized[1]"});
}

// --- The application side ---

TEST_F(PZFileGuardTest, AttachesToTheSystemSidesSegments) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    PZFileGuard app(dir_, name_);
    EXPECT_TRUE(app.initForApp());
    const GuardSegment mutex(files_.MutexFile());
    const GuardSegment flag(files_.FlagFile());
    EXPECT_EQ((State{mutex.Id(), true, flag.Id(), true, true, 2}), state_of(app));
    EXPECT_EQ(2, mutex.Attached());
    EXPECT_TRUE(app.canLock());
    EXPECT_EQ(1, init_call.Calls());  // the system side's only
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, AnApplicationSideMayStartBeforeTheSystemSide) {
    files_.Make();
    PZFileGuard app(dir_, name_);
    Trace calls;
    EXPECT_TRUE(app.initForApp());
    const std::string mutexSize = std::to_string(sizeof(pthread_mutex_t));
    EXPECT_EQ((Texts{"ftok " + files_.MutexFile() + " 1", "shmget " + mutexSize + " 01666",
                     "shmat anywhere 0", "ftok " + files_.FlagFile() + " 1", "shmget 1 01666",
                     "shmat anywhere 0"}),
              calls.End());
    EXPECT_EQ(0, GuardSegment(files_.FlagFile()).Byte());
    EXPECT_EQ("", output_.Take());

    EXPECT_FALSE(app.canLock());
    EXPECT_EQ("", output_.Take());
    EXPECT_FALSE(app.lock());
    ExpectReports({{"lock", "error not initialized"}});
    EXPECT_FALSE(app.tryLock());
    EXPECT_EQ("", output_.Take());

    PZFileGuard system(dir_, name_);
    EXPECT_TRUE(system.initForSystem());
    EXPECT_TRUE(app.lock());
    EXPECT_TRUE(app.unlock());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, AnApplicationSideMayStartWithoutKeyFiles) {
    PZFileGuard app(dir_, name_);
    EXPECT_FALSE(app.initForApp());
    ExpectReportsAndFrames({NoKeyReport(files_.MutexFile()), "error", "error"});
    EXPECT_EQ((State{-1, false, -1, false, false, 2}), state_of(app));
    EXPECT_EQ(0U, permissions_of(files_.MutexFile()));
    EXPECT_FALSE(app.initForApp());
    ExpectReports({{"initForApp", "error already init [2]"}});
}

TEST_F(PZFileGuardTest, AttachesInTheFirstLockThatFindsTheSegments) {
    PZFileGuard app(dir_, name_);
    EXPECT_FALSE(app.initForApp());
    Messages();

    EXPECT_FALSE(app.lock());
    ExpectReports({{"getMkeyForApp", NoKeyReport(files_.MutexFile())},
                   {"attachSharedMem", "error"},
                   {"lock", "error not initialized"}});
    EXPECT_FALSE(app.tryLock());
    ExpectReports(
        {{"getMkeyForApp", NoKeyReport(files_.MutexFile())}, {"attachSharedMem", "error"}});

    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    EXPECT_TRUE(app.lock());
    EXPECT_TRUE(state_of(app).initialized);
    EXPECT_TRUE(app.unlock());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, AttachesAlsoInTryLockAndCanLock) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    for (const bool asks : {true, false}) {
        PZFileGuard app(dir_, name_);
        shmget_call.FailNext(ENFILE);
        EXPECT_FALSE(app.initForApp());
        ExpectReportsAndFrames({"error"});
        EXPECT_TRUE(asks ? app.canLock() : app.tryLock() && app.unlock());
        EXPECT_TRUE(state_of(app).initialized);
    }
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, GoesOnAttachingWhereItStopped) {
    files_.Make();
    PZFileGuard app(dir_, name_);
    shmget_call.FailNext(ENOSPC, 1, 1);
    EXPECT_FALSE(app.initForApp());
    ExpectReportsAndFrames({"error"});
    Trace calls;
    EXPECT_FALSE(app.canLock());  // attached, but there is no system side
    EXPECT_EQ((Texts{"ftok " + files_.FlagFile() + " 1", "shmget 1 01666", "shmat anywhere 0"}),
              calls.End());
    EXPECT_TRUE(state_of(app).initialized);
}

TEST_F(PZFileGuardTest, AnApplicationSideRefusesToStartASecondTimeAsEitherSide) {
    files_.Make();
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    EXPECT_FALSE(app.initForApp());
    ExpectReports({{"initForApp", "error already init [2]"}});
    EXPECT_FALSE(app.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    EXPECT_EQ(2, state_of(app).mode);
}

TEST_F(PZFileGuardTest, NeedsNoFileNameOnTheApplicationSide) {
    const GuardFiles unnamed(dir_, "");
    unnamed.Make();
    PZFileGuard app(dir_, "");
    EXPECT_TRUE(app.initForApp());
    EXPECT_TRUE(GuardSegment(dir_ + "_mutex").Exists());
}

// --- canLock ---

TEST_F(PZFileGuardTest, CannotLockBeforeItIsOfEitherSide) {
    PZFileGuard guard(dir_, name_);
    files_.Make();
    EXPECT_FALSE(guard.canLock());
    EXPECT_FALSE(guard.tryLock());
    EXPECT_EQ("", output_.Take());
    EXPECT_FALSE(guard.lock());
    ExpectReports({{"lock", "error not initialized"}});
    EXPECT_EQ(0, shmget_call.Calls());
}

TEST_F(PZFileGuardTest, CanLockWhileTheInitFlagReadsA5AndNothingElse) {
    PZFileGuard guard(dir_, name_);
    ASSERT_TRUE(guard.initForSystem());
    GuardSegment flag(files_.FlagFile());
    for (unsigned int value = 0; value <= 0xFF; ++value) {
        flag.SetByte(static_cast<unsigned char>(value));
        EXPECT_EQ(value == 0xA5, guard.canLock()) << value;
    }
}

// --- lock, tryLock, unlock ---

TEST_F(PZFileGuardTest, ExcludesTheOtherGuardsOfTheFile) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());

    ASSERT_TRUE(system.lock());
    EXPECT_FALSE(in_other_thread([&app] { return app.tryLock(); }));
    ExpectReports({{"tryLock", "error"}});
    ASSERT_TRUE(system.unlock());
    EXPECT_TRUE(in_other_thread([&app] { return app.tryLock() && app.unlock(); }));
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, OneThreadMayLockItSeveralTimes) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());

    ASSERT_TRUE(system.lock());
    EXPECT_TRUE(system.lock());
    EXPECT_TRUE(system.tryLock());
    EXPECT_TRUE(system.unlock());
    EXPECT_TRUE(system.unlock());
    EXPECT_FALSE(in_other_thread([&app] { return app.tryLock(); }));
    EXPECT_TRUE(system.unlock());
    EXPECT_TRUE(in_other_thread([&app] { return app.tryLock() && app.unlock(); }));
}

// The thread sanitizer reports every such call.
#ifndef __SANITIZE_THREAD__
TEST_F(PZFileGuardTest, UnlockOfAThreadThatDoesNotHoldItIsTrueAndReleasesNothing) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    EXPECT_TRUE(app.unlock()) << "nobody holds it";

    ASSERT_TRUE(system.lock());
    EXPECT_TRUE(in_other_thread([&app] { return app.unlock(); }));
    EXPECT_EQ("", output_.Take());
    EXPECT_FALSE(in_other_thread([&app] { return app.tryLock(); }));
    EXPECT_TRUE(system.unlock());
    EXPECT_TRUE(in_other_thread([&app] { return app.tryLock() && app.unlock(); }));
}
#endif

TEST_F(PZFileGuardTest, DoesNotExcludeGuardsOfOtherFiles) {
    PZFileGuard guard(dir_, name_);
    ASSERT_TRUE(guard.initForSystem());
    const GuardFiles otherFiles("other");
    PZFileGuard other(otherFiles.Dir(), otherFiles.Name());
    ASSERT_TRUE(other.initForSystem());
    ASSERT_TRUE(guard.lock());
    EXPECT_TRUE(in_other_thread([&other] { return other.tryLock() && other.unlock(); }));
    EXPECT_TRUE(guard.unlock());
}

TEST_F(PZFileGuardTest, ReportsAMutexThatTheSystemCallsInvalid) {
    PZFileGuard guard(dir_, name_);
    ASSERT_TRUE(guard.initForSystem());
    pthread_mutex_lock_call.FailNext(0);
    EXPECT_FALSE(guard.lock());
    ExpectReports({{"lock", "PZFileGuard::lock() pthread_mutex_lock() Failed [Invalid argument]"}});
    pthread_mutex_trylock_call.FailNext(0);
    EXPECT_FALSE(guard.tryLock());
    ExpectReports(
        {{"tryLock", "PZFileGuard::tryLock() pthread_mutex_trylock() Failed [Invalid argument]"}});
    pthread_mutex_unlock_call.FailNext(0);
    EXPECT_FALSE(guard.unlock());
    ExpectReports(
        {{"unlock", "PZFileGuard::unlock() pthread_mutex_unlock() Failed [Invalid argument]"}});
}

TEST_F(PZFileGuardTest, RefusesAMutexOfAnotherKind) {
    PZFileGuard guard(dir_, name_);
    ASSERT_TRUE(guard.initForSystem());
    GuardSegment segment(files_.MutexFile());
    pthread_mutex_t priorityInheriting;
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    pthread_mutex_init(&priorityInheriting, &attributes);
    pthread_mutexattr_destroy(&attributes);
    *segment.Mutex() = priorityInheriting;
    reset_calls();
    EXPECT_FALSE(guard.lock());
    ExpectReports({{"lock", "PZFileGuard::lock() pthread_mutex_lock() Failed [Invalid argument]"}});
    EXPECT_FALSE(guard.tryLock());
    ExpectReports(
        {{"tryLock", "PZFileGuard::tryLock() pthread_mutex_trylock() Failed [Invalid argument]"}});
    EXPECT_FALSE(guard.unlock());
    ExpectReports(
        {{"unlock", "PZFileGuard::unlock() pthread_mutex_unlock() Failed [Invalid argument]"}});
    EXPECT_EQ(0, pthread_mutex_lock_call.Calls() + pthread_mutex_trylock_call.Calls() +
                     pthread_mutex_unlock_call.Calls());
    pthread_mutex_destroy(&priorityInheriting);
}

TEST_F(PZFileGuardTest, UnlocksNothingInASegmentThatNoSystemSideHasUsed) {
    files_.Make();
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    EXPECT_TRUE(app.unlock());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, LocksAFreeMutexThatCarriesAnOwnersName) {
    PZFileGuard guard(dir_, name_);
    ASSERT_TRUE(guard.initForSystem());
    GuardSegment segment(files_.MutexFile());
    segment.Mutex()->__data.__owner = 12345;
    EXPECT_TRUE(guard.lock());
    EXPECT_FALSE(in_other_thread([&guard] { return guard.tryLock(); }));
    EXPECT_TRUE(guard.unlock());
    EXPECT_TRUE(in_other_thread([&guard] { return guard.tryLock() && guard.unlock(); }));
}

TEST_F(PZFileGuardTest, CountsEveryOtherResultOfTheMutexAsSuccess) {
    PZFileGuard guard(dir_, name_);
    ASSERT_TRUE(guard.initForSystem());
    pthread_mutex_lock_call.Replace(+[](pthread_mutex_t*) { return EAGAIN; });
    pthread_mutex_trylock_call.Replace(+[](pthread_mutex_t*) { return EAGAIN; });
    pthread_mutex_unlock_call.Replace(+[](pthread_mutex_t*) { return EPERM; });
    const bool locked = guard.lock();
    const bool triedToo = guard.tryLock();
    const bool unlocked = guard.unlock();
    pthread_mutex_lock_call.Replace(+[](pthread_mutex_t*) { return EBUSY; });
    const bool lockedBusy = guard.lock();
    reset_calls();
    EXPECT_TRUE(locked);
    EXPECT_TRUE(triedToo);
    EXPECT_TRUE(unlocked);
    EXPECT_TRUE(lockedBusy);
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, UnlockFailsSilentlyBeforeThereIsAMutex) {
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.unlock());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, UnlocksWhateverTheInitFlagReads) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    ASSERT_TRUE(app.lock());
    GuardSegment flag(files_.FlagFile());
    flag.SetByte(kDestroyed);
    EXPECT_TRUE(app.unlock());
    flag.SetByte(kUsable);
    EXPECT_TRUE(in_other_thread([&system] { return system.tryLock() && system.unlock(); }));
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, FailsSilentlyWithoutAMutexThoughTheFlagReadsA5) {
    PZFileGuard first(dir_, name_);
    ASSERT_TRUE(first.initForSystem());
    shmctl_call.FailNext(EPERM);
    EXPECT_FALSE(first.destroyMutex());
    PZFileGuard second(dir_, name_);
    ASSERT_TRUE(second.initForSystem());
    Messages();
    EXPECT_TRUE(first.canLock());
    EXPECT_FALSE(first.lock());
    EXPECT_FALSE(first.tryLock());
    EXPECT_FALSE(first.unlock());
    EXPECT_EQ("", output_.Take());
}

// --- destroyMutex and the destructor ---

TEST_F(PZFileGuardTest, HasNothingToDestroyBeforeItIsOfEitherSide) {
    PZFileGuard guard(dir_, name_);
    EXPECT_FALSE(guard.destroyMutex());
    ExpectReportsAndFrames({"error not initialized[0]"});
}

TEST_F(PZFileGuardTest, HasNothingToDestroyOnAnApplicationSideThatCouldNotAttach) {
    PZFileGuard app(dir_, name_);
    EXPECT_FALSE(app.initForApp());
    Messages();
    EXPECT_FALSE(app.destroyMutex());
    ExpectReportsAndFrames({"error not initialized[2]"});
    EXPECT_EQ(2, state_of(app).mode);
}

TEST_F(PZFileGuardTest, ShutsTheApplicationsOutAndRemovesTheSegments) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    const GuardSegment mutex(files_.MutexFile());
    const GuardSegment flag(files_.FlagFile());

    Trace calls;
    EXPECT_TRUE(system.destroyMutex());
    EXPECT_EQ((Texts{"destroy mutex", "remove " + std::to_string(mutex.Id()),
                     "remove " + std::to_string(flag.Id())}),
              calls.End());
    EXPECT_EQ((State{-1, false, -1, false, true, 0}), state_of(system));
    EXPECT_EQ(255, flag.Byte());
    EXPECT_TRUE(mutex.IsRemoved());
    EXPECT_TRUE(flag.IsRemoved());
    EXPECT_EQ(2, mutex.Attached());  // the system side never detaches
    EXPECT_EQ(2, flag.Attached());
    EXPECT_FALSE(GuardSegment(files_.MutexFile()).Exists());
    EXPECT_FALSE(GuardSegment(files_.FlagFile()).Exists());
    EXPECT_EQ("", output_.Take());

    EXPECT_FALSE(app.canLock());
    EXPECT_FALSE(app.tryLock());
    EXPECT_EQ("", output_.Take());
    EXPECT_FALSE(app.lock());
    ExpectReports({{"lock", "error not initialized"}});
    EXPECT_FALSE(system.canLock());
    EXPECT_FALSE(system.lock());
    ExpectReports({{"lock", "error not initialized"}});
    EXPECT_FALSE(system.destroyMutex());
    ExpectReportsAndFrames({"error not initialized[0]"});
}

TEST_F(PZFileGuardTest, ReportsAMutexThatIsHeldAndKeepsTheSegments) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    const State before = state_of(system);
    Trace calls;
    destroy_call.FailNext(0);
    EXPECT_FALSE(system.destroyMutex());
    EXPECT_EQ(Texts{"destroy mutex"}, calls.End());
    ExpectReports({{"destroyMutexForSystem",
                    "PZFileGuard::destroyMutexForSystem() pthread_mutexattr_destroy() Failed. "
                    "[Device or resource busy]."}});
    State after = before;
    after.mode = 0;
    EXPECT_EQ(after, state_of(system));
    EXPECT_EQ(kDestroyed, GuardSegment(files_.FlagFile()).Byte());

    // Once more from the beginning, on the same segments.
    EXPECT_TRUE(system.initForSystem());
    EXPECT_EQ(before, state_of(system));
    EXPECT_EQ(kUsable, GuardSegment(files_.FlagFile()).Byte());
    EXPECT_TRUE(system.destroyMutex());
    EXPECT_FALSE(GuardSegment(files_.MutexFile()).Exists());
}

TEST_F(PZFileGuardTest, ReportsAMutexSegmentThatCannotBeRemoved) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    const GuardSegment mutex(files_.MutexFile());
    const GuardSegment flag(files_.FlagFile());
    shmctl_call.FailNext(EPERM);
    EXPECT_FALSE(system.destroyMutex());
    ExpectReports({{"destroyMutexForSystem",
                    "PZFileGuard::destroyMutexForSystem() shmctl() Failed. "
                    "[Operation not permitted]."}});
    EXPECT_EQ((State{mutex.Id(), false, flag.Id(), true, true, 0}), state_of(system));
    EXPECT_FALSE(flag.IsRemoved());

    // Its id is still known, its address is not: there is no mutex to initialise.
    EXPECT_FALSE(system.initForSystem());
    ExpectReports({{"initForSystem", "error"}});
    EXPECT_EQ(kDestroyed, flag.Byte());

    EXPECT_TRUE(system.destroyMutex());
    EXPECT_TRUE(mutex.IsRemoved());
    EXPECT_TRUE(flag.IsRemoved());
    EXPECT_EQ((State{-1, false, -1, false, true, 0}), state_of(system));
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, ReportsAnInitFlagSegmentThatCannotBeRemoved) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    const GuardSegment mutex(files_.MutexFile());
    const GuardSegment flag(files_.FlagFile());
    shmctl_call.FailNext(EIDRM, 1, 1);
    EXPECT_FALSE(system.destroyMutex());
    ExpectReports({{"destroyMutexForSystem",
                    "PZFileGuard::destroyMutexForSystem() shmctl() Failed. "
                    "[Identifier removed]."}});
    EXPECT_EQ((State{-1, false, flag.Id(), true, true, 0}), state_of(system));
    EXPECT_TRUE(mutex.IsRemoved());
}

TEST_F(PZFileGuardTest, FindsNothingToRemoveWhenALaterSystemSideCouldNotAttach) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    ASSERT_TRUE(system.destroyMutex());
    shmget_call.FailNext(ENOSPC);
    EXPECT_FALSE(system.initForSystem());
    Messages();
    EXPECT_FALSE(system.destroyMutex());
    ExpectReports({{"destroyMutexForSystem",
                    "PZFileGuard::destroyMutexForSystem() shmctl() Failed. [Invalid argument]."}});
    EXPECT_EQ((State{-1, false, -1, false, true, 0}), state_of(system));
}

TEST_F(PZFileGuardTest, RemovesTheMutexSegmentOfALaterSystemSideThatHasNoInitFlagWhenItGoes) {
    {
        PZFileGuard system(dir_, name_);
        ASSERT_TRUE(system.initForSystem());
        ASSERT_TRUE(system.destroyMutex());
        shmget_call.FailNext(ENOSPC, 1, 1);
        EXPECT_FALSE(system.initForSystem());
        ASSERT_TRUE(GuardSegment(files_.MutexFile()).Exists());
        Messages();
    }
    ExpectReports({{"destroyMutexForSystem",
                    "PZFileGuard::destroyMutexForSystem() shmctl() Failed. [Invalid argument]."}});
    EXPECT_FALSE(GuardSegment(files_.MutexFile()).Exists());
}

TEST_F(PZFileGuardTest, OnlyDetachesOnTheApplicationSide) {
    PZFileGuard system(dir_, name_);
    ASSERT_TRUE(system.initForSystem());
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    Trace calls;
    EXPECT_TRUE(app.destroyMutex());
    EXPECT_EQ((Texts{"shmdt", "shmdt"}), calls.End());
    EXPECT_EQ((State{-1, false, -1, false, true, 0}), state_of(app));
    const GuardSegment mutex(files_.MutexFile());
    const GuardSegment flag(files_.FlagFile());
    EXPECT_EQ(1, mutex.Attached());
    EXPECT_EQ(1, flag.Attached());
    EXPECT_EQ(kUsable, flag.Byte());
    EXPECT_TRUE(system.canLock());
    EXPECT_FALSE(app.canLock());
    EXPECT_FALSE(app.tryLock());
    EXPECT_FALSE(app.unlock());
    EXPECT_EQ("", output_.Take());
    EXPECT_FALSE(app.lock());
    ExpectReports({{"lock", "error not initialized"}});
}

TEST_F(PZFileGuardTest, ReportsAMutexSegmentThatCannotBeDetached) {
    files_.Make();
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    State state = state_of(app);
    shmdt_call.FailNext(EINVAL);
    EXPECT_FALSE(app.destroyMutex());
    ExpectReports({{"destroyMutexForApp",
                    "PZFileGuard::destroyMutexForApp() shmdt() Failed. [Invalid argument]."}});
    state.mode = 0;
    EXPECT_EQ(state, state_of(app));
    EXPECT_TRUE(app.initForApp());
    EXPECT_TRUE(app.destroyMutex());
}

TEST_F(PZFileGuardTest, ReportsAnInitFlagSegmentThatCannotBeDetached) {
    files_.Make();
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    const int flagId = state_of(app).initFlagShmId;
    shmdt_call.FailNext(EINVAL, 1, 1);
    EXPECT_FALSE(app.destroyMutex());
    ExpectReports({{"destroyMutexForApp",
                    "PZFileGuard::destroyMutexForApp() shmdt() Failed. [Invalid argument]."}});
    EXPECT_EQ((State{-1, false, flagId, true, true, 0}), state_of(app));
}

TEST_F(PZFileGuardTest, CanBeUsedAgainOnceItsMutexIsDestroyed) {
    PZFileGuard guard(dir_, "first");
    const GuardFiles firstFiles(dir_, "first");
    ASSERT_TRUE(guard.initForSystem());
    EXPECT_TRUE(guard.destroyMutex());

    EXPECT_TRUE(guard.setFileName(name_));
    EXPECT_TRUE(guard.initForSystem());
    EXPECT_TRUE(guard.lock());
    EXPECT_TRUE(guard.unlock());
    EXPECT_EQ(kUsable, GuardSegment(files_.FlagFile()).Byte());
    EXPECT_TRUE(guard.destroyMutex());

    EXPECT_TRUE(guard.initForApp());  // on new segments, without a system side
    EXPECT_EQ(0, GuardSegment(files_.FlagFile()).Byte());
    EXPECT_TRUE(guard.destroyMutex());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, DoesNotAttachByALockOnceItWasAttached) {
    // What a guard knows of an earlier attachment outlives destroyMutex.
    files_.Make();
    PZFileGuard app(dir_, name_);
    ASSERT_TRUE(app.initForApp());
    ASSERT_TRUE(app.destroyMutex());
    shmget_call.FailNext(ENOSPC, 1, 1);
    EXPECT_FALSE(app.initForApp());
    Messages();
    Trace calls;
    EXPECT_FALSE(app.canLock());
    EXPECT_EQ(Texts{}, calls.End());
    EXPECT_TRUE(app.destroyMutex());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, RemovesTheSegmentsWithTheSystemSide) {
    {
        PZFileGuard system(dir_, name_);
        ASSERT_TRUE(system.initForSystem());
    }
    EXPECT_FALSE(GuardSegment(files_.MutexFile()).Exists());
    EXPECT_FALSE(GuardSegment(files_.FlagFile()).Exists());
    EXPECT_EQ(0777U, permissions_of(files_.MutexFile()));  // the key files stay
    EXPECT_EQ(0777U, permissions_of(files_.FlagFile()));
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, LeavesTheSegmentsWhenAnApplicationSideGoes) {
    files_.Make();
    {
        PZFileGuard app(dir_, name_);
        ASSERT_TRUE(app.initForApp());
    }
    const GuardSegment mutex(files_.MutexFile());
    EXPECT_TRUE(mutex.Exists());
    EXPECT_EQ(0, mutex.Attached());
    EXPECT_TRUE(GuardSegment(files_.FlagFile()).Exists());
    EXPECT_EQ("", output_.Take());
}

TEST_F(PZFileGuardTest, ReportsAnAttachedMutexThatItMayNotDestroyWhenItGoes) {
    shmget_call.FailNext(ENOSPC, 1, 1);
    {
        PZFileGuard system(dir_, name_);
        EXPECT_FALSE(system.initForSystem());
        Messages();
    }
    ExpectReportsAndFrames({"error not initialized[1]"});
    EXPECT_TRUE(GuardSegment(files_.MutexFile()).Exists());
}

TEST_F(PZFileGuardTest, SaysNothingWhenItGoesDestroyed) {
    {
        PZFileGuard system(dir_, name_);
        ASSERT_TRUE(system.initForSystem());
        ASSERT_TRUE(system.destroyMutex());
    }
    EXPECT_EQ("", output_.Take());
}

}  // namespace
