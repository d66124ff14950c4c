#ifndef FEED_PROGRESSTEXT_H
#define FEED_PROGRESSTEXT_H

#include <string>

#include "CounterUnit.h"

/// What the counter has done so far, and how many messages a second since the last call.
class ProgressText {
public:
    explicit ProgressText(const CounterUnit& counter);

    std::string operator()();

private:
    const CounterUnit* counter_;
    unsigned long long lastChunks_ = 0;
    unsigned int lastTick_;
};

#endif  // FEED_PROGRESSTEXT_H
