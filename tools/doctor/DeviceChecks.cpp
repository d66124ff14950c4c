#include <unistd.h>

#include <string>

#include "Checks.h"
#include "ZoneFile.h"

namespace {

constexpr char kZoneFile[] = "/tmp/tzfile";
constexpr char kLocalTime[] = "/etc/localtime";
constexpr char kDate[] = "/bin/date";
constexpr char kRtc[] = "/dev/rtc0";
constexpr char kLog[] = "/dev/log";
constexpr mode_t kAnyExecute = 0111;

}  // namespace

Finding check_zone_file(const Machine& machine) {
    const std::string make = "cp /usr/share/zoneinfo/Etc/UTC /tmp/tzfile";
    if (!machine.Stat(kZoneFile)) return by_this_user(yellow("/tmp/tzfile is missing", make));
    if (!is_zone_file(machine, kZoneFile)) {
        return red("/tmp/tzfile is not a compiled zone file", move_away(kZoneFile) + make);
    }
    return green("/tmp/tzfile is a compiled zone file");
}

Finding check_local_zone(const Machine& machine) {
    const std::string repair = "ln -sfn /tmp/tzfile /etc/localtime";
    const auto target = machine.LinkTarget(kLocalTime);
    if (target && (*target == kZoneFile || *target == "../tmp/tzfile")) {
        return green("/etc/localtime leads to /tmp/tzfile");
    }
    if (target) return red("/etc/localtime leads to " + printable(*target), repair);
    if (machine.Stat(kLocalTime)) return red("/etc/localtime is a file of its own", repair);
    return red("/etc/localtime is missing", repair);
}

Finding check_tz_variable(const Machine& machine) {
    static constexpr char kEnvironment[] = "/proc/self/environ";
    const auto environment = machine.Read(kEnvironment);
    if (!environment) {
        return unreadable(machine, kEnvironment, "mount -o remount,hidepid=0 /proc");
    }
    // The variables end with a zero byte each.
    size_t start = 0;
    while (start < environment->size()) {
        const std::string variable = environment->c_str() + start;
        if (variable.compare(0, 3, "TZ=") == 0) {
            return by_this_user(
                yellow("TZ is set to \"" + printable(variable.substr(3)) + "\"", "unset TZ"));
        }
        start += variable.size() + 1;
    }
    return green("TZ is not set");
}

Finding check_date(const Machine& machine) {
    const std::string install = "apt-get install -y --reinstall coreutils";
    const auto info = machine.Stat(kDate);
    if (!info) return red("/bin/date is missing", install);
    if (!S_ISREG(info->st_mode)) return red("/bin/date is not a program", install);
    if ((info->st_mode & kAnyExecute) != kAnyExecute) {
        return red("/bin/date may not be executed by everybody", "chmod 755 /bin/date");
    }
    return green("/bin/date is a program");
}

Finding check_rtc(const Machine& machine) {
    const auto info = machine.Stat(kRtc);
    if (!info) return red("/dev/rtc0 is missing", "modprobe rtc-cmos || modprobe rtc-efi");
    if (!S_ISCHR(info->st_mode)) {
        return red("/dev/rtc0 is not a device", move_away(kRtc) + "udevadm trigger -s rtc");
    }
    if (access(machine.Resolve(kRtc).c_str(), R_OK | W_OK) != 0) {
        return yellow("/dev/rtc0 cannot be written by this user", "chmod 666 /dev/rtc0");
    }
    return green("/dev/rtc0 is a device that this user may write");
}

Finding check_log(const Machine& machine) {
    const std::string start = "service rsyslog start || busybox syslogd";
    const auto info = machine.Stat(kLog);
    if (!info) return red("/dev/log is missing", start);
    if (!S_ISSOCK(info->st_mode)) {
        return red("/dev/log is not a socket", move_away(kLog) + "{ " + start + "; }");
    }
    return green("/dev/log is a socket");
}
