#include "Framework/Easy/GuardedFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <thread>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_home.h>
#include <Framework/private/pz_write_whole.h>

#include "WorkerCore.h"

namespace pz {

namespace {

constexpr mode_t kMode = 0644;  // of a file that was not there

enum class Read { ok, missing, failed };

/// Opens a file, never through a link. Anything else than a file is refused with EINVAL: a fifo
/// would keep its reader waiting.
PZDescriptor open_plain(const std::string& path, int flags, struct stat& info) {
    PZDescriptor file(::open(path.c_str(), flags | O_NONBLOCK | O_CLOEXEC | O_NOFOLLOW, kMode));
    if (!file.IsOpen()) return file;
    if (::fstat(file.Get(), &info) != 0) return PZDescriptor();
    if (S_ISREG(info.st_mode)) return file;
    file.Close();
    errno = EINVAL;
    return file;
}

/// Reads the whole file; `info` tells about it.
Read read_whole(const std::string& path, std::string& bytes, struct stat& info) {
    const PZDescriptor file = open_plain(path, O_RDONLY, info);
    if (!file.IsOpen() && errno == ENOENT) return Read::missing;
    if (!file.IsOpen()) {
        PZ_REPORT_ERRNO("open [%s]\n", path.c_str());
        return Read::failed;
    }
    bytes.clear();
    char block[4096];
    for (;;) {
        const ssize_t count = ::read(file.Get(), block, sizeof block);
        if (count == 0) return Read::ok;
        if (count > 0) {
            bytes.append(block, static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            PZ_REPORT_ERRNO("read [%s]\n", path.c_str());
            return Read::failed;
        }
    }
}

/// 0, or errno: EWOULDBLOCK when the time is over.
int lock_until(int file, bool isLimited, detail::Clock::time_point deadline) {
    constexpr auto kLongestNap = std::chrono::milliseconds(20);
    auto nap = std::chrono::milliseconds(1);
    for (;;) {
        if (::flock(file, isLimited ? LOCK_EX | LOCK_NB : LOCK_EX) == 0) return 0;
        if (errno == EINTR) continue;
        if (errno != EWOULDBLOCK || detail::Clock::now() >= deadline) return errno;
        std::this_thread::sleep_until(std::min(detail::Clock::now() + nap, deadline));
        nap = std::min(nap * 2, kLongestNap);
    }
}

bool is_same_file(const struct stat& a, const struct stat& b) {
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

namespace detail {

struct FileUpdate::State {
    explicit State(const std::string& folder, const std::string& name)
        : folder_(folder),
          path_(folder + "/" + name),
          newPath_(folder + "/." + name + ".new"),
          lockPath_(folder + "/." + name + ".lock") {}
    ~State() {
        if (!isHeld_) return;
        held_by_thread = next_;
        // Closing alone would leave the lock to a child that was forked meanwhile, while it lives.
        if (!home_.IsParent()) ::flock(lock_.Get(), LOCK_UN);
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    bool Lock(std::chrono::milliseconds within);
    bool Load();
    bool Replace();

    std::string bytes_;

private:
    bool OpenLock();
    PZ_LOCAL bool IsLockInPlace() const;
    bool IsHeldByThread() const;
    bool WriteNew() const;
    bool Refuse(const char* step, const std::string& path) const;

    /// The updates that the thread is in: each was begun by the function of the next one.
    static thread_local State* held_by_thread;

    const std::string folder_;
    const std::string path_;
    const std::string newPath_;
    const std::string lockPath_;
    PZDescriptor lock_;
    struct stat lockInfo_ = {};
    const PZHome home_;  // a forked child shares the lock, but the step is not its own
    bool isHeld_ = false;
    State* next_ = nullptr;

    bool isThere_ = false;
    struct stat info_ = {};
    std::string former_;
};

thread_local FileUpdate::State* FileUpdate::State::held_by_thread = nullptr;

bool FileUpdate::State::Refuse(const char* step, const std::string& path) const {
    PZ_REPORT_ERRNO("%s [%s]\n", step, path.c_str());
    return false;
}

bool FileUpdate::State::OpenLock() {
    lock_ = open_plain(lockPath_, O_RDONLY | O_CREAT, lockInfo_);
    return lock_.IsOpen();
}

/// Whether other updates of the file find this lock. Somebody may have removed it, or have put
/// another folder in the place of this one.
bool FileUpdate::State::IsLockInPlace() const {
    struct stat now = {};
    return ::lstat(lockPath_.c_str(), &now) == 0 && is_same_file(now, lockInfo_);
}

bool FileUpdate::State::IsHeldByThread() const {
    for (const State* held = held_by_thread; held != nullptr; held = held->next_) {
        if (is_same_file(held->lockInfo_, lockInfo_)) return true;
    }
    return false;
}

bool FileUpdate::State::Lock(std::chrono::milliseconds within) {
    const Clock::time_point deadline = deadline_after(within);  // of all locks together
    for (;;) {
        if (!OpenLock()) return Refuse("open", lockPath_);
        if (IsHeldByThread()) {
            PZ_REPORT_ERROR("[%s] is being updated by this thread\n", path_.c_str());
            return false;
        }
        const int error = lock_until(lock_.Get(), within != GuardedFile::kNoLimit, deadline);
        if (error == EWOULDBLOCK) {
            PZ_REPORT_ERROR("[%s] was not free within %lld ms\n", path_.c_str(),
                            static_cast<long long>(within.count()));
            return false;
        }
        if (error != 0) {
            errno = error;
            return Refuse("flock", lockPath_);
        }
        if (IsLockInPlace()) break;
    }
    isHeld_ = true;
    next_ = held_by_thread;
    held_by_thread = this;
    return true;
}

bool FileUpdate::State::Load() {
    const Read result = read_whole(path_, bytes_, info_);
    isThere_ = result == Read::ok;
    former_ = bytes_;
    return result != Read::failed;
}

bool FileUpdate::State::WriteNew() const {
    // One that a process has left, or that others have put there, is not used: it may be a link, or
    // have more than one name.
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    ::unlink(newPath_.c_str());
    const mode_t mode = isThere_ ? info_.st_mode & 0777U : kMode;
    PZDescriptor file(::open(newPath_.c_str(), kFlags | O_CLOEXEC, mode));
    if (!file.IsOpen()) return Refuse("open", newPath_);
    // To give it away takes rights.
    if (isThere_) {
        static_cast<void>(::fchown(file.Get(), info_.st_uid, info_.st_gid) == 0);
        if (::fchmod(file.Get(), info_.st_mode & 07777U) != 0) return Refuse("fchmod", newPath_);
    }
    if (!pz_write_whole(file.Get(), bytes_)) return Refuse("write", newPath_);
    if (::fsync(file.Get()) != 0) return Refuse("fsync", newPath_);
    return true;
}

bool FileUpdate::State::Replace() {
    if (bytes_ == former_) return true;
    if (home_.IsParent() || !IsLockInPlace()) {
        errno = ESTALE;
        return Refuse("lock", lockPath_);
    }
    if (!WriteNew()) {
        ::unlink(newPath_.c_str());
        return false;
    }
    if (::rename(newPath_.c_str(), path_.c_str()) != 0) {
        Refuse("rename", path_);
        ::unlink(newPath_.c_str());
        return false;
    }
    const PZDescriptor folder(::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // Some file systems cannot: then the name comes to the medium with the next write-back.
    if (!folder.IsOpen() || (::fsync(folder.Get()) != 0 && errno != EINVAL))
        return Refuse("fsync", folder_);
    return true;
}

FileUpdate::FileUpdate(const std::string& folder, const std::string& name,
                       std::chrono::milliseconds within) noexcept {
    if (name.empty()) {
        PZ_REPORT_ERROR("the file has no valid name\n");
        return;
    }
    try {
        auto state = std::make_unique<State>(folder, name);
        if (state->Lock(within) && state->Load()) state_ = std::move(state);
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("no memory for [%s]\n", name.c_str());
    }
}

FileUpdate::~FileUpdate() = default;

std::string& FileUpdate::bytes() noexcept {
    return state_->bytes_;
}

bool FileUpdate::Commit() noexcept {
    return state_->Replace();
}

bool FileUpdate::NoFunction(const std::string& name) noexcept {
    PZ_REPORT_ERROR("update [%s]: an empty function\n", name.c_str());
    return false;
}

}  // namespace detail

GuardedFile::GuardedFile(const char* folder, const char* name) noexcept {
    const bool isName = name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr &&
                        std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
    if (folder == nullptr || *folder == '\0' || !isName) {
        PZ_REPORT_ERROR("no file [%s] in [%s]\n", name != nullptr ? name : "(null)",
                        folder != nullptr ? folder : "(null)");
        return;
    }
    try {
        folder_ = folder;
        name_ = name;
    } catch (const std::bad_alloc&) {
        name_.clear();
        PZ_REPORT_ERROR("no memory for [%s]\n", name);
    }
}

std::optional<std::string> GuardedFile::read() const noexcept {
    if (!*this) return std::nullopt;
    try {
        std::string bytes;
        struct stat info = {};
        if (read_whole(folder_ + "/" + name_, bytes, info) != Read::ok) return std::nullopt;
        return bytes;
    } catch (const std::bad_alloc&) {
        PZ_REPORT_ERROR("no memory for [%s]\n", name_.c_str());
        return std::nullopt;
    }
}

}  // namespace pz
