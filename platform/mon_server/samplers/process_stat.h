// SPDX-License-Identifier: Apache-2.0
// The texts of /proc/PID/stat, io and schedstat.
#ifndef SAMPLERS_PROCESS_STAT_H
#define SAMPLERS_PROCESS_STAT_H

#include <cstdint>
#include <string_view>

#include "samplers/file_reader.h"
#include "samplers/processes.h"

namespace samplers {

// What the numbers of /proc/PID/stat are counted in.
struct stat_units {
  stat_units();  // this machine's

  uint64_t page_kb;
  uint64_t tick_ns;  // of USER_HZ
};

// A line of /proc/PID/stat: all that it says of a process. -EBADMSG when it is cut short.
int parse_process_stat(std::string_view text, const stat_units& units, process_entry& entry);

// Bytes read from and written to storage, of the text of /proc/PID/io; unknown_u64 if it lacks one.
uint64_t parse_io(std::string_view text);

// Time on a CPU and how often the thread got one, of the text of /proc/PID/schedstat. False when
// they are not in it.
bool parse_schedstat(std::string_view text, uint64_t& run_ns, uint64_t& times_run);

// Time since boot in ticks, of the text of /proc/uptime; 0 when it makes no sense.
uint64_t parse_uptime(std::string_view text, int64_t ticks_per_second);
uint64_t read_uptime(const file_reader& machine, int64_t ticks_per_second);

}  // namespace samplers

#endif
