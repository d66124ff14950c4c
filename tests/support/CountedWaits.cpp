#include "support/CountedWaits.h"

#include <Framework/Foundation/PZWatchDog.h>

namespace pztest {

std::atomic<int> into_waits{0};
std::atomic<int> out_waits{0};

void reset_waits() {
    into_waits = 0;
    out_waits = 0;
}

}  // namespace pztest

void PZWatchDog::IntoWait() {
    ++pztest::into_waits;
}
void PZWatchDog::OutWait() {
    ++pztest::out_waits;
}
