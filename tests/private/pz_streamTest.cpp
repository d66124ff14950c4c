#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include <Framework/private/pz_stream.h>

#include "support/CancelledThread.h"
#include "support/ChildProcess.h"
#include "support/OpenDescriptors.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

namespace {

class PZStreamTest : public testing::Test {
protected:
    /// Opens, writes "text" and closes. What is in the file then, or "null".
    std::string Written(const char* mode) {
        PZStream stream(pz_open_stream(path.c_str(), mode));
        if (!stream.IsOpen()) return "null";
        EXPECT_LT(STDERR_FILENO, ::fileno(stream.Get()));
        EXPECT_EQ(FD_CLOEXEC, ::fcntl(::fileno(stream.Get()), F_GETFD)) << mode;
        std::fputs("text", stream.Get());
        EXPECT_TRUE(stream.Close());
        EXPECT_FALSE(stream.IsOpen());
        return pztest::read_file(path);
    }

    pztest::TempDir dir;
    const std::string path = dir.File("file");
};

}  // namespace

TEST_F(PZStreamTest, OpensInEveryModeOfTheCLibraryAndIsClosedInStartedPrograms) {
    EXPECT_EQ("null", Written("r+"));
    EXPECT_EQ("text", Written("w"));
    EXPECT_EQ("texttext", Written("a"));
    EXPECT_EQ("texttexttext", Written("ab+"));
    EXPECT_EQ("texttexttext", Written("r+b"));
    EXPECT_EQ("text", Written("wb+"));
    EXPECT_EQ("texttext", Written("ae"));
    EXPECT_EQ("text", Written("w+"));
    EXPECT_EQ("null", Written("wx"));
    EXPECT_EQ(EEXIST, errno);
    EXPECT_EQ("null", Written("e"));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ("null", Written(""));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(PZStreamTest, LeavesTheStandardDescriptorsFreeInEveryMode) {
    const pztest::ChildResult result = pztest::run_in_child([this] {
        ::close(STDIN_FILENO);
        ::close(STDERR_FILENO);
        const bool areRight = Written("w") == "text" && Written("a+") == "texttext" &&
                              Written("r+") == "texttext" && Written("rb+") == "texttext" &&
                              ::unlink(path.c_str()) == 0 && Written("wx") == "text";
        const bool areFree =
            ::fcntl(STDIN_FILENO, F_GETFD) == -1 && ::fcntl(STDERR_FILENO, F_GETFD) == -1;
        return areRight && areFree ? 42 : 1;
    });
    EXPECT_EQ(42, result.status) << result.output;
}

TEST_F(PZStreamTest, FailsWhenOnlyStandardDescriptorsAreLeft) {
    pztest::write_file(path, "x");
    const pztest::ChildResult result = pztest::run_in_child([this] {
        const int next = ::dup(STDERR_FILENO);
        rlimit limit = {};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = static_cast<rlim_t>(next);
        ::close(next);
        ::close(STDIN_FILENO);
        if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 1;
        if (pz_open_stream(path.c_str(), "r") != nullptr) return 2;
        if (errno != EINVAL && errno != EMFILE) return 3;
        return ::fcntl(STDIN_FILENO, F_GETFD) == -1 ? 42 : 4;
    });
    EXPECT_EQ(42, result.status) << result.output;
}

TEST_F(PZStreamTest, TellsThatTheDataCouldNotBeWritten) {
    PZStream stream(pz_open_stream("/dev/full", "w"));
    ASSERT_TRUE(stream.IsOpen());
    std::fputs("text", stream.Get());
    EXPECT_FALSE(stream.Close());
    EXPECT_EQ(ENOSPC, errno);
}

TEST_F(PZStreamTest, ClosesOnceAndKeepsErrno) {
    const int before = pztest::open_descriptors();
    {
        const PZStream stream(pz_open_stream(path.c_str(), "w"));
        EXPECT_EQ(before + 1, pztest::open_descriptors());
        errno = ENOTTY;
    }
    EXPECT_EQ(ENOTTY, errno);
    EXPECT_EQ(before, pztest::open_descriptors());
}

TEST_F(PZStreamTest, ClosesOnAThreadThatIsToBeCancelled) {
    const int before = pztest::open_descriptors();
    FILE* const stream = pz_open_stream(path.c_str(), "w");
    std::fputs("text", stream);
    EXPECT_TRUE(pztest::ends_whole_when_cancelled([stream] { pz_close_stream(stream); }));
    EXPECT_EQ("text", pztest::read_file(path));
    EXPECT_EQ(before, pztest::open_descriptors());
}
