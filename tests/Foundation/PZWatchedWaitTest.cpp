#include <pthread.h>
#include <unistd.h>

#include <atomic>

#include <gtest/gtest.h>

#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/private/PZWatchedWait.h>

#include "support/CancelledStack.h"
#include "support/CountedWaits.h"
#include "support/MemoryShortage.h"
#include "support/WaitUntil.h"

namespace {

using pztest::into_waits;
using pztest::out_waits;

class PZWatchedWaitTest : public testing::Test {
protected:
    void SetUp() override {
        PZWatchDog::GetInstance();
        pztest::reset_waits();
    }
    void TearDown() override { PZWatchDog::GetInstance(); }
};

void* wait_for_ever(void*) {
    const pztest::CancelledStack stack;
    const PZWatchedWait watched;
    for (;;) pause();
}

}  // namespace

TEST_F(PZWatchedWaitTest, TellsTheWatchdogOfTheBeginningAndTheEnd) {
    {
        const PZWatchedWait watched;
        EXPECT_EQ(1, into_waits);
        EXPECT_EQ(0, out_waits);
    }
    EXPECT_EQ(1, into_waits);
    EXPECT_EQ(1, out_waits);
}

TEST_F(PZWatchedWaitTest, TellsOfTheEndOfAWaitThatIsCancelled) {
    pthread_t thread = 0;
    ASSERT_EQ(0, pthread_create(&thread, nullptr, wait_for_ever, nullptr));
    ASSERT_TRUE(pztest::wait_until([] { return into_waits == 1; }));
    EXPECT_EQ(0, out_waits);
    pthread_cancel(thread);
    pthread_join(thread, nullptr);
    EXPECT_EQ(1, out_waits);
}

TEST_F(PZWatchedWaitTest, GoesUnwatchedWithoutMemoryForTheWatchdog) {
    PZWatchDog::destroy();
    int refused = 0;
    {
        const pztest::MemoryShortage shortage;
        const PZWatchedWait watched;
        refused = shortage.Refused();
    }
    EXPECT_EQ(1, refused);
    EXPECT_EQ(0, into_waits);
}

TEST_F(PZWatchedWaitTest, AMessageBoxWaitsForItsLoopWithoutMemoryForTheWatchdog) {
    PZLMsgBox box;
    PZWatchDog::destroy();
    for (int skip = 0;; ++skip) {
        int result = -1;
        int refused = 0;
        {
            const pztest::MemoryShortage shortage(skip);
            EXPECT_NO_THROW(result = box.InitWait(0));
            refused = shortage.Refused();
        }
        EXPECT_EQ(1, result);  // no loop came
        if (refused == 0) break;
    }
}
