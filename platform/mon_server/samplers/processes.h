// SPDX-License-Identifier: Apache-2.0
// The processes, or all their threads: what a sample holds of each, and the list made of two.
#ifndef SAMPLERS_PROCESSES_H
#define SAMPLERS_PROCESSES_H

#include <cstdint>
#include <vector>

#include "mon_records.h"

namespace samplers {

// Counters start at 0 with the process, net_bytes and bpu_ns with the first sample that saw it. One
// that cannot be read is unknown_u64.
struct process_entry {
  int32_t pid = 0;     // in thread view the thread id
  int32_t ppid = 0;    // in thread view the process id
  char comm[16] = {};  // raw bytes, at most 15
  char state = '?';
  bool descriptors_seen = false;  // this server may see the process's open descriptors
  int16_t priority = 0;           // saturated
  int16_t processor = 0;          // saturated
  uint16_t read_ms = 0;           // after the sample's time, saturated
  int32_t num_threads = 0;        // of the process
  uint32_t net_namespace = 0;     // inode number of its network namespace, 0 if unknown
  uint64_t start_ticks = 0;       // since boot; tells a process from the pid's next owner
  uint64_t cpu_ns = 0;            // user and system time
  uint64_t activity = 0;          // changes whenever it has run; 0 if unknown
  // Read from and written to storage. Those of a child are added to its parent's when the parent
  // has waited for it, see inherited_io; a thread's are its own.
  uint64_t io_bytes = unknown_u64;
  uint64_t net_bytes = unknown_u64;  // received and sent over TCP, by the whole process
  uint64_t bpu_ns = unknown_u64;     // time on accelerators, by the whole process
  int64_t rss_kb = 0;
};

struct process_sample {
  int64_t time_us = 0;                 // monotonic
  int64_t net_time_us = 0;             // monotonic, of net_bytes
  uint64_t uptime_ticks = 0;           // time since boot, in the ticks of start_ticks
  int64_t ticks_per_second = 100;      // USER_HZ
  bool threads = false;                // threads, not processes
  std::vector<process_entry> entries;  // by (pid, start_ticks), ascending

  int32_t process_of(const process_entry& entry) const { return threads ? entry.ppid : entry.pid; }
};

// What tells a process from every other one, and that it may have changed its command line.
struct process_identity {
  int32_t pid;
  char comm[16];
  uint64_t start_ticks;
  uint64_t activity;  // changes when it has run, as far as the sample tells
};
using process_identities = std::vector<process_identity>;

// The entry of a process or thread id, null if the sample has none.
const process_entry* find_process(const process_sample& sample, int32_t pid);

// Makes process lists of samples. Keeps the memory that it works in.
class process_ranking {
 public:
  // Fills `out` with the first max_pid_msgs by sort key, highest first, unknown last. Rates are
  // over the time since `before`; without it, or when it is of the other view, over each process's
  // life.
  void top(const process_sample* before, const process_sample& now, int sort_key,
           top_pid_info& out);

  // The processes of the list that was made last, of `now`: those listed, or those that the listed
  // threads belong to. By process id, each once. A process is known by its first thread, which
  // outlives the others; one whose first thread is not in the sample is left out.
  process_identities processes_of_list(const process_sample& now) const;

 private:
  struct rated_process {
    const process_entry* entry;
    double cpu;  // percent of one CPU
    double io;   // KiB/s
    double net;  // KiB/s
    double bpu;  // percent of one core
    double key;  // the figure that is sorted by
  };
  struct interval;

  static interval lifetime(const process_entry& entry, const process_sample& now);
  static rated_process rate_over(const interval& over, const process_entry& entry, int sort_key);
  static bool comes_first(const rated_process& a, const rated_process& b);
  static pid_msg record(const rated_process& one);
  void rate_all(const process_sample* before, const process_sample& now, int sort_key);
  void keep_first();

  std::vector<rated_process> rated;
};

}  // namespace samplers

#endif
