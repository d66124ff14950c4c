#ifndef PZ_BENCHMARKS_SUPPORT_TEMPFOLDER_H
#define PZ_BENCHMARKS_SUPPORT_TEMPFOLDER_H

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace pzbench {

/// A fresh folder, removed with everything in it at the end of the scope.
class TempFolder {
public:
    /// Below "/tmp", or "/dev/shm" where no disk is to be measured.
    explicit TempFolder(const std::string& parent = "/tmp") : path_(parent + "/pz_bench_XXXXXX") {
        if (mkdtemp(path_.data()) == nullptr) std::abort();
    }
    ~TempFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::string& Path() const { return path_; }
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_TEMPFOLDER_H
