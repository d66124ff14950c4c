#ifndef TOOLS_DOCTOR_PROCSELF_H
#define TOOLS_DOCTOR_PROCSELF_H

#include <optional>

#include "Machine.h"

constexpr char kLimitsPath[] = "/proc/self/limits";
constexpr char kStatPath[] = "/proc/self/stat";
constexpr char kStatusPath[] = "/proc/self/status";

constexpr unsigned long long kUnlimited = ~0ULL;

/// The soft limit in the row "Max open files", ... of /proc/self/limits; kUnlimited for
/// "unlimited", nothing when there is no such row.
std::optional<unsigned long long> soft_limit(const Machine& machine, const char* row);

/// The hard limit of that row, up to which every user may raise the soft one.
std::optional<unsigned long long> hard_limit(const Machine& machine, const char* row);

/// The nice value of the process.
std::optional<int> own_nice(const Machine& machine);

/// True when the process has the capability of this number in effect; false when that is unknown.
bool has_capability(const Machine& machine, int number);

#endif  // TOOLS_DOCTOR_PROCSELF_H
