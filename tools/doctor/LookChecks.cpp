#include <string>

#include "Checks.h"
#include "ProcSelf.h"

namespace {

constexpr int kCapSysPtrace = 19;
constexpr int kCapSysAdmin = 21;

constexpr char kMounts[] = "/proc/self/mounts";
constexpr char kTracefs[] = "/sys/kernel/tracing";
constexpr char kProbeEvents[] = "/sys/kernel/tracing/uprobe_events";
constexpr char kPtraceScope[] = "/proc/sys/kernel/yama/ptrace_scope";

}  // namespace

Finding check_probes(const Machine& machine) {
    const auto mounts = machine.Read(kMounts);
    if (!mounts) return unreadable(machine, kMounts, "mount -o remount,hidepid=0 /proc");
    if (mounts->find(std::string(" ") + kTracefs + " tracefs ") == std::string::npos) {
        return yellow("tracefs is not mounted",
                      "mount -t tracefs nodev /sys/kernel/tracing  # as root");
    }
    if (!has_capability(machine, kCapSysAdmin)) {
        return by_this_user(yellow("this user may not make probes", "sudo pz-trace"));
    }
    if (!machine.Stat(kProbeEvents)) {
        return yellow("this kernel has no probes of programs",
                      "zgrep UPROBE_EVENTS /proc/config.gz  # the kernel needs it");
    }
    return green("this user may make probes");
}

Finding check_process_reading(const Machine& machine) {
    if (!machine.HasProc()) return skipped("needs /proc");
    if (has_capability(machine, kCapSysPtrace)) return green("CAP_SYS_PTRACE: every process");
    const auto scope = machine.Number(kPtraceScope);
    if (!scope || *scope == 0) return green("the processes of this user");
    return yellow("kernel.yama.ptrace_scope is " + std::to_string(*scope),
                  "sysctl -w kernel.yama.ptrace_scope=0");
}
