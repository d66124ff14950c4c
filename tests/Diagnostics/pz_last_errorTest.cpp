#include "Framework/Diagnostics/pz_last_error.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

TEST(pz_last_errorTest, AnswersErrno) {
    errno = ENOENT;
    EXPECT_EQ(ENOENT, pz_get_last_err());
    errno = 0;
    EXPECT_EQ(0, pz_get_last_err());
}

TEST(pz_last_errorTest, KeepsErrnoWhenItIsRead) {
    errno = EPIPE;
    pz_get_last_err();
    pz_get_last_err_string();
    EXPECT_EQ(EPIPE, errno);
}

TEST(pz_last_errorTest, AnswersTheTextOfErrno) {
    for (const int error : {0, ENOENT, EINTR, ETIMEDOUT, 99999}) {
        errno = error;
        const std::string text = pz_get_last_err_string();
        EXPECT_EQ(std::string(std::strerror(error)), text) << error;
    }
}

TEST(pz_last_errorTest, KnowsTheTextOfAMissingFile) {
    errno = ENOENT;
    EXPECT_STREQ("No such file or directory", pz_get_last_err_string());
}

TEST(pz_last_errorTest, ClearsErrno) {
    errno = EINVAL;
    pz_clear_last_err();
    EXPECT_EQ(0, errno);
}

TEST(pz_last_errorTest, BelongsToTheCallingThread) {
    errno = EAGAIN;
    int seen = -1;
    std::thread([&seen] {
        errno = ENOSPC;
        pz_clear_last_err();
        errno = EBADF;
        seen = pz_get_last_err();
    }).join();
    EXPECT_EQ(EBADF, seen);
    EXPECT_EQ(EAGAIN, pz_get_last_err());
}
