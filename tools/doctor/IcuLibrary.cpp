#include "IcuLibrary.h"

#include <dlfcn.h>

#include <vector>

namespace {

// The versions whose function names the framework tries.
constexpr int kOldest = 40;
constexpr int kNewest = 99;

std::string library_name(int version) {
    return "libicui18n.so." + std::to_string(version);
}

bool can_detect(int version) {
    void* const library = dlopen(library_name(version).c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (library == nullptr) return false;
    const std::string suffix = "_" + std::to_string(version);
    const bool found = dlsym(library, "ucsdet_open") != nullptr ||
                       dlsym(library, ("ucsdet_open" + suffix).c_str()) != nullptr;
    dlclose(library);
    return found;
}

/// The folders of libraries: those of the machine's kind ("x86_64-linux-gnu") are one level below.
std::vector<std::string> library_folders(const Machine& machine) {
    std::vector<std::string> folders;
    for (const char* parent : {"/lib", "/usr/lib", "/usr/local/lib", "/lib64", "/usr/lib64"}) {
        folders.emplace_back(parent);
        const auto names = machine.List(parent);
        if (!names) continue;
        for (const std::string& name : *names) folders.push_back(parent + ("/" + name));
    }
    return folders;
}

bool has_file(const Machine& machine, const std::vector<std::string>& folders, int version) {
    for (const std::string& folder : folders) {
        if (machine.Stat(folder + "/" + library_name(version))) return true;
    }
    return false;
}

}  // namespace

IcuLibrary find_icu(const Machine& machine) {
    const std::vector<std::string> folders =
        machine.IsLive() ? std::vector<std::string>() : library_folders(machine);
    for (int version = kNewest; version >= kOldest; --version) {
        const bool found =
            machine.IsLive() ? can_detect(version) : has_file(machine, folders, version);
        if (found) return {version, library_name(version)};
    }
    return {};
}
