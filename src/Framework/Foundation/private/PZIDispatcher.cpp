#include "Framework/Foundation/PZIDispatcher.h"

PZIDispatcher::~PZIDispatcher() = default;
