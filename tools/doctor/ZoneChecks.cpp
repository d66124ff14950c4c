#include <string>
#include <vector>

#include "Checks.h"
#include "ZoneFile.h"

namespace {

/// What is said of `missing` files out of `rows`.
std::string describe(const std::vector<std::string>& missing, unsigned int rows) {
    if (missing.empty()) return "zone files of all " + std::to_string(rows) + " rows";
    return "no zone file for " + std::to_string(missing.size()) + " of " + std::to_string(rows) +
           " rows: " + first_of(missing);
}

}  // namespace

Finding check_areas(const Machine& machine) {
    std::vector<std::string> missing;
    for (const PZClock::ST_TIME_ZONE& row : PZClock::timeZoneTbl_) {
        if (!is_zone_file(machine, row.path)) missing.emplace_back(row.path);
    }
    const std::string found = describe(missing, PZClock::kAreas);
    if (missing.empty()) return green(found);
    // Newer releases of Debian keep the older names in a package of their own.
    return red(found, "apt-get install -y tzdata-legacy || apt-get install -y --reinstall tzdata");
}

Finding check_offsets(const Machine& machine) {
    std::vector<std::string> missing;
    for (const PZClock::ST_TIME_ZONE_GMT* row : missing_offset_zones(machine)) {
        missing.emplace_back(row->path);
    }
    const std::string found = describe(missing, PZClock::kOffsets);
    if (missing.empty()) return green(found);
    return red(found, "pz-doctor --zones | zic -d /usr/share/zoneinfo -");
}
