#include "support/FakeSyslog.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "support/OwnStreams.h"

namespace pztest {

PZ_INTERPOSE(mkdir, 2);
PZ_INTERPOSE(sync, 0);

namespace {

const TempDir* folder = nullptr;
bool is_missing = false;

bool is_below(const std::string& path) {
    return path == "/Syslog" || path.compare(0, 8, "/Syslog/") == 0;
}

int open_below_folder(const char* path, int flags, mode_t mode) {
    if (!is_below(path)) return open_call.Real(path, flags, mode);
    if (is_missing) {
        errno = ENOENT;
        return -1;
    }
    return open_call.Real(folder->File(std::string(path).substr(8)).c_str(), flags, mode);
}

int make_directory(const char* path, mode_t mode) {
    if (!is_below(path)) return mkdir_call.Real(path, mode);
    if (!is_missing) return 0;
    errno = EACCES;
    return -1;
}

}  // namespace

FakeSyslog::FakeSyslog() {
    folder = &dir_;
    is_missing = false;
    open_call.Replace(&open_below_folder);
    mkdir_call.Replace(&make_directory);
    sync_call.Replace([] {});
}

FakeSyslog::~FakeSyslog() {
    open_call.Replace(nullptr);
    mkdir_call.Replace(nullptr);
    sync_call.Replace(nullptr);
}

void FakeSyslog::Remove() {
    is_missing = true;
}

std::set<std::string> FakeSyslog::Names() const {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

}  // namespace pztest
