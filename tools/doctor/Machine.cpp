#include "Machine.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

namespace {

constexpr int kMaxLinks = 40;  // as the kernel

std::vector<std::string> split_path(const std::string& path) {
    std::vector<std::string> names;
    size_t start = 0;
    while (start < path.size()) {
        const size_t end = std::min(path.find('/', start), path.size());
        const std::string name = path.substr(start, end - start);
        if (!name.empty() && name != ".") names.push_back(name);
        start = end + 1;
    }
    return names;
}

std::optional<std::string> read_link(const std::string& hostPath) {
    char target[PATH_MAX];
    const ssize_t length = readlink(hostPath.c_str(), target, sizeof target);
    if (length <= 0) return std::nullopt;
    return std::string(target, static_cast<size_t>(length));
}

/// A walk along a path inside of `root`, name by name.
class Walk {
public:
    Walk(const std::string& root, const std::string& path) : root_(root) { Prepend(path); }

    /// The place in the file system of this program.
    std::string ToTheEnd() {
        while (!ahead_.empty()) Step();
        return Here();
    }

private:
    // The next name is the last of `ahead_`.
    void Prepend(const std::string& path) {
        const std::vector<std::string> names = split_path(path);
        ahead_.insert(ahead_.end(), names.rbegin(), names.rend());
    }

    std::string Here() const {
        std::string place = root_;
        for (const std::string& name : behind_) place += "/" + name;
        return place;
    }

    void Step() {
        const std::string name = ahead_.back();
        ahead_.pop_back();
        if (name == "..") {
            if (!behind_.empty()) behind_.pop_back();  // above the root is the root
            return;
        }
        behind_.push_back(name);
        const std::optional<std::string> link = read_link(Here());
        if (!link || ++links_ > kMaxLinks) return;
        behind_.pop_back();
        if (link->front() == '/') behind_.clear();
        Prepend(*link);
    }

    const std::string& root_;
    std::vector<std::string> behind_;
    std::vector<std::string> ahead_;
    int links_ = 0;
};

struct CloseDir {
    void operator()(DIR* dir) const { closedir(dir); }
};

/// Owns one descriptor and closes it.
class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ != -1) close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return fd_; }

private:
    const int fd_;
};

}  // namespace

Machine::Machine(std::string root) : root_(std::move(root)) {
    while (!root_.empty() && root_.back() == '/') root_.pop_back();
}

std::string Machine::Resolve(const std::string& path) const {
    return IsLive() ? path : Walk(root_, path).ToTheEnd();
}

std::optional<struct stat> Machine::Stat(const std::string& path) const {
    struct stat info;
    if (stat(Resolve(path).c_str(), &info) != 0) return std::nullopt;
    return info;
}

std::optional<std::string> Machine::LinkTarget(const std::string& path) const {
    const size_t slash = path.rfind('/');
    return read_link(Resolve(path.substr(0, slash)) + path.substr(slash));
}

std::optional<std::string> Machine::Read(const std::string& path, size_t limit) const {
    // A pipe that stands where a file should be must not hold the program up.
    const Descriptor file(open(Resolve(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (file.Get() == -1) return std::nullopt;
    std::string text;
    char buffer[4096];
    while (text.size() < limit) {
        const size_t wanted = std::min(limit - text.size(), sizeof buffer);
        const ssize_t got = read(file.Get(), buffer, wanted);
        if (got == -1 && errno == EINTR) continue;
        if (got == -1) return std::nullopt;
        if (got == 0) break;
        text.append(buffer, static_cast<size_t>(got));
    }
    return text;
}

std::optional<std::vector<std::string>> Machine::List(const std::string& path) const {
    const std::unique_ptr<DIR, CloseDir> dir(opendir(Resolve(path).c_str()));
    if (dir == nullptr) return std::nullopt;
    std::vector<std::string> names;
    while (const dirent* const entry = readdir(dir.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
        names.emplace_back(entry->d_name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<long long> Machine::Number(const std::string& path) const {
    const std::optional<std::string> text = Read(path);
    if (!text) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    const long long number = std::strtoll(text->c_str(), &end, 10);
    if (end == text->c_str() || errno != 0) return std::nullopt;
    return number;
}
