#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <gtest/gtest.h>

#include <Framework/private/pz_descriptor.h>

#include "support/CancelledThread.h"
#include "support/ChildProcess.h"

namespace {

int open_null() {
    return ::open("/dev/null", O_RDWR | O_CLOEXEC);
}

bool is_open(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

TEST(PZDescriptorTest, ClosesWhatItOwnsOnceAndKeepsErrno) {
    const int fd = open_null();
    ASSERT_NE(kNoDescriptor, fd);
    {
        const PZDescriptor descriptor(fd);
        EXPECT_EQ(fd, descriptor.Get());
        EXPECT_TRUE(descriptor.IsOpen());
        errno = ENOSPC;
    }
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_FALSE(is_open(fd));
}

TEST(PZDescriptorTest, OwnsNothingAtFirstAndAfterItGaveItsDescriptorAway) {
    PZDescriptor descriptor;
    EXPECT_FALSE(descriptor.IsOpen());
    EXPECT_EQ(0, descriptor.Close());

    const int fd = open_null();
    descriptor = PZDescriptor(fd);
    EXPECT_EQ(fd, descriptor.Release());
    EXPECT_FALSE(descriptor.IsOpen());
    EXPECT_TRUE(is_open(fd));
    ::close(fd);
}

TEST(PZDescriptorTest, ClosesTheOldDescriptorWhenItTakesOverAnother) {
    const int first = open_null();
    const int second = open_null();
    PZDescriptor descriptor(first);
    PZDescriptor other(second);
    descriptor = std::move(other);
    EXPECT_FALSE(is_open(first));
    EXPECT_EQ(second, descriptor.Get());
    EXPECT_EQ(0, descriptor.Close());
    EXPECT_FALSE(is_open(second));
}

TEST(PZDescriptorTest, AnswersMinus1AndOwnsNothingAfterAFailedClose) {
    const int fd = open_null();
    PZDescriptor descriptor(fd);
    ::close(fd);
    EXPECT_EQ(-1, descriptor.Close());
    EXPECT_EQ(EBADF, errno);
    EXPECT_FALSE(descriptor.IsOpen());
}

TEST(PZDescriptorTest, LeavesADescriptorAboveTheStandardOnesWhereItIs) {
    const int fd = open_null();
    PZDescriptor descriptor(fd);
    EXPECT_TRUE(descriptor.MoveAboveStandard());
    EXPECT_EQ(fd, descriptor.Get());

    PZDescriptor none;
    EXPECT_FALSE(none.MoveAboveStandard());
}

TEST(PZDescriptorTest, MovesADescriptorThatTookTheNumberOfAStandardOne) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        ::close(STDIN_FILENO);
        PZDescriptor descriptor(open_null());
        if (descriptor.Get() != STDIN_FILENO) return 1;
        if (!descriptor.MoveAboveStandard() || descriptor.Get() <= STDERR_FILENO) return 2;
        if (is_open(STDIN_FILENO)) return 3;
        return ::fcntl(descriptor.Get(), F_GETFD) == FD_CLOEXEC ? 0 : 4;
    });
    EXPECT_EQ(0, child.status);
}

TEST(PZDescriptorTest, ClosesADescriptorThatItCannotMove) {
    const pztest::ChildResult child = pztest::run_in_child([] {
        const rlimit onlyStandard = {3, 3};
        ::setrlimit(RLIMIT_NOFILE, &onlyStandard);
        ::close(STDIN_FILENO);
        PZDescriptor descriptor(open_null());
        if (descriptor.Get() != STDIN_FILENO) return 1;
        if (descriptor.MoveAboveStandard() || (errno != EINVAL && errno != EMFILE)) return 2;
        return is_open(STDIN_FILENO) ? 3 : 0;
    });
    EXPECT_EQ(0, child.status);
}

TEST(PZDescriptorTest, ClosesOnAThreadThatIsBeingCancelled) {
    const int fd = open_null();
    EXPECT_TRUE(pztest::ends_whole_when_cancelled([fd] { const PZDescriptor descriptor(fd); }));
    EXPECT_FALSE(is_open(fd));
}

}  // namespace
