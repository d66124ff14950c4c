#include "Framework/SharedMemory/PZSharedMemoryFinalizer.h"

#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <climits>

#include <gtest/gtest.h>

#include "support/StdoutCapture.h"

namespace {

TEST(PZSharedMemoryFinalizerTest, FinalizeLeavesEveryAddedHandleAlone) {
    pztest::StdoutCapture output;
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    sem_t semaphore;
    ASSERT_EQ(0, sem_init(&semaphore, 0, 3));

    PZSharedMemoryFinalizer::addShmHdl(ends[0]);
    PZSharedMemoryFinalizer::addSyncShmHdl(ends[1]);
    PZSharedMemoryFinalizer::addSyncHdl(&semaphore);
    PZSharedMemoryFinalizer::finalize();

    EXPECT_NE(-1, fcntl(ends[0], F_GETFD));
    EXPECT_NE(-1, fcntl(ends[1], F_GETFD));
    int value = 0;
    EXPECT_EQ(0, sem_getvalue(&semaphore, &value));
    EXPECT_EQ(3, value);
    EXPECT_EQ("", output.Take());
    sem_destroy(&semaphore);
    close(ends[0]);
    close(ends[1]);
}

TEST(PZSharedMemoryFinalizerTest, AcceptsInvalidHandlesAndASecondFinalizeSilently) {
    pztest::StdoutCapture output;
    for (const int handle : {-1, 0, INT_MAX, INT_MIN}) {
        PZSharedMemoryFinalizer::addShmHdl(handle);
        PZSharedMemoryFinalizer::addSyncShmHdl(handle);
    }
    PZSharedMemoryFinalizer::addSyncHdl(nullptr);
    PZSharedMemoryFinalizer::finalize();
    PZSharedMemoryFinalizer::finalize();
    EXPECT_EQ("", output.Take());
}

}  // namespace
