#include "Framework/Diagnostics/pz_stack.h"

#include <limits>

#include <gtest/gtest.h>

#include "support/StdoutCapture.h"

TEST(pz_stackTest, AnswersAStackSizeOfZero) {
    EXPECT_EQ(0U, pz_GetUsedStackSize());
    EXPECT_EQ(0U, pz_GetPutativeStackSize());
}

TEST(pz_stackTest, AnnouncingAStackOfAnySizeAnswersOne) {
    EXPECT_EQ(1, pz_InitThisStack(4096));
    EXPECT_EQ(1, pz_InitThisStack(0));
    EXPECT_EQ(1, pz_InitThisStack(std::numeric_limits<unsigned int>::max()));
}

TEST(pz_stackTest, StillAnswersZeroOnceAStackIsAnnounced) {
    const pztest::StdoutCapture output;
    pz_InitStack();
    pz_InitThisStack(4096);
    EXPECT_EQ(0U, pz_GetUsedStackSize());
    EXPECT_EQ(0U, pz_GetPutativeStackSize());
    pz_FinStack();
    EXPECT_EQ(0U, pz_GetUsedStackSize());
    EXPECT_EQ(0U, pz_GetPutativeStackSize());
}
