#ifndef TOOLS_DOCTOR_CHECKS_H
#define TOOLS_DOCTOR_CHECKS_H

#include <vector>

#include "Check.h"

std::vector<Check> folder_checks();    ///< folders and their modes
std::vector<Check> device_checks();    ///< clock, zone of the processes, log
std::vector<Check> zone_checks();      ///< zone files of the clock's tables
std::vector<Check> text_checks();      ///< code pages
std::vector<Check> limit_checks();     ///< priorities, descriptors, threads
std::vector<Check> queue_checks();     ///< what the kernel allows to message queues
std::vector<Check> leftover_checks();  ///< what dead processes left to others
std::vector<Check> look_checks();      ///< who may look inside of running processes

#endif  // TOOLS_DOCTOR_CHECKS_H
