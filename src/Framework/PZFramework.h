#ifndef PZ_FRAMEWORK_PZFRAMEWORK_H
#define PZ_FRAMEWORK_PZFRAMEWORK_H

/// @file
/// Every public header of the framework, but not the easy layer: Easy.h brings it.

#include <Framework/Communication/PZFileGuard.h>
#include <Framework/Communication/PZMessageQueue.h>
#include <Framework/Diagnostics/PZCallStack.h>
#include <Framework/Diagnostics/PZDbgOutput.h>
#include <Framework/Diagnostics/PZReport.h>
#include <Framework/Diagnostics/PZSupervisor.h>
#include <Framework/Diagnostics/pz_inspection.h>
#include <Framework/Diagnostics/pz_last_error.h>
#include <Framework/Diagnostics/pz_stack.h>
#include <Framework/Foundation/PZClock.h>
#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZFileSys.h>
#include <Framework/Foundation/PZIDispatcher.h>
#include <Framework/Foundation/PZIMsgBox.h>
#include <Framework/Foundation/PZLHeapMng.h>
#include <Framework/Foundation/PZLMsgBox.h>
#include <Framework/Foundation/PZPriorityQueue.h>
#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZStopwatch.h>
#include <Framework/Foundation/PZStorage.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZSyncGuard.h>
#include <Framework/Foundation/PZSyncLock.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/Foundation/PZThreadAnnotations.h>
#include <Framework/Foundation/PZThreadMng.h>
#include <Framework/Foundation/PZTickCount.h>
#include <Framework/Foundation/PZUnitFrame.h>
#include <Framework/Foundation/PZWatchDog.h>
#include <Framework/Foundation/PZWorker.h>
#include <Framework/Foundation/pz_framework.h>
#include <Framework/Foundation/pz_identity.h>
#include <Framework/PZApi.h>
#include <Framework/PZUncopyable.h>
#include <Framework/Pattern/PZSerializable.h>
#include <Framework/Pattern/PZSubject.h>
#include <Framework/SharedMemory/PZSharedMemoryFinalizer.h>
#include <Framework/SharedMemory/PZSharedSyncObject.h>
#include <Framework/Utility/PZBinary.h>
#include <Framework/Utility/PZCRC.h>
#include <Framework/Utility/PZLSysFileOut.h>
#include <Framework/Utility/PZLTimerMng.h>
#include <Framework/Utility/PZPList.h>
#include <Framework/Utility/PZString.h>
#include <Framework/Wrapper/cp_conv_basic_rds.h>
#include <Framework/Wrapper/pz_cp_conv.h>
#include <Framework/Wrapper/pz_stdlib.h>

#endif  // PZ_FRAMEWORK_PZFRAMEWORK_H
