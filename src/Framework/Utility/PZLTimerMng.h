#ifndef PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H
#define PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H

#include <map>

#include <Framework/Foundation/PZEvent.h>
#include <Framework/Foundation/PZSingleton.h>
#include <Framework/Foundation/PZSync.h>
#include <Framework/Foundation/PZThread.h>
#include <Framework/PZApi.h>

class PZLTimerMng;
extern template class PZ_API PZSingleton<PZLTimerMng>;

#endif  // PZ_FRAMEWORK_UTILITY_PZLTIMERMNG_H
