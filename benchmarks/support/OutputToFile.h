#ifndef PZ_BENCHMARKS_SUPPORT_OUTPUTTOFILE_H
#define PZ_BENCHMARKS_SUPPORT_OUTPUTTOFILE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace pzbench {

/// A descriptor of this process's output goes to a file without a name until the end of the scope.
class OutputToFile {
public:
    explicit OutputToFile(int descriptor = STDOUT_FILENO) : descriptor_(descriptor) {
        std::fflush(nullptr);
        char path[] = "/tmp/pz_bench_XXXXXX";
        file_ = mkstemp(path);
        if (file_ == -1) std::abort();
        unlink(path);
        saved_ = dup(descriptor_);
        dup2(file_, descriptor_);
    }
    ~OutputToFile() {
        std::fflush(nullptr);
        dup2(saved_, descriptor_);
        close(saved_);
        close(file_);
    }
    OutputToFile(const OutputToFile&) = delete;
    OutputToFile& operator=(const OutputToFile&) = delete;

    /// What has been written so far, without what still waits in a buffer.
    std::string Text() const {
        struct stat status = {};
        if (fstat(file_, &status) != 0) return "";
        std::string text(static_cast<size_t>(status.st_size), '\0');
        const ssize_t got = pread(file_, text.data(), text.size(), 0);
        text.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return text;
    }

private:
    const int descriptor_;
    int file_ = -1;
    int saved_ = -1;
};

}  // namespace pzbench

#endif  // PZ_BENCHMARKS_SUPPORT_OUTPUTTOFILE_H
