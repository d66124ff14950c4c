#ifndef TOOLS_DOCTOR_CHECKS_H
#define TOOLS_DOCTOR_CHECKS_H

#include <vector>

#include "Check.h"

/// Every check of the program, in the order of its table.
std::vector<Check> all_checks();

// Folders and their modes.
Finding check_temp(const Machine& machine);
Finding check_system_data(const Machine& machine);
Finding check_syslog(const Machine& machine);
Finding check_log_space(const Machine& machine);
Finding check_tmp(const Machine& machine);
Finding check_shm(const Machine& machine);
Finding check_proc(const Machine& machine);

// Clock, zone of the processes, log.
Finding check_zone_file(const Machine& machine);
Finding check_local_zone(const Machine& machine);
Finding check_tz_variable(const Machine& machine);
Finding check_date(const Machine& machine);
Finding check_rtc(const Machine& machine);
Finding check_log(const Machine& machine);

// Zone files of the clock's tables.
Finding check_areas(const Machine& machine);
Finding check_offsets(const Machine& machine);

// Code pages.
Finding check_code_pages(const Machine& machine);
Finding check_icu(const Machine& machine);

// Priorities, descriptors, threads.
Finding check_nice_limit(const Machine& machine);
Finding check_own_nice(const Machine& machine);
Finding check_descriptors(const Machine& machine);
Finding check_threads(const Machine& machine);
Finding check_clock_rights(const Machine& machine);

// What the kernel allows to message queues.
Finding check_messages(const Machine& machine);
Finding check_message_size(const Machine& machine);
Finding check_queue_count(const Machine& machine);
Finding check_queue_bytes(const Machine& machine);
Finding check_queue_folder(const Machine& machine);

// What dead processes left to others.
Finding check_queues(const Machine& machine);
Finding check_semaphores(const Machine& machine);
Finding check_segments(const Machine& machine);
Finding check_segment_count(const Machine& machine);

// Who may look inside of running processes.
Finding check_probes(const Machine& machine);
Finding check_process_reading(const Machine& machine);

#endif  // TOOLS_DOCTOR_CHECKS_H
