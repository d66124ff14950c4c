#include "Framework/Foundation/PZWatchDog.h"

#include <type_traits>

#include <gtest/gtest.h>

#include "support/StdoutCapture.h"

namespace {

static_assert(std::is_base_of_v<PZSingleton<PZWatchDog>, PZWatchDog>);
static_assert(std::has_virtual_destructor_v<PZWatchDog>);
static_assert(sizeof(PZWatchDog) == sizeof(PZSingleton<PZWatchDog>), "a watchdog has no data");

}  // namespace

TEST(PZWatchDogTest, EveryGetInstanceAnswersTheSameObject) {
    EXPECT_NE(nullptr, PZWatchDog::GetInstance());
    EXPECT_EQ(PZWatchDog::GetInstance(), PZWatchDog::GetInstance());
}

TEST(PZWatchDogTest, IsTheSameObjectAfterDelInstance) {
    PZWatchDog* const dog = PZWatchDog::GetInstance();
    PZWatchDog::DelInstance();
    EXPECT_EQ(dog, PZWatchDog::GetInstance());
    EXPECT_TRUE(dog->start());
}

TEST(PZWatchDogTest, EveryStartSucceeds) {
    PZWatchDog* const dog = PZWatchDog::GetInstance();
    EXPECT_TRUE(dog->start());
    EXPECT_TRUE(dog->start());
    dog->stop();
    EXPECT_TRUE(dog->start());
}

TEST(PZWatchDogTest, InitialisesAsAThreadWithoutAFailure) {
    EXPECT_EQ(0, PZWatchDog::GetInstance()->Initialize());
}

TEST(PZWatchDogTest, ReturnsAtOnceFromEveryOtherOperationAndSaysNothing) {
    PZWatchDog* const dog = PZWatchDog::GetInstance();
    pztest::StdoutCapture output;
    dog->OutWait();
    dog->IntoWait();
    dog->IntoWait();
    dog->MainProc();
    dog->checkOccupationTime();
    dog->Finalize();
    dog->stop();
    EXPECT_EQ("", output.Take());
}
