#ifndef PZ_FRAMEWORK_EASY_H
#define PZ_FRAMEWORK_EASY_H

/// @file
/// Everything of the namespace pz: the everyday jobs in few lines, over the framework's classes.
///
/// docs/easy.md shows how to use it. The classes below it are in PZFramework.h.

#include <Framework/Easy/Channel.h>
#include <Framework/Easy/Event.h>
#include <Framework/Easy/Framework.h>
#include <Framework/Easy/GuardedFile.h>
#include <Framework/Easy/Place.h>
#include <Framework/Easy/RotatingLog.h>
#include <Framework/Easy/StopSignal.h>
#include <Framework/Easy/Text.h>
#include <Framework/Easy/Timer.h>
#include <Framework/Easy/Worker.h>
#include <Framework/Easy/test/ManualClock.h>
#include <Framework/Easy/test/SyncWorker.h>

/// The everyday jobs: a layer over the framework's classes, without macros, with times of
/// std::chrono, and with objects that end what they began.
namespace pz {}

#endif  // PZ_FRAMEWORK_EASY_H
