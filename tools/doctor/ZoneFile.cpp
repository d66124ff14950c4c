#include "ZoneFile.h"

#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

constexpr char kFolder[] = "/usr/share/zoneinfo/";
constexpr int kMinutesPerHour = 60;

/// One zone of a constant offset, with the offset as its abbreviation.
std::string zone_line(const PZClock::ST_TIME_ZONE_GMT& row) {
    const char* const name = row.path + std::strlen(kFolder);
    const char sign = row.hours < 0 ? '-' : '+';
    const int minutes = static_cast<int>(std::lround(std::fabs(row.hours) * kMinutesPerHour));
    const int hour = minutes / kMinutesPerHour;
    const int minute = minutes % kMinutesPerHour;
    char line[128];
    std::snprintf(line, sizeof line, "Zone %s %s%d:%02d - %c%02d%02d\n", name,
                  sign == '-' ? "-" : "", hour, minute, sign, hour, minute);
    return line;
}

}  // namespace

bool is_zone_file(const Machine& machine, const std::string& path) {
    static constexpr char kMagic[] = "TZif";
    const auto info = machine.Stat(path);
    if (!info || !S_ISREG(info->st_mode)) return false;
    return machine.Read(path, std::strlen(kMagic)) == kMagic;
}

std::vector<const PZClock::ST_TIME_ZONE_GMT*> missing_offset_zones(const Machine& machine) {
    std::vector<const PZClock::ST_TIME_ZONE_GMT*> missing;
    for (const PZClock::ST_TIME_ZONE_GMT& row : PZClock::timeZoneGmtTbl_) {
        if (!is_zone_file(machine, row.path)) missing.push_back(&row);
    }
    return missing;
}

std::string missing_zone_source(const Machine& machine) {
    std::string source;
    for (const PZClock::ST_TIME_ZONE_GMT* row : missing_offset_zones(machine)) {
        source += zone_line(*row);
    }
    return source;
}
