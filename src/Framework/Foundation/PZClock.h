#ifndef PZ_FRAMEWORK_FOUNDATION_PZCLOCK_H
#define PZ_FRAMEWORK_FOUNDATION_PZCLOCK_H

#include <Framework/PZApi.h>

/// The areas among which a user of the device chooses a time zone.
struct TimeZone {
    /// Named after the city of the area's zone file. CENTRAL_AMERICA shares Chicago's.
    enum Area : int {
        en_AREA_MIDWAY = 0,
        en_AREA_HONOLULU = 1,
        en_AREA_ANCHORAGE = 2,
        en_AREA_LOS_ANGELES = 3,
        en_AREA_TIJUANA = 4,
        en_AREA_PHOENIX = 5,
        en_AREA_CHIHUAHUA = 6,
        en_AREA_DENVER = 7,
        en_AREA_CHICAGO = 8,
        en_AREA_CENTRAL_AMERICA = 9,
        en_AREA_MEXICO_CITY = 10,
        en_AREA_REGINA = 11,
        en_AREA_BOGOTA = 12,
        en_AREA_NEW_YORK = 13,
        en_AREA_CARACAS = 14,
        en_AREA_BARBADOS = 15,
        en_AREA_HALIFAX = 16,
        en_AREA_MANAUS = 17,
        en_AREA_ST_JOHNS = 18,
        en_AREA_SANTIAGO = 19,
        en_AREA_BUENOS_AIRES = 20,
        en_AREA_GODTHAB = 21,
        en_AREA_SAO_PAULO = 22,
        en_AREA_MONTEVIDEO = 23,
        en_AREA_SOUTH_GEORGIA = 24,
        en_AREA_AZORES = 25,
        en_AREA_CAPE_VERDE = 26,
        en_AREA_CASABLANCA = 27,
        en_AREA_LONDON = 28,
        en_AREA_BERLIN = 29,
        en_AREA_BELGRADE = 30,
        en_AREA_BRUSSELS = 31,
        en_AREA_SARAJEVO = 32,
        en_AREA_BRAZZAVILLE = 33,
        en_AREA_WINDHOEK = 34,
        en_AREA_AMMAN = 35,
        en_AREA_ATHENS = 36,
        en_AREA_BEIRUT = 37,
        en_AREA_CAIRO = 38,
        en_AREA_HELSINKI = 39,
        en_AREA_JERUSALEM = 40,
        en_AREA_HARARE = 41,
        en_AREA_MINSK = 42,
        en_AREA_BAGHDAD = 43,
        en_AREA_MOSCOW = 44,
        en_AREA_KUWAIT = 45,
        en_AREA_NAIROBI = 46,
        en_AREA_TEHRAN = 47,
        en_AREA_BAKU = 48,
        en_AREA_TBILISI = 49,
        en_AREA_YEREVAN = 50,
        en_AREA_DUBAI = 51,
        en_AREA_KABUL = 52,
        en_AREA_KARACHI = 53,
        en_AREA_ORAL = 54,
        en_AREA_YEKATERINBURG = 55,
        en_AREA_KOLKATA = 56,
        en_AREA_COLOMBO = 57,
        en_AREA_KATHMANDU = 58,
        en_AREA_ALMATY = 59,
        en_AREA_RANGOON = 60,
        en_AREA_KRASNOYARSK = 61,
        en_AREA_BANGKOK = 62,
        en_AREA_SHANGHAI = 63,
        en_AREA_HONG_KONG = 64,
        en_AREA_IRKUTSK = 65,
        en_AREA_KUALA_LUMPUR = 66,
        en_AREA_PERTH = 67,
        en_AREA_TAIPEI = 68,
        en_AREA_SEOUL = 69,
        en_AREA_TOKYO = 70,
        en_AREA_DARWIN = 71,
        en_AREA_YAKUTSK = 72,
        en_AREA_BRISBANE = 73,
        en_AREA_VLADIVOSTOK = 74,
        en_AREA_GUAM = 75,
        en_AREA_MAGADAN = 76,
        en_AREA_ADELAIDE = 77,
        en_AREA_HOBART = 78,
        en_AREA_SYDNEY = 79,
        en_AREA_MAJURO = 80,
        en_AREA_FIJI = 81,
        en_AREA_AUCKLAND = 82,
        en_AREA_TONGATAPU = 83,
    };
};

/// The wall clock, calendar times and the time zone of the process.
///
/// Zone:      SetTimeZone copies a compiled zone file of the machine to /tmp/tzfile and reads the
///            zone rules again. The device makes that file the zone of its processes: link
///            /etc/localtime to it and leave TZ unset. The GNU C library reads a file that TZ names
///            only when TZ itself has changed: a process with TZ set keeps its old zone. The copy
///            is made in a folder of its own below /tmp and takes the name at once: it replaces
///            what is there, also a link or a pipe, and keeps the rights of a file. Its time is at
///            least a second later than that of the file before, because the C library compares
///            whole seconds. Where nothing in /tmp can be replaced, a file that is there is
///            overwritten.
/// Seconds:   since 1970-01-01 00:00:00 UTC, without leap seconds. Seconds that are passed in or
///            converted count as 32 bits with a sign on every machine: from 1901-12-13 20:45:52
///            to 2038-01-19 03:14:07 UTC. The current time is as wide as the machine's own.
/// Threads:   one at a time, and no lock is taken: local times share the C library's static
///            buffer, and the zone belongs to the whole process. Any thread may call GetUtc,
///            ToUtcTime, GetTime and checkCalenderTime at any time.
/// Ownership: keeps nothing that is passed in.
/// Failures:  reported and answered with false, or with 0 by ToCalendarTime; a null record is a
///            failure. SetLocal may end the process.
class PZ_API PZClock {
public:
    using TimeZone = ::TimeZone;  ///< the areas

    /// A broken-down time. The ranges are those that checkCalenderTime accepts.
    struct ST_CLOCK {
        int year;                ///< in full, 1900 or later
        unsigned int month;      ///< 1 to 12
        unsigned int dayOfWeek;  ///< 0 to 6, 0 is Sunday
        unsigned int day;        ///< 1 to 31
        unsigned int hour;       ///< 0 to 23
        unsigned int minute;     ///< 0 to 59
        unsigned int second;     ///< 0 to 59
    };

    /// The zone file of an area.
    struct ST_TIME_ZONE {
        TimeZone::Area area;  ///< the row's number
        float hours;          ///< standard offset from UTC, for information
        const char* path;     ///< of the zone file
    };

    /// The zone file of an offset from UTC.
    struct ST_TIME_ZONE_GMT {
        unsigned int id;   ///< 86 and the row's number; nothing uses it
        float hours;       ///< ahead of UTC
        const char* path;  ///< of the zone file
    };

    virtual ~PZClock();

    /// The current time in UTC.
    static bool GetUtc(ST_CLOCK* clock);

    /// The current time in the zone of the process.
    static bool GetLocal(ST_CLOCK* clock);

    /// Writes a UTC time to the real-time clock, /dev/rtc0. The system's time stays as it is.
    static bool SetUtc(ST_CLOCK* clock);

    /// Sets the system's time from a local one by running /bin/date; the new minute begins at
    /// second 0. Waits for the program, with the signals of the calling thread blocked.
    ///
    /// True does not mean that the time was set: only a program that could not be forked or was
    /// ended by a signal is a failure; its exit status is not checked. When the program cannot be
    /// waited for, the whole process exits with status 255. To prevent that, do not ignore SIGCHLD,
    /// and let no other thread collect children that it did not start.
    static bool SetLocal(ST_CLOCK* clock);

    /// Selects the zone that is `minutes` ahead of UTC: a multiple of 15 from -765 to 885. Others
    /// fail. Prints the file and the abbreviations of the zone, and syncs all file systems.
    ///
    /// The zone counts as settled when its standard-time abbreviation is known and not "JST". Until
    /// then the file is copied again, 20 times with 100 ms after each: +9 hours may take two
    /// seconds. Answers whether the last copy succeeded; a failed one leaves the rules of the
    /// process as they were. If the zone file is a fifo without a writer, the call waits.
    static bool SetTimeZone(int minutes);

    /// Selects the zone of `area`, and settles in the same way; en_AREA_TOKYO, whose abbreviation
    /// is "JST", does not wait.
    static bool SetTimeZone(TimeZone::Area area);

    /// The tick time, PZTickCount::GetTime: monotonic milliseconds of 32 bits.
    static unsigned long GetTime();

    /// Converts epoch seconds, of which the low 32 bits count, to local time.
    static bool ToLocaltime(unsigned long long seconds, ST_CLOCK* clock);

    /// Converts epoch seconds, of which the low 32 bits count, to UTC.
    static bool ToUtcTime(unsigned long long seconds, ST_CLOCK* clock);

    /// Epoch seconds of a local time; whether it is daylight-saving time follows from the zone. A
    /// day that its month does not have counts on into the next month. -1 when the C library cannot
    /// convert it; -1 is also the second before the epoch.
    static long long ToCalendarTime(ST_CLOCK* clock);

    /// True when every field is in its range; the day is not checked against the month. Otherwise
    /// the fields are reported.
    static bool checkCalenderTime(ST_CLOCK& clock);

    static constexpr unsigned int kAreas = 84;     ///< rows of timeZoneTbl_
    static constexpr unsigned int kOffsets = 111;  ///< rows of timeZoneGmtTbl_

    static const ST_TIME_ZONE timeZoneTbl_[kAreas];           ///< a row's number is its area
    static const ST_TIME_ZONE_GMT timeZoneGmtTbl_[kOffsets];  ///< falls by quarters of an hour
};

#endif  // PZ_FRAMEWORK_FOUNDATION_PZCLOCK_H
