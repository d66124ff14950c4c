#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include <Framework/private/pz_directory.h>

#include "support/ChildProcess.h"
#include "support/TempDir.h"
#include "support/Uncopyable.h"

namespace {

using Names = std::multiset<std::string>;

PZDescriptor open_folder(const std::string& path) {
    return PZDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

/// The names up to the end.
Names names_of(PZDirectory& directory) {
    Names names;
    while (const dirent64* const entry = directory.Read()) names.insert(PZDirectory::NameOf(entry));
    return names;
}

TEST(PZDirectoryTest, ListsEverythingButItselfAndItsParent) {
    const pztest::TempDir dir;
    const Names made = {"...", "..a", ".a", "a"};
    for (const std::string& name : made) pztest::write_file(dir.File(name), "");
    const auto directory = PZDirectory::Over(open_folder(dir.Path()));
    ASSERT_NE(nullptr, directory);
    EXPECT_EQ(made, names_of(*directory));
}

TEST(PZDirectoryTest, MayBeAskedAgainAtItsEndAndKeepsErrno) {
    const pztest::TempDir dir;
    const auto directory = PZDirectory::Over(open_folder(dir.Path()));
    ASSERT_NE(nullptr, directory);
    errno = ENOTTY;
    EXPECT_EQ(nullptr, directory->Read());
    EXPECT_EQ(nullptr, directory->Read());
    EXPECT_FALSE(directory->HasFailed());
    EXPECT_EQ(ENOTTY, errno);
}

TEST(PZDirectoryTest, TellsWhyItCannotBeRead) {
    const pztest::TempDir dir;
    pztest::write_file(dir.File("f"), "");
    const auto file =
        PZDirectory::Over(PZDescriptor(::open(dir.File("f").c_str(), O_RDONLY | O_CLOEXEC)));
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(nullptr, file->Read());
    EXPECT_TRUE(file->HasFailed());
    EXPECT_EQ(ENOTDIR, errno);
}

TEST(PZDirectoryTest, OpensNothingWithoutADescriptorAndKeepsTheErrorOfOpen) {
    EXPECT_EQ(nullptr, PZDirectory::Over(open_folder("/no place")));
    EXPECT_EQ(ENOENT, errno);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // they take what they need

/// All the memory that malloc still gives in a process that gets no more while one lives.
class AllMemory : private pztest::Uncopyable {
public:
    AllMemory() {
        ::getrlimit(RLIMIT_AS, &before_);
        const rlimit none = {1, before_.rlim_max};
        ::setrlimit(RLIMIT_AS, &none);
        for (size_t size = 32768; size >= sizeof(Block); size /= 2) {
            while (auto* const block = static_cast<Block*>(std::malloc(size))) {
                block->next = first_;
                first_ = block;
            }
        }
    }
    ~AllMemory() {
        ::setrlimit(RLIMIT_AS, &before_);
        while (first_ != nullptr) std::free(std::exchange(first_, first_->next));
    }

private:
    struct Block {
        Block* next;
    };
    rlimit before_ = {};
    Block* first_ = nullptr;
};

TEST(PZDirectoryTest, OpensNothingWithoutMemoryAndClosesItsDescriptor) {
    const pztest::ChildResult result = pztest::run_in_child([] {
        const int folder = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        {
            const AllMemory taken;
            if (PZDirectory::Over(PZDescriptor(folder)) != nullptr) return 1;
            if (errno != ENOMEM) return 2;
        }
        if (::fcntl(folder, F_GETFD) != -1) return 3;
        return PZDirectory::Over(open_folder("/")) != nullptr ? 42 : 4;
    });
    EXPECT_EQ(42, result.status) << result.output;
}

#endif

TEST(PZDirectoryTest, StaysAwayFromTheStandardDescriptorsAndClosesItsOwn) {
    const pztest::ChildResult result = pztest::run_in_child([] {
        ::close(STDIN_FILENO);
        auto directory = PZDirectory::Over(open_folder("/"));
        if (directory == nullptr || directory->Get() <= STDERR_FILENO) return 1;
        if (::fcntl(STDIN_FILENO, F_GETFD) != -1) return 2;
        const int fd = directory->Get();
        directory.reset();
        return ::fcntl(fd, F_GETFD) == -1 ? 42 : 3;
    });
    EXPECT_EQ(42, result.status) << result.output;
}

}  // namespace
