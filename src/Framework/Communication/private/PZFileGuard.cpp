#include "Framework/Communication/PZFileGuard.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_is_link.h>

#include "../../Diagnostics/private/PZNamedPath.h"

#if __SIZEOF_POINTER__ == 4
static_assert(sizeof(pthread_mutex_t) == 24, "format shared between processes");
static_assert(sizeof(PZFileGuard) == 4 + 2 * sizeof(std::string) + 24, "record layout");
#endif

namespace {

constexpr char kDefaultDir[] = "/temp/system_data/";
constexpr char kMutexSuffix[] = "_mutex";
constexpr char kInitFlagSuffix[] = "_initflag";
constexpr int kKeyProject = 1;  // second argument of ftok
constexpr key_t kNoKey = -1;
constexpr int kNotAttached = -1;
constexpr mode_t kOpenToAll = 0777;
constexpr int kSegmentFlags = IPC_CREAT | 0666;
constexpr int kCallStackDepth = 5;

// The other states of the init flag; see kUsable.
constexpr unsigned char kNotYet = 0;        // a new segment, or a mutex that is being made
constexpr unsigned char kDestroyed = 0xFF;  // the system side is gone

/// The other processes read the flag at any time: what was done to the mutex before comes first.
void store_flag(unsigned char* flag, unsigned char state) {
    __atomic_store_n(flag, state, __ATOMIC_RELEASE);
}

/// Wakes all that sleep in a lock of the mutex. A mutex that is made afresh is free, but does not
/// know that somebody waits for it.
void wake_waiters(pthread_mutex_t* mutex) {
    syscall(SYS_futex, &mutex->__data.__lock, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
}

/// Attributes of a mutex, released at the end of the scope.
class MutexAttributes {
public:
    MutexAttributes() { pthread_mutexattr_init(&attributes_); }
    ~MutexAttributes() { pthread_mutexattr_destroy(&attributes_); }

    MutexAttributes(const MutexAttributes&) = delete;
    MutexAttributes& operator=(const MutexAttributes&) = delete;

    pthread_mutexattr_t* Get() { return &attributes_; }

private:
    pthread_mutexattr_t attributes_ = {};
};

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;

bool is_directory(const std::string& path) {
    return Directory(opendir(path.c_str()), &closedir) != nullptr;
}

bool is_empty(DIR* directory) {
    while (const dirent* const entry = readdir(directory)) {
        const char* const name = static_cast<const char*>(entry->d_name);
        if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0) return false;
    }
    return true;
}

/// Gives a directory that was just made the bits that the umask took away. Where everybody may
/// write, something else may have been put in its place meanwhile: no link is followed, and nothing
/// touched but an empty directory of our own.
void open_directory_to_all(const std::string& path) {
    PZDescriptor made(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status = {};
    if (fstat(made.Get(), &status) != 0 || status.st_uid != geteuid()) return;
    const Directory directory(fdopendir(made.Get()), &closedir);
    if (directory == nullptr) return;
    made.Release();  // belongs to the directory now
    if (is_empty(directory.get())) fchmod(dirfd(directory.get()), kOpenToAll);
}

/// The same for a key file, ours or not. A link that was put in its place stays as it is.
void open_file_to_all(const std::string& path) {
    fchmodat(AT_FDCWD, path.c_str(), kOpenToAll, AT_SYMLINK_NOFOLLOW);
}

/// Attaches the segment of this key, which is made when there is none. On failure `id` and
/// `content` stay as they are, and a segment that cannot be attached is removed.
template <typename T>
bool attach(key_t key, int& id, T*& content) {
    const int found = shmget(key, sizeof(T), kSegmentFlags);
    if (found < 0) return false;
    void* const address = shmat(found, nullptr, 0);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): shmat's own failure value
    if (address == reinterpret_cast<void*>(-1)) {
        shmctl(found, IPC_RMID, nullptr);
        return false;
    }
    id = found;
    content = static_cast<T*>(address);
    return true;
}

/// Detaches a segment, if it is attached; false with errno set when that fails.
template <typename T>
bool detach(int& id, T*& content) {
    if (content != nullptr && shmdt(content) != 0) return false;
    content = nullptr;
    id = kNotAttached;
    return true;
}

}  // namespace

PZFileGuard::PZFileGuard() : PZFileGuard(std::string()) {}

PZFileGuard::PZFileGuard(const std::string& fileName)
    : dirPath_(kDefaultDir),
      fileName_(fileName),
      mutexShmId_(kNotAttached),
      mutex_(nullptr),
      initFlagShmId_(kNotAttached),
      initFlag_(nullptr),
      initialized_(false),
      maker_{},
      mode_(en_MODE_NONE) {}

PZFileGuard::PZFileGuard(const std::string& dirPath, const std::string& fileName)
    : PZFileGuard(fileName) {
    dirPath_ = dirPath;
    checkPath();
}

PZFileGuard::~PZFileGuard() noexcept(false) {
    if (mutex_ == nullptr || (mode_ == en_MODE_SYSTEM && !isMaker())) return;
    destroyMutex();
}

bool PZFileGuard::setFileName(const std::string& name) {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    if (mode_ != en_MODE_NONE || name.empty()) {
        PZ_REPORT_ERROR("error\n");
        return false;
    }
    try {
        fileName_ = name;
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("error\n");
        return false;
    }
    return true;
}

bool PZFileGuard::setFilePath(const std::string& dirPath, const std::string& fileName) {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    if (mode_ != en_MODE_NONE || fileName.empty()) {
        PZ_REPORT_ERROR("error\n");
        return false;
    }
    try {
        std::string newDir;
        newDir.reserve(dirPath.size() + 1);  // with the '/' that it may lack
        newDir = dirPath;
        std::string newName = fileName;
        dirPath_.swap(newDir);
        fileName_.swap(newName);
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("error\n");
        return false;
    }
    checkPath();
    return true;
}

bool PZFileGuard::initForSystem() {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    if (mode_ != en_MODE_NONE || fileName_.empty()) {
        PZ_REPORT_ERROR("error\n");
        return false;
    }
    mode_ = en_MODE_SYSTEM;
    rememberMaker();
    makeDir(dirPath_);  // a directory that is missing still shows when the key files are made
    if (!attachSharedMem()) {
        PZ_REPORT_ERROR("error\n");
        return false;
    }
    if (!initMutex()) {
        PZ_REPORT_ERROR("error\n");
        return false;
    }
    initialized_ = true;
    return true;
}

bool PZFileGuard::initForApp() {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    if (mode_ != en_MODE_NONE) {
        PZ_REPORT_ERROR("error already init [%d]\n", mode_);
        return false;
    }
    mode_ = en_MODE_APP;
    if (!attachSharedMem()) {
        PZ_REPORT_ERROR("error\n");
        PZCallStack::dumpDirectly(kCallStackDepth);
        return false;
    }
    initialized_ = true;
    return true;
}

bool PZFileGuard::canLock() {
    if (!initialized_) {
        if (mode_ != en_MODE_APP || !attachSharedMem()) return false;
        initialized_ = true;
    }
    return isUsable();
}

bool PZFileGuard::getReadyToLock() {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    if (canLock()) return mutex_ != nullptr;
    PZ_REPORT_ERROR_OF("lock", "error not initialized\n");
    return false;
}

bool PZFileGuard::lockWithCare() {
    if (!isReady() && !getReadyToLock()) return false;
    if (kind() != kMutexKind) return reportLock(EINVAL);
    // A free mutex that carries an owner's name (or one that is given back at this moment) would
    // end the process in a lock. A try does not mind the name, and writes another.
    int result = EBUSY;
    if (owner() != 0 && __atomic_load_n(&mutex_->__data.__lock, __ATOMIC_RELAXED) == 0) {
        result = pthread_mutex_trylock(mutex_);
    }
    if (result == EBUSY) result = pthread_mutex_lock(mutex_);
    return result != EINVAL || reportLock(result);
}

bool PZFileGuard::unlockWithCare() {
    constexpr int kNewSegment = 0;  // the kind of a mutex that no system side has made yet
    if (mutex_ == nullptr) return false;
    return kind() == kNewSegment || reportUnlock(EINVAL);
}

bool PZFileGuard::reportLock(int error) {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    PZ_REPORT_ERROR_OF("lock", "PZFileGuard::lock() pthread_mutex_lock() Failed [%s]",
                       std::strerror(error));
    return false;
}

bool PZFileGuard::reportTryLock(int error) {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    if (error == EBUSY) {
        PZ_REPORT_ERROR_OF("tryLock", "error\n");
    } else {
        PZ_REPORT_ERROR_OF("tryLock", "PZFileGuard::tryLock() pthread_mutex_trylock() Failed [%s]",
                           std::strerror(error));
    }
    return false;
}

bool PZFileGuard::reportUnlock(int error) {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    PZ_REPORT_ERROR_OF("unlock", "PZFileGuard::unlock() pthread_mutex_unlock() Failed [%s]",
                       std::strerror(error));
    return false;
}

void PZFileGuard::rememberMaker() {
    const pid_t self = getpid();
    std::memcpy(static_cast<unsigned char*>(maker_), &self, sizeof maker_);
}

bool PZFileGuard::isMaker() const {
    const pid_t self = getpid();
    return std::memcmp(static_cast<const unsigned char*>(maker_), &self, sizeof maker_) == 0;
}

bool PZFileGuard::destroyMutex() {
    const PZNamedPath named(dirPath_.c_str(), fileName_.c_str());
    if (initialized_ && mode_ == en_MODE_SYSTEM) return destroyMutexForSystem();
    if (initialized_ && mode_ == en_MODE_APP) return destroyMutexForApp();
    PZ_REPORT_ERROR("error not initialized[%d]\n", mode_);
    PZCallStack::dumpDirectly(kCallStackDepth);
    return false;
}

void PZFileGuard::checkPath() {
    if (dirPath_.empty() || dirPath_.back() != '/') dirPath_ += '/';
}

/// Makes every missing directory of the path, from the second character on. The root and a name of
/// one character at the beginning are taken as they are.
bool PZFileGuard::makeDir(const std::string& dirPath) try {
    constexpr size_t kFirstEnd = 2;
    const size_t last = dirPath.rfind('/');
    if (last == std::string::npos) {
        PZ_REPORT_ERROR("error\n");
        return false;
    }
    if (last < kFirstEnd) return true;
    for (size_t end = dirPath.find('/', kFirstEnd); end != std::string::npos;
         end = dirPath.find('/', end + 1)) {
        const std::string directory = dirPath.substr(0, end);
        if (is_directory(directory)) continue;
        if (mkdir(directory.c_str(), kOpenToAll) != 0) {
            PZ_REPORT_ERROR("PZFileGuard::makeDir() mkdir() Failed [%s]", pz_get_last_err_string());
            return false;
        }
        open_directory_to_all(directory);
    }
    return true;
} catch (const std::bad_alloc&) {
    PZ_REPORT_ERROR("error\n");
    return false;
}

key_t PZFileGuard::getMkey(const std::string& path) const {
    switch (mode_) {
        case en_MODE_SYSTEM:
            return getMkeyForSystem(path);
        case en_MODE_APP:
            return getMkeyForApp(path);
        case en_MODE_NONE:
            break;
    }
    return kNoKey;
}

key_t PZFileGuard::getMkeyForSystem(const std::string& path) {
    if (pz_is_link(path.c_str())) {
        PZ_REPORT_ERROR("PZFileGuard::initMutex() fopen(%s) Failed [%s]", path.c_str(),
                        std::strerror(ELOOP));
        return kNoKey;
    }
    key_t key = ftok(path.c_str(), kKeyProject);
    if (key < 0) {
        // "x": not through a link that was put there meanwhile.
        std::FILE* const file = std::fopen(path.c_str(), "a+xe");
        if (file != nullptr) {
            std::fclose(file);
        } else if (errno != EEXIST) {  // of another system side
            PZ_REPORT_ERROR("PZFileGuard::initMutex() fopen(%s) Failed [%s]", path.c_str(),
                            pz_get_last_err_string());
            return kNoKey;
        }
        key = getMkeyForApp(path);
        if (key < 0) return kNoKey;
    }
    open_file_to_all(path);
    return key;
}

key_t PZFileGuard::getMkeyForApp(const std::string& path) {
    const key_t key = ftok(path.c_str(), kKeyProject);
    if (key < 0) {
        PZ_REPORT_ERROR("PZFileGuard::initMutex() ftok(%s) Failed [%s]", path.c_str(),
                        pz_get_last_err_string());
        return kNoKey;
    }
    return key;
}

/// Attaches what is not attached yet: after a failure the next call goes on where it stopped.
bool PZFileGuard::attachSharedMem() try {
    const auto attach_missing = [this](const char* suffix, int& id, auto*& content) {
        if (id != kNotAttached) return true;
        const key_t key = getMkey(dirPath_ + fileName_ + suffix);
        if (key >= 0) return attach(key, id, content);
        PZ_REPORT_ERROR_OF("attachSharedMem", "error\n");
        return false;
    };
    return attach_missing(kMutexSuffix, mutexShmId_, mutex_) &&
           attach_missing(kInitFlagSuffix, initFlagShmId_, initFlag_);
} catch (const std::bad_alloc&) {
    PZ_REPORT_ERROR("error\n");
    return false;
}

bool PZFileGuard::initMutex() {
    // A mutex segment that could not be removed keeps its id, but nobody knows its address.
    if (mutex_ == nullptr || initFlag_ == nullptr) return false;

    MutexAttributes attributes;
    int result = pthread_mutexattr_settype(attributes.Get(), PTHREAD_MUTEX_RECURSIVE);
    if (result != 0) {
        PZ_REPORT_ERROR(
            "PZFileGuard::initMutexForSystem() pthread_mutexattr_settype() Failed. [%s].",
            std::strerror(result));
        return false;
    }
    result = pthread_mutexattr_setpshared(attributes.Get(), PTHREAD_PROCESS_SHARED);
    if (result != 0) {
        // This text has a "%d" and no closing bracket; readers of the log know it so. A "%d" cannot
        // take strerror's text: the reader sees the error's number instead, "[22s.".
        PZ_REPORT_ERROR(
            "PZFileGuard::initMutexForSystem() pthread_mutexattr_setpshared Failed() [%ds.",
            result);
        return false;
    }
    // Nobody may use the mutex between its clearing and its making: for them it would not be one of
    // several processes.
    store_flag(initFlag_, kNotYet);
    __sync_synchronize();
    pthread_mutex_init(mutex_, attributes.Get());  // afresh, even while an earlier one is held
    store_flag(initFlag_, kUsable);
    wake_waiters(mutex_);
    return true;
}

/// A guard that was a system side before, and could not become one again, comes here too, without
/// either segment or with one of them only.
bool PZFileGuard::destroyMutexForSystem() {
    mode_ = en_MODE_NONE;
    if (initFlag_ != nullptr) store_flag(initFlag_, kDestroyed);
    const int result = mutex_ != nullptr ? pthread_mutex_destroy(mutex_) : 0;
    if (result != 0) {
        // The text names another function; readers of the log know it so.
        PZ_REPORT_ERROR(
            "PZFileGuard::destroyMutexForSystem() pthread_mutexattr_destroy() Failed. [%s].",
            std::strerror(result));
        return false;
    }
    mutex_ = nullptr;  // the segments stay attached, see the header
    for (int* const id : {&mutexShmId_, &initFlagShmId_}) {
        if (shmctl(*id, IPC_RMID, nullptr) != 0) {
            PZ_REPORT_ERROR("PZFileGuard::destroyMutexForSystem() shmctl() Failed. [%s].",
                            pz_get_last_err_string());
            return false;
        }
        *id = kNotAttached;
    }
    initFlag_ = nullptr;
    return true;
}

bool PZFileGuard::destroyMutexForApp() {
    mode_ = en_MODE_NONE;
    if (!detach(mutexShmId_, mutex_) || !detach(initFlagShmId_, initFlag_)) {
        PZ_REPORT_ERROR("PZFileGuard::destroyMutexForApp() shmdt() Failed. [%s].",
                        pz_get_last_err_string());
        return false;
    }
    return true;
}
