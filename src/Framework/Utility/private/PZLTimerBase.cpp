#include <Framework/Utility/PZLTimerMng.h>

PZLTimerBase::~PZLTimerBase() = default;
