#ifndef PZ_TESTS_SUPPORT_TEMPDIR_H
#define PZ_TESTS_SUPPORT_TEMPDIR_H

#include <string>

#include "support/Uncopyable.h"

namespace pztest {

/// A fresh folder under /tmp, removed with everything in it at the end of the scope.
class TempDir : private Uncopyable {
public:
    TempDir();
    ~TempDir();

    /// The folder, without a '/' at the end.
    const std::string& Path() const { return path_; }

    /// The path of `name` in the folder.
    std::string File(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

/// Writes `content` into the file; aborts the test process when that fails.
void write_file(const std::string& path, const std::string& content);

/// The whole file; "" when it cannot be read.
std::string read_file(const std::string& path);

}  // namespace pztest

#endif  // PZ_TESTS_SUPPORT_TEMPDIR_H
