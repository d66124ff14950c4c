#ifndef TOOLS_DOCTOR_QUEUEFOLDER_H
#define TOOLS_DOCTOR_QUEUEFOLDER_H

#include <optional>
#include <string>
#include <vector>

#include "Machine.h"

constexpr char kQueueFolder[] = "/dev/mqueue";

/// The message queues of a machine; nothing unless the kernel shows them in /dev/mqueue. Queues
/// themselves work without that.
std::optional<std::vector<std::string>> list_queues(const Machine& machine);

#endif  // TOOLS_DOCTOR_QUEUEFOLDER_H
