#include "Holders.h"

#include <sstream>
#include <string>

namespace {

bool is_process(const std::string& name) {
    return name.find_first_not_of("0123456789") == std::string::npos;
}

/// False when the process may not be looked into.
bool add_open_files(const Machine& machine, const std::string& process, Holders& holders) {
    const std::string folder = process + "/fd/";
    const auto descriptors = machine.List(folder);
    if (!descriptors) return false;
    for (const std::string& descriptor : *descriptors) {
        const auto target = machine.LinkTarget(folder + descriptor);
        if (target) holders.open.insert(*target);
    }
    return true;
}

bool add_mapped_files(const Machine& machine, const std::string& process, Holders& holders) {
    constexpr size_t kLimit = 1U << 26;
    const auto maps = machine.Read(process + "/maps", kLimit);
    if (!maps) return false;
    std::istringstream lines(*maps);
    for (std::string line; std::getline(lines, line);) {
        const size_t path = line.find('/');
        if (path != std::string::npos) holders.mapped.insert(line.substr(path));
    }
    return true;
}

}  // namespace

Holders find_holders(const Machine& machine) {
    Holders holders;
    const auto names = machine.List("/proc");
    if (!names) return holders;
    for (const std::string& name : *names) {
        if (!is_process(name)) continue;
        const std::string process = "/proc/" + name;
        const bool seen = add_open_files(machine, process, holders) &&
                          add_mapped_files(machine, process, holders);
        // One that has ended meanwhile holds nothing.
        if (!seen && machine.Stat(process)) ++holders.hidden;
    }
    return holders;
}
