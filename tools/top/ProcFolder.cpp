#include "ProcFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <mqueue.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <sstream>

#include "Text.h"

namespace {

/// The whole file; nothing, with errno set, when it cannot be read.
std::optional<std::string> contents_of(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (file == -1) return {};
    std::string text;
    char part[4096];
    ssize_t size = 0;
    while ((size = ::read(file, part, sizeof part)) > 0) {
        text.append(part, static_cast<std::size_t>(size));
    }
    const int error = errno;
    ::close(file);
    errno = error;
    if (size < 0) return {};
    return text;
}

/// Where a symbolic link leads to; empty when that cannot be read.
std::string target_of(const std::string& link) {
    char target[4096];
    const ssize_t size = ::readlink(link.c_str(), target, sizeof target);
    return size > 0 ? std::string(target, static_cast<std::size_t>(size)) : std::string();
}

/// The names of a folder that are numbers, ascending; nothing when it cannot be read.
std::optional<std::vector<std::uint32_t>> numbers_in(const std::string& folder) {
    const std::unique_ptr<DIR, int (*)(DIR*)> listing(::opendir(folder.c_str()), &::closedir);
    if (listing == nullptr) return {};
    std::vector<std::uint32_t> numbers;
    while (const dirent* const entry = ::readdir(listing.get())) {
        char* end = nullptr;
        const unsigned long number = std::strtoul(entry->d_name, &end, 10);
        if (end != entry->d_name && *end == '\0') {
            numbers.push_back(static_cast<std::uint32_t>(number));
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

/// The words after "NAME:" in a text of such lines; nothing when there is no such line.
std::optional<std::vector<std::string>> words_of_line(const std::string& text,
                                                      const std::string& name) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size(), name) != 0) continue;
        std::istringstream rest(line.substr(name.size()));
        std::vector<std::string> words;
        for (std::string word; rest >> word;) words.push_back(word);
        return words;
    }
    return {};
}

/// The fields of "stat" after the name, which may hold anything: the first one is the state.
std::vector<std::string> fields_of_stat(const std::string& stat) {
    const std::size_t end = stat.rfind(')');
    std::vector<std::string> fields;
    if (end == std::string::npos) return fields;
    std::istringstream rest(stat.substr(end + 1));
    for (std::string field; rest >> field;) fields.push_back(field);
    return fields;
}

constexpr std::size_t kState = 0;
constexpr std::size_t kNice = 16;
constexpr std::size_t kStartTime = 19;

bool is_zombie(const std::vector<std::string>& fields) {
    return fields.size() > kState && fields[kState] == "Z";
}

std::uint64_t number(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 10);
}

std::string without_newline(std::string text) {
    if (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

}  // namespace

ProcFolder::ProcFolder(pid_t pid)
    : pid_(pid),
      folder_("/proc/" + std::to_string(pid) + "/"),
      living_(FindLiving()),
      shared_(living_ == pid ? folder_ : folder_ + "task/" + std::to_string(living_) + "/") {}

pid_t ProcFolder::FindLiving() const {
    if (!is_zombie(fields_of_stat(Contents("stat").value_or("")))) return pid_;
    const auto tids = numbers_in(folder_ + "task").value_or(std::vector<std::uint32_t>());
    for (const std::uint32_t tid : tids) {
        const std::string stat = "task/" + std::to_string(tid) + "/stat";
        const auto fields = fields_of_stat(Contents(stat).value_or(""));
        if (!fields.empty() && !is_zombie(fields)) return static_cast<pid_t>(tid);
    }
    return pid_;
}

std::optional<std::string> ProcFolder::Contents(const std::string& name) const {
    return contents_of(folder_ + name);
}

std::uint64_t ProcFolder::StartTime() const {
    const auto fields = fields_of_stat(Contents("stat").value_or(""));
    const bool isGone = living_ == pid_ && is_zombie(fields);
    return fields.size() > kStartTime && !isGone ? number(fields[kStartTime]) : 0;
}

std::string ProcFolder::Name() const {
    return printable(without_newline(Contents("comm").value_or("?")));
}

std::string ProcFolder::Program() const {
    return target_of(shared_ + "exe");
}

std::optional<std::string> ProcFolder::Maps() const {
    return contents_of(shared_ + "maps");
}

std::vector<TaskInfo> ProcFolder::Tasks() const {
    std::vector<TaskInfo> tasks;
    const auto ids = words_of_line(Contents("status").value_or(""), "NSpid:");
    const bool isInContainer = ids && ids->size() > 1;
    for (const std::uint32_t tid :
         numbers_in(folder_ + "task").value_or(std::vector<std::uint32_t>())) {
        const std::string task = "task/" + std::to_string(tid) + "/";
        const auto fields = fields_of_stat(Contents(task + "stat").value_or(""));
        if (fields.size() <= kNice) continue;  // it has just ended
        TaskInfo info = {tid,
                         tid,
                         "",
                         fields[kState][0],
                         static_cast<int>(std::strtol(fields[kNice].c_str(), nullptr, 10)),
                         0};
        info.name = printable(without_newline(Contents(task + "comm").value_or("?")));
        info.runNs = number(Contents(task + "schedstat").value_or(""));
        if (isInContainer) {
            const auto inner = words_of_line(Contents(task + "status").value_or(""), "NSpid:");
            if (inner && !inner->empty()) {
                info.innerTid = static_cast<std::uint32_t>(number(inner->back()));
            }
        }
        tasks.push_back(info);
    }
    return tasks;
}

std::optional<std::uint64_t> ProcFolder::Descriptors() const {
    const auto numbers = numbers_in(shared_ + "fd");
    if (!numbers) return {};
    return numbers->size();
}

std::optional<std::uint64_t> ProcFolder::DescriptorLimit() const {
    const auto words =
        words_of_line(contents_of(shared_ + "limits").value_or(""), "Max open files");
    if (!words || words->empty() || words->front() == "unlimited") return {};
    return number(words->front());
}

std::optional<std::uint64_t> ProcFolder::PrivateBytes() const {
    const auto rollup = contents_of(shared_ + "smaps_rollup");
    if (!rollup) return {};
    std::uint64_t sum = 0;
    for (const char* line : {"Private_Clean:", "Private_Dirty:"}) {
        const auto words = words_of_line(*rollup, line);
        if (!words || words->empty()) return {};
        sum += number(words->front()) * 1024;
    }
    return sum;
}

bool ProcFolder::HasOurQueues() const {
    const std::string theirs = target_of(shared_ + "ns/ipc");
    return !theirs.empty() && theirs == target_of("/proc/self/ns/ipc");
}

std::optional<QueueFill> queue_fill(const std::string& name) {
    const mqd_t queue = ::mq_open(("/" + name).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (queue == -1) return {};
    mq_attr attributes = {};
    const bool isRead = ::mq_getattr(queue, &attributes) == 0;
    ::mq_close(queue);
    if (!isRead) return {};
    return QueueFill{static_cast<std::uint32_t>(attributes.mq_curmsgs),
                     static_cast<std::uint32_t>(attributes.mq_maxmsg)};
}

std::vector<pid_t> all_processes() {
    const auto numbers = numbers_in("/proc").value_or(std::vector<std::uint32_t>());
    return {numbers.begin(), numbers.end()};
}
