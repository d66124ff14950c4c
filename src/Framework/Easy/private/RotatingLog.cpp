#include "Framework/Easy/RotatingLog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>
#include <string>
#include <vector>

#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Foundation/private/PZMutex.h>
#include <Framework/private/pz_descriptor.h>
#include <Framework/private/pz_home.h>
#include <Framework/private/pz_time.h>
#include <Framework/private/pz_write_whole.h>

#include "WorkerCore.h"
#include "replace.h"

namespace pz {

namespace {

constexpr std::size_t kSmallest = 64;  // bytes of a file
constexpr std::chrono::milliseconds kLookAgain(100);
constexpr unsigned int kMostGenerations = 1000;
constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;

/// Makes the folder and those above it, as far as they are missing.
void make_folder(const std::string& folder) {
    for (std::size_t at = folder.find('/', 1); at != std::string::npos;
         at = folder.find('/', at + 1)) {
        ::mkdir(folder.substr(0, at).c_str(), kFolderMode);
    }
    ::mkdir(folder.c_str(), kFolderMode);
}

/// "2026-11-22 07:08:09.123 "; the number of characters.
std::size_t print_time(char (&text)[32]) {
    timespec now = {};
    ::clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    ::localtime_r(&now.tv_sec, &local);
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    const int ms = static_cast<int>(now.tv_nsec / kNsPerMs);
    return length + static_cast<std::size_t>(
                        std::snprintf(text + length, sizeof text - length, ".%03d ", ms));
}

/// Writes all of it or nothing: what was written of it is taken back.
bool append(int file, std::string_view bytes, std::size_t sizeBefore) {
    if (pz_write_whole(file, bytes)) return true;
    const int error = errno;
    static_cast<void>(::ftruncate(file, static_cast<off_t>(sizeBefore)) == 0);
    errno = error;
    return false;
}

}  // namespace

struct RotatingLog::State {
    State(const char* folder, const char* name, std::size_t size, unsigned int generations,
          const RotatingLogOptions& options)
        : folder_(folder),
          path_(folder_ + "/" + name + ".log"),
          newPath_(path_ + ".new"),
          size_(size),
          generations_(generations),
          time_(options.time),
          bufferLimit_(std::min(options.buffer, size)) {
        buffer_.reserve(bufferLimit_);
        for (unsigned int i = 0; i <= generations; ++i) paths_.push_back(Generation(i));
        make_folder(folder_);
        static_cast<void>(EnsureOpenLocked());
    }

    bool Write(std::string_view text);
    bool FlushLocked() PZ_REQUIRES(mutex_);
    void CountLost() {
        const PZMutexLock lock(mutex_);
        ++lost_;
    }

    const PZHome home_;
    PZMutex mutex_;
    unsigned long long lost_ PZ_GUARDED_BY(mutex_) = 0;

private:
    std::string Generation(unsigned int number) const {
        return number == 0 ? path_ : path_ + "." + std::to_string(number);
    }
    bool KeepToSizes() const noexcept;
    void RemoveBeyondLast() const;
    void KeepTail(const std::string& path) const;
    bool IsInPlaceLocked() const PZ_REQUIRES(mutex_);
    bool EnsureOpenLocked() PZ_REQUIRES(mutex_);
    PZ_LOCAL bool TryOpenLocked() PZ_REQUIRES(mutex_);
    bool OpenLocked() PZ_REQUIRES(mutex_);
    PZ_LOCAL bool OpenNextLocked() PZ_REQUIRES(mutex_);
    bool RotateLocked() PZ_REQUIRES(mutex_);
    bool AppendLocked(std::string_view bytes, unsigned long long lines) PZ_REQUIRES(mutex_);
    bool LoseLocked(unsigned long long lines, const char* step) PZ_REQUIRES(mutex_);

    const std::string folder_;
    const std::string path_;
    const std::string newPath_;
    const std::size_t size_;
    const unsigned int generations_;
    const bool time_;
    std::vector<std::string> paths_;  // by generation; a rotation needs no memory

    const std::size_t bufferLimit_;

    PZDescriptor file_ PZ_GUARDED_BY(mutex_);
    std::size_t used_ PZ_GUARDED_BY(mutex_) = 0;  // bytes in the file
    detail::Clock::time_point nextLook_ PZ_GUARDED_BY(mutex_);
    bool isTidy_ PZ_GUARDED_BY(mutex_) = false;            // has been kept to the sizes
    bool isReported_ PZ_GUARDED_BY(mutex_) = false;        // that it does not work
    unsigned long long untold_ PZ_GUARDED_BY(mutex_) = 0;  // lost lines that no line tells of yet
    std::string buffer_ PZ_GUARDED_BY(mutex_);
    unsigned long long bufferedLines_ PZ_GUARDED_BY(mutex_) = 0;
};

/// Brings down what other settings have left; false without memory.
bool RotatingLog::State::KeepToSizes() const noexcept {
    try {
        ::unlink(newPath_.c_str());  // of a process that was killed meanwhile
        for (const std::string& path : paths_) KeepTail(path);
        RemoveBeyondLast();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void RotatingLog::State::RemoveBeyondLast() const {
    for (unsigned int i = generations_ + 1; i <= generations_ + kMostGenerations; ++i) {
        // Gaps are small: a process that was killed while it renamed leaves one.
        if (::unlink(Generation(i).c_str()) == 0) continue;
        if (::access(Generation(i + 1).c_str(), F_OK) != 0) return;
    }
}

/// Replaces a file that is too large by its last whole lines.
void RotatingLog::State::KeepTail(const std::string& path) const {
    struct stat info = {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return;
    if (static_cast<std::size_t>(info.st_size) <= size_) return;
    const PZDescriptor from(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    constexpr int kMaking = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
    const PZDescriptor to(::open(newPath_.c_str(), kMaking | O_CLOEXEC, kFileMode));
    std::string tail(size_, '\0');
    const ssize_t count =
        ::pread(from.Get(), tail.data(), size_, info.st_size - static_cast<off_t>(size_));
    if (!to.IsOpen()) return;
    tail.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    const std::size_t firstEnd = tail.find('\n');
    if (firstEnd != std::string::npos) tail.erase(0, firstEnd + 1);
    if (count < 0 || !append(to.Get(), tail, 0) || ::rename(newPath_.c_str(), path.c_str()) != 0) {
        PZ_REPORT_ERRNO("cut [%s]\n", path.c_str());
        ::unlink(newPath_.c_str());
    }
}

/// Whether the open file is still the one that has the name.
bool RotatingLog::State::IsInPlaceLocked() const {
    struct stat named = {};
    struct stat open = {};
    return ::lstat(path_.c_str(), &named) == 0 && ::fstat(file_.Get(), &open) == 0 &&
           named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

bool RotatingLog::State::EnsureOpenLocked() {
    const auto now = detail::Clock::now();
    if (now < nextLook_) return file_.IsOpen();
    nextLook_ = now + kLookAgain;
    if (file_.IsOpen() && IsInPlaceLocked()) return true;
    if (!OpenLocked()) return false;
    if (isTidy_) return true;
    // Not before the log is this one's; what is cut gets another file.
    isTidy_ = KeepToSizes();
    return IsInPlaceLocked() || OpenLocked();
}

/// False with errno: EWOULDBLOCK when another object has the file.
bool RotatingLog::State::TryOpenLocked() {
    // A fifo without a reader would keep its writer waiting.
    constexpr int kAppending = O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOFOLLOW;
    file_ = PZDescriptor(::open(path_.c_str(), kAppending | O_CLOEXEC, kFileMode));
    struct stat info = {};
    bool isMine = file_.MoveAboveStandard() && ::flock(file_.Get(), LOCK_EX | LOCK_NB) == 0 &&
                  ::fstat(file_.Get(), &info) == 0;
    // Its owner may have renamed it, and given it free, since it was opened.
    if (isMine && !(S_ISREG(info.st_mode) && IsInPlaceLocked())) {
        isMine = false;
        errno = EBUSY;
    }
    if (isMine) {
        used_ = static_cast<std::size_t>(info.st_size);
    } else {
        const int error = errno;
        file_.Close();
        errno = error;
    }
    return isMine;
}

bool RotatingLog::State::OpenLocked() {
    if (TryOpenLocked()) return true;
    if (!isReported_) PZ_REPORT_ERRNO("open [%s]\n", path_.c_str());
    isReported_ = true;
    return false;
}

/// Opens the newest file when the one before has just been renamed. Another object may be faster;
/// but the log is this one's.
bool RotatingLog::State::OpenNextLocked() {
    constexpr int kMostTries = 100;
    for (int i = 0; i < kMostTries; ++i) {
        if (TryOpenLocked()) return true;
        if (errno != EWOULDBLOCK) break;
        ::unlink(path_.c_str());
    }
    return OpenLocked();
}

/// Makes room: afterwards the newest file is empty.
bool RotatingLog::State::RotateLocked() {
    bool isMoved = generations_ > 0;
    for (unsigned int i = generations_; isMoved && i > 0; --i) {
        const bool isDone = ::rename(paths_[i - 1].c_str(), paths_[i].c_str()) == 0;
        if (!isDone && i == 1) isMoved = false;
    }
    if (isMoved) {
        file_.Close();
        return OpenNextLocked();
    }
    // The only way to keep the size.
    if (::ftruncate(file_.Get(), 0) != 0) return false;
    used_ = 0;
    return true;
}

bool RotatingLog::State::LoseLocked(unsigned long long lines, const char* step) {
    if (!isReported_) PZ_REPORT_ERRNO("%s [%s]\n", step, path_.c_str());
    isReported_ = true;
    lost_ += lines;
    untold_ += lines;
    return false;
}

bool RotatingLog::State::AppendLocked(std::string_view bytes, unsigned long long lines) {
    if (!EnsureOpenLocked()) return LoseLocked(lines, "open");
    char note[48];
    std::string_view told;
    if (untold_ > 0) {
        const int length = std::snprintf(note, sizeof note, "(%llu lines lost)\n", untold_);
        told = std::string_view(note, static_cast<std::size_t>(length));
    }
    if (used_ + told.size() + bytes.size() > size_ && !RotateLocked()) {
        return LoseLocked(lines, "rotate");
    }
    if (told.size() + bytes.size() > size_) told = std::string_view();
    if (!append(file_.Get(), told, used_)) return LoseLocked(lines, "write");
    used_ += told.size();
    if (!told.empty()) untold_ = 0;
    if (!append(file_.Get(), bytes, used_)) return LoseLocked(lines, "write");
    used_ += bytes.size();
    isReported_ = false;
    return true;
}

bool RotatingLog::State::FlushLocked() {
    if (buffer_.empty()) return true;
    const bool isWritten = AppendLocked(buffer_, bufferedLines_);
    buffer_.clear();
    bufferedLines_ = 0;
    return isWritten;
}

bool RotatingLog::State::Write(std::string_view text) {
    char time[32];
    const std::size_t timeLength = time_ ? print_time(time) : 0;
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    text = text.substr(0, size_ - timeLength - 1);

    const PZMutexLock lock(mutex_);
    const std::size_t length = timeLength + text.size() + 1;
    bool isWritten = true;
    if (buffer_.size() + length > bufferLimit_) isWritten = FlushLocked();
    // The buffer takes the line in any case, be it for a moment: one write for each line.
    buffer_.reserve(buffer_.size() + length);
    buffer_.append(time, timeLength).append(text).append(1, '\n');
    ++bufferedLines_;
    if (buffer_.size() > bufferLimit_) isWritten = FlushLocked() && isWritten;
    return isWritten;
}

RotatingLog::RotatingLog(const char* folder, const char* name, std::size_t size,
                         unsigned int generations, const Options& options) noexcept {
    const bool hasNames = folder != nullptr && *folder != '\0' && name != nullptr &&
                          *name != '\0' && std::strchr(name, '/') == nullptr;
    if (!hasNames || size < kSmallest || generations > kMostGenerations) {
        PZ_REPORT_ERROR("no log [%s] of %zu bytes in [%s]\n", name != nullptr ? name : "(null)",
                        size, folder != nullptr ? folder : "(null)");
        return;
    }
    try {
        state_ = std::make_unique<State>(folder, name, size, generations, options);
    } catch (const std::exception&) {  // no memory, or a buffer longer than any text
        PZ_REPORT_ERROR("no memory for the log [%s]\n", name);
    }
}

RotatingLog::~RotatingLog() {
    // What a forked child has copies of is its parent's to write, and to lock.
    if (state_ != nullptr && !state_->home_.IsParent()) flush();
}

RotatingLog::RotatingLog(RotatingLog&& other) noexcept = default;

RotatingLog& RotatingLog::operator=(RotatingLog&& other) noexcept {
    detail::replace(state_, other.state_, [this] { RotatingLog former(std::move(*this)); });
    return *this;
}

bool RotatingLog::line(const char* format, ...) noexcept {
    if (format == nullptr || state_ == nullptr) return false;
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0) return false;
    if (static_cast<std::size_t>(length) < sizeof text) {
        return this->text(std::string_view(text, static_cast<std::size_t>(length)));
    }
    const std::size_t room = static_cast<std::size_t>(length) + 1;
    const std::unique_ptr<char[]> whole(new (std::nothrow) char[room]);
    if (whole == nullptr) return this->text(std::string_view(text, sizeof text - 1));
    va_start(arguments, format);
    std::vsnprintf(whole.get(), room, format, arguments);
    va_end(arguments);
    return this->text(std::string_view(whole.get(), room - 1));
}

bool RotatingLog::text(std::string_view line) noexcept {
    if (state_ == nullptr) return false;
    try {
        return state_->Write(line);
    } catch (const std::bad_alloc&) {
        state_->CountLost();
        return false;
    }
}

bool RotatingLog::flush() noexcept {
    if (state_ == nullptr) return false;
    const PZMutexLock lock(state_->mutex_);
    try {
        return state_->FlushLocked();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

unsigned long long RotatingLog::lost() const noexcept {
    if (state_ == nullptr) return 0;
    const PZMutexLock lock(state_->mutex_);
    return state_->lost_;
}

}  // namespace pz
