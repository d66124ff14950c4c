#include "support/Processors.h"

#include <sched.h>

#include <thread>

namespace pzbench {

void stay_on_processor(unsigned int processor) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(processor % std::thread::hardware_concurrency(), &set);
    sched_setaffinity(0, sizeof set, &set);
}

void roam() {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (unsigned int i = 0; i < std::thread::hardware_concurrency(); ++i) CPU_SET(i, &set);
    sched_setaffinity(0, sizeof set, &set);
}

}  // namespace pzbench
