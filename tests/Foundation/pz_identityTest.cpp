#include "Framework/Foundation/pz_identity.h"

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <Framework/Foundation/pz_framework.h>

// Every test runs in a process of its own, so that each begins before start-up.

namespace {

class pz_identityTest : public testing::Test {
protected:
    void TearDown() override { pz_FwFinalize(); }
};

}  // namespace

TEST_F(pz_identityTest, IsEmptyBeforeStartUp) {
    EXPECT_STREQ("", pz_GetName());
    EXPECT_EQ(0U, pz_GetNameLen());
    EXPECT_EQ(0, pz_GetId());
}

TEST_F(pz_identityTest, KeepsTheNameAndIdOfStartUp) {
    ASSERT_NE(0, pz_FwInitialize("tuner", -7));
    EXPECT_STREQ("tuner", pz_GetName());
    EXPECT_EQ(5U, pz_GetNameLen());
    EXPECT_EQ(-7, pz_GetId());
}

TEST_F(pz_identityTest, KeepsANameOf63CharactersWhole) {
    const std::string name(63, 'n');
    ASSERT_NE(0, pz_FwInitialize(name.c_str(), 1));
    EXPECT_EQ(name, pz_GetName());
    EXPECT_EQ(63U, pz_GetNameLen());
}

TEST_F(pz_identityTest, CutsALongerNameTo63Characters) {
    const std::string name = std::string(63, 'n') + "more";
    ASSERT_NE(0, pz_FwInitialize(name.c_str(), 1));
    EXPECT_EQ(std::string(63, 'n'), pz_GetName());
    EXPECT_EQ(63U, pz_GetNameLen());
    EXPECT_EQ(1, pz_GetId());
}

TEST_F(pz_identityTest, TakesANullNameAsEmpty) {
    ASSERT_NE(0, pz_FwInitialize(nullptr, 3));
    EXPECT_STREQ("", pz_GetName());
    EXPECT_EQ(3, pz_GetId());
}

TEST_F(pz_identityTest, CountsTheNameInBytes) {
    ASSERT_NE(0, pz_FwInitialize("\xC3\xA4", 1));
    EXPECT_EQ(2U, pz_GetNameLen());
}

TEST_F(pz_identityTest, IsUnchangedByASecondStartUp) {
    ASSERT_NE(0, pz_FwInitialize("first", 1));
    pz_FwInitialize("second", 2);
    EXPECT_STREQ("first", pz_GetName());
    EXPECT_EQ(1, pz_GetId());
}

TEST_F(pz_identityTest, StaysReadableAfterTheEnd) {
    ASSERT_NE(0, pz_FwInitialize("tuner", 4));
    pz_FwFinalize();
    EXPECT_STREQ("tuner", pz_GetName());
    EXPECT_EQ(5U, pz_GetNameLen());
    EXPECT_EQ(4, pz_GetId());
}

TEST_F(pz_identityTest, IsReplacedByANewStart) {
    ASSERT_NE(0, pz_FwInitialize("longer name", 4));
    pz_FwFinalize();
    ASSERT_NE(0, pz_FwInitialize("short", 5));
    EXPECT_STREQ("short", pz_GetName());
    EXPECT_EQ(5, pz_GetId());
}

TEST_F(pz_identityTest, TheNameMayBeGivenToTheNextStart) {
    ASSERT_NE(0, pz_FwInitialize("long tuner", 4));
    pz_FwFinalize();
    ASSERT_NE(0, pz_FwInitialize(pz_GetName() + 5, pz_GetId()));  // over itself, too
    EXPECT_STREQ("tuner", pz_GetName());
    EXPECT_EQ(4, pz_GetId());
}

TEST_F(pz_identityTest, TheNameIsAlwaysInTheSameBuffer) {
    const char* const before = pz_GetName();
    ASSERT_NE(0, pz_FwInitialize("tuner", 4));
    EXPECT_EQ(before, pz_GetName());
}

TEST_F(pz_identityTest, MayBeReadByAnyThread) {
    ASSERT_NE(0, pz_FwInitialize("tuner", 4));
    std::string name;
    int id = 0;
    std::thread([&] {
        name = pz_GetName();
        id = pz_GetId();
    }).join();
    EXPECT_EQ("tuner", name);
    EXPECT_EQ(4, id);
}
