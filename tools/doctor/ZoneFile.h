#ifndef TOOLS_DOCTOR_ZONEFILE_H
#define TOOLS_DOCTOR_ZONEFILE_H

#include <string>
#include <vector>

#include <Framework/Foundation/PZClock.h>

#include "Machine.h"

/// True for a regular file that begins as compiled zone files do.
bool is_zone_file(const Machine& machine, const std::string& path);

/// The rows of the clock's offset table whose zone file is missing or is none.
std::vector<const PZClock::ST_TIME_ZONE_GMT*> missing_offset_zones(const Machine& machine);

/// The source from which zic(8) compiles the missing zone files of the offset table; "" when
/// none is missing.
std::string missing_zone_source(const Machine& machine);

#endif  // TOOLS_DOCTOR_ZONEFILE_H
