// The clock: seconds, UTC and local time, and the zones to choose from.
//
// On a device SetTimeZone makes a zone the one of all processes; here it comes from TZ.
#include <cstdio>
#include <cstdlib>

#include <Framework/Foundation/PZClock.h>

namespace {

void print_time(const char* name, const PZClock::ST_CLOCK& clock) {
    std::printf("%s: %d-%02u-%02u %02u:%02u:%02u, day %u of the week\n", name, clock.year,
                clock.month, clock.day, clock.hour, clock.minute, clock.second, clock.dayOfWeek);
}

void print_zone(TimeZone::Area area) {
    const PZClock::ST_TIME_ZONE& row = PZClock::timeZoneTbl_[area];
    std::printf("%+.2f h: %s\n", static_cast<double>(row.hours), row.path);
}

}  // namespace

int main() {
    setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);  // central Europe
    constexpr unsigned long long kSeconds = 1000000000;

    PZClock::ST_CLOCK utc = {};
    PZClock::ST_CLOCK local = {};
    if (!PZClock::ToUtcTime(kSeconds, &utc) || !PZClock::ToLocaltime(kSeconds, &local)) return 1;
    print_time("UTC", utc);
    print_time("local", local);
    std::printf("and back: %lld\n", PZClock::ToCalendarTime(&local));

    PZClock::ST_CLOCK now = {};
    if (!PZClock::GetLocal(&now)) return 1;
    std::printf("now: %s\n",
                PZClock::checkCalenderTime(now) ? "every field in its range" : "wrong");

    print_zone(TimeZone::en_AREA_ST_JOHNS);
    print_zone(TimeZone::en_AREA_KATHMANDU);
    print_zone(TimeZone::en_AREA_TOKYO);
}
