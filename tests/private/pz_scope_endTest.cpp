#include <pthread.h>
#include <unistd.h>

#include <stdexcept>

#include <gtest/gtest.h>

#include <Framework/private/pz_scope_end.h>

TEST(pz_scope_endTest, RunsAtTheEndOfTheScopeAndNotBefore) {
    int runs = 0;
    {
        const PZScopeEnd end([&runs] { ++runs; });
        EXPECT_EQ(0, runs);
    }
    EXPECT_EQ(1, runs);
}

TEST(pz_scope_endTest, RunsWhenAnExceptionLeavesTheScope) {
    int runs = 0;
    const auto leave = [&runs] {
        const PZScopeEnd end([&runs] { ++runs; });
        throw std::runtime_error("left");
    };
    EXPECT_THROW(leave(), std::runtime_error);
    EXPECT_EQ(1, runs);
}

TEST(pz_scope_endTest, RunsWhenACancelledThreadLeavesTheScope) {
    int runs = 0;
    const auto wait = [](void* counter) -> void* {
        const PZScopeEnd end([counter] { ++*static_cast<int*>(counter); });
        while (true) pause();
    };
    pthread_t thread{};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, wait, &runs));
    ASSERT_EQ(0, pthread_cancel(thread));
    ASSERT_EQ(0, pthread_join(thread, nullptr));
    EXPECT_EQ(1, runs);
}
