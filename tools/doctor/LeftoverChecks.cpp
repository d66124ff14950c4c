#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "Checks.h"
#include "Holders.h"
#include "QueueFolder.h"

namespace {

constexpr char kShmFolder[] = "/dev/shm";
constexpr char kSegments[] = "/proc/sysvipc/shm";
constexpr char kMostSegments[] = "/proc/sys/kernel/shmmni";
constexpr char kNoSegments[] = "zgrep SYSVIPC /proc/config.gz  # the kernel needs it";
constexpr char kSemaphorePrefix[] = "sem.";

/// "rm -f FILE...", or what else begins the command.
std::string command_for(std::string command, const std::vector<std::string>& words) {
    for (const std::string& word : words) command += " " + shell_word(word);
    return command;
}

/// Whether the user may remove all of them.
bool owns(const Machine& machine, const std::vector<std::string>& paths) {
    return std::all_of(paths.begin(), paths.end(),
                       [&machine](const std::string& path) { return is_own(machine.Stat(path)); });
}

/// Said of names that nobody seems to hold, when some processes could not be looked into.
Finding unsure(const std::string& what, const std::vector<std::string>& names,
               unsigned int hidden) {
    return by_this_user(yellow(what + first_of(names) + ", unless one of " +
                                   std::to_string(hidden) +
                                   " processes that this user may not look into holds them",
                               "sudo pz-doctor"));
}

/// What a check says of left names, whose files `files` may be removed.
Finding removable(const Machine& machine, const char* what, const std::vector<std::string>& left,
                  const std::vector<std::string>& files, const Holders& holders,
                  Finding (*verdict)(std::string found, std::string repair)) {
    if (holders.hidden > 0) return unsure(what, left, holders.hidden);
    return by_this_user_if(owns(machine, files),
                           verdict(what + first_of(left), command_for("rm -f", files)));
}

Finding check_queues(const Machine& machine) {
    const auto queues = list_queues(machine);
    if (!queues) return skipped("needs /dev/mqueue");
    if (!machine.HasProc()) return skipped("needs /proc");

    const Holders holders = find_holders(machine);
    std::vector<std::string> left;
    std::vector<std::string> files;
    for (const std::string& queue : *queues) {
        const std::string file = kQueueFolder + ("/" + queue);
        // A process may have opened the queue, or its file.
        if (holders.open.count("/" + queue) != 0 || holders.open.count(file) != 0) continue;
        left.push_back(queue);
        files.push_back(file);
    }
    if (left.empty()) return green("no queue without a process");
    return removable(machine, "queues without a process: ", left, files, holders, yellow);
}

/// The value in the file of a named semaphore, as the C library of its users lays it out; nothing
/// for another file.
std::optional<unsigned int> semaphore_value(const std::string& content) {
    constexpr size_t kSize32 = 16;
    constexpr size_t kSize64 = 32;
    if (content.size() == kSize64) {
        uint64_t data = 0;  // the waiting threads above 32 bits of value
        std::memcpy(&data, content.data(), sizeof data);
        return static_cast<uint32_t>(data);
    }
    if (content.size() == kSize32) {
        uint32_t data = 0;  // the value above one bit that says that a thread waits
        std::memcpy(&data, content.data(), sizeof data);
        return data >> 1;
    }
    return std::nullopt;
}

Finding check_semaphores(const Machine& machine) {
    const auto files = machine.List(kShmFolder);
    if (!files) return skipped("needs /dev/shm");
    if (!machine.HasProc()) return skipped("needs /proc");

    const Holders holders = find_holders(machine);
    std::vector<std::string> stuck;
    std::vector<std::string> paths;
    for (const std::string& file : *files) {
        if (file.compare(0, std::strlen(kSemaphorePrefix), kSemaphorePrefix) != 0) continue;
        const std::string path = kShmFolder + ("/" + file);
        if (holders.mapped.count(path) != 0) continue;
        const auto content = machine.Read(path);
        if (!content || semaphore_value(*content) != 0U) continue;
        stuck.push_back(file.substr(std::strlen(kSemaphorePrefix)));
        paths.push_back(path);
    }
    if (stuck.empty()) return green("no semaphore taken by a dead process");
    return removable(machine, "semaphores taken by dead processes: ", stuck, paths, holders, red);
}

/// A row of /proc/sysvipc/shm.
struct Segment {
    long long key;
    std::string id;
    unsigned int mode;
    unsigned long long bytes;
    std::string creator;
    std::string lastUser;
    unsigned long long attached;
    uid_t owner;
};

std::vector<Segment> parse_segments(const std::string& text) {
    std::vector<Segment> segments;
    std::istringstream lines(text);
    std::string line;
    std::getline(lines, line);  // the names of the columns
    while (std::getline(lines, line)) {
        std::istringstream columns(line);
        Segment row;
        columns >> row.key >> row.id >> std::oct >> row.mode >> std::dec >> row.bytes >>
            row.creator >> row.lastUser >> row.attached >> row.owner;
        if (columns) segments.push_back(row);
    }
    return segments;
}

/// A file guard's mutex, of a 32-bit or of a 64-bit process, or its flag. A guard refuses keys
/// below 0, and never uses the key 0 of private segments.
bool is_of_file_guard(const Segment& segment) {
    constexpr unsigned int kPermissions = 0777;
    constexpr unsigned int kForAll = 0666;
    const bool size = segment.bytes == 24 || segment.bytes == 40 || segment.bytes == 1;
    return segment.key > 0 && size && (segment.mode & kPermissions) == kForAll;
}

Finding check_segments(const Machine& machine) {
    const auto text = machine.Read(kSegments);
    if (!text) return unreadable(machine, kSegments, kNoSegments);
    std::vector<std::string> left;
    std::string repair;
    bool isOwn = true;
    for (const Segment& segment : parse_segments(*text)) {
        if (!is_of_file_guard(segment) || segment.attached != 0) continue;
        // 0 is a process of another container, of which nothing is known.
        if (segment.creator == "0" || machine.Stat("/proc/" + segment.creator)) continue;
        left.push_back(segment.id);
        isOwn = isOwn && segment.owner == geteuid();
        repair += (repair.empty() ? "ipcrm -m " : " -m ") + segment.id;
    }
    if (left.empty()) return green("no segment of a dead process");
    return by_this_user_if(isOwn,
                           yellow("segments left by dead processes: " + first_of(left), repair));
}

Finding check_segment_count(const Machine& machine) {
    constexpr long long kSegmentsOfGuard = 2;
    const auto most = machine.Number(kMostSegments);
    const auto text = machine.Read(kSegments);
    if (!most || !text) return unreadable(machine, kMostSegments, kNoSegments);
    const auto used = static_cast<long long>(parse_segments(*text).size());
    const std::string found =
        "kernel.shmmni is " + std::to_string(*most) + ", " + std::to_string(used) + " in use";
    if (*most - used < kSegmentsOfGuard) return red(found, "sysctl -w kernel.shmmni=4096");
    return green(found);
}

}  // namespace

std::vector<Check> leftover_checks() {
    return {
        {"queue-leftovers", "the next receiver finds the messages of a dead one", check_queues},
        {"semaphore-leftovers", "a shared lock that died taken is never free again",
         check_semaphores},
        {"segment-leftovers", "a new file guard may get the key of a left segment and be refused",
         check_segments},
        {"segment-count", "a file guard needs two segments of shared memory", check_segment_count},
    };
}
