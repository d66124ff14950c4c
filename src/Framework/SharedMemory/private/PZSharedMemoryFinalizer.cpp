#include "Framework/SharedMemory/PZSharedMemoryFinalizer.h"

void PZSharedMemoryFinalizer::addShmHdl(int) {}
void PZSharedMemoryFinalizer::addSyncShmHdl(int) {}
void PZSharedMemoryFinalizer::addSyncHdl(void*) {}
void PZSharedMemoryFinalizer::finalize() {}
