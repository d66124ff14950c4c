#ifndef PZ_TESTS_SUPPORT_FAKESYSLOG_H
#define PZ_TESTS_SUPPORT_FAKESYSLOG_H

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>

#include "support/Interposed.h"
#include "support/OwnStreams.h"
#include "support/TempDir.h"

// Defines system calls: to be included by one source of a test program.

namespace pztest {

inline Interposed<int(const char*, mode_t)> mkdir_call("mkdir");
inline Interposed<int()> sync_call("sync");

/// While it lives, files below "/Syslog" are opened in a folder of the test's own, and nothing is
/// written through to the disks. One at a time.
class FakeSyslog {
public:
    FakeSyslog() {
        folder_ = &dir_;
        isMissing_ = false;
        open_call.Replace(&open_below_folder);
        mkdir_call.Replace(&make_directory);
        sync_call.Replace([] { return 0; });
    }
    ~FakeSyslog() {
        open_call.Replace(nullptr);
        mkdir_call.Replace(nullptr);
        sync_call.Replace(nullptr);
    }
    FakeSyslog(const FakeSyslog&) = delete;
    FakeSyslog& operator=(const FakeSyslog&) = delete;

    /// From now on the folder is not there and cannot be made.
    static void Remove() { isMissing_ = true; }

    const TempDir& Folder() const { return dir_; }

    std::set<std::string> Names() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
            names.insert(entry.path().filename().string());
        }
        return names;
    }

    std::string Content(const std::string& name) const { return read_file(dir_.File(name)); }

private:
    static bool is_below(const std::string& path) {
        return path == "/Syslog" || path.compare(0, 8, "/Syslog/") == 0;
    }

    static int open_below_folder(const char* path, int flags, mode_t mode) {
        if (!is_below(path)) return open_call.Real(path, flags, mode);
        if (isMissing_) {
            errno = ENOENT;
            return -1;
        }
        return open_call.Real(folder_->File(std::string(path).substr(8)).c_str(), flags, mode);
    }

    static int make_directory(const char* path, mode_t mode) {
        if (!is_below(path)) return mkdir_call.Real(path, mode);
        if (!isMissing_) return 0;
        errno = EACCES;
        return -1;
    }

    static inline const TempDir* folder_ = nullptr;
    static inline bool isMissing_ = false;

    const TempDir dir_;
};

}  // namespace pztest

extern "C" {
int mkdir(const char* path, mode_t mode) noexcept {
    return pztest::mkdir_call(path, mode);
}
void sync() noexcept {
    pztest::sync_call();
}
}

#endif  // PZ_TESTS_SUPPORT_FAKESYSLOG_H
