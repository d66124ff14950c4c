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

constexpr char kSegments[] = "/proc/sysvipc/shm";
constexpr char kMostSegments[] = "/proc/sys/kernel/shmmni";
constexpr char kNoSegments[] = "zgrep SYSVIPC /proc/config.gz  # the kernel needs it";

/// Files that are looked for in a folder, and what is said of them.
struct Search {
    const char* folder;
    const char* prefix;  ///< of the files; what follows it is the name
    bool (*isLeft)(const Machine& machine, const Holders& holders, const std::string& path);
    const char* none;
    const char* some;  ///< leads their names
    Finding (*verdict)(std::string found, std::string repair);
};

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

/// Of the files in the search's folder; skipped when that could not be read.
Finding check_files(const Machine& machine, const Search& search,
                    const std::optional<std::vector<std::string>>& files) {
    if (!files) return skipped(std::string("needs ") + search.folder);
    if (!machine.HasProc()) return skipped("needs /proc");

    const Holders holders = find_holders(machine);
    std::vector<std::string> names;
    std::vector<std::string> paths;
    for (const std::string& file : *files) {
        const size_t start = std::strlen(search.prefix);
        const std::string path = search.folder + ("/" + file);
        if (file.compare(0, start, search.prefix) != 0) continue;
        if (!search.isLeft(machine, holders, path)) continue;
        names.push_back(file.substr(start));
        paths.push_back(path);
    }
    if (names.empty()) return green(search.none);
    if (holders.hidden > 0) return unsure(search.some, names, holders.hidden);
    return by_this_user_if(owns(machine, paths), search.verdict(search.some + first_of(names),
                                                                command_for("rm -f", paths)));
}

/// A process may have opened the queue, or its file.
bool is_left_queue(const Machine& /*machine*/, const Holders& holders, const std::string& path) {
    const std::string queue = path.substr(std::strlen(kQueueFolder));
    return holders.open.count(queue) == 0 && holders.open.count(path) == 0;
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

bool is_taken_semaphore(const Machine& machine, const Holders& holders, const std::string& path) {
    if (holders.mapped.count(path) != 0) return false;
    const auto content = machine.Read(path);
    return content && semaphore_value(*content) == 0U;
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

}  // namespace

Finding check_queues(const Machine& machine) {
    static constexpr Search kSearch = {
        kQueueFolder, "", is_left_queue, "no queue without a process", "queues without a process: ",
        yellow};
    return check_files(machine, kSearch, list_queues(machine));
}

Finding check_semaphores(const Machine& machine) {
    static constexpr Search kSearch = {"/dev/shm",
                                       "sem.",
                                       is_taken_semaphore,
                                       "no semaphore taken by a dead process",
                                       "semaphores taken by dead processes: ",
                                       red};
    return check_files(machine, kSearch, machine.List(kSearch.folder));
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
