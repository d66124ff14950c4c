#include "Checks.h"

#include <iterator>

namespace {

// clang-format off
constexpr Check kChecks[] = {
    // Each with what the library needs it for. The order is that of the table.
    {"temp-folder", check_temp,
     "every process writes its thread status to /temp/ThreadInfo"},
    {"system-data-folder", check_system_data,
     "file guards keep their key files in /temp/system_data"},
    {"syslog-folder", check_syslog,
     "log files and heap leak reports are written to /Syslog"},
    {"log-space", check_log_space,
     "log files are cut short on a full file system"},
    {"tmp-folder", check_tmp,
     "selecting a time zone writes /tmp/tzfile"},
    {"shm-folder", check_shm,
     "locks shared between processes are semaphores in /dev/shm"},
    {"proc-folder", check_proc,
     "limits, queues and leftovers are read from /proc"},

    {"zone-file", check_zone_file,
     "local times are UTC until a time zone has been selected"},
    {"local-zone", check_local_zone,
     "a selected time zone reaches processes through /etc/localtime only"},
    {"tz-variable", check_tz_variable,
     "a process with TZ set keeps its zone when another one is selected"},
    {"date-program", check_date,
     "setting the local time runs /bin/date"},
    {"rtc-device", check_rtc,
     "setting UTC writes the real-time clock /dev/rtc0"},
    {"log-socket", check_log,
     "tagged debug lines go to the system log through /dev/log"},

    {"zone-areas", check_areas,
     "selecting a time zone by area copies the area's zone file"},
    {"zone-offsets", check_offsets,
     "selecting a time zone by offset copies the offset's zone file"},

    {"code-pages", check_code_pages,
     "text is converted by the C library's iconv modules"},
    {"icu-detector", check_icu,
     "the code page of a text is detected by ICU"},

    {"nice-limit", check_nice_limit,
     "workers and timers take nice values down to -20"},
    {"own-nice", check_own_nice,
     "a thread with a nice value above 4 can add no timer"},
    {"descriptors", check_descriptors,
     "an event takes 2 descriptors, a worker 3"},
    {"threads", check_threads,
     "every worker, timer band and receiving queue has a thread"},
    {"clock-rights", check_clock_rights,
     "only a process with CAP_SYS_TIME sets clocks"},

    {"queue-messages", check_messages,
     "a message queue asks for 64 messages"},
    {"queue-message-size", check_message_size,
     "a message queue asks for messages of 1024 bytes"},
    {"queue-count", check_queue_count,
     "every receiving process makes a queue"},
    {"queue-bytes", check_queue_bytes,
     "a queue of 64 messages counts 71680 bytes of its user's limit"},
    {"queue-folder", check_queue_folder,
     "left queues are found and removed in /dev/mqueue"},

    {"queue-leftovers", check_queues,
     "the next receiver finds the messages of a dead one"},
    {"semaphore-leftovers", check_semaphores,
     "a shared lock that died taken is never free again"},
    {"segment-leftovers", check_segments,
     "a new file guard may get the key of a left segment and be refused"},
    {"segment-count", check_segment_count,
     "a file guard needs two segments of shared memory"},

    {"probes", check_probes,
     "pz-trace records by probes of the kernel"},
    {"process-reading", check_process_reading,
     "pz-top reads the memory of other processes"},
};
// clang-format on

}  // namespace

std::vector<Check> all_checks() {
    return {std::begin(kChecks), std::end(kChecks)};
}
