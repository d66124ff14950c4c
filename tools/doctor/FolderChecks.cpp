#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "Checks.h"

namespace {

constexpr mode_t kPermissions = 07777;
constexpr mode_t kForAll = 0777;
constexpr mode_t kForAllAndSticky = 01777;
constexpr unsigned long long kLeastFreeBytes = 1U << 20;

std::string octal(mode_t mode) {
    char text[16];
    std::snprintf(text, sizeof text, "%04o", mode);
    return text;
}

bool is_read_only(const Machine& machine, const std::string& path) {
    return access(machine.Resolve(path).c_str(), W_OK) != 0 && errno == EROFS;
}

Finding check_folder(const Machine& machine, const std::string& path, const std::string& make) {
    const auto info = machine.Stat(path);
    if (!info) return red(path + " is missing", make);
    if (!S_ISDIR(info->st_mode)) {
        return red(path + " is not a folder", move_away(path) + make);
    }
    const mode_t mode = info->st_mode & kPermissions;
    const std::string found = path + " has mode " + octal(mode);
    const std::string open = "chmod 1777 " + path;
    if ((mode & kForAll) != kForAll) return by_this_user_if(is_own(info), red(found, open));
    if (is_read_only(machine, path)) {
        return red("the file system of " + path + " is read-only",
                   "mount -o remount,rw \"$(findmnt -n -o TARGET -T " + path + ")\"");
    }
    if (mode != kForAllAndSticky) return by_this_user_if(is_own(info), yellow(found, open));
    return green(found);
}

Finding check_own_folder(const Machine& machine, const std::string& path) {
    Finding finding = check_folder(machine, path, "install -d -m 1777 " + path);
    if (machine.Stat(path)) return finding;
    const size_t slash = path.rfind('/');
    const auto parent = machine.Stat(slash == 0 ? "/" : path.substr(0, slash));
    return by_this_user_if(is_own(parent) || (parent && (parent->st_mode & S_IWOTH) != 0),
                           std::move(finding));
}

}  // namespace

Finding check_temp(const Machine& machine) {
    return check_own_folder(machine, "/temp");
}

Finding check_system_data(const Machine& machine) {
    return check_own_folder(machine, "/temp/system_data");
}

Finding check_syslog(const Machine& machine) {
    return check_own_folder(machine, "/Syslog");
}

Finding check_tmp(const Machine& machine) {
    return check_own_folder(machine, "/tmp");
}

Finding check_shm(const Machine& machine) {
    return check_folder(
        machine, "/dev/shm",
        "mkdir -p /dev/shm && mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs /dev/shm");
}

Finding check_log_space(const Machine& machine) {
    struct statvfs space;
    if (statvfs(machine.Resolve("/Syslog").c_str(), &space) != 0) {
        return skipped("needs /Syslog");
    }
    const unsigned long long bytes =
        static_cast<unsigned long long>(space.f_bavail) * space.f_frsize;
    if (bytes < kLeastFreeBytes) {
        return red("less than 1 MiB is free for /Syslog", "find /Syslog -type f -mtime +7 -delete");
    }
    return green("at least 1 MiB is free for /Syslog");
}

Finding check_proc(const Machine& machine) {
    if (machine.HasProc()) return green("/proc is there");
    return red("/proc is missing", "mkdir -p /proc && mount -t proc proc /proc");
}
