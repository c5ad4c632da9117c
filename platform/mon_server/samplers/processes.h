// The processes, or all their threads: /proc/PID/stat and io.
#ifndef SAMPLERS_PROCESSES_H
#define SAMPLERS_PROCESSES_H

#include <cstdint>
#include <string_view>
#include <vector>

#include "mon_records.h"
#include "samplers/file_reader.h"

namespace samplers {

// Sort keys of the process list; any other number sorts as the first.
constexpr int sort_by_cpu = 1;
constexpr int sort_by_bpu = 2;
constexpr int sort_by_io = 3;
constexpr int sort_by_net = 4;
constexpr int sort_by_ram = 5;

struct process_entry {
  int32_t pid = 0;     // in thread view the thread id
  int32_t ppid = 0;    // in thread view the process id
  char comm[16] = {};  // raw bytes, at most 15
  char state = '?';
  int16_t priority = 0;      // saturated
  int16_t processor = 0;     // saturated
  int32_t num_threads = 0;   // of the process
  uint64_t start_ticks = 0;  // since boot; tells a process from the pid's next owner
  uint64_t cpu_ticks = 0;    // user and system time
  // Read from and written to storage, unknown_u64 if refused. The kernel adds those of a child to
  // its parent when the parent has waited for it; a thread's are its own.
  uint64_t io_bytes = unknown_u64;
  int64_t rss_kb = 0;
};

struct process_sample {
  int64_t time_us = 0;                 // monotonic
  uint64_t uptime_ticks = 0;           // time since boot, in the ticks of the entries
  int64_t ticks_per_second = 100;      // USER_HZ
  bool threads = false;                // threads, not processes
  std::vector<process_entry> entries;  // by (pid, start_ticks), ascending
};

// A line of /proc/PID/stat, all of it but io_bytes. -EBADMSG when it is cut short.
int parse_process_stat(std::string_view text, int64_t page_kb, process_entry& entry);

// Bytes read from and written to storage, of the text of /proc/PID/io.
uint64_t parse_io(std::string_view text);

// Seconds since boot, of the text of /proc/uptime, in ticks.
uint64_t parse_uptime(std::string_view text, int64_t ticks_per_second);

// A process that ends while it is read is left out.
int read_process_sample(const file_reader& machine, bool threads, process_sample& sample);

// Fills `out` with the first max_pid_msgs by sort key, highest first, unknown last. Rates are over
// the time since `before`; without it, or when it is of the other view, over each process's life.
void top_processes(const process_sample* before, const process_sample& now, int sort_key,
                   top_pid_info& out);

}  // namespace samplers

#endif
